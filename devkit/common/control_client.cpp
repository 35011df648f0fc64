#include "common/control_client.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

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

bool receive_line(int socket, std::string& line) {
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
    line.resize(line.find('\n'));
    return true;
}

}  // namespace

json control_call(const json& request) {
    const char* base = std::getenv("TMPDIR");
    if (base == nullptr || *base == '\0') {
        return failure("TMPDIR is not set");
    }
    const std::string path = base + std::string(control::socket_suffix);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        return failure("the socket's path is too long");
    }
    std::memcpy(address.sun_path, path.data(), path.size());

    const owned_descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (socket.number() < 0) {
        return system_failure("socket");
    }
    if (::connect(socket.number(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        return system_failure("no daemon at " + path);
    }
    if (!send_all(socket.number(), request.dump(-1, ' ', false, json::error_handler_t::replace) + "\n")) {
        return system_failure("send");
    }
    std::string line;
    if (!receive_line(socket.number(), line)) {
        return failure("the daemon broke off");
    }
    json reply = json::parse(line, nullptr, false);
    if (!reply.is_object()) {
        return failure("the daemon's reply is not a JSON object");
    }
    return reply;
}

}  // namespace scc::devkit
