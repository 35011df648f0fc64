// A blocking caller of the daemon's control socket, for command-line tools and tests.
#pragma once

#include <nlohmann/json.hpp>

namespace scc::devkit {

// Sends one request to the daemon below $TMPDIR and waits for its reply. A daemon that cannot be
// reached, or that breaks off, gives {"ok":false,"error":"...","unreachable":true}.
[[nodiscard]] nlohmann::ordered_json control_call(const nlohmann::ordered_json& request);

}  // namespace scc::devkit
