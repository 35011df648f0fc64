// See replies.h. The replies are sent at once, on the synchronous socket.
//
// Statistics reply (item 318): u32 app id, u32 entries, then 24 bytes an entry: u32 index, calls, call
// successes, callback successes, call failures, callback failures. call_statistics has another order.
#include "client/replies.h"

#include "client/acl_cache.h"
#include "client/control_block.h"
#include "client/diagnostics.h"
#include "client/log.h"
#include "client/request_channel.h"
#include "msg/bytes.h"
#include "msg/message.h"
#include "msg/result_codes.h"

using namespace scc;

namespace scc {
namespace {

constexpr u32 collect_head_bytes = 8;
constexpr u32 collect_entry_bytes = 24;
constexpr u32 collect_bytes = collect_head_bytes + stat_entries * collect_entry_bytes;
static_assert(collect_bytes == 320);

void store_entry(u8* at, u32 index) {
    const call_statistics entry = read_statistics(index);
    const u32 columns[] = {index,
                           entry.calls,
                           entry.call_successes,
                           entry.callback_successes,
                           entry.call_failures,
                           entry.callback_failures};
    static_assert(sizeof columns == collect_entry_bytes);
    std::memcpy(at, columns, sizeof columns);
}

void send_basic_reply() {
    const u32 reply[] = {app_id_now(), 0};
    [[maybe_unused]] const u32 error = _scc_lib_msg_send(msg::info_collect, reply, sizeof reply, 1);
    SCC_LOG_FROM("_scc_lib_info_collect_proc", "send libinfo basic collect back. rv:%d.", error);
}

}  // namespace
}  // namespace scc

extern "C" {

void _scc_lib_is_alive_proc(const void* /*value*/) {
    const u32 app_id = app_id_now();
    [[maybe_unused]] const u32 error = _scc_lib_msg_send(msg::is_alive, &app_id, sizeof app_id, 1);
    SCC_LOG("send alive back. rv:%d.", error);
}

void _scc_lib_info_collect_proc(const void* /*value*/) {
    void* reply = nullptr;
    if (_scc_msg_alloc(&reply, collect_bytes) != result::ok) {
        send_basic_reply();
        return;
    }
    store<u32>(reply, 0, app_id_now());
    store<u32>(reply, 4, stat_entries);
    for (u32 i = 0; i < stat_entries; ++i) {
        store_entry(static_cast<u8*>(reply) + collect_head_bytes + i * collect_entry_bytes, i);
    }
    [[maybe_unused]] const u32 error = _scc_lib_msg_send(msg::info_collect, reply, collect_bytes, 1);
    SCC_LOG("send libinfo collect(func_cnt:%d) back. rv:%d.", static_cast<int>(stat_entries), error);
    _scc_msg_free(&reply);
}

void _scc_lib_dev_cap_proc(const void* value) {
    set_capability_word(load<u64>(value));
}
}
