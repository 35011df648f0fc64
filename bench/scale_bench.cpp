// Losses on a large scale: how soon a client with a million calls pending learns that its daemon has gone,
// and how soon many clients are back after the daemon's restart.
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <semaphore>
#include <string>
#include <vector>

#include "peer.h"
#include "rounds.h"
#include "scclib.h"

namespace {

std::binary_semaphore g_registered{0};
std::binary_semaphore g_lost{0};
std::atomic<double> g_lost_at{0};

void on_status(std::uint32_t status) {
    if (status == 1) {
        g_registered.release();
    } else {
        g_lost_at = bench::now_s();
        g_lost.release();
    }
}

void start_client(std::uint32_t app_id = 5) {
    static scc_reg_info info{};
    info.app_id = app_id;
    info.handlers.server_status = on_status;
    if (scc_svr_reg(&info) != 0) {
        _exit(1);
    }
    g_registered.acquire();
}

// Milliseconds from the daemon's end to status 0.
bench::figure until_lost(std::uint32_t pending) {
    const bench::runtime_directory directory;
    auto serving = std::make_unique<bench::peer>(bench::peer_options{bench::answers::hold});
    start_client();
    for (std::uint32_t i = 0; i < pending; ++i) {
        scc_addr_learning(1, 1, nullptr);
    }
    constexpr useconds_t until_all_are_sent_us = 500000;
    usleep(until_all_are_sent_us);
    const double began = bench::now_s();
    serving.reset();
    g_lost.acquire();
    return (g_lost_at - began) * 1e3;
}

// A client that reports each registration.
[[noreturn]] void report_registrations(std::uint32_t app_id, int fd) {
    for (start_client(app_id);; g_registered.acquire()) {
        if (write(fd, "", 1) != 1) {
            _exit(1);
        }
    }
}

void await_reports(int fd, int count) {
    char byte = 0;
    for (int i = 0; i < count; ++i) {
        if (read(fd, &byte, 1) != 1) {
            _exit(1);
        }
    }
}

// Milliseconds from the moment that the new daemon is ready.
bench::figure until_all_are_back(int clients) {
    const bench::runtime_directory directory;
    auto serving = std::make_unique<bench::development_daemon>();
    int ends[2];
    if (pipe(ends) != 0) {
        _exit(1);
    }
    std::vector<pid_t> children;
    for (int i = 0; i < clients; ++i) {
        const pid_t child = fork();
        if (child == 0) {
            constexpr std::uint32_t service = 16;
            const auto app_id = static_cast<std::uint32_t>(i + 1);
            report_registrations(app_id + (app_id >= service ? 1 : 0), ends[1]);
        }
        children.push_back(child);
    }
    await_reports(ends[0], clients);
    serving.reset();
    serving = std::make_unique<bench::development_daemon>();
    const double began = bench::now_s();
    await_reports(ends[0], clients);
    const double seconds = bench::now_s() - began;
    for (const pid_t child : children) {
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
    }
    return seconds * 1e3;
}

}  // namespace

// scale_bench [rounds]
int main(int argc, char** argv) {
    const int rounds = argc > 1 ? std::atoi(argv[1]) : 5;
    constexpr int clients = 18;
    const auto lost = bench::medians(
        {{"10", [] { return until_lost(10); }}, {"1000000", [] { return until_lost(1000000); }}}, rounds);
    bench::print_ratio("status 0 after the daemon's end, 10 pending", lost[0], lost[0], "ms", "");
    bench::print_ratio("status 0 after the daemon's end, 1,000,000 pending", lost[1], lost[0], "ms",
                       "at most 100 ms");
    const auto back = bench::medians({{"back", [=] { return until_all_are_back(clients); }}}, rounds);
    bench::print_ratio("all back after the daemon's restart, " + std::to_string(clients) + " clients",
                       back[0], back[0], "ms", "at most 3,000 ms");
    return 0;
}
