// An act inside a line of the library's log, as a host's log function may do anything; log_capture.cpp.
#pragma once

#include <string>

namespace test {

// Does this once, inside the next line with exactly this text.
void on_log(const std::string& text, void (*act)());

}  // namespace test
