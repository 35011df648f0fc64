// A real sccd-dev in its own directory, and raw sockets that talk to it. Nothing here uses the daemon's own
// code for bytes or messages. Every wait is for an event and ends after 60 seconds.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include "common/control_client.h"
#include "support/remove_tree.h"

namespace sccd_test {

inline constexpr int wait_ms = 60'000;

using byte_string = std::vector<std::uint8_t>;

// The value of an item under construction.
class wire_value {
  public:
    explicit wire_value(std::size_t len) : bytes_(len, 0) {}

    wire_value& u8(std::size_t offset, std::uint8_t number) { return put(offset, &number, sizeof number); }
    wire_value& u16(std::size_t offset, std::uint16_t number) { return put(offset, &number, sizeof number); }
    wire_value& u32(std::size_t offset, std::uint32_t number) { return put(offset, &number, sizeof number); }
    wire_value& u64(std::size_t offset, std::uint64_t number) { return put(offset, &number, sizeof number); }
    wire_value& raw(std::size_t offset, const byte_string& bytes) {
        return put(offset, bytes.data(), bytes.size());
    }
    // vdev 0, the given type and id, class 1.
    wire_value& key(std::size_t offset, std::uint32_t type, std::uint32_t id) {
        return u32(offset + 4, type).u32(offset + 8, id).u32(offset + 12, 1);
    }
    [[nodiscard]] const byte_string& bytes() const { return bytes_; }

  private:
    wire_value& put(std::size_t offset, const void* source, std::size_t len) {
        EXPECT_LE(offset + len, bytes_.size());
        if (len != 0 && offset + len <= bytes_.size()) {
            std::memcpy(bytes_.data() + offset, source, len);
        }
        return *this;
    }

    byte_string bytes_;
};

struct test_item {
    std::uint16_t type = 0;
    byte_string value;
    std::uint16_t sub_id = 0;
    int message = 0;  // how many messages of this socket came before

    [[nodiscard]] std::uint32_t u32(std::size_t offset) const { return number<std::uint32_t>(offset); }
    [[nodiscard]] std::uint16_t u16(std::size_t offset) const { return number<std::uint16_t>(offset); }
    [[nodiscard]] std::uint64_t u64(std::size_t offset) const { return number<std::uint64_t>(offset); }
    [[nodiscard]] byte_string part(std::size_t offset, std::size_t len) const {
        if (offset + len > value.size()) {
            return {};
        }
        const auto first = value.begin() + static_cast<std::ptrdiff_t>(offset);
        return {first, first + static_cast<std::ptrdiff_t>(len)};
    }

