// The commands of the control socket.
#pragma once

#include <functional>

#include "sccd/daemon.h"
#include "sccd/json_fields.h"

namespace scc::sccd {

using ControlReply = std::function<void(const Json&)>;

[[nodiscard]] Json control_failure(const std::string& error);

// Calls `reply` exactly once, at once or when an application has answered.
void run_control_command(Daemon& daemon, const Json& request, const ControlReply& reply);

}  // namespace scc::sccd
