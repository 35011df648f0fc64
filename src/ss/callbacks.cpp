// See callbacks.h.
//
//   plain result, 12 bytes: u32 call id, u32 result, u32 type word
//   counter result, 48 bytes: u32 call id, 16 key at 4, u64 ACE at 24, u64 counter at 32, u32 result at 40
// An ACL's counter result has neither key nor ACE: both are zero.
#include "ss/callbacks.h"

#include <array>

#include "client/diagnostics.h"
#include "client/log.h"
#include "client/request_channel.h"
#include "msg/bytes.h"
#include "msg/result_codes.h"
#include "scclib.h"
#include "ss/id_map.h"
#include "ss/service.h"

using namespace scc;

namespace scc {
namespace {

// The head that all operation records share.
constexpr std::size_t ret_offset = offsetof(scc_ss_acl_operation, ret);
constexpr std::size_t op_offset = offsetof(scc_ss_acl_operation, op);
static_assert(offsetof(scc_ss_acl_operation, id) == 0 && ret_offset == 16 && op_offset == 20);

using plain_result = std::array<u8, 12>;
using counter_result = std::array<u8, 48>;

plain_result make_plain(u32 call_id, u32 result, u32 type_word) {
    plain_result out{};
    store<u32>(out.data(), 0, call_id);
    store<u32>(out.data(), 4, result);
    store<u32>(out.data(), 8, type_word);
    return out;
}

template <class Result>
u32 send_result(u16 scc_type, const Result& result, int sync) {
    return _scc_lib_ss_msg_send(scc_type, msg::service_ret, result.data(), static_cast<int>(result.size()),
                                sync);
}

// An operation code is also the position of its counter.
static_assert(SCC_SS_OP_CREATE == stat_acl_create && SCC_SS_OP_DELETE == stat_acl_delete);
static_assert(SCC_SS_OP_ADD_ACE == stat_ace_add && SCC_SS_OP_DELETE_ACE == stat_ace_delete);
static_assert(SCC_SS_OP_APPLY == stat_acl_apply && SCC_SS_OP_UNAPPLY == stat_acl_unapply);

struct callback_row {
    u32 type_word;
    u32 pair;
    u32 first_counted_op;  // and the next; or not_counted
    const char* name;      // begins the log line
    const char* op_label;  // precedes the operation code in the log line
    const char* log_end;
    const char* sender;  // in the log of a failed send
};

// clang-format off
constexpr callback_row acl_row      {msg::acl,            pair_acl,          stat_acl_create, "_scc_ss_acl_op_ret_callback",            "lib op type", "",  "_scc_lib_msg_send"};
constexpr callback_row ace_row      {msg::ace,            pair_ace,          stat_ace_add,    "_scc_ss_ace_op_ret_callback",            "lib op type", ".", "_scc_lib_msg_send"};
constexpr callback_row apply_row    {msg::acl_apply,      pair_apply,        stat_acl_apply,  "_scc_ss_acl_apply_ret_callback",         "op",          "",  "_scc_lib_msg_send"};
constexpr callback_row reseq_row    {msg::acl_resequence, pair_reseq,        not_counted,     "_scc_ss_acl_reseq_op_ret_callback",      "op",          "",  "_scc_lib_msg_send"};
constexpr callback_row svi_row      {msg::svi_router_acl, pair_svi,          not_counted,     "_scc_ss_svi_router_acl_op_ret_callback", "op",          "",  "_scc_lib_msg_send"};
constexpr callback_row eport_row    {msg::global_eport,   pair_global_eport, not_counted,     "_scc_ss_global_eport_ret_callback",      "op",          "",  "_scc_lib_ss_msg_send"};
constexpr callback_row cpp_row      {msg::cpp,            pair_cpp,          not_counted,     "_scc_ss_cpp_ret_callback",               "op",          "",  "_scc_lib_ss_msg_send"};
// clang-format on

void return_result(const char* function, const callback_row& row, const void* record) {
    if (record == nullptr) {
        return;
    }
    const u32 call_id = load<u32>(record, 0);
    const u32 ret = load<u32>(record, ret_offset);
    const u32 op = load<u32>(record, op_offset);
    const u16 scc_type = _scc_ss_get_type(call_id);
    SCC_LOG_FROM(function, "%s send scc_type:%d, type:%d, call_id:%d, ret:%d, %s:%d%s", row.name, scc_type,
                 msg::service_ret, call_id, ret, row.op_label, op, row.log_end);
    count_result(row.pair);
    const u32 error = send_result(scc_type, make_plain(call_id, ret, row.type_word), 0);
    if (error != result::ok) {
        SCC_LOG_FROM(function, "call %s failed. errno:%d.", row.sender, error);
    }
    if (row.first_counted_op != not_counted && op - row.first_counted_op < 2) {
        count_callback(op, ret == 0);
    }
}

// Only a choice of exactly 1 makes a query, which is answered on the synchronous socket.
bool is_query(const scc_ss_counter_operation& record) {
    return record.sync == 1;
}

counter_result make_counter(const scc_ss_counter_operation& record) {
    counter_result out{};
    store<u32>(out.data(), 0, record.id);
    store<u64>(out.data(), 32, record.counter);
    store<u32>(out.data(), 40, record.ret);
    return out;
}

}  // namespace
}  // namespace scc

