// A blocking client of the daemon's control socket, for command-line tools and tests.
#pragma once

#include <nlohmann/json.hpp>

namespace scc::devkit {

// Sends one request to the daemon below $TMPDIR and waits for its reply. If the daemon cannot be
// reached or closes the connection, returns {"ok":false,"error":"...","unreachable":true}.
[[nodiscard]] nlohmann::ordered_json control_call(const nlohmann::ordered_json& request);

}  // namespace scc::devkit
