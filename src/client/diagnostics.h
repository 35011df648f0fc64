// The debug switch, the call statistics and the timing probes.
//
// Counters are relaxed atomics: advisory, any thread may count.
#pragma once

#include <array>

#include "msg/protocol.h"

namespace scc {

// What is counted. The index is also the entry's number in the statistics reply.
enum statistics_index : u32 {
    stat_acl_create = 0,
    stat_acl_delete = 1,
    stat_ace_add = 2,
    stat_ace_delete = 3,
    stat_acl_apply = 4,
    stat_acl_unapply = 5,
    stat_nac_user_add = 6,
    stat_nac_user_delete = 7,
    stat_user_added = 8,
    stat_user_deleted = 9,
    stat_noflow_offline = 10,
    stat_addr_move = 11,
    stat_data_recover = 12,
    stat_entries = 13,
};
inline constexpr u32 not_counted = stat_entries;

struct call_statistics {
    u32 calls;
    u32 callback_successes;
    u32 call_successes;
    u32 callback_failures;
    u32 call_failures;
};

// Copies one entry for the statistics reply. Another thread may count meanwhile.
[[nodiscard]] call_statistics read_statistics(u32 index);

// Whether the value of a debug command holds everything that the command reads.
[[nodiscard]] bool debug_command_fits(const u8* value, u64 length);
// Whether a debug command displays the ACLs.
[[nodiscard]] bool shows_acls(const void* value);

}  // namespace scc

extern "C" {
extern std::array<scc::call_statistics, scc::stat_entries> g_scclib_stat;

void _scc_lib_debug_init(const char* process_name);
void _scc_lib_dbg_proc(const void* value);
void _scc_lib_func_call_succ(scc::u32 index);
void _scc_lib_func_call_fail(scc::u32 index);
void _scc_lib_func_cb_succ(scc::u32 index);
void _scc_lib_func_cb_fail(scc::u32 index);
void _scc_lib_func_stat_reset();
}

namespace scc {

inline void count_call(u32 index, bool succeeded) {
    succeeded ? _scc_lib_func_call_succ(index) : _scc_lib_func_call_fail(index);
}

inline void count_callback(u32 index, bool succeeded) {
    succeeded ? _scc_lib_func_cb_succ(index) : _scc_lib_func_cb_fail(index);
}

}  // namespace scc
