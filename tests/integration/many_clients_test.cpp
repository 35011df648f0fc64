// 64 processes at once, and processes whose daemon dies in the middle of a burst: all recover. The daemon
// here registers every client, so that several processes can have the same app id.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstring>
#include <filesystem>
#include <map>
#include <thread>
#include <vector>

#include "scclib.h"
#include "support/temp_dir.h"

namespace {

constexpr int patience_s = 300;

// Registers every client, answers unregistrations and counts everything else; on its own thread.
class open_house {
  public:
    explicit open_house(const std::string& directory) : path_(directory + "/.sccd_sd_") {
        std::filesystem::create_directories(directory);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path_.copy(address.sun_path, sizeof address.sun_path - 1);
        listener_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        EXPECT_EQ(bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        EXPECT_EQ(listen(listener_, 256), 0);
        serving_ = std::thread([this] { serve(); });
    }
    // All clients lose it at once.
    ~open_house() {
        leaving_ = true;
        serving_.join();
        for (const auto& [fd, bytes] : clients_) {
            close(fd);
        }
        close(listener_);
        unlink(path_.c_str());
    }
    open_house(const open_house&) = delete;
    open_house& operator=(const open_house&) = delete;

    [[nodiscard]] int registrations() const { return registrations_; }
    [[nodiscard]] long requests() const { return requests_; }

  private:
    static std::uint32_t word(const std::vector<std::uint8_t>& bytes, std::size_t at) {
        std::uint32_t value = 0;
        std::memcpy(&value, bytes.data() + at, sizeof value);
        return value;
    }

    static void answer(int fd, std::uint16_t type) {
        std::array<std::uint8_t, 28> reply{};
        reply[0] = 28;
        reply[4] = 1;
        reply[5] = 1;
        reply[8] = 12;
        std::memcpy(reply.data() + 14, &type, sizeof type);
        (void)!send(fd, reply.data(), reply.size(), MSG_NOSIGNAL);
    }

    void take_messages(int fd, std::vector<std::uint8_t>& bytes) {
        while (bytes.size() >= 16 && bytes.size() >= word(bytes, 0)) {
            std::uint16_t type = 0;
            std::memcpy(&type, bytes.data() + 14, sizeof type);
            if (type == 301 || type == 302) {
                registrations_ += type == 301;
                answer(fd, type);
            } else {
                std::uint16_t items = 0;
                std::memcpy(&items, bytes.data() + 5, sizeof items);
                requests_ += items;
            }
            bytes.erase(bytes.begin(), bytes.begin() + word(bytes, 0));
        }
    }

    bool read_client(int fd) {
        std::array<std::uint8_t, 65536> buffer;
        const ssize_t got = recv(fd, buffer.data(), buffer.size(), MSG_DONTWAIT);
        if (got <= 0) {
            return false;
        }
        auto& bytes = clients_[fd];
        bytes.insert(bytes.end(), buffer.begin(), buffer.begin() + got);
        take_messages(fd, bytes);
        return true;
    }

    void serve() {
        while (!leaving_) {
            std::vector<pollfd> watched{{listener_, POLLIN, 0}};
            for (const auto& [fd, bytes] : clients_) {
                watched.push_back({fd, POLLIN, 0});
            }
            poll(watched.data(), watched.size(), 50);
            for (const pollfd& one : watched) {
                if (one.revents == 0) {
                    continue;
                }
                if (one.fd == listener_) {
                    const int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
                    if (fd >= 0) {
                        clients_[fd];
                    }
                } else if (!read_client(one.fd)) {
                    clients_.erase(one.fd);
                    close(one.fd);
                }
            }
        }
    }

    std::string path_;
    int listener_ = -1;
    std::map<int, std::vector<std::uint8_t>> clients_;
    std::atomic<bool> leaving_{false};
    std::atomic<int> registrations_{0};
    std::atomic<long> requests_{0};
    std::thread serving_;
};

std::atomic<int> g_gained{0};
std::atomic<int> g_lost{0};

void on_status(std::uint32_t status) {
    (status == 1 ? g_gained : g_lost).fetch_add(1);
}

// A client's life: registered, lost once, registered again, unregistered. The exit status says how far.
[[noreturn]] void live(std::uint32_t app_id, bool sending) {
    alarm(patience_s);
    static scc_reg_info info{};
    info.app_id = app_id;
    info.handlers.server_status = on_status;
    if (scc_svr_reg(&info) != 0) {
        _exit(1);
    }
    scc_config_record record{};
    while (g_gained < 2) {
        if (sending && g_gained > 0) {
            (void)scc_d1x_port_open(&record, nullptr);
        } else {
            usleep(5000);
        }
    }
    if (g_lost != 1) {
        _exit(2);
    }
    _exit(scc_svr_unreg() == 0 ? 0 : 3);
}

std::vector<pid_t> start_clients(int count, bool sending) {
    std::vector<pid_t> clients;
    for (int i = 0; i < count; ++i) {
        const pid_t child = fork();
        if (child == 0) {
            live(static_cast<std::uint32_t>(i % 19 + 1), sending);
        }
        clients.push_back(child);
    }
    return clients;
}

template <class Condition>
bool wait_until(Condition condition) {
    for (int i = 0; i < patience_s * 100; ++i) {
        if (condition()) {
            return true;
        }
        usleep(10000);
    }
    return false;
}

void expect_clean_ends(const std::vector<pid_t>& clients) {
    for (const pid_t client : clients) {
        int status = 0;
        EXPECT_EQ(waitpid(client, &status, 0), client);
        EXPECT_TRUE(WIFEXITED(status)) << "ended by signal " << WTERMSIG(status);
        EXPECT_EQ(WEXITSTATUS(status), 0);
    }
}

TEST(ManyClients, SixtyFourAtOnceAllComeBackAfterARestart) {
    const test::temp_dir directory;
    const auto clients = start_clients(64, false);
    {
        const open_house first(directory.runtime());
        EXPECT_TRUE(wait_until([&] { return first.registrations() == 128; }));
    }
    const open_house second(directory.runtime());
    expect_clean_ends(clients);
    EXPECT_EQ(second.registrations(), 128);
}

// With the default dispositions of all signals.
TEST(ManyClients, HostsSurviveADaemonThatDiesInTheMiddleOfTheirBursts) {
    const test::temp_dir directory;
    const auto clients = start_clients(4, true);
    {
        const open_house first(directory.runtime());
        // All clients must be registered when it dies: a client counts its registrations.
        EXPECT_TRUE(wait_until([&] { return first.registrations() == 8 && first.requests() > 2000; }));
    }
    const open_house second(directory.runtime());
    expect_clean_ends(clients);
}

}  // namespace