  private:
    template <class Number>
    [[nodiscard]] Number number(std::size_t offset) const {
        Number found = 0;
        EXPECT_LE(offset + sizeof found, value.size());
        if (offset + sizeof found <= value.size()) {
            std::memcpy(&found, value.data() + offset, sizeof found);
        }
        return found;
    }
};

inline test_item item(std::uint16_t type, const wire_value& value, std::uint16_t sub_id = 0) {
    return {type, value.bytes(), sub_id};
}

// One connected Unix socket.
class wire_socket {
  public:
    explicit wire_socket(const std::string& path)
        : socket_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, path.data(), path.size());
        EXPECT_EQ(::connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0) << path;
    }
    ~wire_socket() { close(); }
    wire_socket(const wire_socket&) = delete;
    wire_socket& operator=(const wire_socket&) = delete;

    void close() {
        if (socket_ >= 0) {
            ::close(std::exchange(socket_, -1));
        }
    }

    void send_raw(const byte_string& bytes) {
        std::size_t sent = 0;
        while (sent < bytes.size()) {
            const ssize_t count = ::send(socket_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
            ASSERT_GT(count, 0) << std::strerror(errno);
            sent += static_cast<std::size_t>(count);
        }
    }

    void send(const std::vector<test_item>& items) { send_raw(message(items)); }
    void send(std::uint16_t type, const wire_value& value) { send({item(type, value)}); }

    static byte_string message(const std::vector<test_item>& items) {
        byte_string bytes{0, 0, 0, 0, 1, 0, 0, 0};
        for (const test_item& entry : items) {
            append(bytes, static_cast<std::uint32_t>(entry.value.size()));
            append(bytes, entry.sub_id);
            append(bytes, entry.type);
            bytes.insert(bytes.end(), entry.value.begin(), entry.value.end());
        }
        const auto len = static_cast<std::uint32_t>(bytes.size());
        const auto count = static_cast<std::uint16_t>(items.size());
        std::memcpy(bytes.data(), &len, sizeof len);
        std::memcpy(bytes.data() + 5, &count, sizeof count);
        return bytes;
    }

    // The next item; type 0 when the peer closed or nothing came in time.
    test_item receive() {
        while (items_.empty()) {
            if (!receive_message()) {
                return {};
            }
        }
        test_item next = std::move(items_.front());
        items_.pop_front();
        return next;
    }

    // Whether the daemon ends this connection.
    bool ends() {
        std::uint8_t byte = 0;
        while (readable()) {
            const ssize_t count = ::recv(socket_, &byte, 1, 0);
            if (count <= 0) {
                return true;
            }
        }
        return false;
    }

    // A line of the control socket, without its end; if it is incomplete, the part that arrived.
    std::string receive_text() {
        std::string line;
        for (char byte = 0; readable() && ::recv(socket_, &byte, 1, 0) == 1 && byte != '\n';) {
            line += byte;
        }
        return line;
    }

    [[nodiscard]] int descriptor() const { return socket_; }

  private:
    template <class Number>
    static void append(byte_string& bytes, Number number) {
        const std::size_t offset = bytes.size();
        bytes.resize(offset + sizeof number);
        std::memcpy(bytes.data() + offset, &number, sizeof number);
    }

    [[nodiscard]] bool readable() const {
        pollfd waiting{socket_, POLLIN, 0};
        return ::poll(&waiting, 1, wait_ms) == 1;
    }

    bool receive_exactly(std::uint8_t* place, std::size_t len) {
        while (len != 0) {
            if (!readable()) {
                return false;
            }
            const ssize_t count = ::recv(socket_, place, len, 0);
            if (count <= 0) {
                return false;
            }
            place += count;
            len -= static_cast<std::size_t>(count);
        }
        return true;
    }

    bool receive_message() {
        std::uint8_t header[8];
        if (!receive_exactly(header, sizeof header)) {
            return false;
        }
        std::uint32_t len = 0;
        std::uint16_t count = 0;
        std::memcpy(&len, header, sizeof len);
        std::memcpy(&count, header + 5, sizeof count);
        EXPECT_EQ(header[4], 1);
        EXPECT_EQ(header[7], 0);
        EXPECT_GT(len, 8u);
        byte_string body(len - 8);
        if (!receive_exactly(body.data(), body.size())) {
            return false;
        }
        std::size_t offset = 0;
        for (std::uint16_t index = 0; index < count; ++index) {
            offset = take_item(body, offset);
        }
        EXPECT_EQ(offset, body.size());
        ++messages_;
        return true;
    }

    std::size_t take_item(const byte_string& body, std::size_t offset) {
        std::uint32_t len = 0;
        test_item next;
        std::memcpy(&len, body.data() + offset, sizeof len);
        std::memcpy(&next.sub_id, body.data() + offset + 4, sizeof next.sub_id);
        std::memcpy(&next.type, body.data() + offset + 6, sizeof next.type);
        const auto first = body.begin() + static_cast<std::ptrdiff_t>(offset + 8);
        next.value.assign(first, first + static_cast<std::ptrdiff_t>(len));
        next.message = messages_;
        items_.push_back(std::move(next));
        return offset + 8 + len;
    }

    int socket_;
    int messages_ = 0;
    std::deque<test_item> items_;
};

// The daemon's process with its own directory below /tmp.
class daemon_process {
  public:
    explicit daemon_process(std::vector<std::string> arguments = {}) : arguments_(std::move(arguments)) {
        char name[] = "/tmp/sccd_test.XXXXXX";
        directory_ = ::mkdtemp(name);
        ::setenv("TMPDIR", directory_.c_str(), 1);
        start();
    }
    ~daemon_process() {
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            wait_for_end();
        }
        if (output_ >= 0) {
            ::close(output_);
        }
        test::remove_tree(directory_);
        ::unsetenv("TMPDIR");
    }
    daemon_process(const daemon_process&) = delete;
    daemon_process& operator=(const daemon_process&) = delete;

    void start() {
        launch();
        ASSERT_EQ(read_line(), "sccd-dev: ready");
    }

    // Starts the process without waiting for it to be ready.
    void launch() {
        int ends[2];
        ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
        std::vector<char*> words{const_cast<char*>(SCCD_DEV_PATH)};
        for (std::string& argument : arguments_) {
            words.push_back(argument.data());
        }
        words.push_back(nullptr);
        pid_ = ::fork();
        if (pid_ == 0) {
            ::dup2(ends[1], STDOUT_FILENO);
            if (errors_wanted_) {
                ::dup2(ends[1], STDERR_FILENO);
            }
            ::execv(SCCD_DEV_PATH, words.data());
            ::_exit(127);
        }
        ::close(ends[1]);
        if (output_ >= 0) {
            ::close(output_);
        }
        output_ = ends[0];
        pending_.clear();
    }

    // Starts the process, and returns its status and everything that it printed when it ends.
    std::pair<int, std::string> fail_to_start() {
        errors_wanted_ = true;
        launch();
        errors_wanted_ = false;
        std::string printed;
        for (std::string line = read_line(); !line.empty(); line = read_line()) {
            printed += line + "\n";
        }
        return {WEXITSTATUS(wait_for_end()), printed};
    }
    void set_arguments(std::vector<std::string> arguments) { arguments_ = std::move(arguments); }

    // The next line of the daemon's output; empty when there is none in time.
    std::string read_line() {
        while (pending_.find('\n') == std::string::npos) {
            pollfd waiting{output_, POLLIN, 0};
            char buffer[4096];
            if (::poll(&waiting, 1, wait_ms) != 1) {
                return {};
            }
            const ssize_t count = ::read(output_, buffer, sizeof buffer);
            if (count <= 0) {
                return {};
            }
            pending_.append(buffer, static_cast<std::size_t>(count));
        }
        const std::size_t end = pending_.find('\n');
        std::string line = pending_.substr(0, end);
        pending_.erase(0, end + 1);
        return line;
    }

    // Reads output up to a line with this text in it.
    std::string read_line_with(const std::string& text) {
        for (std::string line = read_line(); !line.empty(); line = read_line()) {
            if (line.find(text) != std::string::npos) {
                return line;
            }
        }
        return {};
    }

    [[nodiscard]] pid_t pid() const { return pid_; }
    void signal(int number) const { ::kill(pid_, number); }
    int wait_for_end() {
        int status = 0;
        ::waitpid(pid_, &status, 0);
        pid_ = -1;
        return status;
    }
    [[nodiscard]] const std::string& directory() const { return directory_; }
    [[nodiscard]] std::string socket_directory() const { return directory_ + "/security/scc"; }
    [[nodiscard]] std::string socket_path() const { return socket_directory() + "/.sccd_sd_"; }

  private:
    std::vector<std::string> arguments_;
    std::string directory_;
    bool errors_wanted_ = false;
    pid_t pid_ = -1;
    int output_ = -1;
    std::string pending_;
};

