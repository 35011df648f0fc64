// See dispatch.h. Runs on the thread that receives; stateless, no lock. The items are known to fit in the
// message (items_fit); each row says how much of a value its function reads.
#include "client/dispatch.h"

#include <algorithm>
#include <array>

#include "client/diagnostics.h"
#include "client/lifetime.h"
#include "client/log.h"
#include "client/notifications.h"
#include "client/replies.h"
#include "msg/bytes.h"

using namespace scc;

namespace scc {
namespace {

constexpr const char* function = "_scc_lib_async_msg_proc";

struct item_row {
    u16 type;
    u32 least_bytes;
    void (*process)(const void* value);
};

// clang-format off
constexpr std::array item_table = std::to_array<item_row>({
    {msg::d1x_addr_move,         8, _scc_lib_d1x_addr_move_notify_proc},
    {msg::nac_user,             80, _scc_lib_user_chg_notify_proc},
    {msg::debug,                36, _scc_lib_dbg_proc},
    {msg::offline_detect_notify,16, _scc_lib_offline_detect_cfg_notify_proc},
    {msg::station_move,          5, _scc_lib_station_move_notify_proc},
    {msg::flow,                 80, _scc_lib_flow_notify_proc},
    {msg::noflow_offline,       88, _scc_lib_noflow_offline_notify_proc},
    {msg::direct_vlan_notify,    8, _scc_lib_direct_vlan_notify_proc},
    {msg::authmode,              8, _scc_lib_authmode_notify_proc},
    {msg::dirchn,               12, _scc_lib_dirchn_notify_proc},
    {msg::port_violate_notify,  61, _scc_lib_sp_violate_notify_proc},
    {msg::user_roll,            24, _scc_lib_user_roll_notify_proc},
    {msg::water_line,            4, _scc_lib_water_line_notify_proc},
    {msg::info_collect,          0, _scc_lib_info_collect_proc},
    {msg::is_alive,              0, _scc_lib_is_alive_proc},
    {msg::call_ret,              8, _scc_lib_call_ret_proc},
    {msg::dev_cap,               8, _scc_lib_dev_cap_proc},
    {msg::ace_counter,          24, _scc_lib_ace_counter_proc},
});
// clang-format on

static_assert(item_table.size() == 18);
static_assert(std::ranges::is_sorted(item_table, {}, &item_row::type) &&
              std::ranges::adjacent_find(item_table, {}, &item_row::type) == item_table.end());

// Items that carry a count of what follows, or a command with data, need more than their fixed part.
bool is_long_enough(const item_row& row, const item& received) {
    const u64 length = received.value.size();
    if (length < row.least_bytes) {
        return false;
    }
    const u8* value = received.value.data();
    switch (row.type) {
        case msg::debug:
            return debug_command_fits(value, length);
        case msg::noflow_offline:
            return length >= 88 + u64{load<u32>(value, 80)};
        case msg::ace_counter:
            return length >= 24 + u64{record::ace_counter} * load<u32>(value, 20);
        default:
            return true;
    }
}

void process(const item& received) {
    const auto* row = std::ranges::lower_bound(item_table, received.type, {}, &item_row::type);
    if (row == item_table.end() || row->type != received.type) {
        SCC_LOG_FROM(function, "unknown scclib msg type(%d).", received.type);
    } else if (!is_long_enough(*row, received)) {
        SCC_LOG_FROM(function, "scclib msg type(%d) too short. len:%zu.", received.type,
                     received.value.size());
    } else {
        row->process(received.value.data());
    }
}

}  // namespace

void dispatch_items(u16 count, const void* first, result_run& results) {
    // A handler may end the registration, and begin another: what is left of the message is not for that one.
    const u32 generation = current_generation();
    item_reader reader(count, first);
    item received;
    while (is_current(generation) && reader.next(received)) {
        if (received.type == msg::call_ret && received.value.size() >= result_bytes) {
            results.add(received.value.data());
            continue;
        }
        results.deliver();
        if (is_current(generation)) {
            process(received);
        }
    }
}

}  // namespace scc

extern "C" void _scc_lib_async_msg_proc(u32 count, const void* first) {
    const auto items = static_cast<u16>(count);
    if (items == 0 || first == nullptr) {
        SCC_LOG("input param invalid. tlv_num(%d).", items);
        return;
    }
    result_run results;
    dispatch_items(items, first, results);
    results.deliver();
}
