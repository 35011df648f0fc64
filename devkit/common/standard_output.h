// What the programs print on standard output. A write that fails is told once, when the program ends.
#pragma once

#include <string_view>

namespace scc::devkit {

// Passes the text on at once, in one write. Any thread may print.
void print_output(std::string_view text);
// Whether a write has failed.
[[nodiscard]] bool output_failed();
// Says on standard error why a write failed. Returns whether none did.
[[nodiscard]] bool end_output(const char* program);

}  // namespace scc::devkit
