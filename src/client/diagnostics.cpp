// See diagnostics.h.
//
// Debug command (item 206): u32 switch at 24, u32 command at 32, the command's data from 36; the first
// 24 bytes are the daemon's own.
#include "client/diagnostics.h"

#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "client/acl_cache.h"
#include "client/log.h"
#include "client/service_statistics.h"
#include "msg/bytes.h"
#include "msg/paths.h"

using namespace scc;

namespace scc {
namespace {

constexpr std::size_t command_switch_offset = 24;
constexpr std::size_t command_offset = 32;
constexpr std::size_t command_data_offset = 36;
constexpr u32 command_switch = 1;
constexpr u32 command_show_acls = 3;
constexpr std::size_t shortest_line = 3;

void add_one(u32& counter) {
    __atomic_fetch_add(&counter, 1, __ATOMIC_RELAXED);
}

u32 read(const u32& counter) {
    return __atomic_load_n(&counter, __ATOMIC_RELAXED);
}

void write(u32& field, u32 value) {
    __atomic_store_n(&field, value, __ATOMIC_RELAXED);
}

void set_debugging(bool on) {
    scc_lib_debug.store(on ? 1 : 0, std::memory_order_relaxed);
}

// Null for anything but a regular file. The directory may be writable by others: a FIFO there would block
// until somebody writes, and a link could lead anywhere.
std::FILE* open_regular(const char* path) {
    const int descriptor = open(path, O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC);
    if (descriptor < 0) {
        return nullptr;
    }
    struct stat status;
    const bool is_regular = fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode);
    std::FILE* file = is_regular ? fdopen(descriptor, "r") : nullptr;
    if (file == nullptr) {
        close(descriptor);
    }
    return file;
}

// Whether the line names the process; if so, sets value to its number.
bool line_decides(const char* line, const char* process_name, int& value) {
    char name[32];
    return std::strlen(line) > shortest_line && std::sscanf(line, "%31s   %d", name, &value) == 2 &&
           strcasecmp(name, process_name) == 0;
}

u32 now_us() {
    timeval now{};
    gettimeofday(&now, nullptr);
    return static_cast<u32>(now.tv_sec) * 1000000U + static_cast<u32>(now.tv_usec);
}

bool is_probing() {
    return __atomic_load_n(&g_scc_perf_debug, __ATOMIC_RELAXED) != 0;
}

}  // namespace

call_statistics read_statistics(u32 index) {
    const call_statistics& entry = g_scclib_stat[index];
    return {read(entry.calls), read(entry.callback_successes), read(entry.call_successes),
            read(entry.callback_failures), read(entry.call_failures)};
}

// The display of ACLs reads a mode and, for a single ACL, three more u32.
bool debug_command_fits(const u8* value, u64 length) {
    if (length < command_data_offset) {
        return false;
    }
    if (!shows_acls(value)) {
        return true;
    }
    constexpr u64 mode_end = command_data_offset + 4;
    constexpr u64 key_end = command_data_offset + 16;
    const u32 mode = length < mode_end ? 0 : load<u32>(value, command_data_offset);
    return length >= (mode == 1 || mode == 3 ? mode_end : key_end);
}

bool shows_acls(const void* value) {
    return load<u32>(value, command_offset) == command_show_acls;
}

void reset_service_statistics() {
    service_statistics* block = __atomic_load_n(&ss_stat, __ATOMIC_RELAXED);
    if (block == nullptr) {
        return;
    }
    for (operation_count& count : *block) {
        write(count.received, 0);
        write(count.answered, 0);
    }
}

}  // namespace scc

extern "C" {

constinit service_statistics* ss_stat = nullptr;

constinit std::atomic<u8> scc_lib_debug{0};
constinit std::array<call_statistics, stat_entries> g_scclib_stat{};

constinit uint8_t g_scc_perf_debug = 0;
constinit struct scc_perf_entry g_scc_perf[SCC_PERF_ENTRIES] = {};

void _scc_lib_debug_init(const char* process_name) {
    if (process_name == nullptr) {
        return;
    }
    path_buffer path;
    if (!make_path(path, debug_file_suffix, path_base::persistent)) {
        // Bypass the debug switch, which is off until the file has been read.
        printk_syslog_ext(5, "SCC", "INIT", 1, "sccd create tmp dir error.\n");
        return;
    }
    std::FILE* file = open_regular(path.text);
    if (file == nullptr) {
        return;
    }
    char line[limits::path_bytes];
    while (std::fgets(line, sizeof line, file) != nullptr) {
        int value = 0;
        if (line_decides(line, process_name, value)) {
            set_debugging(value == 1);
            break;
        }
    }
    std::fclose(file);
}

// Logs after switching on and before switching off, so that both lines are written.
void _scc_lib_dbg_proc(const void* value) {
    if (value == nullptr) {
        return;
    }
    const u32 command = load<u32>(value, command_offset);
    if (command == command_show_acls) {
        _scc_lib_dbg_acl_show(static_cast<const u8*>(value) + command_data_offset);
    } else if (command != command_switch) {
        SCC_LOG("unknown debug cmd.");
    } else if (load<u32>(value, command_switch_offset) == 1) {
        set_debugging(true);
        SCC_LOG_ALWAYS(__func__, "scclib debug open.");
    } else {
        SCC_LOG("scclib debug close.");
        set_debugging(false);
    }
}

void _scc_lib_func_call_succ(u32 index) {
    add_one(g_scclib_stat[index].calls);
    add_one(g_scclib_stat[index].call_successes);
}

void _scc_lib_func_call_fail(u32 index) {
    add_one(g_scclib_stat[index].calls);
    add_one(g_scclib_stat[index].call_failures);
}

void _scc_lib_func_cb_succ(u32 index) {
    add_one(g_scclib_stat[index].callback_successes);
}

void _scc_lib_func_cb_fail(u32 index) {
    add_one(g_scclib_stat[index].callback_failures);
}

void _scc_lib_func_stat_reset() {
    for (call_statistics& entry : g_scclib_stat) {
        for (u32* counter : {&entry.calls, &entry.callback_successes, &entry.call_successes,
                             &entry.callback_failures, &entry.call_failures}) {
            write(*counter, 0);
        }
    }
}

void scc_time_elapse_start(uint32_t index) {
    if (is_probing() && index < SCC_PERF_ENTRIES) {
        write(g_scc_perf[index].start, now_us());
    }
}

void scc_time_elapse_end(uint32_t index) {
    if (!is_probing() || index >= SCC_PERF_ENTRIES) {
        return;
    }
    scc_perf_entry& entry = g_scc_perf[index];
    write(entry.end, now_us());
    const u32 elapsed = read(entry.end) - read(entry.start);
    write(entry.last, elapsed);
    __atomic_fetch_add(&entry.total, elapsed, __ATOMIC_RELAXED);
    add_one(entry.count);
    if (elapsed > read(entry.max)) {
        write(entry.max, elapsed);
    }
}
}
