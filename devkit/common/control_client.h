// A blocking client of the daemon's control socket, for command-line tools and tests.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "common/bytes.h"

namespace scc::devkit {

// Sends one request to the daemon below $TMPDIR and waits for its reply. If the daemon cannot be
// reached or closes the connection, returns {"ok":false,"error":"...","unreachable":true}.
[[nodiscard]] nlohmann::ordered_json control_call(const nlohmann::ordered_json& request);

// A request whose reply is followed by a stream of bytes.
class control_stream {
  public:
    control_stream() = default;
    ~control_stream();
    control_stream(const control_stream&) = delete;
    control_stream& operator=(const control_stream&) = delete;

    // As control_call.
    [[nodiscard]] nlohmann::ordered_json open(const nlohmann::ordered_json& request);
    // The bytes that came within the time; none if none did, or a signal did. Empty at the stream's end.
    [[nodiscard]] std::optional<byte_buffer> read(int timeout_ms);

  private:
    int socket_ = -1;
    std::string left_;  // received with the reply
};

// Why no daemon can be reached below $TMPDIR, and what to do; empty if one listens there. The daemon does not
// notice the question.
[[nodiscard]] std::string absent_daemon();

}  // namespace scc::devkit
