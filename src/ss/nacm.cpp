// NAC management: the operations and the calls that answer them. Operations run on the processing thread and
// call handlers without scc_lib_lock, because the answering calls take it; any thread may answer. The user
// read is answered here, with the lock held.
#include <array>

#include "client/control_block.h"
#include "client/diagnostics.h"
#include "client/locks.h"
#include "client/log.h"
#include "client/pending_calls.h"
#include "client/request_channel.h"
#include "msg/bytes.h"
#include "msg/result_codes.h"
#include "ss/callbacks.h"
#include "ss/id_map.h"
#include "ss/operations.h"
#include "ss/service.h"
#include "util/address_text.h"

using namespace scc;

static_assert(sizeof(scc_ss_user) == record::service_user);

extern "C" {
// clang-format off
constinit const std::array<const char*, limits::nacm_types> g_scc_nacm_type_str = {
    "None", "IEEE 802.1X MAC", "IEEE 802.1X Port Static", "IEEE 802.1X Port Move",
    "IEEE 802.1X Port Single", "IEEE 802.1X MAB", "Port security", "IEEE 802.1X Author",
    "Port security Ipv4 Bind", "Ipv4 Source Guard", "WFB Bind", "Global Ipv4 Bind",
    "Port security Ipv6 Bind", "Ipv6 Source Guard", "ND Snooping", "Global Ipv6 Bind",
    "WEB Authentication", "WEB Authentication Ipv6", "Safe channel", "WEB Direct",
    "VVLAN", "Ipv6 Loose", "Ipv6 Strict", "Ipv6 Compatible",
    "ND Snp None", "ND Snp Loose", "ND Snp Strict", "ND Snp HW Check",
    "IEEE 802.1X Port Open", "IEEE 802.1X Port MAX", "IEEE 802.1X KW2", "Port security Violation",
    "Arp Check", "Close learning", "Safe channel Export", "Global Ip+MAC Export",
    "Sta Address Move", "Direct Vlan", "Other Type",
};
// clang-format on
}

namespace scc {
namespace {

// Calls the handler of an operation saved in the map, or reports success if there is none. Logs as function.
template <auto Slot, class... Arguments>
i32 call_or_answer(const char* function, const char* name, u32 id, u32 type_word, Arguments... arguments) {
    const auto handler = load_handler(g_scc_ss_cb.*Slot);
    if (handler == nullptr) {
        SCC_LOG_FROM(function, "%s is NULL", name);
        (void)_scc_nacm_callback_send(0, id, type_word);
        return 0;
    }
    const i32 outcome = handler(id, arguments...);
    if (outcome != 0) {
        SCC_LOG_FROM(function, "call %s failed. %d.", name, outcome);
    }
    return outcome;
}

// Calls the handler of a recovery list, which is never answered. Logs as function.
template <auto Slot, class... Arguments>
i32 call_recovery(const char* function, const char* name, Arguments... arguments) {
    const auto handler = load_handler(g_scc_ss_cb.*Slot);
    if (handler == nullptr) {
        SCC_LOG_FROM(function, "%s is NULL", name);
        return 0;
    }
    const i32 outcome = handler(arguments...);
    if (outcome != 0) {
        SCC_LOG_FROM(function, "call %s failed. %d.", name, outcome);
    }
    return outcome;
}

// False, without a log line, for an application type that does not exist.
bool save_application(const char* function, u16 scc_type, const void* value) {
    const write_guard guard(lib_lock);
    const u32 type = load<u32>(value, 12);
    if (type >= limits::nacm_types) {
        return false;
    }
    _scc_ss_save_idtype(load<u32>(value), scc_type);
    SCC_LOG_FROM(function, "call _scc_nacm_app_op ifx:%d, op:%d, type:%s", load<u32>(value, 4),
                 load<u32>(value, 8), g_scc_nacm_type_str[type]);
    return true;
}

constexpr std::size_t user_offset = 8;  // in messages 151 and 152

u32 reply(u32 pair, u32 result_code, u32 call_id, u32 type_word) {
    const write_guard guard(lib_lock);
    count_result(pair);
    return _scc_nacm_callback_send(result_code, call_id, type_word);
}

}  // namespace
}  // namespace scc

