#include "sccd/control.h"

#include <fmt/format.h>
#include <sys/socket.h>
#include <unistd.h>

#include <utility>

#include "common/control.h"
#include "sccd/control_commands.h"
#include "sccd/json_file.h"

namespace scc::sccd {
namespace {

using devkit::byte_view;

constexpr std::size_t line_max_bytes = 4u * 1024 * 1024;
constexpr mode_t owner_only = 0600;
constexpr std::size_t capture_queue_max_bytes = 32u * 1024 * 1024;

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
                                     [this, id](socket_stream&) { end(id); }});
    sessions_.emplace(id, std::move(session));
}

void control_server::end(u64 id) {
    const auto session = sessions_.find(id);
    if (session != sessions_.end()) {
        daemon_.capture.detach(session->second->capture);
        sessions_.erase(session);
    }
}

void control_server::take_lines(control_session& session) {
    socket_stream& stream = *session.stream;
    if (session.capture != 0) {
        stream.consume(stream.input_bytes());
    }
    while (stream.open() && !session.waiting && take_next_line(session)) {
    }
    // A peer that sends on while an answer is awaited does not grow the input without bound.
    stream.hold(session.waiting && stream.input_bytes() > line_max_bytes);
}

// Returns whether there was the end of a line.
bool control_server::take_next_line(control_session& session) {
    socket_stream& stream = *session.stream;
    const auto end = stream.find_input(u8{'\n'}, std::exchange(session.searched_bytes, 0));
    const std::size_t len = end.value_or(stream.input_bytes());
    if (len > line_max_bytes && !session.in_long_line) {
        session.in_long_line = true;
        reply(session.id, control_failure(fmt::format("a line of more than {} bytes", line_max_bytes)));
    }
    if (session.in_long_line) {
        session.in_long_line = !end;
        stream.consume(end ? len + 1 : len);
    } else if (end) {
        const std::string line = stream.take_text(len);
        stream.consume(1);
        take_line(session, line);
    } else {
        session.searched_bytes = len;
    }
    return end.has_value();
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
    const bool captures = request.value("do", json()) == json(devkit::control::capture);
    run_control_command(daemon_, request, [this, id = session.id, captures](const json& answer) {
        reply(id, answer);
        const auto found = sessions_.find(id);
        if (captures && answer.at("ok") == true && found != sessions_.end()) {
            begin_capture(*found->second);
        }
    });
    daemon_.touch();
}

// A reader that does not keep up loses packets; the daemon's memory stays bounded.
void control_server::begin_capture(control_session& session) {
    session.waiting = true;
    session.capture = daemon_.capture.attach([stream = session.stream.get()](byte_view block) {
        if (stream->queued_bytes() + block.size() > capture_queue_max_bytes) {
            return false;
        }
        stream->send(block);
        return true;
    });
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
