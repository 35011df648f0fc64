// The command line: one subcommand per row of the table, and the few that do not call the library.
#pragma once

#include <CLI/CLI.hpp>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "completion.h"
#include "output.h"
#include "runner.h"
#include "session.h"

namespace scc::ctl {

// State shared by the command lines of a shell.
struct context {
    session_options registration;
    output_options output;
    bool app_given = false;     // --app was given on the command line
    session* shared = nullptr;  // the shell's registration; null outside
};

// Runs one command line (without the program's name) and returns its exit status.
[[nodiscard]] int run_command_line(const std::vector<std::string>& words, context& within);

// Uses the shell's session or registers for this one command. On failure prints the problem and sets status.
[[nodiscard]] int with_session(context& within, std::string_view command,
                               const std::function<int(session&)>& action);

// Splits a shell line into words: blanks separate, quotes join, "#" begins a comment. Throws usage_error
// for an unclosed quote.
[[nodiscard]] std::vector<std::string> shell_words(std::string_view line);
// Reads command lines from standard input until it ends. Returns the worst status.
[[nodiscard]] int run_shell(context& within);

struct watch_options {
    double seconds = 0;       // 0: no limit
    std::uint64_t count = 0;  // 0: no limit
    bool times = false;
    std::vector<std::string> only;                           // names; empty: all
    std::vector<std::pair<std::string, std::string>> where;  // fields with their text
};

// Prints notifications as they arrive.
[[nodiscard]] int run_watch(context& within, const watch_options& options);

struct top_options {
    double interval_seconds = 1;
    std::uint64_t count = 0;  // 0: until it is told to end
};

// Shows the clients, refreshed in place on a terminal, one table after another elsewhere.
[[nodiscard]] int run_top(const context& within, const top_options& options);

enum class metrics_format : std::uint8_t { prometheus, open_metrics };

// Prints the counters of the daemon and its clients, or replaces a file by them at once.
[[nodiscard]] int run_metrics(const context& within, const std::string& file, metrics_format format);

// Writes the messages that the daemon exchanges to a pcapng file ("-": standard output). 0 means no limit.
[[nodiscard]] int run_capture(const context& within, const std::string& file, double seconds,
                              std::uint64_t count);

inline constexpr double seconds_max = 86400;
// A number in plain digits: neither "nan" nor "-1" is accepted.
[[nodiscard]] CLI::Validator within_limits(double min, double max);

// Adds "watch", outside a shell, "top", "metrics" and "capture"; the chosen one sets `action`.
void add_tool_commands(CLI::App& app, context& within, choice_map& choices, std::function<int()>& action);
// Adds the commands of the development daemon's control socket; the chosen one sets `action`.
void add_control_commands(CLI::App& app, context& within, choice_map& choices, std::function<int()>& action);
// Sends a request of this command; prints why it failed, or returns the reply.
[[nodiscard]] std::optional<json> control_reply(std::string_view command, const json& request,
                                                const context& within, int& status);

// What fits the last word. With a shell's context, what fits there.
[[nodiscard]] completion complete_words(const std::vector<std::string>& words,
                                        const context* shell = nullptr);
// For the completion scripts.
void print_completion(const std::vector<std::string>& words);

// Adds the commands for whole ACLs to the group "acl"; the chosen one sets `action`.
void add_acl_commands(CLI::App& app, context& within, std::function<int()>& action);

// Every command with its options and help, one tab-separated line each.
[[nodiscard]] std::string list_commands();

}  // namespace scc::ctl
