// See dispatch.h. Runs on the thread that receives; stateless, no lock. The caller has checked that the items
// fit in the message (items_fit); value_lengths.h says how long each value must be.
#include "client/dispatch.h"

#include <algorithm>
#include <array>

#include "client/diagnostics.h"
#include "client/lifetime.h"
#include "client/log.h"
#include "client/notifications.h"
#include "client/replies.h"
#include "client/value_lengths.h"
#include "msg/bytes.h"

using namespace scc;

namespace scc {
namespace {

using process_function = void (*)(const void* value);

struct item_row {
    u16 type;
    value_length least;
    process_function process;
};

consteval item_row route(u16 type, process_function process) {
    return {type, length_of(type), process};
}

// clang-format off
constexpr std::array item_table = std::to_array<item_row>({
    route(msg::d1x_addr_move,         _scc_lib_d1x_addr_move_notify_proc),
    route(msg::nac_user,              _scc_lib_user_chg_notify_proc),
    route(msg::debug,                 _scc_lib_dbg_proc),
    route(msg::offline_detect_notify, _scc_lib_offline_detect_cfg_notify_proc),
    route(msg::station_move,          _scc_lib_station_move_notify_proc),
    route(msg::flow,                  _scc_lib_flow_notify_proc),
    route(msg::noflow_offline,        _scc_lib_noflow_offline_notify_proc),
    route(msg::direct_vlan_notify,    _scc_lib_direct_vlan_notify_proc),
    route(msg::authmode,              _scc_lib_authmode_notify_proc),
    route(msg::dirchn,                _scc_lib_dirchn_notify_proc),
    route(msg::port_violate_notify,   _scc_lib_sp_violate_notify_proc),
    route(msg::user_roll,             _scc_lib_user_roll_notify_proc),
    route(msg::water_line,            _scc_lib_water_line_notify_proc),
    route(msg::info_collect,          _scc_lib_info_collect_proc),
    route(msg::is_alive,              _scc_lib_is_alive_proc),
    route(msg::call_ret,              _scc_lib_call_ret_proc),
    route(msg::dev_cap,               _scc_lib_dev_cap_proc),
    route(msg::ace_counter,           _scc_lib_ace_counter_proc),
});
// clang-format on

static_assert(item_table.size() == 18);
static_assert(std::ranges::is_sorted(item_table, {}, &item_row::type) &&
              std::ranges::adjacent_find(item_table, {}, &item_row::type) == item_table.end());

constexpr const char* function = "_scc_lib_async_msg_proc";

void process(const item& received) {
    const auto* row = std::ranges::lower_bound(item_table, received.type, {}, &item_row::type);
    if (row == item_table.end() || row->type != received.type) {
        SCC_LOG_FROM(function, "unknown scclib msg type(%d).", received.type);
    } else if (!is_long_enough(row->least, received.value)) {
        SCC_LOG_FROM(function, "scclib msg type(%d) too short. len:%zu.", received.type,
                     received.value.size());
    } else {
        row->process(received.value.data());
    }
}

}  // namespace

void dispatch_items(u16 count, const void* first, result_run& results) {
    // A handler, or another thread, may end the registration and begin another, which must not get the rest
    // of the message.
    const u32 generation = results.generation();
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
    result_run results(current_generation());
    dispatch_items(items, first, results);
    results.deliver();
}
