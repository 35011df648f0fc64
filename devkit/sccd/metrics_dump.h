// What the daemon counts and how much it holds, as JSON for the control socket.
#pragma once

#include "sccd/daemon_core.h"
#include "sccd/json_fields.h"

namespace scc::sccd {

[[nodiscard]] json dump_metrics(daemon_core& daemon);

}  // namespace scc::sccd
