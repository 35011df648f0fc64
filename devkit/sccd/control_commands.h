// The commands of the control socket.
#pragma once

#include <functional>

#include "sccd/daemon_core.h"
#include "sccd/json_fields.h"

namespace scc::sccd {

using control_reply = std::function<void(const json&)>;

[[nodiscard]] json control_failure(const std::string& error);

// Calls `reply` exactly once, immediately or when an application has answered.
void run_control_command(daemon_core& daemon, const json& request, const control_reply& reply);

}  // namespace scc::sccd
