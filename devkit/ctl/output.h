// Prints results and replies, as text or as one JSON object per line.
#pragma once

#include <string>

#include "runner.h"

namespace scc::ctl {

struct output_options {
    bool as_json = false;
    bool raw = false;  // with the records' bytes
};

[[nodiscard]] json outcome_json(const outcome& shown, const output_options& options);
[[nodiscard]] std::string outcome_text(const outcome& shown, const output_options& options);

// Prints the outcome to standard output; in text form, a failure goes to standard error.
void print(const outcome& shown, const output_options& options);
// Prints any JSON value: as one line of JSON, or as indented names and values.
void print(const json& value, const output_options& options);
void print_text(std::string_view text);
void print_problem(std::string_view command, std::string_view problem, const output_options& options);

}  // namespace scc::ctl
