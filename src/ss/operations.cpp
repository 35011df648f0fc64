// The operations on ACLs and switch settings: each fills in a record on the stack and calls its handler with
// scc_lib_lock held. A missing handler is answered with success, or the daemon would wait for the result.
#include "ss/operations.h"

#include <sys/time.h>

#include <cstring>

#include "client/control_block.h"
#include "client/diagnostics.h"
#include "client/locks.h"
#include "client/log.h"
#include "client/request_channel.h"
#include "msg/bytes.h"
#include "ss/callbacks.h"
#include "ss/id_map.h"
#include "ss/service.h"

using namespace scc;

static_assert(sizeof(scc_ss_acl_operation) == 48);
static_assert(sizeof(scc_ss_ace_operation) == 960);
static_assert(sizeof(scc_ss_apply_operation) == 280);
static_assert(sizeof(scc_ss_resequence_operation) == 56);
static_assert(sizeof(scc_ss_svi_operation) == 40);
static_assert(sizeof(scc_ss_counter_operation) == 72);
static_assert(sizeof(scc_ss_eport_operation) == 48);
static_assert(sizeof(scc_ss_cpp_operation) == 40);
static_assert(offsetof(scc_ss_acl_operation, key) == 28);
static_assert(offsetof(scc_ss_counter_operation, ace) == 48);

namespace scc {
namespace {

// The operation that a message asks for; two may share a message type.
struct requested_operation {
    u32 op;                    // SCC_SS_OP_*
    const char* verb;          // in the log
    const char* handler_name;  // in the log
};

template <class Record>
struct message_kind {
    scc_ss_ret_callback callback;
    bool counts_calls;  // at the operation code
    bool logs_success;
    void (*log)(const char* function, const u8* value, const char* verb);
    void (*fill)(Record& record, const u8* value);
};

// Logs as function.
template <auto Slot, class Record>
i32 perform(const char* function, const message_kind<Record>& kind, const requested_operation& requested,
            u16 scc_type, const void* value) {
    const write_guard guard(lib_lock);
    const auto* bytes = static_cast<const u8*>(value);
    kind.log(function, bytes, requested.verb);
    const u32 id = load<u32>(bytes);
    _scc_ss_save_idtype(id, scc_type);
    if (kind.counts_calls) {
        _scc_lib_func_call_succ(requested.op);
    }
    Record operation;
    std::memset(&operation, 0, sizeof operation);
    operation.id = id;
    operation.callback = kind.callback;
    operation.flag = 1;
    kind.fill(operation, bytes);
    const auto handler = load_handler(g_scc_ss_cb.*Slot);
    if (handler == nullptr) {
        SCC_LOG_FROM(function, "%s is NULL", requested.handler_name);
        operation.op = requested.op;
        kind.callback(&operation, sizeof operation);
        return 0;
    }
    const i32 outcome = handler(&operation);
    if (outcome != 0) {
        SCC_LOG_FROM(function, "call %s failed. %d.", requested.handler_name, outcome);
    } else if (kind.logs_success) {
        SCC_LOG_FROM(function, "call %s success.", requested.handler_name);
    }
    return outcome;
}

using handlers = service_handlers;

constexpr message_kind<scc_ss_acl_operation> acl_message{
    _scc_ss_acl_op_ret_callback, true, true,
    [](const char* function, const u8*, const char* verb) {
        SCC_LOG_FROM(function, "call _scc_ss_acl_op %s", verb);
    },
    [](scc_ss_acl_operation& record, const u8* value) { record.key = load<scc_acl_key>(value, 4); }};

constexpr message_kind<scc_ss_ace_operation> ace_message{
    _scc_ss_ace_op_ret_callback, true, true,
    [](const char* function, const u8*, const char* verb) {
        SCC_LOG_FROM(function, "call _scc_ss_ace_op %s", verb);
    },
    [](scc_ss_ace_operation& record, const u8* value) {
        record.key = load<scc_acl_key>(value, 4);
        std::memcpy(&record.ace, value + 24, sizeof record.ace);
    }};

// The record's key is read at offset 4, as for all ACL operations; the ACL's own key begins the apply record
// at 8.
constexpr message_kind<scc_ss_apply_operation> apply_message{
    _scc_ss_acl_apply_op_ret_callback, true, false,
    [](const char* function, const u8*, const char* verb) {
        SCC_LOG_FROM(function, "call _scc_ss_acl_apply_op %s", verb);
    },
    [](scc_ss_apply_operation& record, const u8* value) {
        record.key = load<scc_acl_key>(value, 4);
        std::memcpy(&record.apply, value + 8, sizeof record.apply);
    }};

constexpr message_kind<scc_ss_resequence_operation> reseq_message{
    _scc_ss_acl_reseq_op_ret_callback, false, false,
    [](const char* function, const u8* value, const char*) {
        SCC_LOG_FROM(function, "call _scc_ss_acl_reseq_op acl(id:%d, type:%d), sn_start:%d, sn_inc:%d",
                     load<u32>(value, 12), load<u32>(value, 8), load<u32>(value, 20), load<u32>(value, 24));
    },
    [](scc_ss_resequence_operation& record, const u8* value) {
        record.key = load<scc_acl_key>(value, 4);
        record.sn_start = load<u32>(value, 20);
        record.sn_inc = load<u32>(value, 24);
    }};

constexpr message_kind<scc_ss_svi_operation> svi_message{
    _scc_ss_svi_router_acl_op_ret_callback, false, false,
    [](const char* function, const u8*, const char* verb) {
        SCC_LOG_FROM(function, "call _scc_ss_svi_router_acl_op (%s)", verb);
    },
    [](scc_ss_svi_operation& record, const u8* value) { record.open = load<u32>(value, 4); }};

constexpr message_kind<scc_ss_counter_operation> acl_counter_message{
    _scc_ss_acl_counter_op_ret_callback, false, false,
    [](const char* function, const u8*, const char* verb) {
        SCC_LOG_FROM(function, "call _scc_ss_acl_counter_op (%s)", verb);
    },
    [](scc_ss_counter_operation& record, const u8* value) {
        record.key = load<scc_acl_key>(value, 4);
        record.sync = load<u32>(value, 32);
    }};

constexpr message_kind<scc_ss_counter_operation> ace_counter_message{
    _scc_ss_ace_counter_op_ret_callback, false, false,
    [](const char* function, const u8*, const char* verb) {
        SCC_LOG_FROM(function, "call _scc_ss_ace_counter_op (%s)", verb);
    },
    [](scc_ss_counter_operation& record, const u8* value) {
        record.key = load<scc_acl_key>(value, 4);
        record.ace = load<u64>(value, 24);
        record.sync = load<u32>(value, 32);
    }};

constexpr message_kind<scc_ss_eport_operation> eport_message{
    _scc_ss_global_eport_ret_callback, false, false,
    [](const char* function, const u8* value, const char* verb) {
        SCC_LOG_FROM(function, "call _scc_ss_global_eport (%s, type:%d)", verb, load<u32>(value, 4));
    },
    [](scc_ss_eport_operation& record, const u8* value) {
        record.ifx = load<u32>(value, 4);
        record.set = load<u32>(value, 8);
    }};

constexpr message_kind<scc_ss_cpp_operation> cpp_message{
    _scc_ss_cpp_ret_callback, false, false,
    [](const char* function, const u8*, const char* verb) {
        SCC_LOG_FROM(function, "call _scc_ss_cpp_op (%s)", verb);
    },
    [](scc_ss_cpp_operation& record, const u8* value) {
        record.set = load<u32>(value, 4);
        record.type = load<u32>(value, 8);
    }};

const char* verb_at(const void* value, std::size_t offset, const char* if_set, const char* if_zero) {
    return load<u32>(value, offset) != 0 ? if_set : if_zero;
}

}  // namespace
}  // namespace scc

