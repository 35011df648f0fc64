#include "sccd/listener.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace scc::sccd {
namespace {

sockaddr_un address_of(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        throw std::runtime_error(path + ": the path is too long");
    }
    std::memcpy(address.sun_path, path.data(), path.size());
    return address;
}

[[noreturn]] void fail(const std::string& path) {
    throw std::runtime_error(path + ": " + std::strerror(errno));
}

int new_socket(const std::string& path) {
    const int descriptor = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (descriptor < 0) {
        fail(path);
    }
    return descriptor;
}

void remove_stale(const std::string& path, const sockaddr_un& address) {
    const int probe = new_socket(path);
    const int result = ::connect(probe, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    const bool alive = result == 0 || errno == EAGAIN;
    ::close(probe);
    if (alive) {
        throw std::runtime_error(path + ": another daemon is listening here");
    }
    ::unlink(path.c_str());
}

// The process has one thread, so that its umask is its own.
bool bind_with_mode(int descriptor, const sockaddr_un& address, mode_t mode) {
    const mode_t before = ::umask(~mode & 0777);
    const int outcome = ::bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    ::umask(before);
    return outcome == 0;
}

int open_reserve() {
    return ::open("/dev/null", O_RDONLY | O_CLOEXEC);
}

}  // namespace

socket_listener::socket_listener(event_loop& loop, std::string path, mode_t mode,
                                 std::function<void(int)> accepted)
    : path_(std::move(path)), accepted_(std::move(accepted)) {
    const sockaddr_un address = address_of(path_);
    remove_stale(path_, address);
    const int descriptor = new_socket(path_);
    if (!bind_with_mode(descriptor, address, mode) || ::listen(descriptor, SOMAXCONN) != 0) {
        const int error = errno;
        ::close(descriptor);
        errno = error;
        fail(path_);
    }
    reserve_ = open_reserve();
    constexpr int already_listening = 0;
    listener_.reset(::evconnlistener_new(
        loop.base(),
        [](evconnlistener*, evutil_socket_t client, sockaddr*, int, void* listener) {
            static_cast<socket_listener*>(listener)->accepted_(client);
        },
        this, LEV_OPT_CLOSE_ON_FREE | LEV_OPT_CLOSE_ON_EXEC, already_listening, descriptor));
    if (listener_ == nullptr) {
        ::close(descriptor);
        throw std::runtime_error(path_ + ": the socket cannot be watched");
    }
    ::evconnlistener_set_error_cb(listener_.get(), [](evconnlistener*, void* listener) {
        if (errno == EMFILE || errno == ENFILE) {
            static_cast<socket_listener*>(listener)->refuse_one();
        }
    });
}

socket_listener::~socket_listener() {
    listener_.reset();
    if (reserve_ >= 0) {
        ::close(reserve_);
    }
    ::unlink(path_.c_str());
}

// A connection that stays in the queue would keep the loop spinning.
void socket_listener::refuse_one() {
    if (reserve_ >= 0) {
        ::close(reserve_);
    }
    const int client = ::accept4(::evconnlistener_get_fd(listener_.get()), nullptr, nullptr, SOCK_CLOEXEC);
    if (client >= 0) {
        ::close(client);
    }
    reserve_ = open_reserve();
}

}  // namespace scc::sccd
