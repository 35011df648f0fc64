// Routes the operations of one message, in the order of the wire, each to its function. Runs on the
// processing thread.
#include <algorithm>
#include <array>

#include "client/diagnostics.h"
#include "client/log.h"
#include "client/notifications.h"
#include "client/replies.h"
#include "msg/bytes.h"
#include "ss/id_map.h"
#include "ss/operations.h"
#include "ss/service.h"

using namespace scc;

namespace scc {
namespace {

i32 debug_command(u16 /*scc_type*/, const void* value) {
    constexpr u32 show_acls = 3;
    _scc_lib_dbg_proc(value);
    if (load<u32>(value, 32) == show_acls) {
        _scc_ss_retlist_dump();
    }
    return 0;
}

template <void (*Process)(const void*)>
i32 as_operation(u16 /*scc_type*/, const void* value) {
    Process(value);
    return 0;
}

enum class counted : u8 {
    received,  // the answer is counted by its callback
    both,      // no answer follows
    total_answered,
};

struct operation_row {
    u16 type;
    u32 least_bytes;
    i32 (*run)(u16 scc_type, const void* value);
    u32 pair;
    counted counts = counted::received;
};

// clang-format off
constexpr std::array operation_table = std::to_array<operation_row>({
    {msg::acl,                    140, _scc_ss_acl_op,              pair_acl},
    {msg::ace,                    940, _scc_ss_ace_op,              pair_ace},
    {msg::acl_apply,              244, _scc_ss_acl_apply_op,        pair_apply},
    {msg::acl_resequence,          28, _scc_ss_acl_reseq_op,        pair_reseq},
    {msg::acl_counter_reset,       36, _scc_ss_acl_counter_op,      pair_acl_stat},
    {msg::ace_counter_reset,       36, _scc_ss_ace_counter_op,      pair_ace_stat},
    {msg::global_eport,            12, _scc_ss_global_eport_op,     pair_global_eport},
    {msg::svi_router_acl,           8, _scc_ss_svi_router_acl_op,   pair_svi},
    {msg::nacm_app,                16, _scc_nacm_app_op,            pair_app},
    {msg::nacm_def_read,           12, _scc_nacm_def_read,          pair_def_read},
    {msg::nacm_l4port,             20, _scc_nacm_l4port_op,         pair_l4port},
    {msg::nacm_user,               96, _scc_nacm_user_op,           pair_user},
    {msg::nacm_user_read,          96, _scc_nacm_user_read,         pair_user_read},
    {msg::nacm_user_reinstall,     12, _scc_nacm_user_reinstall_op, pair_user_reinstall},
    {msg::nacm_app_user_recover,   16, _scc_nacm_app_user_recover,  pair_app_recover,    counted::both},
    {msg::nacm_l4port_recover,      4, _scc_nacm_l4port_recover,    pair_l4port_recover, counted::both},
    {msg::nacm_app_with_vid,       24, _scc_nacm_app_withvid_op,    pair_app_with},
    {msg::cpp,                     12, _scc_ss_cpp_op,              pair_cpp},
    {msg::data_recover,             9, _scc_ss_data_recover_op,     pair_recover},
    {msg::test_cmd,                 4, _scc_ss_test_cmd_proc,       pair_test_cmd,       counted::both},
    {msg::debug,                   36, debug_command,               pair_debug,          counted::both},
    {msg::offline_detect_notify,   16, _scc_offline_detect_cfg_op,  pair_offline_cfg},
    {msg::direct_vlan_notify,       8, as_operation<_scc_lib_direct_vlan_notify_proc>, pair_direct_vlan, counted::both},
    {msg::authmode,                 8, as_operation<_scc_lib_authmode_notify_proc>,    pair_authmode,    counted::both},
    {msg::acl_counter_get,         36, _scc_ss_acl_counter_op,      pair_acl_stat},
    {msg::ace_counter_get,         36, _scc_ss_ace_counter_op,      pair_ace_stat},
    {msg::info_collect,             0, as_operation<_scc_lib_info_collect_proc>,       pair_total,       counted::total_answered},
});
// clang-format on

static_assert(operation_table.size() == 27);
static_assert(std::ranges::is_sorted(operation_table, {}, &operation_row::type) &&
              std::ranges::adjacent_find(operation_table, {}, &operation_row::type) == operation_table.end());

void count(const operation_row& row) {
    switch (row.counts) {
        case counted::received:
            count_received(row.pair);
            break;
        case counted::both:
            count_received(row.pair);
            count_answered(row.pair);
            break;
        case counted::total_answered:
            count_answered(pair_total);
            break;
    }
}

bool is_long_enough(const operation_row& row, const item& operation) {
    const std::size_t length = operation.value.size();
    return length >= row.least_bytes &&
           (row.type != msg::debug || debug_command_fits(operation.value.data(), length));
}

}  // namespace
}  // namespace scc

extern "C" void _scc_ss_async_msg_proc(u32 tlv_count, const void* first) {
    const auto items = static_cast<u16>(tlv_count);
    if (items == 0 || first == nullptr) {
        SCC_LOG("input param invalid. tlv_num(%d).", items);
        return;
    }
    count_received(pair_total, items);
    item_reader reader(items, first);
    item operation;
    while (reader.next(operation)) {
        SCC_LOG("scc-type:%u, ss-type:%u", operation.sub_id, operation.type);
        const auto* row = std::ranges::lower_bound(operation_table, operation.type, {}, &operation_row::type);
        if (row == operation_table.end() || row->type != operation.type) {
            SCC_LOG("unknown scclib msg type(%d).", operation.type);
        } else if (!is_long_enough(*row, operation)) {
            SCC_LOG("scclib msg type(%d) too short. len:%zu.", operation.type, operation.value.size());
        } else {
            (void)row->run(operation.sub_id, operation.value.data());
            count(*row);
        }
    }
}
