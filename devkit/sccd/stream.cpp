#include "sccd/stream.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <stdexcept>
#include <utility>

namespace scc::sccd {
namespace {

constexpr std::size_t read_bytes = 64 * 1024;
constexpr int reads_per_turn = 4;
constexpr std::size_t chunks_per_send = 64;
constexpr std::size_t queue_stop_bytes = 64u * 1024 * 1024;
constexpr std::size_t queue_resume_bytes = queue_stop_bytes / 2;

bool try_later(int error) {
    return error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
}

}  // namespace

socket_stream::socket_stream(event_loop& loop, int descriptor, stream_events events)
    : loop_(loop),
      descriptor_(descriptor),
      events_(std::move(events)),
      input_(::evbuffer_new()),
      output_(::evbuffer_new()) {
    if (input_ == nullptr || output_ == nullptr) {
        throw std::runtime_error("no memory for a stream");
    }
    readable_ = loop_.make_event(
        descriptor_, EV_READ | EV_PERSIST,
        [](int, short, void* stream) { static_cast<socket_stream*>(stream)->read_some(); }, this);
    writable_ = loop_.make_event(
        descriptor_, EV_WRITE | EV_PERSIST,
        [](int, short, void* stream) { static_cast<socket_stream*>(stream)->write_some(); }, this);
    event_loop::add(readable_);
}

socket_stream::~socket_stream() {
    end_connection();
}

void socket_stream::end_connection() {
    if (!open()) {
        return;
    }
    if (paused_) {
        loop_.cancel(*paused_);
    }
    readable_.reset();
    writable_.reset();
    ::close(std::exchange(descriptor_, -1));
}

devkit::byte_view socket_stream::input() const {
    const std::size_t len = ::evbuffer_get_length(input_.get());
    const u8* const bytes = ::evbuffer_pullup(input_.get(), -1);
    return bytes == nullptr ? devkit::byte_view() : devkit::byte_view(bytes, len);
}

std::optional<std::size_t> socket_stream::find_input(u8 byte, std::size_t from) const {
    evbuffer_ptr begin{};
    if (::evbuffer_ptr_set(input_.get(), &begin, from, EVBUFFER_PTR_SET) != 0) {
        return std::nullopt;
    }
    const char wanted = static_cast<char>(byte);
    const evbuffer_ptr found = ::evbuffer_search(input_.get(), &wanted, 1, &begin);
    return found.pos < 0 ? std::nullopt : std::optional(static_cast<std::size_t>(found.pos));
}

std::string socket_stream::take_text(std::size_t len) {
    std::string text(len, '\0');
    const int taken = ::evbuffer_remove(input_.get(), text.data(), text.size());
    text.resize(static_cast<std::size_t>(std::max(taken, 0)));
    return text;
}

void socket_stream::consume(std::size_t len) {
    ::evbuffer_drain(input_.get(), len);
}

bool socket_stream::peer_gone() const {
    if (!open()) {
        return true;
    }
    pollfd probe{descriptor_, POLLRDHUP, 0};
    return ::poll(&probe, 1, 0) == 1 && (probe.revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0;
}

void socket_stream::close() {
    if (!open()) {
        return;
    }
    end_connection();
    ::evbuffer_drain(output_.get(), queued_bytes());
    loop_.defer([this] {
        // The callback may destroy this stream, and itself with it.
        const auto closed = std::move(events_.closed);
        closed(*this);
    });
}

void socket_stream::pause(std::chrono::milliseconds time) {
    if (!open()) {
        return;
    }
    if (paused_) {
        loop_.cancel(*paused_);
    }
    paused_ = loop_.after(time, [this] {
        paused_.reset();
        watch_what_is_wanted();
    });
    watch_what_is_wanted();
}

void socket_stream::hold(bool held) {
    if (open() && std::exchange(held_, held) != held) {
        watch_what_is_wanted();
    }
}

void socket_stream::read_some() {
    for (int count = 0; count < reads_per_turn && open() && reading_ && !paused_ && !held_; ++count) {
        const ssize_t received = receive();
        if (received < 0 && try_later(errno)) {
            return;
        }
        if (received <= 0) {
            close();
            return;
        }
        events_.input(*this);
        if (static_cast<std::size_t>(received) < read_bytes) {
            return;
        }
    }
}

ssize_t socket_stream::receive() {
    evbuffer_iovec space{};
    if (::evbuffer_reserve_space(input_.get(), read_bytes, &space, 1) != 1) {
        errno = ENOMEM;
        return -1;
    }
    const ssize_t received = ::recv(descriptor_, space.iov_base, read_bytes, 0);
    if (received > 0) {
        space.iov_len = static_cast<std::size_t>(received);
        ::evbuffer_commit_space(input_.get(), &space, 1);
    }
    return received;
}

void socket_stream::send(devkit::byte_view bytes) {
    if (!open() || bytes.empty()) {
        return;
    }
    const bool idle = queued_bytes() == 0;
    if (::evbuffer_add(output_.get(), bytes.data(), bytes.size()) != 0) {
        close();
        return;
    }
    if (idle) {
        write_some();
    } else {
        watch_what_is_wanted();
    }
}

void socket_stream::write_some() {
    while (queued_bytes() != 0) {
        std::array<evbuffer_iovec, chunks_per_send> chunks{};
        const int count = ::evbuffer_peek(output_.get(), -1, nullptr, chunks.data(), chunks.size());
        msghdr message{};
        message.msg_iov = chunks.data();
        message.msg_iovlen = std::min(static_cast<std::size_t>(std::max(count, 0)), chunks.size());
        const ssize_t sent = ::sendmsg(descriptor_, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent < 0 && try_later(errno)) {
            break;
        }
        if (sent < 0) {
            close();
            return;
        }
        ::evbuffer_drain(output_.get(), static_cast<std::size_t>(sent));
    }
    watch_what_is_wanted();
}

void socket_stream::watch_what_is_wanted() {
    const std::size_t queued = queued_bytes();
    reading_ = queued <= queue_resume_bytes || (reading_ && queued <= queue_stop_bytes);
    const auto want = [](const owned_event& what, short kind, bool wanted) {
        const bool watched = ::event_pending(what.get(), kind, nullptr) != 0;
        if (wanted && !watched) {
            event_loop::add(what);
        } else if (!wanted && watched) {
            ::event_del(what.get());
        }
    };
    want(readable_, EV_READ, reading_ && !paused_ && !held_);
    want(writable_, EV_WRITE, queued != 0);
}

}  // namespace scc::sccd
