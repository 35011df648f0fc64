#include "sweep/peer.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>

namespace sweep {
namespace {

using test::bytes;
using test::item_bytes;
using test::number_at;
using test::u32_at;
using test::wire;

constexpr std::size_t longest_message = 64 * 1024;
constexpr auto down = std::chrono::milliseconds(30);
constexpr auto registration_patience = std::chrono::milliseconds(500);

}  // namespace

std::uint32_t address_of(const std::uint8_t* mac) {
    return 0x0A000000U + mac[5];
}

std::uint32_t count_of(std::uint32_t key) {
    return key * 7 + 1;
}

std::uint64_t counter_of(std::uint32_t acl_id, std::uint64_t ace) {
    return acl_id * 1000003ULL + ace;
}

peer::peer(std::string runtime_directory) : path_(runtime_directory + "/.sccd_sd_") {
    std::filesystem::create_directories(runtime_directory);
    (void)pipe2(wake_, O_CLOEXEC | O_NONBLOCK);
    listen();
    thread_ = std::thread([this] { run(); });
}

peer::~peer() {
    stop();
}

void peer::stop() {
    if (!thread_.joinable()) {
        return;
    }
    {
        const std::lock_guard guard(mutex_);
        stopping_ = true;
    }
    (void)!::write(wake_[1], "s", 1);
    thread_.join();
    close_all();
    close(wake_[0]);
    close(wake_[1]);
}

void peer::send(std::vector<bytes> items) {
    {
        const std::lock_guard guard(mutex_);
        waiting_.push_back(std::move(items));
    }
    (void)!::write(wake_[1], "m", 1);
}

void peer::restart() {
    {
        const std::lock_guard guard(mutex_);
        restarting_ = true;
    }
    (void)!::write(wake_[1], "r", 1);
    std::unique_lock guard(mutex_);
    restarted_.wait(guard, [this] { return !restarting_; });
}

unsigned peer::arrived(std::uint16_t type) {
    const std::lock_guard guard(mutex_);
    return arrived_[type];
}

unsigned peer::service_results(std::uint32_t call_id) {
    const std::lock_guard guard(mutex_);
    return service_results_[call_id];
}

unsigned peer::malformed() {
    const std::lock_guard guard(mutex_);
    return malformed_;
}

void peer::listen() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path_.copy(address.sun_path, sizeof address.sun_path - 1);
    unlink(path_.c_str());
    listener_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listener_, 16) != 0) {
        std::abort();
    }
}

void peer::close_all() {
    for (const connection& one : connections_) {
        close(one.fd);
    }
    connections_.clear();
    if (listener_ >= 0) {
        close(listener_);
        unlink(path_.c_str());
        listener_ = -1;
    }
}

peer::connection* peer::asynchronous() {
    const auto found = std::find_if(connections_.rbegin(), connections_.rend(),
                                    [](const connection& one) { return one.async && one.registered; });
    return found == connections_.rend() ? nullptr : &*found;
}

void peer::obey() {
    char scrap[64];
    while (::read(wake_[0], scrap, sizeof scrap) > 0) {
    }
    std::vector<std::vector<bytes>> messages;
    bool restarting = false;
    {
        const std::lock_guard guard(mutex_);
        messages.swap(waiting_);
        restarting = restarting_;
    }
    for (const std::vector<bytes>& items : messages) {
        if (connection* to = asynchronous(); to != nullptr) {
            write(*to, items);
        }
    }
    if (restarting) {
        close_all();
        std::this_thread::sleep_for(down);
        listen();
        const std::lock_guard guard(mutex_);
        restarting_ = false;
        restarted_.notify_all();
    }
}

void peer::run() {
    for (;;) {
        std::vector<pollfd> watched{{wake_[0], POLLIN, 0}, {listener_, POLLIN, 0}};
        for (const connection& one : connections_) {
            watched.push_back({one.fd, POLLIN, 0});
        }
        poll(watched.data(), watched.size(), 50);
        {
            const std::lock_guard guard(mutex_);
            if (stopping_) {
                return;
            }
        }
        for (std::size_t i = connections_.size(); i-- > 0;) {
            const bool silent =
                watched[i + 2].revents == 0 && !connections_[i].registered &&
                std::chrono::steady_clock::now() - connections_[i].accepted > registration_patience;
            if ((watched[i + 2].revents != 0 && !read(connections_[i])) || silent) {
                close(connections_[i].fd);
                connections_.erase(connections_.begin() + static_cast<std::ptrdiff_t>(i));
            }
        }
        if (const int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK); fd >= 0) {
            connections_.push_back({fd, std::chrono::steady_clock::now(), false, false, {}});
        }
        obey();
    }
}

