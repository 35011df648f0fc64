// What the security service reports, passed on to the applications.
#pragma once

#include "sccd/daemon.h"

namespace scc::sccd {

// Results and reports of the service. False when the item is something that any client may send.
[[nodiscard]] bool take_report(Daemon& daemon, const Client& service, const devkit::Item& item);

}  // namespace scc::sccd