using handlers = service_handlers;

extern "C" {

i32 _scc_nacm_app_op(u16 scc_type, const void* value) {
    if (!save_application(__func__, scc_type, value)) {
        return static_cast<i32>(result::invalid);
    }
    return call_or_answer<&handlers::app_set>(__func__, "ssc_nacm_app_set_handler", load<u32>(value),
                                              load<u32>(value, 12), load<u32>(value, 8), load<u32>(value, 4),
                                              load<u32>(value, 12));
}

i32 _scc_nacm_app_withvid_op(u16 scc_type, const void* value) {
    if (!save_application(__func__, scc_type, value)) {
        return static_cast<i32>(result::invalid);
    }
    return call_or_answer<&handlers::app_set_with_vid>(
        __func__, "ssc_nacm_app_set_with_vid_handler", load<u32>(value), load<u32>(value, 12),
        load<u32>(value, 8), load<u32>(value, 4), load<u32>(value, 20), load<u32>(value, 12));
}

i32 _scc_nacm_def_read(u16 scc_type, const void* value) {
    const u32 ifx = load<u32>(value, 4);
    const u32 type = load<u32>(value, 8);
    {
        const write_guard guard(lib_lock);
        _scc_ss_save_idtype(load<u32>(value), scc_type);
        SCC_LOG("call _scc_nacm_def_read ifx:%d, type:%d", ifx, type);
    }
    return call_or_answer<&handlers::def_read>(__func__, "ssc_nacm_def_read_handler", load<u32>(value),
                                               msg::nacm_def_read, ifx, type);
}

i32 _scc_nacm_l4port_op(u16 scc_type, const void* value) {
    const u32 add = load<u32>(value, 16);
    {
        const write_guard guard(lib_lock);
        _scc_ss_save_idtype(load<u32>(value), scc_type);
        SCC_LOG("call _scc_nacm_l4port_op op:%s, port:%lu", add != 0 ? "add" : "del", load<u64>(value, 8));
    }
    return call_or_answer<&handlers::http_l4port_set>(__func__, "ssc_nacm_http_l4port_set_handler",
                                                      load<u32>(value), msg::nacm_l4port, add,
                                                      load<u32>(value, 8));
}

i32 _scc_nacm_user_op(u16 scc_type, const void* value) {
    const u8 add = load<u8>(value, 4);
    const auto user = load<scc_ss_user>(value, user_offset);
    {
        const write_guard guard(lib_lock);
        _scc_ss_save_idtype(load<u32>(value), scc_type);
        SCC_LOG("call _scc_nacm_user_op op:%s, user(ifx:%d,ip:%s,mac:%s)", add != 0 ? "add" : "del", user.ifx,
                ipv4_text(user.ip).text, mac_text(user.mac).text);
    }
    _scc_lib_func_call_succ(add != 0 ? stat_nac_user_add : stat_nac_user_delete);
    return call_or_answer<&handlers::user_op>(__func__, "ssc_nacm_user_op_handler", load<u32>(value),
                                              msg::nacm_user, add, &user);
}

i32 _scc_nacm_user_reinstall_op(u16 scc_type, const void* value) {
    const u32 ifx = load<u32>(value, 4);
    const u32 start = load<u32>(value, 8);
    {
        const write_guard guard(lib_lock);
        _scc_ss_save_idtype(load<u32>(value), scc_type);
        SCC_LOG("call _scc_nacm_user_reinstall_op op:%s ifx:%d", start != 0 ? "start" : "end", ifx);
    }
    return call_or_answer<&handlers::user_reinstall>(__func__, "ssc_nacm_user_reinstall_handler",
                                                     load<u32>(value), msg::nacm_user_reinstall, start, ifx);
}

// Reply, 104 bytes: u32 call id, the user at 8 when the result is 0, u32 result at 96. The call id is new:
// that of the message is not used, and nothing is saved in the map.
i32 _scc_nacm_user_read(u16 /*scc_type*/, const void* value) {
    const write_guard guard(lib_lock);
    const u32 id = _scc_lib_call_id_get();
    auto user = load<scc_ss_user>(value, user_offset);
    SCC_LOG("call _scc_nacm_user_read user(ifx:%d,ip:%s,mac:%s)", user.ifx, ipv4_text(user.ip).text,
            mac_text(user.mac).text);
    i32 outcome = 0;
    if (const auto handler = load_handler(g_scc_ss_cb.user_read); handler == nullptr) {
        SCC_LOG("ssc_nacm_user_read_handler is NULL");
    } else if (outcome = handler(id, &user); outcome != 0) {
        SCC_LOG("call ssc_nacm_user_read_handler failed. %d.", outcome);
    }
    std::array<u8, 104> sent{};
    store<u32>(sent.data(), 0, id);
    if (outcome == 0) {
        store(sent.data(), user_offset, user);
    }
    store<i32>(sent.data(), 96, outcome);
    count_result(pair_user_read);
    const u32 error =
        _scc_lib_ss_msg_send(0, msg::service_ret, sent.data(), static_cast<int>(sent.size()), 0);
    if (error != result::ok) {
        SCC_LOG("call _scc_lib_msg_send failed. errno:%d.", error);
    }
    return static_cast<i32>(error);
}

i32 _scc_nacm_app_user_recover(u16 /*scc_type*/, const void* value) {
    const u32 app = load<u32>(value);
    const u32 ifx = load<u32>(value, 8);
    const u32 count = load<u32>(value, 12);
    {
        const write_guard guard(lib_lock);
        SCC_LOG("call ssc_nacm_app_user_recover_handler ifx:%d, app:%x, usernum:%d", ifx, app, count);
    }
    return call_recovery<&handlers::app_user_recover>(
        __func__, "ssc_nacm_app_user_recover_handler", ifx, app, count,
        static_cast<const void*>(static_cast<const u8*>(value) + 16));
}

i32 _scc_nacm_l4port_recover(u16 /*scc_type*/, const void* value) {
    const u32 count = load<u32>(value);
    {
        const write_guard guard(lib_lock);
        SCC_LOG("call ssc_nacm_l4port_recover_handler l4port:%d", count);
    }
    return call_recovery<&handlers::l4port_recover>(
        __func__, "ssc_nacm_l4port_recover_handler", count,
        static_cast<const void*>(static_cast<const u8*>(value) + 4));
}

uint32_t scc_ssc_nacm_app_op_callback(uint32_t result, uint32_t call_id, uint32_t /*op*/, uint32_t /*ifx*/,
                                      uint32_t type) {
    return reply(pair_app, result, call_id, type);
}

uint32_t scc_ssc_nacm_app_op_with_vid_callback(uint32_t result, uint32_t call_id, uint32_t /*op*/,
                                               uint32_t /*ifx*/, uint32_t /*vid*/, uint32_t type) {
    return reply(pair_app_with, result, call_id, type);
}

uint32_t scc_ssc_nacm_def_read_callback(uint32_t result, uint32_t call_id, uint32_t /*ifx*/,
                                        uint32_t /*type*/) {
    return reply(pair_def_read, result, call_id, msg::nacm_def_read);
}

uint32_t scc_ssc_nacm_http_l4port_set_callback(uint32_t result, uint32_t call_id, uint32_t /*add*/,
                                               uint32_t /*port*/) {
    return reply(pair_l4port, result, call_id, msg::nacm_l4port);
}

// Counts whether the answer was sent, not the result: deliberate.
uint32_t scc_ssc_nacm_user_op_callback(uint32_t result, uint32_t call_id, uint8_t add,
                                       const struct scc_ss_user* /*user*/) {
    const u32 error = reply(pair_user, result, call_id, msg::nacm_user);
    count_callback(add != 0 ? stat_nac_user_add : stat_nac_user_delete, error == 0);
    return error;
}

uint32_t scc_ssc_nacm_user_reinstall_callback(uint32_t result, uint32_t call_id, uint32_t /*start*/,
                                              uint32_t /*ifx*/) {
    return reply(pair_user_reinstall, result, call_id, msg::nacm_user_reinstall);
}

uint32_t scc_offline_detect_cfg_ret_callback(uint32_t result, uint32_t call_id, uint32_t /*open*/,
                                             uint32_t /*interval*/, uint32_t /*threshold*/) {
    return reply(pair_offline_cfg, result, call_id, msg::offline_detect_notify);
}
}
