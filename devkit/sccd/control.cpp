#include "sccd/control.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "sccd/control_commands.h"
#include "sccd/json_file.h"

namespace scc::sccd {
namespace {

using devkit::byte_view;

constexpr std::size_t line_max_bytes = 4u * 1024 * 1024;
constexpr mode_t owner_only = 0600;

// The runtime directory is open to everybody, so the socket's mode alone does not suffice.
bool may_command(int descriptor) {
    ucred peer{};
    socklen_t length = sizeof peer;
    return ::getsockopt(descriptor, SOL_SOCKET, SO_PEERCRED, &peer, &length) == 0 &&
           (peer.uid == 0 || peer.uid == ::geteuid());
}

}  // namespace

control_server::control_server(daemon_core& daemon, const std::string& path)
    : daemon_(daemon),
      listener_(daemon.loop, path, owner_only, [this](int descriptor) { accept(descriptor); }) {}

void control_server::accept(int descriptor) {
    const u64 id = ++last_session_;
    auto session = std::make_unique<control_session>();
    control_session* const place = session.get();
    place->id = id;
    place->may_command = may_command(descriptor);
    place->stream = std::make_unique<socket_stream>(
        daemon_.loop, descriptor,
        socket_stream::stream_events{[this, place](socket_stream&) { take_lines(*place); },
                                     [this, id](socket_stream&) { sessions_.erase(id); }});
    sessions_.emplace(id, std::move(session));
}

void control_server::take_lines(control_session& session) {
    while (session.stream->open() && !session.waiting) {
        const byte_view input = session.stream->input();
        const auto end = std::find(input.begin(), input.end(), u8{'\n'});
        if (end == input.end()) {
            if (input.size() > line_max_bytes) {
                session.stream->close();
            }
            return;
        }
        const std::string line(input.begin(), end);
        session.stream->consume(line.size() + 1);
        take_line(session, line);
    }
}

void control_server::take_line(control_session& session, const std::string& line) {
    session.waiting = true;
    if (!session.may_command) {
        return reply(session.id,
                     control_failure("only root and the user who runs the daemon may command it"));
    }
    const json request = parse_json(line, nullptr);
    if (!request.is_object()) {
        return reply(session.id, control_failure("not a JSON object"));
    }
    run_control_command(daemon_, request, [this, id = session.id](const json& answer) { reply(id, answer); });
    daemon_.touch();
}

void control_server::reply(u64 id, const json& answer) {
    const auto session = sessions_.find(id);
    if (session == sessions_.end()) {
        return;
    }
    const std::string text = answer.dump(-1, ' ', false, json::error_handler_t::replace) + "\n";
    session->second->stream->send({reinterpret_cast<const u8*>(text.data()), text.size()});
    session->second->waiting = false;
    // Input that arrived while the answer was awaited is processed at the end of the turn.
    daemon_.loop.defer([this, id] {
        const auto waiting = sessions_.find(id);
        if (waiting != sessions_.end()) {
            take_lines(*waiting->second);
        }
    });
}

}  // namespace scc::sccd
