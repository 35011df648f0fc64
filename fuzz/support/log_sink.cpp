// The fuzzers' version of the platform's log function: formats every argument and prints nothing, unless
// FUZZ_SHOW_LOG is set to examine one input (whose settings decide whether the library logs). Also the
// sanitizers' settings, so that an input can be replayed without environment variables.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

extern "C" {

int printk_syslog_ext(int level, const char* module, const char* submodule, int flag, const char* format, ...)
    __attribute__((format(printf, 5, 6)));

int printk_syslog_ext(int /*level*/, const char* /*module*/, const char* /*submodule*/, int /*flag*/,
                      const char* format, ...) {
    static thread_local char line[1024];
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    static const bool is_shown = std::getenv("FUZZ_SHOW_LOG") != nullptr;
    if (is_shown) {
        std::fprintf(stderr, "%s\n", line);
    }
    return length;
}

const char* __asan_default_options();
const char* __asan_default_options() {
    return "allocator_may_return_null=1:detect_stack_use_after_return=0:quarantine_size_mb=16:malloc_context_"
           "size=8";
}

const char* __ubsan_default_options();
const char* __ubsan_default_options() {
    return "print_stacktrace=1";
}
}