extern "C" {

void _scc_ss_acl_op_ret_callback(const void* record, u32 /*size*/) {
    return_result(__func__, acl_row, record);
}

void _scc_ss_ace_op_ret_callback(const void* record, u32 /*size*/) {
    return_result(__func__, ace_row, record);
}

void _scc_ss_acl_apply_op_ret_callback(const void* record, u32 /*size*/) {
    return_result(__func__, apply_row, record);
}

void _scc_ss_acl_reseq_op_ret_callback(const void* record, u32 /*size*/) {
    return_result(__func__, reseq_row, record);
}

void _scc_ss_svi_router_acl_op_ret_callback(const void* record, u32 /*size*/) {
    return_result(__func__, svi_row, record);
}

void _scc_ss_global_eport_ret_callback(const void* record, u32 /*size*/) {
    return_result(__func__, eport_row, record);
}

void _scc_ss_cpp_ret_callback(const void* record, u32 /*size*/) {
    return_result(__func__, cpp_row, record);
}

void _scc_ss_acl_counter_op_ret_callback(const void* record, u32 /*size*/) {
    if (record == nullptr) {
        return;
    }
    const auto& counter = *static_cast<const scc_ss_counter_operation*>(record);
    const u16 scc_type = _scc_ss_get_type(counter.id);
    SCC_LOG("scclib acl counter send scc_type:%d, type:%d, ret:%d, cnt:%lu, sync:%s", scc_type,
            msg::service_ret, counter.ret, counter.counter, is_query(counter) ? "sync" : "async");
    count_result(pair_acl_stat);
    const u32 error = send_result(scc_type, make_counter(counter), is_query(counter) ? 1 : 0);
    if (error != result::ok) {
        SCC_LOG("call _scc_lib_msg_send failed. errno:%d.", error);
    }
}

void _scc_ss_ace_counter_op_ret_callback(const void* record, u32 /*size*/) {
    if (record == nullptr) {
        return;
    }
    const auto& counter = *static_cast<const scc_ss_counter_operation*>(record);
    const u16 scc_type = _scc_ss_get_type(counter.id);
    SCC_LOG("scclib ace counter send scc_type:%d, type:%d, ret:%d, cnt:%lu, sync:%s", scc_type,
            msg::service_ret, counter.ret, counter.counter, is_query(counter) ? "sync" : "async");
    count_result(pair_ace_stat);
    counter_result sent = make_counter(counter);
    store(sent.data(), 4, counter.key);
    store(sent.data(), 24, counter.ace);
    const u32 error = send_result(scc_type, sent, is_query(counter) ? 1 : 0);
    if (error != result::ok) {
        SCC_LOG("call _scc_lib_ss_msg_send failed. errno:%d.", error);
    }
}

// Nothing was saved in the id/type map, so the scc-type is 0. Receivers must not read the type word.
void _scc_ss_data_recover_callback(u32 result_code, u32 call_id) {
    SCC_LOG("_scc_ss_data_recover_callback send type:%d, call_id:%d, ret:%d", msg::service_ret, call_id,
            result_code);
    count_result(pair_recover);
    const u32 error = send_result(0, make_plain(call_id, result_code, 0), 0);
    if (error != result::ok) {
        SCC_LOG("call _scc_lib_msg_send failed. errno:%d.", error);
    }
}

u32 _scc_nacm_callback_send(u32 result_code, u32 call_id, u32 type) {
    const u16 scc_type = _scc_ss_get_type(call_id);
    SCC_LOG("send scc_type:%d, type:%d, call_id:%d, ret:%d", scc_type, msg::service_ret, call_id,
            result_code);
    const u32 error = send_result(scc_type, make_plain(call_id, result_code, type), 0);
    if (error != result::ok) {
        SCC_LOG("call _scc_lib_ss_msg_send failed. errno:%d.", error);
    }
    return error;
}

scc_ss_ret_callback scc_ssc_appmng_get_callback(uint32_t op) {
    switch (op) {
        case SCC_SS_OP_CREATE:
        case SCC_SS_OP_DELETE:
            return _scc_ss_acl_op_ret_callback;
        case SCC_SS_OP_ADD_ACE:
        case SCC_SS_OP_DELETE_ACE:
            return _scc_ss_ace_op_ret_callback;
        case SCC_SS_OP_APPLY:
        case SCC_SS_OP_UNAPPLY:
            return _scc_ss_acl_apply_op_ret_callback;
        case SCC_SS_OP_RESEQUENCE:
            return _scc_ss_acl_reseq_op_ret_callback;
        case SCC_SS_OP_SVI_ROUTER_ACL:
            return _scc_ss_svi_router_acl_op_ret_callback;
        case SCC_SS_OP_COUNTER:
        case SCC_SS_OP_COUNTER + 1:
            return _scc_ss_acl_counter_op_ret_callback;
        case SCC_SS_OP_CPP:
            return _scc_ss_cpp_ret_callback;
        default:
            return nullptr;
    }
}
}
