// scc-ss-dev: a security service on a workstation. The library's threads carry out the daemon's
// operations; this thread waits for signals, prints the tables and runs the capture.
#include <fmt/format.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/standard_output.h"
#include "service/console.h"
#include "service/options.h"
#include "service/report.h"

namespace scc::service {
namespace {

const console screen("scc-ss-dev");

void say(const std::string& line) {
    screen.say(line);
}

class program {
  public:
    explicit program(options given)
        : options_(std::move(given)),
          back_end_(table_),
          service_(back_end_, table_, options_.policy,
                   {options_.verbose ? say : std::function<void(const std::string&)>(),
                    [](u32 status) { say(status == 1 ? "registered" : "lost"); },
                    [this](std::size_t applied) { note_applied(applied); }}) {}

    int run() {
        if (!has_runtime_directory()) {
            fmt::print(stderr, "scc-ss-dev: TMPDIR is not set: it names the daemon's directory\n");
            return EXIT_FAILURE;
        }
        signals_ = open_signals({SIGTERM, SIGINT, SIGUSR1, SIGUSR2});
        wake_ = eventfd(0, EFD_CLOEXEC);
        if (signals_ < 0 || wake_ < 0) {
            return screen.fail("signals", static_cast<u32>(errno));
        }
        const u32 result = service_.serve([this] { return wait(); });
        return result == 0 ? screen.end() : screen.fail("registration", result);
    }

  private:
    // Returns false to end the program.
    bool wait() {
        std::array<pollfd, 2> sources{{{signals_, POLLIN, 0}, {wake_, POLLIN, 0}}};
        if (poll(sources.data(), sources.size(), -1) < 0) {
            return errno == EINTR;
        }
        if ((sources[1].revents & POLLIN) != 0) {
            u64 wakes = 0;
            if (read(wake_, &wakes, sizeof wakes) == sizeof wakes) {
                run_capture_file();
            }
        }
        return (sources[0].revents & POLLIN) == 0 || obey_signal();
    }

    bool obey_signal() {
        const int signal = next_signal(signals_);
        if (signal == SIGUSR1) {
            run_capture_file();
        }
        if (signal == SIGUSR2) {
            print_tables();
        }
        return signal == SIGUSR1 || signal == SIGUSR2;
    }

    void print_tables() {
        const std::string text = table_.locked([](const auto& held) { return held.text(); });
        devkit::print_output(text);
        say("end of tables");
    }

    void run_capture_file() {
        if (options_.capture_path.empty()) {
            return say("no capture");
        }
        const capture_report report = run_capture(options_.capture_path, options_.ingress, table_);
        if (!report.error.empty()) {
            say(report.error);
        }
        for (const std::string& line : report.logged) {
            say("log: " + line);
        }
        if (report.unlogged != 0) {
            say(fmt::format("log: {} more", report.unlogged));
        }
        say("capture: " + summary_of(report));
        const report_outcome outcome = send_report(report);
        say(fmt::format("reported: {} sent, {} failed{}", outcome.sent, outcome.failed,
                        outcome.failed == 0
                            ? ""
                            : fmt::format(" ({})", scc_strerror(static_cast<i32>(outcome.last_error)))));
    }

    // Runs on a library thread with its lock held, so the capture is left to the main thread.
    void note_applied(std::size_t applied) {
        if (options_.run_after == 0 || applied < options_.run_after || capture_was_run_.exchange(true)) {
            return;
        }
        const u64 one = 1;
        if (write(wake_, &one, sizeof one) != sizeof one) {
            say(std::strerror(errno));
        }
    }

    const options options_;
    forwarding_table table_;
    memory_back_end back_end_;
    security_service service_;
    std::atomic<bool> capture_was_run_ = false;
    int signals_ = -1;
    int wake_ = -1;
};

}  // namespace
}  // namespace scc::service

int main(int argc, char** argv) {
    int exit_code = EXIT_SUCCESS;
    std::optional<scc::service::options> options = scc::service::parse_options(argc, argv, &exit_code);
    if (!options) {
        return exit_code == EXIT_SUCCESS ? scc::service::screen.end() : exit_code;
    }
    // The library's threads call into it until the process exits, so it is never destroyed.
    static scc::service::program* const program = new scc::service::program(std::move(*options));
    return program->run();
}
