#include "peer.h"

#include <poll.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <random>
#include <vector>

#include "msg/bytes.h"
#include "sockets.h"

namespace bench {
namespace {

using namespace scc;

// Buffers the input of one socket and returns whole messages.
class reader {
  public:
    explicit reader(int fd) : fd_(fd), buffer_(1U << 20U) {}

    // Reads once; exits when the client has closed the socket.
    void fill() {
        if (begin_ > 0) {
            std::memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
            end_ -= begin_;
            begin_ = 0;
        }
        const ssize_t got = recv(fd_, buffer_.data() + end_, buffer_.size() - end_, 0);
        if (got <= 0) {
            _exit(0);
        }
        end_ += static_cast<std::size_t>(got);
    }

    bool next(std::span<const u8>& message) {
        if (end_ - begin_ < wire::header_bytes) {
            return false;
        }
        const u32 length = load<u32>(buffer_.data(), begin_);
        if (end_ - begin_ < length) {
            return false;
        }
        message = {buffer_.data() + begin_, length};
        begin_ += length;
        return true;
    }

  private:
    int fd_;
    std::vector<u8> buffer_;
    std::size_t begin_ = 0;
    std::size_t end_ = 0;
};

// Pending output: results as items of one message, or as messages of one item.
class results {
  public:
    explicit results(bool together) : together_(together) {}

    void add(u32 call_id) {
        if (!together_ || items_ == 0) {
            begin_message();
        }
        const std::size_t at = out_.size();
        out_.resize(at + 16);
        store<u32>(out_.data(), at, 8);
        store<u16>(out_.data(), at + 4, 0);
        store<u16>(out_.data(), at + 6, msg::call_ret);
        store<u32>(out_.data(), at + 8, call_id);
        store<u32>(out_.data(), at + 12, 0);
        ++items_;
        store<u32>(out_.data(), message_, static_cast<u32>(out_.size() - message_));
        store<u16>(out_.data(), message_ + 5, together_ ? static_cast<u16>(items_) : u16{1});
        if (items_ == 60000) {
            items_ = 0;
        }
    }

    void send_to(int fd) {
        send_all(fd, out_.data(), out_.size());
        out_.clear();
        items_ = 0;
    }

  private:
    void begin_message() {
        message_ = out_.size();
        out_.resize(message_ + wire::header_bytes, 0);
        store<u8>(out_.data(), message_ + 4, wire::version);
    }

    bool together_;
    std::size_t message_ = 0;
    u32 items_ = 0;
    std::vector<u8> out_;
};

void reply(int fd, u16 type, std::size_t value_bytes) {
    std::vector<u8> message(16 + value_bytes, 0);
    store<u32>(message.data(), 0, static_cast<u32>(message.size()));
    store<u8>(message.data(), 4, wire::version);
    store<u16>(message.data(), 5, 1);
    store<u32>(message.data(), 8, static_cast<u32>(value_bytes));
    store<u16>(message.data(), 14, type);
    send_all(fd, message.data(), message.size());
}

void answer_registration(int fd) {
    reader in(fd);
    std::span<const u8> message;
    while (!in.next(message)) {
        in.fill();
    }
    reply(fd, msg::registration, 12);
}

struct server {
    peer_options options;
    int sync;
    int async;
    reader sync_in{sync};
    reader async_in{async};
    std::deque<u32> held;
    u32 owed = 0;  // single results requested before there was one
    std::mt19937 random{1};

    u32 take_next() {
        if (options.held_order == order::random) {
            std::swap(held.front(), held[random() % held.size()]);
        }
        const bool from_the_back = options.held_order == order::descending;
        const u32 call_id = from_the_back ? held.back() : held.front();
        from_the_back ? held.pop_back() : held.pop_front();
        return call_id;
    }

    void release(std::size_t count, bool together) {
        constexpr std::size_t most_a_message = 500;
        results out(together);
        for (std::size_t i = 1; i <= count; ++i) {
            out.add(take_next());
            if (i % most_a_message == 0 || i == count) {
                out.send_to(async);
            }
        }
    }

    void release_owed() {
        const std::size_t now = std::min<std::size_t>(owed, held.size());
        owed -= static_cast<u32>(now);
        release(now, true);
    }

    // What was sent before the notification, on the other socket.
    void hold_what_has_arrived() {
        pollfd watched{async, POLLIN, 0};
        while (poll(&watched, 1, 0) == 1) {
            serve_async();
        }
    }

