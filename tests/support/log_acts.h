// An act inside the log function, since a host's log function may do anything; see log_capture.cpp.
#pragma once

#include <string>

namespace test {

// Runs `act` once, while the next line with exactly this text is logged.
void on_log(const std::string& text, void (*act)());

}  // namespace test
