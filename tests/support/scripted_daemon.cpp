#include "support/scripted_daemon.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>

namespace test {
namespace {

constexpr int patience_ms = 60000;

bool wait_readable(int fd, int milliseconds) {
    pollfd watched{fd, POLLIN, 0};
    return poll(&watched, 1, milliseconds) == 1;
}

bool read_exactly(int fd, std::uint8_t* at, std::size_t count) {
    while (count > 0) {
        if (!wait_readable(fd, patience_ms)) {
            ADD_FAILURE() << "nothing arrived";
            return false;
        }
        const ssize_t got = ::read(fd, at, count);
        if (got <= 0) {
            return false;
        }
        at += got;
        count -= static_cast<std::size_t>(got);
    }
    return true;
}

std::vector<received_item> split(const bytes& raw) {
    std::vector<received_item> items;
    std::size_t at = 8;
    for (auto left = number_at<std::uint16_t>(raw, 5); left > 0 && at + 8 <= raw.size(); --left) {
        const std::size_t length = u32_at(raw, at);
        if (at + 8 + length > raw.size()) {
            ADD_FAILURE() << "an item leads past its message";
            break;
        }
        items.push_back({number_at<std::uint16_t>(raw, at + 4), number_at<std::uint16_t>(raw, at + 6),
                         slice(raw, at + 8, length)});
        at += 8 + length;
    }
    EXPECT_EQ(at, raw.size()) << "the items do not fill the message";
    return items;
}

}  // namespace

scripted_daemon::scripted_daemon() {
    listen();
}

scripted_daemon::~scripted_daemon() {
    close_both();
    stop_listening();
}

void scripted_daemon::listen() {
    std::filesystem::create_directories(directory_.runtime());
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = directory_.runtime() + "/.sccd_sd_";
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    unlink(path.c_str());
    listener_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(::listen(listener_, 64), 0);
}

void scripted_daemon::stop_listening() {
    if (listener_ >= 0) {
        close(listener_);
        listener_ = -1;
        unlink((directory_.runtime() + "/.sccd_sd_").c_str());
    }
}

int scripted_daemon::accept_one() {
    if (!wait_readable(listener_, patience_ms)) {
        ADD_FAILURE() << "nobody connected";
        return -1;
    }
    return accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
}

void scripted_daemon::accept_both() {
    close_both();
    sync_ = accept_one();
    async_ = accept_one();
}

std::pair<bytes, bytes> scripted_daemon::accept_registration() {
    accept_both();
    bytes first = answer_registration(side::sync);
    bytes second = answer_registration(side::async);
    return {first, second};
}

bytes scripted_daemon::answer_registration(side where, std::uint32_t result, std::uint32_t holder) {
    const received_item request = read_item(where);
    EXPECT_EQ(request.type, 301);
    send_item(where, 301, wire().u32(0).u32(result).u32(holder));
    return request.value;
}

bytes scripted_daemon::answer_unregistration(std::uint32_t result) {
    const received_item request = read_item(side::sync);
    EXPECT_EQ(request.type, 302);
    send_item(side::sync, 302, wire().u32(0).u32(result));
    return request.value;
}

received_message scripted_daemon::read(side where) {
    received_message message;
    message.raw.resize(8);
    if (!read_exactly(fd(where), message.raw.data(), 8)) {
        message.raw.clear();
        return message;
    }
    message.raw.resize(u32_at(message.raw, 0));
    if (message.raw.size() < 8 || !read_exactly(fd(where), message.raw.data() + 8, message.raw.size() - 8)) {
        message.raw.clear();
        return message;
    }
    message.items = split(message.raw);
    return message;
}

std::vector<received_item> scripted_daemon::read_items(side where, std::size_t count) {
    std::vector<received_item> items;
    while (items.size() < count) {
        received_item next = read_item(where);
        if (next.type == 0) {
            break;
        }
        items.push_back(std::move(next));
    }
    return items;
}

received_item scripted_daemon::read_item(side where) {
    auto& waiting = waiting_[where == side::sync ? 0 : 1];
    if (waiting.empty()) {
        waiting = read(where).items;
    }
    if (waiting.empty()) {
        ADD_FAILURE() << "the connection ended";
        return {};
    }
    received_item first = std::move(waiting.front());
    waiting.erase(waiting.begin());
    return first;
}

bool scripted_daemon::stays_silent(side where, int milliseconds) {
    return waiting_[where == side::sync ? 0 : 1].empty() && !wait_readable(fd(where), milliseconds);
}

bool scripted_daemon::wait_for_close(side where) {
    std::uint8_t scrap[4096];
    while (wait_readable(fd(where), patience_ms)) {
        if (::read(fd(where), scrap, sizeof scrap) <= 0) {
            return true;
        }
    }
    return false;
}

void scripted_daemon::send(side where, const bytes& raw) {
    std::size_t sent = 0;
    while (sent < raw.size()) {
        const ssize_t count = ::send(fd(where), raw.data() + sent, raw.size() - sent, MSG_NOSIGNAL);
        ASSERT_GT(count, 0);
        sent += static_cast<std::size_t>(count);
    }
}

void scripted_daemon::close_side(side where) {
    int& fd = where == side::sync ? sync_ : async_;
    if (fd >= 0) {
        close(fd);
        fd = -1;
    }
    waiting_[where == side::sync ? 0 : 1].clear();
}

void scripted_daemon::close_both() {
    close_side(side::sync);
    close_side(side::async);
}

}  // namespace test
