// The control socket: one JSON request per line, one JSON reply per line, in the order of the
// requests. The commands are described in common/control.h. Only root and the daemon's own user are
// obeyed; the requests of others are refused.
#pragma once

#include <memory>
#include <string>
#include <unordered_map>

#include "sccd/daemon.h"
#include "sccd/json_fields.h"

namespace scc::sccd {

class ControlServer {
  public:
    ControlServer(Daemon& daemon, const std::string& path);

  private:
    struct Session {
        u64 id = 0;
        std::unique_ptr<Stream> stream;
        bool may_command = false;
        bool waiting = false;  // for an answer from elsewhere; later lines wait too
    };

    void accept(int descriptor);
    void take_lines(Session& session);
    void take_line(Session& session, const std::string& line);
    void reply(u64 session, const Json& answer);

    Daemon& daemon_;
    std::unordered_map<u64, std::unique_ptr<Session>> sessions_;
    u64 last_session_ = 0;
    Listener listener_;
};

}  // namespace scc::sccd
