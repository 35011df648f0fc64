// SCC_LOG and SCC_LOG_FROM write only while scc_lib_debug is set and do not evaluate their arguments
// otherwise. SCC_LOG_RAW and SCC_LOG_ALWAYS always write: for dumps, and for lines that must not depend on
// the debug switch.
#pragma once

#ifdef SCC_NO_QX_SYSLOG
#include "client/system_log.h"
#else
#include <qx_syslog.h>
#endif

#include <atomic>

#include "msg/protocol.h"

extern "C" std::atomic<scc::u8> scc_lib_debug;

namespace scc {

inline constexpr int log_level = 7;
inline constexpr int log_flag = 2;

[[nodiscard]] inline bool is_debugging() {
    return scc_lib_debug.load(std::memory_order_relaxed) != 0;
}

}  // namespace scc

#define SCC_LOG_RAW(submodule, format, ...) \
    printk_syslog_ext(scc::log_level, "SCCLIB", submodule, scc::log_flag, format __VA_OPT__(, ) __VA_ARGS__)

// Like SCC_LOG_FROM, regardless of the switch.
#define SCC_LOG_ALWAYS(function, format, ...) \
    SCC_LOG_RAW("DETAIL", "<%-23s line:%-4d> " format, function, __LINE__ __VA_OPT__(, ) __VA_ARGS__)

// Logs in the name of a function other than the enclosing one.
#define SCC_LOG_FROM(function, format, ...)                              \
    do {                                                                 \
        if (scc::is_debugging()) {                                       \
            SCC_LOG_ALWAYS(function, format __VA_OPT__(, ) __VA_ARGS__); \
        }                                                                \
    } while (false)

#define SCC_LOG(format, ...) SCC_LOG_FROM(__func__, format __VA_OPT__(, ) __VA_ARGS__)
