// The command line: one subcommand per row of the table, and the few that do not call the library.
#pragma once

#include <CLI/CLI.hpp>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <vector>

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

// Prints notifications as they arrive. 0 means no limit.
[[nodiscard]] int run_watch(context& within, double seconds, std::uint64_t count);

// Adds the commands of the development daemon's control socket; the chosen one sets `action`.
void add_control_commands(CLI::App& app, context& within, std::function<int()>& action);

// Adds the commands for whole ACLs to the group "acl"; the chosen one sets `action`.
void add_acl_commands(CLI::App& app, context& within, std::function<int()>& action);

// Every command with its options and help, one tab-separated line each.
[[nodiscard]] std::string list_commands();

}  // namespace scc::ctl
