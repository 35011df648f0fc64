// The daemon's notifications: each is a row of data and a function that delivers it. The functions run on the
// thread that receives and take no lock.
#pragma once

#include "client/delivery.h"
#include "client/diagnostics.h"

namespace scc::notification {

// The entry of the statistics that a notification is counted in.
template <u32 Index>
struct counted {
    static u32 index(std::span<const u8> /*value*/) { return Index; }
};

template <std::size_t Offset, u32 NotZero, u32 Zero>
struct counted_by_byte {
    static u32 index(std::span<const u8> value) { return value[Offset] != 0 ? NotZero : Zero; }
};

// Arguments are the fields that the handler gets, Logged those that the log lines print.
template <u16 Type, auto Handler, class Arguments, class Logged = fields<>,
          class Counted = counted<not_counted>>
struct row {
    static_assert(fit(Arguments{}, handler_of<Handler>{}));
    static constexpr u16 type = Type;
    static constexpr auto handler = Handler;
    using arguments = Arguments;
    using logged = Logged;
    using statistics = Counted;
};

using handlers = scc_handlers;

// clang-format off
using d1x_addr_move = row<msg::d1x_addr_move, &handlers::d1x_addr_move,
    fields<u32_at<4>, list_at<8, 4>>, fields<>, counted<stat_addr_move>>;
// The one handler whose return value counts.
using user_change = row<msg::nac_user, &handlers::user_change,
    fields<u8_at<16>, pointer_at<24>, pointer_at<80>>, fields<u8_at<16>, mac_at<4>, u32_at<32>>,
    counted_by_byte<16, stat_user_added, stat_user_deleted>>;
using offline_detect = row<msg::offline_detect_notify, &handlers::offline_detect_notify,
    fields<u32_at<0>, u8_at<4>, u32_at<8>, u32_at<12>>, fields<u8_at<4>>>;
using station_move = row<msg::station_move, &handlers::station_move, fields<u8_at<4>>, fields<u8_at<4>>>;
using flow = row<msg::flow, &handlers::flow, fields<pointer_at<8>, u64_at<64>, u64_at<72>>>;
using noflow_offline = row<msg::noflow_offline, &handlers::noflow_offline,
    fields<pointer_at<8>, u64_at<64>, u64_at<72>, list_at<88, 80>, u32_at<80>>, fields<>,
    counted<stat_noflow_offline>>;
using direct_vlan = row<msg::direct_vlan_notify, &handlers::direct_vlan_notify, fields<pointer_at<8>>>;
using authmode = row<msg::authmode, &handlers::authmode, fields<u32_at<4>>>;
using dirchn = row<msg::dirchn, &handlers::dirchn,
    fields<flag_at<8>, u32_at<4>>, fields<u32_at<8>, u32_at<4>>>;
using port_violation = row<msg::port_violate_notify, &handlers::port_violate_notify,
    fields<u8_at<60>, pointer_at<4>>, fields<u8_at<60>, u32_at<4>, u16_at<8>, mac_at<10>>>;
using user_roll = row<msg::user_roll, &handlers::user_roll,
    fields<pointer_at<8>>, fields<u32_at<8>, u16_at<12>, mac_at<14>, u32_at<20>>>;
using water_line = row<msg::water_line, &handlers::water_line, fields<flag_at<0>>, fields<u32_at<0>>>;
using ace_counters = row<msg::ace_counter, &handlers::ace_counters,
    fields<pointer_at<4>, u32_at<20>, list_at<24, 20>>, fields<u32_at<12>, u32_at<8>, u32_at<20>>>;
// clang-format on

}  // namespace scc::notification

extern "C" {
void _scc_lib_d1x_addr_move_notify_proc(const void* value);
void _scc_lib_user_chg_notify_proc(const void* value);
void _scc_lib_offline_detect_cfg_notify_proc(const void* value);
void _scc_lib_station_move_notify_proc(const void* value);
void _scc_lib_flow_notify_proc(const void* value);
void _scc_lib_noflow_offline_notify_proc(const void* value);
void _scc_lib_direct_vlan_notify_proc(const void* value);
void _scc_lib_authmode_notify_proc(const void* value);
void _scc_lib_dirchn_notify_proc(const void* value);
void _scc_lib_sp_violate_notify_proc(const void* value);
void _scc_lib_user_roll_notify_proc(const void* value);
void _scc_lib_water_line_notify_proc(const void* value);
void _scc_lib_ace_counter_proc(const void* value);
}
