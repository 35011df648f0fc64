/* The workstation version of the switch's log function: lines go to the system's log, and to standard error
 * if the environment variable QX_SYSLOG_STDERR is set and not empty. */
#ifndef QX_SYSLOG_H
#define QX_SYSLOG_H

#ifdef __cplusplus
extern "C" {
#endif

/* Write one line. level is a syslog level (0 to 7, others are clamped); module and submodule name the
 * writer and may be null; flag is the switch's own and ignored here. Any thread. Returns the number of
 * bytes of the line's text, or -1 if the format is null or fails. */
int printk_syslog_ext(int level, const char* module, const char* submodule, int flag, const char* format, ...)
    __attribute__((format(printf, 5, 6)));

#ifdef __cplusplus
}
#endif

#endif
