// Called when the code under test breaks a promise: prints it, and ends like a sanitizer, so that the input
// is kept.
#pragma once

#include <cstdio>
#include <cstdlib>

namespace scc::fuzz {

[[noreturn]] inline void broken_promise(const char* file, int line, const char* promise) {
    std::fprintf(stderr, "%s:%d: broken promise: %s\n", file, line, promise);
    std::abort();
}

}  // namespace scc::fuzz

#define FUZZ_EXPECT(condition)                                           \
    do {                                                                 \
        if (!(condition)) {                                              \
            ::scc::fuzz::broken_promise(__FILE__, __LINE__, #condition); \
        }                                                                \
    } while (false)
