// The commands of the control socket.
#pragma once

#include <functional>
#include <nlohmann/json.hpp>

#include "sccd/daemon.h"

namespace scc::sccd {

using ControlReply = std::function<void(const nlohmann::json&)>;

[[nodiscard]] nlohmann::json control_failure(const std::string& error);

// Calls `reply` exactly once, at once or when an application has answered.
void run_control_command(Daemon& daemon, const nlohmann::json& request, const ControlReply& reply);

}  // namespace scc::sccd