bool peer::read(connection& from) {
    std::uint8_t room[16384];
    for (;;) {
        const ssize_t got = ::read(from.fd, room, sizeof room);
        if (got < 0) {
            return errno == EAGAIN;
        }
        if (got == 0) {
            return false;
        }
        from.unread.insert(from.unread.end(), room, room + got);
        if (!take_messages(from)) {
            const std::lock_guard guard(mutex_);
            ++malformed_;
            return false;
        }
    }
}

// Returns false if the bytes are not a message.
bool peer::take_messages(connection& from) {
    while (from.unread.size() >= 8) {
        const std::size_t length = u32_at(from.unread, 0);
        auto items = number_at<std::uint16_t>(from.unread, 5);
        if (length <= 8 || length > longest_message || from.unread[4] != 1 || items == 0) {
            return false;
        }
        if (from.unread.size() < length) {
            return true;
        }
        const bytes message(from.unread.begin(), from.unread.begin() + static_cast<std::ptrdiff_t>(length));
        from.unread.erase(from.unread.begin(), from.unread.begin() + static_cast<std::ptrdiff_t>(length));
        std::size_t at = 8;
        for (; items > 0 && at + 8 <= length; --items) {
            const std::size_t value = u32_at(message, at);
            if (at + 8 + value > length) {
                return false;
            }
            take_item(from, number_at<std::uint16_t>(message, at + 6), test::slice(message, at + 8, value));
            at += 8 + value;
        }
        if (at != length || items != 0) {
            return false;
        }
    }
    return true;
}

void peer::take_item(connection& from, std::uint16_t type, const bytes& value) {
    {
        const std::lock_guard guard(mutex_);
        ++arrived_[type];
        if (type == 402) {
            ++service_results_[u32_at(value, 0)];
        }
    }
    if (type == 301) {
        from.async = value.size() > 9 && value[9] == 0;
        write(from, {item_bytes(301, wire().u32(0).u32(0).u32(0))});
        from.registered = true;
    } else if (type == 302) {
        write(from, {item_bytes(302, wire().u32(0).u32(0))});
    } else if (type > 302 && type < 318) {
        answer_query(from, type, value);
    } else if (type < 200) {
        write(from, {item_bytes(401, wire().u32(u32_at(value, 0)).u32(0))});
    }
}

void peer::answer_query(connection& from, std::uint16_t type, const bytes& value) {
    struct reply {
        std::uint16_t type;
        bytes value;
    };
    reply out{0, wire().zeros(1000)};
    const auto put = [&out](std::size_t offset, auto number) {
        std::memcpy(out.value.data() + offset, &number, sizeof number);
    };
    switch (type) {
        case 303:
            out.type = 405;
            put(0, std::uint32_t{1});
            break;
        case 304:
            out.type = 411;
            put(8, count_of(u32_at(value, 4)));
            break;
        case 305:
            out.type = 410;
            put(8, std::uint32_t{1});
            put(12, count_of(u32_at(value, 4)));
            break;
        case 307:
            out.type = 401;
            std::copy(value.begin() + 8, value.end(), out.value.begin() + 10);
            break;
        case 311:
        case 312:
        case 313:
            out.type = type == 311 ? 409 : type == 312 ? 408 : 407;
            put(type == 311 ? 16 : 32,
                counter_of(u32_at(value, 12), type == 313 ? number_at<std::uint64_t>(value, 24) : 0));
            break;
        case 314:
            out.type = 136;
            put(0, u32_at(value, 8));
            break;
        case 315:
            out.type = 413;
            put(32, address_of(value.data() + 4));
            break;
        case 316:
            out.type = 414;
            break;
        case 317:
            out.type = 415;
            break;
        default:
            return;
    }
    write(from, {item_bytes(out.type, out.value)});
}

void peer::write(const connection& to, const std::vector<bytes>& items) {
    const bytes message = test::message_bytes(items);
    (void)!::send(to.fd, message.data(), message.size(), MSG_NOSIGNAL);
}

}  // namespace sweep
