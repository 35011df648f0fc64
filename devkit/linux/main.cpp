// scc-ss-linux: a security service that programs the kernel's packet filter. The library's threads take the
// daemon's operations, the back end's thread carries them out; this thread waits for signals and reports.
#include <fmt/format.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>

#include "common/standard_output.h"
#include "linux/kernel_back_end.h"
#include "linux/options.h"
#include "linux/reports.h"
#include "service/console.h"
#include "service/security_service.h"

namespace scc::kernel {
namespace {

constexpr int poll_ms = 200;  // interfaces that come and go, and reports that fall due
constexpr std::chrono::seconds mend_interval{5};

const service::console screen("scc-ss-linux");

class program {
  public:
    program(options given, std::unique_ptr<packet_filter> filter)
        : options_(std::move(given)),
          filter_(std::move(filter)),
          back_end_(table_, options_.map, *filter_, [](const std::string& line) { screen.say(line); }),
          service_(back_end_, table_, {std::chrono::milliseconds(0), {}, {}, true},
                   {options_.verbose ? [](const std::string& line) { screen.say(line); }
                                     : std::function<void(const std::string&)>(),
                    [](u32 status) { screen.say(status == 1 ? "registered" : "lost"); },
                    {}}),
          reports_(table_, back_end_, options_.map, options_.report_seconds, [this](const std::string& line) {
              if (options_.verbose) {
                  screen.say(line);
              }
          }) {}

    int run() {
        signals_ = service::open_signals({SIGTERM, SIGINT, SIGUSR2});
        if (signals_ < 0) {
            return screen.fail("signals", static_cast<u32>(errno));
        }
        u32 result = back_end_.start();
        if (result != 0) {
            return screen.fail("packet filter", result);
        }
        result = service_.serve([this] { return wait(); });
        back_end_.stop();
        return result == 0 ? screen.end() : screen.fail("registration", result);
    }

  private:
    // Returns false to end the program. The rules stay.
    bool wait() {
        std::array<pollfd, 2> sources{{{signals_, POLLIN, 0}, {reports_.descriptor(), POLLIN, 0}}};
        if (poll(sources.data(), sources.size(), poll_ms) < 0) {
            return errno == EINTR;
        }
        reports_.pass();
        if (std::chrono::steady_clock::now() >= next_mend_) {
            next_mend_ = std::chrono::steady_clock::now() + mend_interval;
            back_end_.mend();
        }
        if ((sources[0].revents & POLLIN) == 0) {
            return true;
        }
        const bool shows_tables = service::next_signal(signals_) == SIGUSR2;
        if (shows_tables) {
            show_tables();
        }
        return shows_tables;
    }

    void show_tables() {
        std::map<std::string, counted> counters;
        const u32 error = back_end_.refresh_counters(counters);
        if (error != 0) {
            screen.say(fmt::format("counters: {}", scc_strerror(static_cast<i32>(error))));
        }
        const std::string text = table_.locked([](const contents& held) { return held.text(); });
        devkit::print_output(text);
        screen.say(fmt::format("{} transactions", back_end_.transactions()));
        screen.say("end of tables");
    }

    const options options_;
    service::forwarding_table table_;
    const std::unique_ptr<packet_filter> filter_;
    kernel_back_end back_end_;
    service::security_service service_;
    reports reports_;
    int signals_ = -1;
    std::chrono::steady_clock::time_point next_mend_;
};

// Without its tables the kernel forwards everything.
int flush(packet_filter& filter) {
    constexpr int attempts = 5;  // while others change the kernel's rules, too
    u32 error = ERESTART;
    for (int attempt = 0; error == ERESTART && attempt < attempts; ++attempt) {
        held_tables held;
        error = filter.read_tables(held);
        batch changes;
        for (const family in : held.tables) {
            changes.delete_table(in);
        }
        std::vector<u64> handles;
        std::string complaint;
        if (error == 0 && !changes.is_empty()) {
            error = filter.run(changes, handles, complaint);
        }
    }
    return error == 0 ? EXIT_SUCCESS : screen.fail("flush", error);
}

int start(options given) {
    std::string problem;
    std::unique_ptr<packet_filter> filter = open_packet_filter(problem);
    if (!filter) {
        fmt::print(stderr, "scc-ss-linux: the kernel's packet filter: {}\n", problem);
        return EXIT_FAILURE;
    }
    if (given.flush) {
        return flush(*filter);
    }
    const std::string missing = missing_interface(given.map);
    if (!missing.empty()) {
        fmt::print(stderr, "scc-ss-linux: the kernel has no interface {}\n", missing);
        return EXIT_FAILURE;
    }
    if (!service::has_runtime_directory()) {
        fmt::print(stderr, "scc-ss-linux: TMPDIR is not set: it names the daemon's directory\n");
        return EXIT_FAILURE;
    }
    // The library's threads call into it until the process exits, so it is never destroyed.
    static program* const running = new program(std::move(given), std::move(filter));
    return running->run();
}

}  // namespace
}  // namespace scc::kernel

int main(int argc, char** argv) {
    int exit_code = EXIT_SUCCESS;
    std::optional<scc::kernel::options> options = scc::kernel::parse_options(argc, argv, &exit_code);
    if (!options) {
        return exit_code == EXIT_SUCCESS ? scc::kernel::screen.end() : exit_code;
    }
    return scc::kernel::start(std::move(*options));
}
