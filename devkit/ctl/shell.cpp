// The long-running commands: the shell and the watch.
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <iostream>

#include "notifications.h"
#include "program.h"

namespace scc::ctl {
namespace {

// How often a watch checks for an interrupt.
constexpr std::chrono::milliseconds interrupt_interval{200};

volatile std::sig_atomic_t interrupted = 0;

void on_interrupt(int) {
    interrupted = 1;
}

void print_notification(const json& notification, const output_options& output) {
    print(output.as_json ? notification : json(notification_line(notification)), output);
}

json status_notification(std::uint32_t status) {
    return {{"notification", "server-status"}, {"status", status}};
}

// Prints one event. Returns whether it counts as a notification.
bool print_event(const event& arrived, const output_options& output) {
    if (arrived.what == event::kind::status) {
        print_notification(status_notification(arrived.number), output);
    }
    if (arrived.what == event::kind::notification) {
        print_notification(arrived.notification, output);
    }
    return arrived.what == event::kind::notification;
}

}  // namespace

int run_watch(context& within, double seconds, std::uint64_t count) {
    within.registration.notifications = true;
    return with_session(within, "watch", [&](session&) {
        std::signal(SIGINT, &on_interrupt);
        std::signal(SIGTERM, &on_interrupt);
        print_notification(status_notification(1), within.output);
        const auto limit =
            std::chrono::duration_cast<steady::duration>(std::chrono::duration<double>(seconds));
        const auto until = steady::now() + limit;
        std::uint64_t seen = 0;
        while (interrupted == 0 && (count == 0 || seen < count)) {
            const auto now = steady::now();
            if (seconds > 0 && now >= until) {
                return count == 0 ? exit_success : exit_unreachable;
            }
            const auto slice = now + interrupt_interval;
            const auto arrived = inbox::shared().take(seconds > 0 ? std::min(slice, until) : slice);
            if (arrived && print_event(*arrived, within.output)) {
                ++seen;
            }
        }
        return exit_success;
    });
}

std::vector<std::string> shell_words(std::string_view line) {
    std::vector<std::string> words;
    std::string word;
    bool in_word = false;
    char quote = 0;
    for (const char c : line) {
        if (quote != 0) {
            if (c == quote) {
                quote = 0;
            } else {
                word += c;
            }
        } else if (c == '"' || c == '\'') {
            quote = c;
            in_word = true;
        } else if (c == ' ' || c == '\t' || c == '\r') {
            if (in_word) {
                words.push_back(std::move(word));
            }
            word.clear();
            in_word = false;
        } else if (c == '#' && !in_word) {
            return words;
        } else {
            word += c;
            in_word = true;
        }
    }
    if (quote != 0) {
        throw usage_error(fmt::format("the quote {} is not closed", quote));
    }
    if (in_word) {
        words.push_back(std::move(word));
    }
    return words;
}

namespace {

// One line of the shell.
int run_line(const std::vector<std::string>& words, session& registered, const context& within) {
    context each = within;  // a line's options do not affect the next line
    each.shared = &registered;
    each.app_given = false;
    return run_command_line(words, each);
}

// Splits a line into words. On failure prints the problem, sets the status and returns nothing.
std::vector<std::string> words_of_line(const std::string& line, const context& within, int& worst) {
    try {
        return shell_words(line);
    } catch (const usage_error& problem) {
        print_problem("usage", problem.what(), within.output);
        worst = std::max(worst, exit_usage);
        return {};
    }
}

}  // namespace

int run_shell(context& within) {
    return with_session(within, "shell", [&](session& registered) {
        const bool prompts = isatty(STDIN_FILENO) == 1 && isatty(STDERR_FILENO) == 1;
        int worst = exit_success;
        std::string line;
        while (true) {
            if (prompts) {
                fmt::print(stderr, "sccctl> ");
            }
            if (!std::getline(std::cin, line)) {
                break;
            }
            const auto words = words_of_line(line, within, worst);
            if (words.empty()) {
                continue;
            }
            if (words[0] == "exit" || words[0] == "quit") {
                break;
            }
            worst = std::max(worst, run_line(words, registered, within));
        }
        return worst;
    });
}

}  // namespace scc::ctl
