// See notifications.h. A notification is a row: its handler, where the arguments lie in the value, what is
// logged when it is called and when nobody wants it, and what is counted.
#include "client/notifications.h"

#include "client/delivery.h"
#include "client/diagnostics.h"
#include "client/log.h"
#include "util/address_text.h"

using namespace scc;

namespace scc {
namespace {

using handlers = scc_handlers;

// Calls the handler with the arguments of the row; false when there is none.
template <auto Member, class... Arguments>
bool call_handler(const void* value) {
    using handler_type = handler_of<Member>;
    static_assert(signature<handler_type>::template same_count<Arguments...>);
    static_assert(signature<handler_type>::template matches<Arguments...>);
    const handler_type handler = load_handler(g_scc_client_cb.handlers.*Member);
    if (handler == nullptr) {
        return false;
    }
    const source from{static_cast<const u8*>(value), 0};
    handler(Arguments::read(from)...);
    return true;
}

template <auto Member>
bool is_wanted() {
    return load_handler(g_scc_client_cb.handlers.*Member) != nullptr;
}

const char* choose(bool first, const char* yes, const char* no) {
    return first ? yes : no;
}

const u8* at(const void* value, std::size_t offset) {
    return static_cast<const u8*>(value) + offset;
}

// Port-security violation: scc_port_violation at 4, u8 begins at 60. User roll: scc_user_roll at 8.
constexpr std::size_t violation_at = 4;
constexpr std::size_t roll_at = 8;

}  // namespace
}  // namespace scc

// The log is written in front of the call, as its text says; a handler that goes away in between is not
// called any more.
#define SCC_NOTIFY(member, arguments, called, ignored)                         \
    do {                                                                       \
        if (!is_wanted<&handlers::member>()) {                                 \
            SCC_LOG ignored;                                                   \
            return;                                                            \
        }                                                                      \
        SCC_LOG called;                                                        \
        (void)call_handler<&handlers::member, SCC_ARGUMENTS arguments>(value); \
    } while (false)
#define SCC_ARGUMENTS(...) __VA_ARGS__

extern "C" {

void _scc_lib_d1x_addr_move_notify_proc(const void* value) {
    _scc_lib_func_call_succ(stat_addr_move);
    SCC_NOTIFY(d1x_addr_move, (u32_at<4>, pointer_at<8>), ("call d1x mac move notify handler"),
               ("ignore d1x mac move notify msg"));
    _scc_lib_func_cb_succ(stat_addr_move);
}

// The one handler whose return value counts.
void _scc_lib_user_chg_notify_proc(const void* value) {
    const bool add = load<u8>(value, 16) != 0;
    const u32 statistics = add ? stat_user_added : stat_user_deleted;
    _scc_lib_func_call_succ(statistics);
    const auto handler = load_handler(g_scc_client_cb.handlers.user_change);
    if (handler == nullptr) {
        SCC_LOG("ignore user cfg notify msg");
        return;
    }
    SCC_LOG("user(mac:%s, ip:%s) %s.", mac_text(at(value, 4)).text, ipv4_text(load<u32>(value, 32)).text,
            choose(add, "add", "del"));
    const int outcome = handler(load<u8>(value, 16), at(value, 24), at(value, 80));
    count_callback(statistics, outcome == 0);
}

void _scc_lib_offline_detect_cfg_notify_proc(const void* value) {
    SCC_NOTIFY(offline_detect_notify, (u32_at<0>, u8_at<4>, u32_at<8>, u32_at<12>),
               ("call offline detect cfg handler(%s).", choose(load<u8>(value, 4) != 0, "open", "close")),
               ("ignore offline detect cfg notify msg"));
}

void _scc_lib_station_move_notify_proc(const void* value) {
    SCC_NOTIFY(station_move, (u8_at<4>),
               ("call station move handler(%s).", choose(load<u8>(value, 4) != 0, "permit", "deny")),
               ("ignore station move notify msg"));
}

void _scc_lib_flow_notify_proc(const void* value) {
    SCC_NOTIFY(flow, (pointer_at<8>, u64_at<64>, u64_at<72>), ("call flow num handler"),
               ("ignore flow num notify msg"));
}

void _scc_lib_noflow_offline_notify_proc(const void* value) {
    _scc_lib_func_call_succ(stat_noflow_offline);
    SCC_NOTIFY(noflow_offline, (pointer_at<8>, u64_at<64>, u64_at<72>, pointer_at<88>, u32_at<80>),
               ("call noflow offline handler"), ("ignore noflow offline notify msg"));
    _scc_lib_func_cb_succ(stat_noflow_offline);
}

// No line when it is called.
void _scc_lib_direct_vlan_notify_proc(const void* value) {
    if (!call_handler<&handlers::direct_vlan_notify, pointer_at<8>>(value)) {
        SCC_LOG("ignore direct vlan notify msg");
    }
}

void _scc_lib_authmode_notify_proc(const void* value) {
    SCC_NOTIFY(authmode, (u32_at<4>), ("call authmode notify handler"), ("ignore authmode notify msg"));
}

void _scc_lib_dirchn_notify_proc(const void* value) {
    SCC_NOTIFY(dirchn, (flag_at<8>, u32_at<4>),
               ("%s dirchn(ip:%s).", choose(load<u32>(value, 8) != 0, "add", "del"),
                ipv4_text(load<u32>(value, 4)).text),
               ("ignore dirchn notify msg"));
}

void _scc_lib_sp_violate_notify_proc(const void* value) {
    SCC_NOTIFY(port_violate_notify, (u8_at<60>, pointer_at<violation_at>),
               ("%s ps violate(ifx:0x%x vid:%d mac:%s).", choose(load<u8>(value, 60) != 0, "add", "del"),
                load<u32>(value, violation_at), load<u16>(value, violation_at + 4),
                mac_text(at(value, violation_at + 6)).text),
               ("ignore ps violate notify msg"));
}

void _scc_lib_user_roll_notify_proc(const void* value) {
    SCC_NOTIFY(user_roll, (pointer_at<roll_at>),
               ("call user roll handler(ifx:0x%x, vid:%d, mac:%s, roll_type:%d).", load<u32>(value, roll_at),
                load<u16>(value, roll_at + 4), mac_text(at(value, roll_at + 6)).text,
                load<u32>(value, roll_at + 12)),
               ("ignore user roll notify msg(ifx:0x%x, vid:%d, mac:%s, roll_type:%d).",
                load<u32>(value, roll_at), load<u16>(value, roll_at + 4),
                mac_text(at(value, roll_at + 6)).text, load<u32>(value, roll_at + 12)));
}

void _scc_lib_water_line_notify_proc(const void* value) {
    const char* edge = choose(load<u32>(value) != 0, "start", "end");
    SCC_NOTIFY(water_line, (flag_at<0>), ("call waterline handler(%s).", edge),
               ("ignore waterline notify(%s).", edge));
}

void _scc_lib_ace_counter_proc(const void* value) {
    SCC_NOTIFY(ace_counters, (pointer_at<4>, u32_at<20>, pointer_at<24>),
               ("call counter notify handler, acl(id:%d, app:%d), ace(cnt:%d)", load<u32>(value, 12),
                load<u32>(value, 8), load<u32>(value, 20)),
               ("ignore counter notify msg"));
}
}
