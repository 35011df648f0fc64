// Calls the function of each operation in a message, in wire order. Runs on the processing thread; the
// functions take the locks.
#include <algorithm>
#include <array>

#include "client/diagnostics.h"
#include "client/log.h"
#include "client/notifications.h"
#include "client/replies.h"
#include "client/value_lengths.h"
#include "ss/id_map.h"
#include "ss/operations.h"
#include "ss/service.h"

using namespace scc;

namespace scc {
namespace {

i32 debug_command(u16 /*scc_type*/, const void* value) {
    _scc_lib_dbg_proc(value);
    if (shows_acls(value)) {
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
    received,  // the callback counts the answer
    both,      // there is no answer
    total_answered,
};

using operation_function = i32 (*)(u16 scc_type, const void* value);

struct operation_row {
    u16 type;
    value_length least;
    operation_function function;
    u32 pair;
    counted counts;
};

consteval operation_row route(u16 type, operation_function function, u32 pair,
                              counted counts = counted::received) {
    return {type, length_of(type), function, pair, counts};
}

// clang-format off
constexpr std::array operation_table = std::to_array<operation_row>({
    route(msg::acl,                   _scc_ss_acl_op,              pair_acl),
    route(msg::ace,                   _scc_ss_ace_op,              pair_ace),
    route(msg::acl_apply,             _scc_ss_acl_apply_op,        pair_apply),
    route(msg::acl_resequence,        _scc_ss_acl_reseq_op,        pair_reseq),
    route(msg::acl_counter_reset,     _scc_ss_acl_counter_op,      pair_acl_stat),
    route(msg::ace_counter_reset,     _scc_ss_ace_counter_op,      pair_ace_stat),
    route(msg::global_eport,          _scc_ss_global_eport_op,     pair_global_eport),
    route(msg::svi_router_acl,        _scc_ss_svi_router_acl_op,   pair_svi),
    route(msg::nacm_app,              _scc_nacm_app_op,            pair_app),
    route(msg::nacm_def_read,         _scc_nacm_def_read,          pair_def_read),
    route(msg::nacm_l4port,           _scc_nacm_l4port_op,         pair_l4port),
    route(msg::nacm_user,             _scc_nacm_user_op,           pair_user),
    route(msg::nacm_user_read,        _scc_nacm_user_read,         pair_user_read),
    route(msg::nacm_user_reinstall,   _scc_nacm_user_reinstall_op, pair_user_reinstall),
    route(msg::nacm_app_user_recover, _scc_nacm_app_user_recover,  pair_app_recover,    counted::both),
    route(msg::nacm_l4port_recover,   _scc_nacm_l4port_recover,    pair_l4port_recover, counted::both),
    route(msg::nacm_app_with_vid,     _scc_nacm_app_withvid_op,    pair_app_with),
    route(msg::cpp,                   _scc_ss_cpp_op,              pair_cpp),
    route(msg::data_recover,          _scc_ss_data_recover_op,     pair_recover),
    route(msg::test_cmd,              _scc_ss_test_cmd_proc,       pair_test_cmd,       counted::both),
    route(msg::debug,                 debug_command,               pair_debug,          counted::both),
    route(msg::offline_detect_notify, _scc_offline_detect_cfg_op,  pair_offline_cfg),
    route(msg::direct_vlan_notify,    as_operation<_scc_lib_direct_vlan_notify_proc>, pair_direct_vlan,    counted::both),
    route(msg::authmode,              as_operation<_scc_lib_authmode_notify_proc>, pair_authmode,       counted::both),
    route(msg::acl_counter_get,       _scc_ss_acl_counter_op,      pair_acl_stat),
    route(msg::ace_counter_get,       _scc_ss_ace_counter_op,      pair_ace_stat),
    route(msg::info_collect,          as_operation<_scc_lib_info_collect_proc>, pair_total,          counted::total_answered),
});
// clang-format on

static_assert(operation_table.size() == 27);
static_assert(std::ranges::is_sorted(operation_table, {}, &operation_row::type) &&
              std::ranges::adjacent_find(operation_table, {}, &operation_row::type) == operation_table.end());

const operation_row* row_of(u16 type) {
    const auto* row = std::ranges::lower_bound(operation_table, type, {}, &operation_row::type);
    return row != operation_table.end() && row->type == type ? row : nullptr;
}

void count(const operation_row& row) {
    if (row.counts != counted::total_answered) {
        count_received(row.pair);
    }
    if (row.counts != counted::received) {
        count_answered(row.pair);
    }
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
    const operation_row* row = nullptr;  // of the previous item: a message often has many of one type
    while (reader.next(operation)) {
        SCC_LOG("scc-type:%u, ss-type:%u", operation.sub_id, operation.type);
        row = row != nullptr && row->type == operation.type ? row : row_of(operation.type);
        if (row == nullptr) {
            SCC_LOG("unknown scclib msg type(%d).", operation.type);
        } else if (!is_long_enough(row->least, operation.value)) {
            SCC_LOG("scclib msg type(%d) too short. len:%zu.", operation.type, operation.value.size());
        } else {
            (void)row->function(operation.sub_id, operation.value.data());
            count(*row);
        }
    }
}
