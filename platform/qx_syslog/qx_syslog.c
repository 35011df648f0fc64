#include "qx_syslog.h"

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>

enum { line_bytes = 1024 };

/* One write per line, so that the lines of two threads do not mix. */
static void write_to_stderr(const char* module, const char* submodule, const char* text) {
    char line[line_bytes + 64];
    size_t length = strlen(text);
    const char* end = length > 0 && text[length - 1] == '\n' ? "" : "\n";
    int written = snprintf(line, sizeof line, "%%%s-7-%s: %s%s", module, submodule, text, end);
    if (written > 0) {
        fputs(line, stderr);
    }
}

int printk_syslog_ext(int level, const char* module, const char* submodule, int flag, const char* format,
                      ...) {
    (void)flag;
    if (format == NULL) {
        return -1;
    }
    char text[line_bytes];
    va_list arguments;
    va_start(arguments, format);
    int length = vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    if (length < 0) {
        return -1;
    }
    const char* writer = module != NULL ? module : "?";
    const char* part = submodule != NULL ? submodule : "?";
    int priority = level < LOG_EMERG ? LOG_EMERG : level > LOG_DEBUG ? LOG_DEBUG : level;
    const char* to_stderr = getenv("QX_SYSLOG_STDERR");
    if (to_stderr != NULL && to_stderr[0] != '\0') {
        write_to_stderr(writer, part, text);
    }
    syslog(LOG_USER | priority, "%s/%s: %s", writer, part, text);
    return length;
}
