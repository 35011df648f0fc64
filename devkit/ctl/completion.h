// Completes command lines, for the shell and for the completion scripts of bash and zsh. What fits comes from
// the command table.
#pragma once

#include <CLI/CLI.hpp>
#include <map>
#include <string>
#include <vector>

namespace scc::ctl {

struct candidate {
    std::string word;
    std::string help;
};

// The words that an option or operand takes.
using choice_map = std::map<const CLI::Option*, std::vector<std::string>>;

struct completion {
    std::vector<candidate> candidates;  // those that begin with the last word
    bool files = false;                 // file names fit, too
};

// `words` are those before the cursor, without the program's name; the last one is incomplete.
[[nodiscard]] completion complete(const CLI::App& commands, const choice_map& choices,
                                  const std::vector<std::string>& words);

// Files whose names begin with `typed`; a directory ends with a slash.
[[nodiscard]] std::vector<std::string> files_beginning_with(const std::string& typed);

}  // namespace scc::ctl