extern "C" {

i32 _scc_ss_acl_op(u16 scc_type, const void* value) {
    if (load<u32>(value, 136) == 1) {
        return perform<&handlers::acl_create>(
            __func__, acl_message, {SCC_SS_OP_CREATE, "create", "ss_acl_create_handler"}, scc_type, value);
    }
    return perform<&handlers::acl_delete>(
        __func__, acl_message, {SCC_SS_OP_DELETE, "delete", "ss_acl_delete_handler"}, scc_type, value);
}

i32 _scc_ss_ace_op(u16 scc_type, const void* value) {
    if (load<u32>(value, 936) == 1) {
        return perform<&handlers::add_ace>(
            __func__, ace_message, {SCC_SS_OP_ADD_ACE, "add", "ss_acl_add_ace_handler"}, scc_type, value);
    }
    return perform<&handlers::delete_ace>(
        __func__, ace_message, {SCC_SS_OP_DELETE_ACE, "del", "ss_acl_del_ace_handler"}, scc_type, value);
}

i32 _scc_ss_acl_apply_op(u16 scc_type, const void* value) {
    if (load<u32>(value, 240) == 1) {
        return perform<&handlers::apply>(__func__, apply_message,
                                         {SCC_SS_OP_APPLY, "apply", "ss_acl_apply_handler"}, scc_type, value);
    }
    return perform<&handlers::unapply>(
        __func__, apply_message, {SCC_SS_OP_UNAPPLY, "unapply", "ss_acl_unapply_handler"}, scc_type, value);
}

i32 _scc_ss_acl_reseq_op(u16 scc_type, const void* value) {
    return perform<&handlers::resequence>(
        __func__, reseq_message, {SCC_SS_OP_RESEQUENCE, "", "ss_acl_reseq_handler"}, scc_type, value);
}

i32 _scc_ss_svi_router_acl_op(u16 scc_type, const void* value) {
    return perform<&handlers::svi_router_acl>(
        __func__, svi_message,
        {SCC_SS_OP_SVI_ROUTER_ACL, verb_at(value, 4, "open", "close"), "ss_svi_router_acl_handler"}, scc_type,
        value);
}

i32 _scc_ss_acl_counter_op(u16 scc_type, const void* value) {
    return perform<&handlers::acl_counter>(
        __func__, acl_counter_message,
        {SCC_SS_OP_COUNTER, verb_at(value, 32, "query", "set"), "ss_acl_counter_handler"}, scc_type, value);
}

i32 _scc_ss_ace_counter_op(u16 scc_type, const void* value) {
    return perform<&handlers::ace_counter>(
        __func__, ace_counter_message,
        {SCC_SS_OP_COUNTER, verb_at(value, 32, "query", "set"), "ss_ace_counter_handler"}, scc_type, value);
}

i32 _scc_ss_global_eport_op(u16 scc_type, const void* value) {
    return perform<&handlers::uplink>(
        __func__, eport_message,
        {SCC_SS_OP_GLOBAL_EPORT, verb_at(value, 8, "set", "unset"), "ss_uplink_handler"}, scc_type, value);
}

i32 _scc_ss_cpp_op(u16 scc_type, const void* value) {
    return perform<&handlers::cpp>(__func__, cpp_message,
                                   {SCC_SS_OP_CPP, verb_at(value, 4, "set", "unset"), "ss_cpp_handler"},
                                   scc_type, value);
}

// Always answered at once; nothing is saved in the id/type map.
i32 _scc_ss_data_recover_op(u16 /*scc_type*/, const void* value) {
    const write_guard guard(lib_lock);
    const u8 start = load<u8>(value, 8);
    SCC_LOG("call _scc_ss_data_recover_op (appid:%d, oper:%s)", load<u32>(value, 4),
            start == 1 ? "start" : "end");
    i32 outcome = 0;
    if (const auto handler = load_handler(g_scc_ss_cb.data_recover); handler == nullptr) {
        SCC_LOG("ss_data_recover_handler is NULL.");
    } else if (outcome = handler(start); outcome != 0) {
        SCC_LOG("call ss_data_recover_handler failed. %d.", outcome);
    } else {
        SCC_LOG("call ss_data_recover_handler success.");
    }
    _scc_ss_data_recover_callback(static_cast<u32>(outcome), load<u32>(value));
    return outcome;
}

i32 _scc_offline_detect_cfg_op(u16 scc_type, const void* value) {
    const u32 id = load<u32>(value);
    const u8 open = load<u8>(value, 4);
    const u32 interval = load<u32>(value, 8);
    const u32 threshold = load<u32>(value, 12);
    {
        const write_guard guard(lib_lock);
        SCC_LOG("call _scc_offline_detect_cfg_op (%s,inter:%u, th:%u)", open != 0 ? "open" : "close",
                interval, threshold);
        _scc_ss_save_idtype(id, scc_type);
    }
    const auto handler = load_handler(g_scc_ss_cb.offline_detect_cfg);
    if (handler == nullptr) {
        SCC_LOG("offline_detect_cfg_handler is NULL");
        count_result(pair_offline_cfg);
        (void)_scc_nacm_callback_send(0, id, msg::offline_detect_notify);
        return 0;
    }
    const i32 outcome = handler(id, open, interval, threshold);
    if (outcome != 0) {
        SCC_LOG("call offline_detect_cfg_handler failed. %d.", outcome);
    }
    return outcome;
}

// Ends the daemon's timing run. The log line has no function prefix, and its microseconds wrap.
i32 _scc_ss_test_cmd_proc(u16 /*scc_type*/, const void* value) {
    if (load<u32>(value) == 0 && is_debugging()) {
        timeval now{};
        gettimeofday(&now, nullptr);
        SCC_LOG_RAW("DETAIL", "scc test for ss end:%u.",
                    static_cast<u32>(now.tv_sec) * 1000000U + static_cast<u32>(now.tv_usec));
    }
    return 0;
}
}
