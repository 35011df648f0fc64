#include "sccd/control.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "sccd/control_commands.h"

namespace scc::sccd {
namespace {

using devkit::View;

constexpr std::size_t line_max_bytes = 4u * 1024 * 1024;
constexpr mode_t owner_only = 0600;

// The runtime directory is everybody's, so the socket's mode is not relied on alone.
bool may_command(int descriptor) {
    ucred peer{};
    socklen_t length = sizeof peer;
    return ::getsockopt(descriptor, SOL_SOCKET, SO_PEERCRED, &peer, &length) == 0 &&
           (peer.uid == 0 || peer.uid == ::geteuid());
}

}  // namespace

ControlServer::ControlServer(Daemon& daemon, const std::string& path)
    : daemon_(daemon),
      listener_(daemon.loop, path, owner_only, [this](int descriptor) { accept(descriptor); }) {}

void ControlServer::accept(int descriptor) {
    const u64 id = ++last_session_;
    auto session = std::make_unique<Session>();
    Session* const place = session.get();
    place->id = id;
    place->may_command = may_command(descriptor);
    place->stream = std::make_unique<Stream>(daemon_.loop, descriptor,
                                             Stream::Events{[this, place](Stream&) { take_lines(*place); },
                                                            [this, id](Stream&) { sessions_.erase(id); }});
    sessions_.emplace(id, std::move(session));
}

void ControlServer::take_lines(Session& session) {
    while (session.stream->open() && !session.waiting) {
        const View input = session.stream->input();
        const auto end = std::find(input.begin(), input.end(), u8{'\n'});
        if (end == input.end()) {
            if (input.size() > line_max_bytes) session.stream->close();
            return;
        }
        const std::string line(input.begin(), end);
        session.stream->consume(line.size() + 1);
        take_line(session, line);
    }
}

void ControlServer::take_line(Session& session, const std::string& line) {
    session.waiting = true;
    if (!session.may_command) {
        return reply(session.id,
                     control_failure("only root and the user who runs the daemon may command it"));
    }
    const Json request = Json::parse(line, nullptr, false);
    if (!request.is_object()) return reply(session.id, control_failure("not a JSON object"));
    run_control_command(daemon_, request, [this, id = session.id](const Json& answer) { reply(id, answer); });
}

void ControlServer::reply(u64 id, const Json& answer) {
    const auto session = sessions_.find(id);
    if (session == sessions_.end()) return;
    std::string text = answer.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
    session->second->stream->send({text.begin(), text.end()});
    session->second->waiting = false;
    // What came in while the answer was awaited is taken at the end of the turn.
    daemon_.loop.defer([this, id] {
        const auto waiting = sessions_.find(id);
        if (waiting != sessions_.end()) take_lines(*waiting->second);
    });
}

}  // namespace scc::sccd