inline wire_value registration(std::uint32_t app, std::uint32_t pid, bool sync) {
    return wire_value(12).u32(0, app).u32(4, pid).u8(8, 1).u8(9, sync ? 1 : 0);
}

inline test_item register_socket(wire_socket& wire, std::uint32_t app, std::uint32_t pid, bool sync) {
    wire.send(301, registration(app, pid, sync));
    return wire.receive();
}

// A registered client: application or, under app id 16, the service.
class test_client {
  public:
    test_client(const daemon_process& daemon, std::uint32_t app, std::uint32_t pid)
        : sync(daemon.socket_path()), async(daemon.socket_path()) {
        EXPECT_EQ(register_socket(sync, app, pid, true).u32(4), 0u);
        EXPECT_EQ(register_socket(async, app, pid, false).u32(4), 0u);
    }

    // Sends an asynchronous request and returns the result that comes back for its call id.
    std::uint32_t result_of(std::uint16_t type, const wire_value& value) {
        async.send(type, value);
        const test_item answer = async.receive();
        EXPECT_EQ(answer.type, 401);
        EXPECT_EQ(answer.part(0, 4), item(0, value).part(0, 4));
        return answer.u32(4);
    }

    test_item query(std::uint16_t type, const wire_value& value) {
        sync.send(type, value);
        return sync.receive();
    }

    // An exchange whose answer shows that everything sent earlier on either socket has been processed.
    void settle() { EXPECT_EQ(query(303, wire_value(0)).type, 405); }

    wire_socket sync;
    wire_socket async;
};

inline constexpr std::uint32_t service_app = 16;

// Answers the operation `received` with a plain result.
inline void answer_operation(test_client& service, const test_item& received, std::uint32_t result) {
    service.async.send(
        {item(402, wire_value(12).raw(0, received.part(0, 4)).u32(4, result), received.sub_id)});
}

// Sends a request and answers the operation that the service receives for it.
inline test_item pass(test_client& application, test_client& service, std::uint16_t type,
                      const wire_value& value, std::uint32_t result = 0) {
    application.async.send(type, value);
    const test_item operation = service.async.receive();
    answer_operation(service, operation, result);
    const test_item answer = application.async.receive();
    EXPECT_EQ(answer.type, 401);
    EXPECT_EQ(answer.part(0, 4), item(0, value).part(0, 4));
    EXPECT_EQ(answer.u32(4), result);
    return operation;
}

inline wire_value acl_request(std::uint32_t call, std::uint32_t id, std::uint32_t operation) {
    return wire_value(140).u32(0, call).key(4, 3, id).u32(20, 77).u32(24, 3).u32(136, operation);
}

inline wire_value ace_request(std::uint32_t call, std::uint32_t id, std::uint32_t sn, std::uint32_t ace,
                              std::uint32_t operation) {
    return wire_value(944)
        .u32(0, call)
        .key(4, 3, id)
        .u32(24 + 220, sn)
        .u32(24 + 224, ace)
        .u32(936, operation);
}

inline wire_value apply_request(std::uint32_t call, std::uint32_t id, std::uint32_t ifx,
                                std::uint32_t operation) {
    return wire_value(248).u32(0, call).key(8, 3, id).u32(24, ifx).u32(216, 3).u32(240, operation);
}

// op: 1 add, 3 delete. The MAC ends with `number`, the address is 10.0.0.number.
inline wire_value user_request(std::uint32_t call, std::uint8_t number, std::uint32_t ifx,
                               std::uint32_t operation) {
    return wire_value(744)
        .u32(0, call)
        .u32(8, ifx)
        .raw(16, {0x02, 0, 0, 0, 0, number})
        .u32(24, 5)
        .u32(32, operation)
        .raw(44, {10, 0, 0, number});
}

inline nlohmann::json control(const nlohmann::json& request) {
    return scc::devkit::control_call(request);
}

}  // namespace sccd_test
