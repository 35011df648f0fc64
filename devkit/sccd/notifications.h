// What the security service reports, passed on to the applications.
#pragma once

#include "sccd/daemon_core.h"

namespace scc::sccd {

// Results and reports of the service. False when the item is something that any client may send.
[[nodiscard]] bool take_report(daemon_core& daemon, const client_entry& service,
                               const devkit::wire_item& item);

}  // namespace scc::sccd
