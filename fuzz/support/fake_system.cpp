#include "support/fake_system.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "support/fail.h"

namespace scc::fuzz {
namespace {

constexpr int first_fake = 1 << 20;
constexpr int fakes_max = 512;

struct epoll_entry {
    u64 data = 0;
    u32 events = 0;
};

thread_local bool t_in_use = false;
system_hooks g_hooks;
std::array<fake_socket, fakes_max> g_sockets;
std::array<epoll_entry, fakes_max> g_epoll;
int g_opened = 0;  // numbers are not reused within an input, so a second close is noticed
std::size_t g_longest = 0;

int fail(int error) {
    errno = error;
    return -1;
}

std::size_t shortened(std::size_t length) {
    return g_longest == 0 ? length : std::min(length, g_longest);
}

bool is_runtime_path(const char* path) {
    return path != nullptr && std::strstr(path, "/security/scc") != nullptr;
}

}  // namespace

system_in_use::system_in_use(const system_hooks& hooks) {
    g_hooks = hooks;
    g_longest = 0;
    t_in_use = true;
}

system_in_use::~system_in_use() {
    t_in_use = false;
    for (int i = 0; i < g_opened; ++i) {
        fake_socket& each = g_sockets[static_cast<std::size_t>(i)];
        FUZZ_EXPECT(!each.open);
        each.incoming.clear();
        each = {std::move(each.incoming)};
        g_epoll[static_cast<std::size_t>(i)] = {};
    }
    g_opened = 0;
    g_hooks = {};
}

int open_fake_socket() {
    if (g_opened == fakes_max) {
        return fail(EMFILE);
    }
    g_sockets[static_cast<std::size_t>(g_opened)].open = true;
    return first_fake + g_opened++;
}

bool is_fake(int fd) {
    return fd >= first_fake && fd < first_fake + g_opened;
}

fake_socket& socket_of(int fd) {
    FUZZ_EXPECT(is_fake(fd));
    return g_sockets[static_cast<std::size_t>(fd - first_fake)];
}

void deliver(int fd, std::span<const u8> bytes) {
    fake_socket& to = socket_of(fd);
    if (to.read == to.incoming.size()) {
        to.incoming.clear();
        to.read = 0;
    }
    to.incoming.insert(to.incoming.end(), bytes.begin(), bytes.end());
}

void hang_up(int fd) {
    socket_of(fd).hung_up = true;
}

u64 epoll_data_of(int fd) {
    return g_epoll[static_cast<std::size_t>(fd - first_fake)].data;
}

u32 epoll_events_of(int fd) {
    return g_epoll[static_cast<std::size_t>(fd - first_fake)].events;
}

void limit_transfers(std::size_t bytes) {
    g_longest = bytes;
}

namespace {

ssize_t fake_receive(int fd, void* to, std::size_t length, bool may_ask) {
    fake_socket& from = socket_of(fd);
    FUZZ_EXPECT(from.open);
    if (from.shut) {
        return 0;
    }
    if (from.read == from.incoming.size()) {
        if (from.hung_up) {
            return 0;
        }
        const int error =
            may_ask && g_hooks.nothing_to_receive != nullptr ? g_hooks.nothing_to_receive(fd) : EAGAIN;
        if (from.shut || (from.read == from.incoming.size() && (from.hung_up || error == 0))) {
            return 0;
        }
        if (from.read == from.incoming.size()) {
            return fail(error);
        }
    }
    const std::size_t count = shortened(std::min(length, from.incoming.size() - from.read));
    std::memcpy(to, from.incoming.data() + from.read, count);
    from.read += count;
    return static_cast<ssize_t>(count);
}

ssize_t fake_send(int fd, const void* bytes, std::size_t length) {
    const fake_socket& to = socket_of(fd);
    FUZZ_EXPECT(to.open);
    if (to.shut || to.hung_up) {
        return fail(EPIPE);
    }
    if (g_hooks.before_send != nullptr) {
        if (const int error = g_hooks.before_send(fd); error != 0) {
            return fail(error);
        }
    }
    const std::size_t count = shortened(length);
    if (g_hooks.sent != nullptr) {
        g_hooks.sent(fd, {static_cast<const u8*>(bytes), count});
    }
    return static_cast<ssize_t>(count);
}

}  // namespace
}  // namespace scc::fuzz

using namespace scc::fuzz;

// NOLINTBEGIN(bugprone-reserved-identifier)
#define REAL(result, name, ...)        \
    result __real_##name(__VA_ARGS__); \
    result __wrap_##name(__VA_ARGS__); \
    result __wrap_##name(__VA_ARGS__)

