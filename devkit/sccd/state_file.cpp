#include "sccd/state_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "sccd/json_file.h"
#include "sccd/state_dump.h"

namespace scc::sccd {
namespace {

constexpr std::chrono::milliseconds pause{100};
constexpr int indentation = 1;
constexpr mode_t owner_only = 0600;

// Returns what failed; empty if nothing did.
std::string write_file(const std::string& path, const std::string& text) {
    const int descriptor =
        ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, owner_only);
    if (descriptor < 0) {
        return std::strerror(errno);
    }
    std::size_t written = 0;
    bool ok = true;
    while (ok && written < text.size()) {
        const ssize_t count = ::write(descriptor, text.data() + written, text.size() - written);
        ok = count > 0 || (count < 0 && errno == EINTR);
        written += count > 0 ? static_cast<std::size_t>(count) : 0;
    }
    ok = ok && ::fsync(descriptor) == 0;
    const std::string reason = ok ? std::string() : std::strerror(errno);
    ::close(descriptor);
    return reason;
}

}  // namespace

state_file::state_file(daemon_core& daemon, std::string path) : daemon_(daemon), path_(std::move(path)) {
    if (const std::optional<json> state = read_json_file(path_)) {
        const std::string problem = load_state(daemon_, *state);
        if (!problem.empty()) {
            throw std::runtime_error(path_ + ": " + problem);
        }
    }
    const std::string text =
        dump_state(daemon_).dump(indentation, ' ', false, json::error_handler_t::replace);
    if (const std::string problem = write(text); !problem.empty()) {
        throw std::runtime_error(path_ + ": " + problem);
    }
    written_ = text;
}

std::string state_file::write(const std::string& text) const {
    const std::string fresh = path_ + ".new";
    std::string problem = write_file(fresh, text + "\n");
    if (problem.empty() && ::rename(fresh.c_str(), path_.c_str()) != 0) {
        problem = std::strerror(errno);
    }
    if (!problem.empty()) {
        ::unlink(fresh.c_str());
    }
    return problem;
}

void state_file::touch() {
    if (std::exchange(waiting_, true)) {
        return;
    }
    daemon_.loop.after(pause, [this] {
        waiting_ = false;
        save();
        // What the service refuses is undone without a further request.
        if (daemon_.bridge.outstanding() != 0) {
            touch();
        }
    });
}

void state_file::save() {
    std::string text = dump_state(daemon_).dump(indentation, ' ', false, json::error_handler_t::replace);
    if (text == written_) {
        return;
    }
    const std::string problem = write(text);
    if (problem.empty()) {
        written_ = std::move(text);
    } else if (!std::exchange(failed_, true)) {
        std::fprintf(stderr, "sccd-dev: %s: %s\n", path_.c_str(), problem.c_str());
    }
}

}  // namespace scc::sccd
