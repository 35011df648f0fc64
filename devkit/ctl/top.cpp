// The clients and what they exchange with the daemon, refreshed in place.
#include <fmt/chrono.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <optional>

#include "common/control.h"
#include "common/control_client.h"
#include "common/counted.h"
#include "common/standard_output.h"
#include "interrupt.h"
#include "program.h"

namespace scc::ctl {
namespace {

using seconds = std::chrono::duration<double>;

constexpr unsigned default_rows = 24;

// The alternate screen without a cursor and without echoed keys; the destructor restores the terminal.
class full_screen {
  public:
    explicit full_screen(bool wanted) : active_(wanted && ::tcgetattr(STDIN_FILENO, &before_) == 0) {
        if (!active_) {
            return;
        }
        termios raw = before_;
        raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
        ::tcsetattr(STDIN_FILENO, TCSANOW, &raw);
        put("\x1b[?1049h\x1b[?25l");
    }
    ~full_screen() {
        if (active_) {
            put("\x1b[?25h\x1b[?1049l");
            ::tcsetattr(STDIN_FILENO, TCSANOW, &before_);
        }
    }
    full_screen(const full_screen&) = delete;
    full_screen& operator=(const full_screen&) = delete;

    [[nodiscard]] bool active() const { return active_; }
    // Lines that do not fit are left out.
    void show(const std::vector<std::string>& lines) const {
        if (!active_) {
            for (const std::string& line : lines) {
                print_text(line);
            }
            return;
        }
        winsize size{};
        const bool known = ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row != 0;
        const std::size_t rows = known ? size.ws_row : default_rows;
        std::string frame = "\x1b[H";
        for (std::size_t i = 0; i < std::min(lines.size(), rows); ++i) {
            const std::size_t columns = known ? size.ws_col : lines[i].size();
            frame += (i == 0 ? "" : "\r\n") + lines[i].substr(0, columns) + "\x1b[K";
        }
        put(frame + "\x1b[J");
    }

  private:
    static void put(const std::string& text) {
        std::fwrite(text.data(), 1, text.size(), stdout);
        std::fflush(stdout);
    }

    termios before_{};
    bool active_;
};

struct traffic_sample {
    std::uint64_t received = 0;
    std::uint64_t sent = 0;
    std::uint64_t bytes = 0;
};

using traffic_samples = std::map<std::uint32_t, traffic_sample>;

traffic_samples samples_of(const json& metrics) {
    traffic_samples samples;
    for (const json& client : metrics.at("clients")) {
        samples[client.at("app")] = {client.at("received").at("items"), client.at("sent").at("items"),
                                     client.at("received").at("bytes").get<std::uint64_t>() +
                                         client.at("sent").at("bytes").get<std::uint64_t>()};
    }
    return samples;
}

// Per second; unknown in the first table, and after the daemon was replaced.
std::string rate(std::uint64_t now, std::uint64_t before, seconds elapsed) {
    if (elapsed.count() <= 0 || now < before) {
        return "-";
    }
    return fmt::format("{:.1f}", static_cast<double>(now - before) / elapsed.count());
}

std::string client_line(const json& client, const traffic_samples& now, const traffic_samples& before,
                        seconds elapsed) {
    const std::uint32_t app = client.at("app");
    const traffic_sample& count = now.at(app);
    const auto earlier = before.find(app);
    const traffic_sample was = earlier == before.end() ? traffic_sample() : earlier->second;
    return fmt::format("{:>3}  {:>8}  {:>10}  {:>10}  {:>12}  {:>7}  {:>10}  {:>10}  {:>10}", app,
                       client.at("pid").get<std::uint32_t>(), rate(count.received, was.received, elapsed),
                       rate(count.sent, was.sent, elapsed), rate(count.bytes, was.bytes, elapsed),
                       client.at("unanswered").get<std::uint64_t>(),
                       client.at("queued_bytes").get<std::uint64_t>(), count.received, count.sent);
}

std::vector<std::string> table(const json& metrics, const traffic_samples& before, seconds elapsed) {
    const traffic_samples now = samples_of(metrics);
    const json& held = metrics.at("held");
    std::vector<std::string> lines;
    lines.push_back(fmt::format("sccd-dev {}, up {:%H:%M:%S}, service {}",
                                metrics.at("version").get<std::string>(),
                                std::chrono::seconds(metrics.at("running_for").get<std::int64_t>()),
                                metrics.at("service").get<bool>() ? "registered" : "absent"));
    lines.push_back(fmt::format("{}, {}, {}, {}", devkit::counted(held.at("acls"), "ACL"),
                                devkit::counted(held.at("aces"), "ACE"),
                                devkit::counted(held.at("users"), "user"),
                                devkit::counted(held.at("arp_entries"), "ARP entry", "ARP entries")));
    lines.emplace_back();
    lines.push_back(fmt::format("{:>3}  {:>8}  {:>10}  {:>10}  {:>12}  {:>7}  {:>10}  {:>10}  {:>10}", "APP",
                                "PID", "RECEIVED/S", "SENT/S", "BYTES/S", "PENDING", "QUEUED", "RECEIVED",
                                "SENT"));
    for (const json& client : metrics.at("clients")) {
        if (client.at("registered").get<bool>()) {
            lines.push_back(client_line(client, now, before, elapsed));
        }
    }
    return lines;
}

// Waits for the next table; false if the user wants to end.
bool wait_for_next(double interval_seconds, bool keys) {
    const auto until =
        steady::now() + std::chrono::duration_cast<steady::duration>(seconds(interval_seconds));
    while (!interrupted() && !devkit::output_failed() && steady::now() < until) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(until - steady::now());
        const int slice_ms = static_cast<int>(std::clamp<std::int64_t>(left.count(), 1, 100));
        pollfd input{STDIN_FILENO, POLLIN, 0};
        char key = 0;
        const bool typed = ::poll(&input, keys ? 1 : 0, slice_ms) == 1;
        if (typed && (::read(STDIN_FILENO, &key, 1) != 1 || key == 'q')) {
            return false;
        }
    }
    return !interrupted() && !devkit::output_failed();
}

}  // namespace

int run_top(const context& within, const top_options& options) {
    catch_interrupts();
    std::optional<full_screen> screen;
    traffic_samples before;
    auto taken = steady::now();
    seconds elapsed{0};
    for (std::uint64_t shown = 0; options.count == 0 || shown < options.count; ++shown) {
        if (shown > 0 && !wait_for_next(options.interval_seconds, screen->active())) {
            break;
        }
        int status = exit_success;
        const auto metrics = devkit::control_call({{"do", devkit::control::metrics}});
        if (!metrics.value("ok", false)) {
            screen.reset();
            (void)control_reply("top", {{"do", devkit::control::metrics}}, within, status);
            return status;
        }
        if (!screen) {
            screen.emplace(::isatty(STDIN_FILENO) == 1 && ::isatty(STDOUT_FILENO) == 1 &&
                           !within.output.as_json);
        }
        elapsed = shown == 0 ? seconds(0) : seconds(steady::now() - taken);
        taken = steady::now();
        if (within.output.as_json) {
            print(metrics, within.output);
        } else {
            screen->show(table(metrics, before, elapsed));
        }
        before = samples_of(metrics);
    }
    return exit_success;
}

}  // namespace scc::ctl
