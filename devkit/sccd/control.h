// The control socket: one JSON request per line, one JSON reply per line, in the order of the
// requests. common/control.h describes the commands. Only root and the daemon's own user are obeyed; the
// requests of others are refused.
#pragma once

#include <memory>
#include <string>
#include <unordered_map>

#include "sccd/daemon_core.h"
#include "sccd/json_fields.h"
#include "sccd/listener.h"
#include "sccd/stream.h"

namespace scc::sccd {

class control_server {
  public:
    control_server(daemon_core& daemon, const std::string& path);

  private:
    struct control_session {
        u64 id = 0;
        std::unique_ptr<socket_stream> stream;
        bool may_command = false;
        bool waiting = false;            // for an answer; later lines wait until then
        std::size_t searched_bytes = 0;  // of the input, without a line's end
        bool in_long_line = false;       // refused already; the rest of it is dropped
        wire_capture::sink_id capture = 0;
    };

    void accept(int descriptor);
    void take_lines(control_session& session);
    bool take_next_line(control_session& session);
    void take_line(control_session& session, const std::string& line);
    void reply(u64 session, const json& answer);
    void begin_capture(control_session& session);
    void end(u64 session);

    daemon_core& daemon_;
    std::unordered_map<u64, std::unique_ptr<control_session>> sessions_;
    u64 last_session_ = 0;
    socket_listener listener_;
};

}  // namespace scc::sccd
