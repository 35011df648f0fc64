#include "sccd/control.h"

#include <algorithm>
#include <utility>

#include "sccd/control_commands.h"

namespace scc::sccd {
namespace {

using devkit::View;

constexpr std::size_t line_max_bytes = 4u * 1024 * 1024;
constexpr int depth_max = 16;

// Null for a line that is no JSON, or that is nested so deeply that copying it, which takes stack for each
// level, could end the daemon. No command nests more than three levels.
Json parse_line(const std::string& line) {
    bool too_deep = false;
    Json parsed = Json::parse(
        line,
        [&too_deep](int depth, Json::parse_event_t, const Json&) {
            too_deep = too_deep || depth > depth_max;
            return !too_deep;
        },
        false);
    return too_deep ? Json() : parsed;
}

}  // namespace

ControlServer::ControlServer(Daemon& daemon, const std::string& path)
    : daemon_(daemon), listener_(daemon.loop, path, [this](int descriptor) { accept(descriptor); }) {}

void ControlServer::accept(int descriptor) {
    const u64 id = ++last_session_;
    auto session = std::make_unique<Session>();
    Session* const place = session.get();
    place->id = id;
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
    const Json request = parse_line(line);
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
