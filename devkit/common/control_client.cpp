#include "common/control_client.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>

#include "common/control.h"

namespace scc::devkit {
namespace {

using json = nlohmann::ordered_json;

class owned_descriptor {
  public:
    explicit owned_descriptor(int number) : number_(number) {}
    ~owned_descriptor() {
        if (number_ >= 0) {
            ::close(number_);
        }
    }
    owned_descriptor(const owned_descriptor&) = delete;
    owned_descriptor& operator=(const owned_descriptor&) = delete;
    [[nodiscard]] int number() const { return number_; }

  private:
    int number_;
};

json failure(const std::string& error) {
    return {{"ok", false}, {"error", error}, {"unreachable", true}};
}

json system_failure(const std::string& action) {
    return failure(action + ": " + std::strerror(errno));
}

bool send_all(int socket, std::string_view text) {
    while (!text.empty()) {
        const ssize_t sent = ::send(socket, text.data(), text.size(), MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR) {
            continue;
        }
        if (sent < 0) {
            return false;
        }
        text.remove_prefix(static_cast<std::size_t>(sent));
    }
    return true;
}

// Leaves what followed the line in `rest`.
bool receive_line(int socket, std::string& line, std::string& rest) {
    char buffer[4096];
    while (line.find('\n') == std::string::npos) {
        const ssize_t received = ::recv(socket, buffer, sizeof buffer, 0);
        if (received < 0 && errno == EINTR) {
            continue;
        }
        if (received <= 0) {
            return false;
        }
        line.append(buffer, static_cast<std::size_t>(received));
    }
    rest = line.substr(line.find('\n') + 1);
    line.resize(line.find('\n'));
    return true;
}

const char* runtime_base() {
    const char* const base = std::getenv("TMPDIR");
    return base == nullptr || *base == '\0' ? nullptr : base;
}

bool address_of(const std::string& path, sockaddr_un& address) {
    address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        return false;
    }
    std::memcpy(address.sun_path, path.data(), path.size());
    return true;
}

constexpr const char* how_to_start = "; start one with sccd-dev";
constexpr const char* no_base = "TMPDIR is not set: it names the daemon's directory";

json exchange(int socket, const json& request, std::string& rest) {
    if (!send_all(socket, request.dump(-1, ' ', false, json::error_handler_t::replace) + "\n")) {
        return system_failure("send");
    }
    std::string line;
    if (!receive_line(socket, line, rest)) {
        return failure("the daemon broke off");
    }
    json reply = json::parse(line, nullptr, false);
    if (!reply.is_object()) {
        return failure("the daemon's reply is not a JSON object");
    }
    return reply;
}

// The problem as a reply; null if the connection was made.
json connect_control(int socket) {
    const char* const base = runtime_base();
    if (base == nullptr) {
        return failure(no_base);
    }
    const std::string path = base + std::string(control::socket_suffix);
    sockaddr_un address{};
    if (!address_of(path, address)) {
        return failure("the socket's path is too long: " + path);
    }
    if (::connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
        return {};
    }
    const bool absent = errno == ENOENT || errno == ECONNREFUSED;
    return failure("no daemon at " + path + ": " + std::strerror(errno) + (absent ? how_to_start : ""));
}

}  // namespace

json control_call(const json& request) {
    const owned_descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (socket.number() < 0) {
        return system_failure("socket");
    }
    if (json problem = connect_control(socket.number()); !problem.is_null()) {
        return problem;
    }
    std::string rest;
    return exchange(socket.number(), request, rest);
}

control_stream::~control_stream() {
    if (socket_ >= 0) {
        ::close(socket_);
    }
}

json control_stream::open(const json& request) {
    socket_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (socket_ < 0) {
        return system_failure("socket");
    }
    if (json problem = connect_control(socket_); !problem.is_null()) {
        return problem;
    }
    return exchange(socket_, request, left_);
}

std::optional<byte_buffer> control_stream::read(int timeout_ms) {
    if (!left_.empty()) {
        const std::string first = std::exchange(left_, {});
        return byte_buffer(first.begin(), first.end());
    }
    pollfd waiting{socket_, POLLIN, 0};
    if (::poll(&waiting, 1, timeout_ms) <= 0) {
        return byte_buffer();
    }
    byte_buffer bytes(64 * 1024);
    const ssize_t received = ::recv(socket_, bytes.data(), bytes.size(), 0);
    if (received < 0 && errno == EINTR) {
        return byte_buffer();
    }
    if (received <= 0) {
        return std::nullopt;
    }
    bytes.resize(static_cast<std::size_t>(received));
    return bytes;
}

// A datagram socket cannot connect to the daemon's stream socket; how it fails tells whether somebody
// listens.
std::string absent_daemon() {
    const char* const base = runtime_base();
    if (base == nullptr) {
        return no_base;
    }
    const std::string path = base + std::string(control::clients_socket_suffix);
    sockaddr_un address{};
    if (!address_of(path, address)) {
        return "the socket's path is too long: " + path;
    }
    const owned_descriptor probe(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (::connect(probe.number(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ||
        (errno != ENOENT && errno != ECONNREFUSED)) {
        return {};
    }
    return "no daemon at " + path + ": " + std::strerror(errno) + how_to_start;
}

}  // namespace scc::devkit
