// The shell: command lines with one registration.
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <memory>

#include "common/standard_output.h"
#include "interrupt.h"
#include "line_editor.h"
#include "program.h"

namespace scc::ctl {

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

std::string history_file() {
    const char* const home = std::getenv("HOME");
    return home == nullptr || *home == '\0' ? std::string() : std::string(home) + "/.sccctl_history";
}

using line_source = std::function<line_state(std::string&)>;

line_source lines_of_terminal(const context& within) {
    catch_interrupts();
    const auto complete_line = [&within](const std::vector<std::string>& words) {
        return complete_words(words, &within);
    };
    const auto editor = std::make_shared<line_editor>("sccctl> ", history_file(), complete_line);
    return [editor](std::string& line) { return editor->read(line); };
}

line_state line_of_input(std::string& line) {
    return std::getline(std::cin, line) ? line_state::line : line_state::end;
}

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
        context inside = within;
        inside.shared = &registered;
        const line_source next = prompts ? lines_of_terminal(inside) : line_source(&line_of_input);
        int worst = exit_success;
        std::string line;
        while (!devkit::output_failed()) {
            const line_state got = next(line);
            if (got == line_state::end) {
                break;
            }
            const auto words =
                got == line_state::line ? words_of_line(line, within, worst) : std::vector<std::string>();
            if (words.empty()) {
                continue;
            }
            if (words[0] == "exit" || words[0] == "quit") {
                break;
            }
            worst = std::max(worst, run_line(words, registered, within));
            forget_interrupt();
        }
        return worst;
    });
}

}  // namespace scc::ctl
