// The log as the tests see it: linking log_capture.cpp replaces the platform's syslog entry point.
#pragma once

#include <string>
#include <vector>

namespace test {

struct log_line {
    int level;
    std::string module;
    std::string submodule;
    int flag;
    std::string text;  // after the prefix "<function line:N> ", where the line has one
    std::string whole;
};

void clear_log();
std::vector<log_line> captured_log();
// The texts alone, in order.
std::vector<std::string> log_texts();
bool logged(const std::string& text);
// The captured texts that tell of a failure.
std::vector<std::string> logged_failures();
// Waits up to 60 seconds for a line with exactly this text.
bool wait_for_log(const std::string& text);

// From now on writing a line leaves this number in errno, as a real log may; 0 leaves errno alone.
void leave_errno_in_log(int error);

// Enables the library's log while the object exists.
class debugging {
  public:
    debugging();
    ~debugging();
    debugging(const debugging&) = delete;
    debugging& operator=(const debugging&) = delete;
};

}  // namespace test
