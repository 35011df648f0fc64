// Passes the security service's reports on to the applications, and tells them of violations of port
// security.
#pragma once

#include "sccd/daemon_core.h"

namespace scc::sccd {

// Takes a result or report of the service. Returns false for an item that any client may send.
[[nodiscard]] bool take_report(daemon_core& daemon, const client_entry& service,
                               const devkit::wire_item& item);

// A station that port security keeps out of an interface.
struct port_violation {
    u32 ifx = 0;
    u16 vid = 0;
    devkit::mac_address mac{};
};
void notify_violation(daemon_core& daemon, const port_violation& violation);

}  // namespace scc::sccd
