// See system_log.h.
#include "client/system_log.h"

#include <syslog.h>

#include <cstdarg>
#include <cstddef>
#include <cstdio>

namespace {

constexpr std::size_t line_bytes = 1024;

}  // namespace

extern "C" int printk_syslog_ext(int level, const char* module, const char* submodule, int /*flag*/,
                                 const char* format, ...) {
    char text[line_bytes];
    va_list arguments;
    va_start(arguments, format);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): reported only when another file was checked before
    const int length = std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    if (length < 0) {
        return -1;
    }
    syslog(LOG_USER | level, "%s/%s: %s", module, submodule, text);
    return length;
}