    void on_water_line(u32 what) {
        if (what == 0) {
            ++owed;
            release_owed();
        } else {
            hold_what_has_arrived();
            release(held.size(), what == 1);
        }
    }

    void serve_sync() {
        sync_in.fill();
        std::span<const u8> message;
        while (sync_in.next(message)) {
            const u16 type = load<u16>(message.data(), 14);
            if (type == msg::mac_query) {
                reply(sync, msg::mac_query_ret, 36);
            } else if (type == msg::unregistration) {
                reply(sync, msg::unregistration, 8);
            } else if (type == msg::water_line) {
                on_water_line(load<u32>(message.data(), 16));
            }
        }
    }

    void serve_async() {
        async_in.fill();
        results out(options.how != answers::one_a_message);
        std::span<const u8> message;
        while (async_in.next(message)) {
            item_reader items(load<u16>(message.data(), 5), message.data() + wire::header_bytes);
            item one;
            while (items.next(one)) {
                const u32 call_id = load<u32>(one.value.data());
                if (options.how == answers::hold) {
                    held.push_back(call_id);
                    continue;
                }
                out.add(call_id);
            }
            if (options.how == answers::batch_together) {
                out.send_to(async);
            }
        }
        out.send_to(async);
        release_owed();
    }

    [[noreturn]] void run() {
        pollfd watched[2] = {{sync, POLLIN, 0}, {async, POLLIN, 0}};
        for (;;) {
            if (poll(watched, 2, -1) < 0) {
                _exit(1);
            }
            if (watched[0].revents != 0) {
                serve_sync();
            }
            if (watched[1].revents != 0) {
                serve_async();
            }
        }
    }
};

}  // namespace

int listen_in_runtime_directory() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string directory = std::string(std::getenv("TMPDIR")) + "/security/scc";
    std::filesystem::create_directories(directory);
    (directory + "/.sccd_sd_").copy(address.sun_path, sizeof address.sun_path - 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || listen(fd, 8) != 0) {
        std::perror("peer");
        std::exit(1);
    }
    return fd;
}

void pin_to(int processor) {
    if (processor < 0) {
        return;
    }
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(static_cast<std::size_t>(processor), &set);
    sched_setaffinity(0, sizeof set, &set);
}

void serve(int listener, const peer_options& options) {
    const int sync = accept(listener, nullptr, nullptr);
    const int async = accept(listener, nullptr, nullptr);
    answer_registration(sync);
    answer_registration(async);
    server{options, sync, async, reader{sync}, reader{async}, {}, 0, std::mt19937{1}}.run();
}

peer::peer(const peer_options& options) {
    const int listener = listen_in_runtime_directory();
    child_ = fork();
    if (child_ != 0) {
        close(listener);
        return;
    }
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    pin_to(options.processor);
    serve(listener, options);
}

peer::~peer() {
    kill(child_, SIGKILL);
    waitpid(child_, nullptr, 0);
}

development_daemon::development_daemon() {
    const std::filesystem::path program =
        std::filesystem::read_symlink("/proc/self/exe").parent_path() / "../devkit/sccd/sccd-dev";
    int ready[2];
    if (pipe(ready) != 0) {
        std::perror("pipe");
        std::exit(1);
    }
    child_ = fork();
    if (child_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        dup2(ready[1], STDOUT_FILENO);
        dup2(ready[1], STDERR_FILENO);
        execl(program.c_str(), "sccd-dev", nullptr);
        _exit(1);
    }
    close(ready[1]);
    char first_line[1];  // the daemon prints its ready line, and nothing else
    if (read(ready[0], first_line, sizeof first_line) != sizeof first_line) {
        std::fprintf(stderr, "sccd-dev does not start\n");
        std::exit(1);
    }
}

development_daemon::~development_daemon() {
    kill(child_, SIGKILL);
    waitpid(child_, nullptr, 0);
}

runtime_directory::runtime_directory() {
    char name[] = "/tmp/sccb-XXXXXX";
    path_ = mkdtemp(name);
    setenv("TMPDIR", path_.c_str(), 1);
    setenv("DATA_QXOS_DIR", path_.c_str(), 1);
}

runtime_directory::~runtime_directory() {
    // A client that has just lost its peer may bind a new socket there meanwhile, and then pauses.
    constexpr int attempts = 100;
    for (int i = 0; i < attempts && std::filesystem::exists(path_); ++i) {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
}

}  // namespace bench
