// Passes the security service's reports on to the applications.
#pragma once

#include "sccd/daemon_core.h"

namespace scc::sccd {

// Takes a result or report of the service. Returns false for an item that any client may send.
[[nodiscard]] bool take_report(daemon_core& daemon, const client_entry& service,
                               const devkit::wire_item& item);

}  // namespace scc::sccd
