#include "sccd/stream.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

namespace scc::sccd {
namespace {

constexpr std::size_t read_bytes = 64 * 1024;
constexpr int reads_per_turn = 4;
constexpr std::size_t kept_input_bytes = 1024 * 1024;
constexpr std::size_t chunks_per_send = 64;
constexpr std::size_t queue_stop_bytes = 64u * 1024 * 1024;
constexpr std::size_t queue_resume_bytes = queue_stop_bytes / 2;

bool try_later(int error) {
    return error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
}

}  // namespace

socket_stream::socket_stream(event_loop& loop, int descriptor, stream_events events)
    : loop_(loop), descriptor_(descriptor), events_(std::move(events)), watched_(EPOLLIN) {
    watch_ = loop_.watch(descriptor_, watched_, [this](std::uint32_t what) { ready(what); });
}

socket_stream::~socket_stream() {
    if (!open()) {
        return;
    }
    loop_.unwatch(watch_, descriptor_);
    ::close(descriptor_);
}

devkit::byte_view socket_stream::input() const {
    return devkit::byte_view(input_).subspan(consumed_);
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
    loop_.unwatch(watch_, descriptor_);
    ::close(std::exchange(descriptor_, -1));
    output_.clear();
    queued_bytes_ = 0;
    loop_.defer([this] {
        // The callback may destroy this stream, and itself with it.
        const auto closed = std::move(events_.closed);
        closed(*this);
    });
}

void socket_stream::ready(std::uint32_t events) {
    if ((events & EPOLLOUT) != 0) {
        write_some();
    }
    if (!open()) {
        return;
    }
    if ((events & EPOLLIN) != 0 && reading_) {
        read_some();
    } else if ((events & (EPOLLHUP | EPOLLERR)) != 0) {
        close();
    }
}

void socket_stream::read_some() {
    for (int count = 0; count < reads_per_turn && open() && reading_; ++count) {
        const std::size_t held = input_.size();
        input_.resize(held + read_bytes);
        const ssize_t received = ::recv(descriptor_, input_.data() + held, read_bytes, 0);
        const int error = errno;
        input_.resize(held + static_cast<std::size_t>(std::max<ssize_t>(received, 0)));
        if (received < 0 && try_later(error)) {
            return;
        }
        if (received <= 0) {
            close();
            return;
        }
        events_.input(*this);
        forget_consumed();
        if (static_cast<std::size_t>(received) < read_bytes) {
            return;
        }
    }
}

void socket_stream::forget_consumed() {
    if (consumed_ == 0) {
        return;
    }
    input_.erase(input_.begin(), input_.begin() + static_cast<std::ptrdiff_t>(consumed_));
    consumed_ = 0;
    // Frees the memory of an exceptionally long message.
    if (input_.empty() && input_.capacity() > kept_input_bytes) {
        input_.shrink_to_fit();
    }
}

void socket_stream::send(devkit::byte_buffer bytes) {
    if (!open() || bytes.empty()) {
        return;
    }
    const bool idle = output_.empty();
    queued_bytes_ += bytes.size();
    output_.push_back(std::move(bytes));
    if (idle) {
        write_some();
    }
    if (open()) {
        watch_what_is_wanted();
    }
}

void socket_stream::write_some() {
    while (!output_.empty()) {
        std::array<iovec, chunks_per_send> chunks{};
        std::size_t count = 0;
        std::size_t skip = front_sent_;
        for (auto chunk = output_.begin(); chunk != output_.end() && count < chunks.size(); ++chunk) {
            chunks[count++] = {chunk->data() + skip, chunk->size() - skip};
            skip = 0;
        }
        msghdr message{};
        message.msg_iov = chunks.data();
        message.msg_iovlen = count;
        const ssize_t sent = ::sendmsg(descriptor_, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent < 0 && try_later(errno)) {
            break;
        }
        if (sent < 0) {
            close();
            return;
        }
        queued_bytes_ -= static_cast<std::size_t>(sent);
        front_sent_ += static_cast<std::size_t>(sent);
        while (!output_.empty() && front_sent_ >= output_.front().size()) {
            front_sent_ -= output_.front().size();
            output_.pop_front();
        }
    }
    watch_what_is_wanted();
}

void socket_stream::watch_what_is_wanted() {
    if (queued_bytes_ > queue_stop_bytes) {
        reading_ = false;
    }
    if (queued_bytes_ <= queue_resume_bytes) {
        reading_ = true;
    }
    const std::uint32_t wanted = (reading_ ? EPOLLIN : 0u) | (output_.empty() ? 0u : EPOLLOUT);
    if (wanted == watched_) {
        return;
    }
    watched_ = wanted;
    loop_.change(watch_, descriptor_, wanted);
}

}  // namespace scc::sccd
