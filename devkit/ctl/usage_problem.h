// What is wrong with a command line that the parser refuses.
#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

namespace scc::ctl {

// The first word that is no command, after the commands before it. Empty if there is none, or if what is left
// belongs to a command.
[[nodiscard]] std::string unknown_command(const CLI::App& root);

// The reason, and what a misspelt word probably means.
[[nodiscard]] std::string problem_text(const CLI::ParseError& problem, const CLI::App& root,
                                       const std::vector<std::string>& words);

}  // namespace scc::ctl
