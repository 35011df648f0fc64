// The platform's log function without libqx_syslog, for builds with SCC_QX_SYSLOG=OFF. It has the platform's
// name, so callers and replacements of the function do not depend on the option.
#pragma once

// Writes one line with syslog(3), cut after 1,023 bytes; flag is the switch's own and ignored. Any thread.
// Returns the length of the line's text, or -1 if the format fails.
extern "C" int printk_syslog_ext(int level, const char* module, const char* submodule, int flag,
                                 const char* format, ...) __attribute__((format(printf, 5, 6)));