extern "C" {

REAL(int, socket, int domain, int type, int protocol) {
    return t_in_use ? open_fake_socket() : __real_socket(domain, type, protocol);
}

REAL(int, bind, int fd, const sockaddr* address, socklen_t length) {
    return is_fake(fd) ? 0 : __real_bind(fd, address, length);
}

REAL(int, listen, int fd, int backlog) {
    if (!is_fake(fd)) {
        return __real_listen(fd, backlog);
    }
    if (g_hooks.listening != nullptr) {
        g_hooks.listening(fd);
    }
    return 0;
}

REAL(int, connect, int fd, const sockaddr* address, socklen_t length) {
    if (!is_fake(fd)) {
        return __real_connect(fd, address, length);
    }
    const int error = g_hooks.connected != nullptr ? g_hooks.connected(fd) : 0;
    return error == 0 ? 0 : fail(error);
}

REAL(int, setsockopt, int fd, int level, int option, const void* value, socklen_t length) {
    return is_fake(fd) ? 0 : __real_setsockopt(fd, level, option, value, length);
}

// The peer of a fake socket is this process.
REAL(int, getsockopt, int fd, int level, int option, void* value, socklen_t* length) {
    if (!is_fake(fd)) {
        return __real_getsockopt(fd, level, option, value, length);
    }
    const ucred peer{1, geteuid(), 0};
    if (level != SOL_SOCKET || option != SO_PEERCRED || *length < sizeof peer) {
        return fail(EINVAL);
    }
    std::memcpy(value, &peer, sizeof peer);
    *length = sizeof peer;
    return 0;
}

REAL(int, accept4, int fd, sockaddr* address, socklen_t* length, int flags) {
    if (!is_fake(fd)) {
        return __real_accept4(fd, address, length, flags);
    }
    const int accepted = g_hooks.accepting != nullptr ? g_hooks.accepting(fd) : -1;
    return accepted >= 0 ? accepted : fail(EAGAIN);
}

REAL(ssize_t, recv, int fd, void* to, size_t length, int flags) {
    return is_fake(fd) ? fake_receive(fd, to, length, true) : __real_recv(fd, to, length, flags);
}

REAL(ssize_t, send, int fd, const void* bytes, size_t length, int flags) {
    return is_fake(fd) ? fake_send(fd, bytes, length) : __real_send(fd, bytes, length, flags);
}

REAL(ssize_t, sendmsg, int fd, const msghdr* message, int flags) {
    if (!is_fake(fd)) {
        return __real_sendmsg(fd, message, flags);
    }
    ssize_t total = 0;
    for (std::size_t i = 0; i < message->msg_iovlen; ++i) {
        const ssize_t sent = fake_send(fd, message->msg_iov[i].iov_base, message->msg_iov[i].iov_len);
        if (sent < 0) {
            return total > 0 ? total : -1;
        }
        total += sent;
        if (static_cast<std::size_t>(sent) < message->msg_iov[i].iov_len) {
            break;
        }
    }
    return total;
}

REAL(int, shutdown, int fd, int how) {
    if (!is_fake(fd)) {
        return __real_shutdown(fd, how);
    }
    FUZZ_EXPECT(socket_of(fd).open);
    socket_of(fd).shut = true;
    return 0;
}

REAL(int, close, int fd) {
    if (!is_fake(fd)) {
        FUZZ_EXPECT(fd < (1 << 20));
        return __real_close(fd);
    }
    FUZZ_EXPECT(socket_of(fd).open);
    socket_of(fd).open = false;
    return 0;
}

REAL(int, poll, pollfd* fds, nfds_t count, int timeout) {
    if (count != 1 || !is_fake(fds[0].fd)) {
        return __real_poll(fds, count, timeout);
    }
    if (timeout != 0 && g_hooks.waiting != nullptr) {
        g_hooks.waiting();
    }
    const fake_socket& watched = socket_of(fds[0].fd);
    FUZZ_EXPECT(watched.open);
    const bool ended = watched.shut || watched.hung_up;
    short revents = 0;
    if (ended || watched.read < watched.incoming.size()) {
        revents = POLLIN;
    }
    if (ended) {
        revents = static_cast<short>(revents | POLLHUP | (fds[0].events & POLLRDHUP));
    }
    fds[0].revents = static_cast<short>(revents & (fds[0].events | POLLHUP | POLLERR | POLLNVAL));
    return fds[0].revents != 0 ? 1 : 0;
}

REAL(int, epoll_create1, int flags) {
    return t_in_use ? open_fake_socket() : __real_epoll_create1(flags);
}

REAL(int, epoll_ctl, int epoll, int operation, int fd, epoll_event* event) {
    if (!is_fake(epoll)) {
        return __real_epoll_ctl(epoll, operation, fd, event);
    }
    epoll_entry& entry = g_epoll[static_cast<std::size_t>(fd - first_fake)];
    FUZZ_EXPECT(socket_of(fd).open);
    if (operation == EPOLL_CTL_DEL) {
        entry = {};
    } else {
        entry.data = event->data.u64;
        entry.events = event->events;
    }
    return 0;
}

REAL(int, epoll_wait, int epoll, epoll_event* events, int most, int timeout) {
    if (!is_fake(epoll)) {
        return __real_epoll_wait(epoll, events, most, timeout);
    }
    return g_hooks.events != nullptr ? g_hooks.events(events, most) : 0;
}

REAL(int, signalfd, int fd, const sigset_t* mask, int flags) {
    return t_in_use ? open_fake_socket() : __real_signalfd(fd, mask, flags);
}

REAL(int, sigprocmask, int how, const sigset_t* set, sigset_t* before) {
    return t_in_use ? 0 : __real_sigprocmask(how, set, before);
}

REAL(int, pthread_sigmask, int how, const sigset_t* set, sigset_t* before) {
    return t_in_use ? 0 : __real_pthread_sigmask(how, set, before);
}

REAL(int, pthread_create, pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
     void* argument) {
    if (!t_in_use) {
        return __real_pthread_create(thread, attributes, body, argument);
    }
    if (g_hooks.thread != nullptr) {
        g_hooks.thread(body, argument);
    }
    return 0;
}

REAL(int, pthread_detach, pthread_t thread) {
    return t_in_use ? 0 : __real_pthread_detach(thread);
}

REAL(int, unlink, const char* path) {
    return t_in_use && is_runtime_path(path) ? 0 : __real_unlink(path);
}

REAL(int, mkdir, const char* path, mode_t mode) {
    return t_in_use ? 0 : __real_mkdir(path, mode);
}

REAL(int, chmod, const char* path, mode_t mode) {
    return t_in_use ? 0 : __real_chmod(path, mode);
}

REAL(mode_t, umask, mode_t mask) {
    return t_in_use ? 0 : __real_umask(mask);
}

REAL(FILE*, fopen, const char* path, const char* mode) {
    if (t_in_use && path != nullptr && (is_runtime_path(path) || std::strncmp(path, "/proc/", 6) == 0)) {
        errno = ENOENT;
        return nullptr;
    }
    return __real_fopen(path, mode);
}

// A header may announce up to 4 GiB; larger blocks than this are refused, as on a small switch.
REAL(void*, malloc, size_t bytes) {
    constexpr size_t largest = 256 * 1024;
    if (t_in_use && bytes > largest) {
        errno = ENOMEM;
        return nullptr;
    }
    return __real_malloc(bytes);
}

REAL(size_t, fwrite, const void* bytes, size_t size, size_t count, FILE* to) {
    return t_in_use && to == stdout ? count : __real_fwrite(bytes, size, count, to);
}

REAL(unsigned, sleep, unsigned seconds) {
    if (!t_in_use) {
        return __real_sleep(seconds);
    }
    if (g_hooks.waiting != nullptr) {
        g_hooks.waiting();
    }
    return 0;
}

REAL(int, nanosleep, const timespec* wanted, timespec* left) {
    return t_in_use ? 0 : __real_nanosleep(wanted, left);
}

// Both have variable arguments; their types are those that the callers pass.
int __real_prctl(int option, ...);
int __wrap_prctl(int option, ...);
int __wrap_prctl(int option, ...) {
    va_list arguments;
    va_start(arguments, option);
    const unsigned long first = va_arg(arguments, unsigned long);
    va_end(arguments);
    return t_in_use ? 0 : __real_prctl(option, first, 0UL, 0UL, 0UL);
}

int __real_open(const char* path, int flags, ...);
int __wrap_open(const char* path, int flags, ...);
int __wrap_open(const char* path, int flags, ...) {
    mode_t mode = 0;
    if ((flags & O_CREAT) != 0) {
        va_list arguments;
        va_start(arguments, flags);
        mode = va_arg(arguments, mode_t);
        va_end(arguments);
    }
    if (t_in_use && std::strcmp(path, "/dev/null") == 0) {
        return open_fake_socket();
    }
    return __real_open(path, flags, mode);
}
}
// NOLINTEND(bugprone-reserved-identifier)
