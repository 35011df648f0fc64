// See notifications.h. The log lines stand in the functions, where the compiler checks their formats.
#include "client/notifications.h"

#include "client/log.h"
#include "client/value_lengths.h"
#include "util/address_text.h"

using namespace scc;

namespace scc {
namespace {

// A handler that returns nothing always succeeds.
template <class Row>
bool call_handler(handler_of<Row::handler> handler, std::span<const u8> value) {
    if constexpr (std::is_void_v<decltype(Row::arguments::pass_to(handler, value))>) {
        Row::arguments::pass_to(handler, value);
        return true;
    } else {
        return Row::arguments::pass_to(handler, value) == 0;
    }
}

// Log lines name the function that calls this one.
template <class Row, class LogCall, class LogIgnored>
void notify(const void* item_value, LogCall log_call, LogIgnored log_ignored,
            const char* function = __builtin_FUNCTION()) {
    const std::span value{static_cast<const u8*>(item_value), length_of(Row::type).fixed_bytes};
    static_assert(length_of(Row::type) == needed_by<Row>().least);
    const u32 statistics = Row::statistics::index(value);
    if (statistics != not_counted) {
        _scc_lib_func_call_succ(statistics);
    }
    const auto& slot = g_scc_client_cb.handlers.*Row::handler;
    if (load_handler(slot) == nullptr) {
        Row::logged::pass_to(log_ignored, value, function);
        return;
    }
    // Log before the call, and do not call a handler that was cleared meanwhile.
    Row::logged::pass_to(log_call, value, function);
    if (const auto handler = load_handler(slot); handler != nullptr) {
        const bool succeeded = call_handler<Row>(handler, value);
        if (statistics != not_counted) {
            count_callback(statistics, succeeded);
        }
    }
}

}  // namespace
}  // namespace scc

// A line with fixed text, whatever the row's logged fields are.
#define SCC_LINE(text) [](const char* function, auto...) { SCC_LOG_FROM(function, text); }

extern "C" {

void _scc_lib_d1x_addr_move_notify_proc(const void* value) {
    notify<notification::d1x_addr_move>(value, SCC_LINE("call d1x mac move notify handler"),
                                        SCC_LINE("ignore d1x mac move notify msg"));
}

void _scc_lib_user_chg_notify_proc(const void* value) {
    const auto log_call = [](const char* function, u8 add, const u8* mac, u32 ip) {
        SCC_LOG_FROM(function, "user(mac:%s, ip:%s) %s.", mac_text(mac).text, ipv4_text(ip).text,
                     add != 0 ? "add" : "del");
    };
    notify<notification::user_change>(value, log_call, SCC_LINE("ignore user cfg notify msg"));
}

void _scc_lib_offline_detect_cfg_notify_proc(const void* value) {
    const auto log_call = [](const char* function, u8 open) {
        SCC_LOG_FROM(function, "call offline detect cfg handler(%s).", open != 0 ? "open" : "close");
    };
    notify<notification::offline_detect>(value, log_call, SCC_LINE("ignore offline detect cfg notify msg"));
}

void _scc_lib_station_move_notify_proc(const void* value) {
    const auto log_call = [](const char* function, u8 permit) {
        SCC_LOG_FROM(function, "call station move handler(%s).", permit != 0 ? "permit" : "deny");
    };
    notify<notification::station_move>(value, log_call, SCC_LINE("ignore station move notify msg"));
}

void _scc_lib_flow_notify_proc(const void* value) {
    notify<notification::flow>(value, SCC_LINE("call flow num handler"),
                               SCC_LINE("ignore flow num notify msg"));
}

void _scc_lib_noflow_offline_notify_proc(const void* value) {
    notify<notification::noflow_offline>(value, SCC_LINE("call noflow offline handler"),
                                         SCC_LINE("ignore noflow offline notify msg"));
}

// Logs nothing when it calls the handler.
void _scc_lib_direct_vlan_notify_proc(const void* value) {
    notify<notification::direct_vlan>(
        value, [](const char* /*function*/) {}, SCC_LINE("ignore direct vlan notify msg"));
}

void _scc_lib_authmode_notify_proc(const void* value) {
    notify<notification::authmode>(value, SCC_LINE("call authmode notify handler"),
                                   SCC_LINE("ignore authmode notify msg"));
}

void _scc_lib_dirchn_notify_proc(const void* value) {
    const auto log_call = [](const char* function, u32 add, u32 ip) {
        SCC_LOG_FROM(function, "%s dirchn(ip:%s).", add != 0 ? "add" : "del", ipv4_text(ip).text);
    };
    notify<notification::dirchn>(value, log_call, SCC_LINE("ignore dirchn notify msg"));
}

void _scc_lib_sp_violate_notify_proc(const void* value) {
    const auto log_call = [](const char* function, u8 add, u32 ifx, u16 vid, const u8* mac) {
        SCC_LOG_FROM(function, "%s ps violate(ifx:0x%x vid:%d mac:%s).", add != 0 ? "add" : "del", ifx, vid,
                     mac_text(mac).text);
    };
    notify<notification::port_violation>(value, log_call, SCC_LINE("ignore ps violate notify msg"));
}

void _scc_lib_user_roll_notify_proc(const void* value) {
    const auto log_call = [](const char* function, u32 ifx, u16 vid, const u8* mac, u32 type) {
        SCC_LOG_FROM(function, "call user roll handler(ifx:0x%x, vid:%d, mac:%s, roll_type:%d).", ifx, vid,
                     mac_text(mac).text, type);
    };
    const auto log_ignored = [](const char* function, u32 ifx, u16 vid, const u8* mac, u32 type) {
        SCC_LOG_FROM(function, "ignore user roll notify msg(ifx:0x%x, vid:%d, mac:%s, roll_type:%d).", ifx,
                     vid, mac_text(mac).text, type);
    };
    notify<notification::user_roll>(value, log_call, log_ignored);
}

void _scc_lib_water_line_notify_proc(const void* value) {
    const auto log_call = [](const char* function, u32 start) {
        SCC_LOG_FROM(function, "call waterline handler(%s).", start != 0 ? "start" : "end");
    };
    const auto log_ignored = [](const char* function, u32 start) {
        SCC_LOG_FROM(function, "ignore waterline notify(%s).", start != 0 ? "start" : "end");
    };
    notify<notification::water_line>(value, log_call, log_ignored);
}

void _scc_lib_ace_counter_proc(const void* value) {
    const auto log_call = [](const char* function, u32 acl_id, u32 app_type, u32 count) {
        SCC_LOG_FROM(function, "call counter notify handler, acl(id:%d, app:%d), ace(cnt:%d)", acl_id,
                     app_type, count);
    };
    notify<notification::ace_counters>(value, log_call, SCC_LINE("ignore counter notify msg"));
}
}
