#include "common/standard_output.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace scc::devkit {
namespace {

std::atomic<int> first_error = 0;

void keep_error(int error) {
    int none = 0;
    first_error.compare_exchange_strong(none, error);
}

}  // namespace

void print_output(std::string_view text) {
    const bool printed = std::fwrite(text.data(), 1, text.size(), stdout) == text.size();
    if (!printed || std::fflush(stdout) != 0) {
        keep_error(errno);
    }
}

bool output_failed() {
    return first_error != 0;
}

bool end_output(const char* program) {
    if (std::fflush(stdout) != 0) {
        keep_error(errno);
    }
    // What others printed, such as the parser's help.
    if (std::ferror(stdout) != 0) {
        keep_error(EIO);
    }
    if (output_failed()) {
        std::fprintf(stderr, "%s: standard output: %s\n", program, std::strerror(first_error));
    }
    return !output_failed();
}

}  // namespace scc::devkit
