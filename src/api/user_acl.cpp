// ACLs bound to users, and the counters of ACLs, filters and ACEs. Any thread; all take scc_lib_lock.
//
//   134, 224 bytes: call id, user ACL record at 8 (208), operation at 216
//   137, 232 bytes: call id, key at 216;  314, 232 bytes: user ACL record at 8
//   139/311, 24 bytes: call id, key at 4, choice at 20
//   140/312, 40 bytes: call id, key at 4, choice at 32
//   141/313, 40 bytes: call id, key at 4, u64 ACE at 24, choice at 32
// The choice is 1 to read, 0 to reset.
#include <cstring>

#include "api/sync_exchange.h"
#include "util/address_text.h"

using namespace scc;

static_assert(sizeof(scc_user_acl_record) == record::user_acl);
static_assert(offsetof(scc_user_acl_record, mac) == 24 && offsetof(scc_user_acl_record, vid) == 30 &&
              offsetof(scc_user_acl_record, key) == 32);

namespace scc {
namespace {

constexpr exchange_row change_vmsup{msg::user_vmsup_get, msg::user_vmsup_ret, "SCC_LMSG_ACL_USER_VMSUP_RET"};

constexpr u32 choice_read = 1;
constexpr u32 choice_reset = 0;

u32 user_acl_request(const request_row& row, const scc_user_acl_record& record, u32 operation,
                     const char* announcement, u32* call_id_out) {
    if (const u32 error = _scc_lib_acl_info_check(&record.key); error != result::ok) {
        return error;
    }
    request call(row, call_id_out);
    SCC_LOG_FROM(row.function, "%s", announcement);
    if (!call.begin()) {
        return result::unavailable;
    }
    payload<224> sent(call.call_id());
    sent.put(8, record).put(216, operation);
    return call.finish({bytes_of(record)}, {sent.bytes});
}

// What differs between the counters' messages; name is the exported call's.
struct counter_row {
    exchange_row exchange;
    std::size_t choice_offset;
    std::size_t counter_offset;
    std::size_t result_offset;
    const char* name;
};

constexpr counter_row filter_counter{
    {msg::filter_counter_get, msg::filter_counter_ret, "SCC_LMSG_ACL_FILTER_COUNTER_RET"},
    20,
    16,
    24,
    "scc_acl_get_filter_counter"};
constexpr counter_row acl_counter{{msg::acl_counter_get, msg::acl_counter_ret, "SCC_LMSG_ACL_COUNTER_RET"},
                                  32,
                                  32,
                                  40,
                                  "scc_acl_get_counter"};
constexpr counter_row ace_counter{
    {msg::ace_counter_get, msg::ace_counter, "SCC_LMSG_ACE_COUNTER_RET"}, 32, 32, 40, "scc_ace_get_counter"};

consteval bool counter_precedes_result(const counter_row& row) {
    return row.counter_offset + sizeof(u64) <= row.result_offset;
}

// A reply long enough for the result also has the counter.
static_assert(counter_precedes_result(filter_counter) && counter_precedes_result(acl_counter) &&
              counter_precedes_result(ace_counter));

// Leaves counter unchanged unless the result is 0.
u32 read_counter(const counter_row& row, std::span<const u8> sent, u64& counter) {
    locked_call call;
    if (!call.is_registered(row.name)) {
        return result::unavailable;
    }
    sync_exchange exchange(row.name);
    if (const u32 error = exchange.query(row.exchange, sent); error != result::ok) {
        return error;
    }
    u32 outcome = 0;
    if (!exchange.read(row.result_offset, outcome)) {
        return result::format;
    }
    if (outcome != 0) {
        SCC_LOG_FROM(row.name, "%s failed. %s.\n", row.name, scc_strerror(static_cast<i32>(outcome)));
        return outcome;
    }
    counter = load<u64>(exchange.value().data(), row.counter_offset);
    return result::ok;
}

u32 check_counter_arguments(const scc_acl_key* key, const u64* counter,
                            const char* function = __builtin_FUNCTION()) {
    if (const u32 error = _scc_lib_acl_info_check(key); error != result::ok) {
        return error;
    }
    if (counter == nullptr) {
        SCC_LOG_FROM(function, "scclib param counter invalid.");
        return result::invalid;
    }
    return result::ok;
}

template <std::size_t Size>
u32 reset_counter(const request_row& row, const scc_acl_key* key, u32* call_id_out) {
    if (const u32 error = _scc_lib_acl_info_check(key); error != result::ok) {
        return error;
    }
    request call(row, call_id_out);
    if (!call.begin()) {
        return result::unavailable;
    }
    payload<Size> sent(call.call_id());
    sent.put(4, *key);
    return call.finish({bytes_of(*key)}, {sent.bytes});
}

}  // namespace
}  // namespace scc

extern "C" {

uint32_t scc_user_acl_apply(const struct scc_user_acl_record* record, uint32_t* call_id_out) {
    if (record == nullptr) {
        SCC_LOG("scclib param invalid.");
        return result::invalid;
    }
    return user_acl_request({msg::user_acl, kind::user_acl_apply}, *record, 1,
                            "scclib scc_user_acl_apply is called.", call_id_out);
}

uint32_t scc_user_acl_unapply(const struct scc_user_acl_record* record, uint32_t* call_id_out) {
    if (record == nullptr) {
        SCC_LOG("scclib param invalid.");
        return result::invalid;
    }
    SCC_LOG("applyinfo-vid:%u,mac:%s,apptype:%d,phyid:%lu,ifx:%u,direction:%d,", record->vid,
            mac_text(record->mac).text, record->apptype, record->phyid, record->ifx, record->direction);
    return user_acl_request({msg::user_acl, kind::user_acl_unapply}, *record, 0,
                            "scclib scc_user_acl_unapply is called.", call_id_out);
}

// Has checks of its own, without an upper bound of the ACL id.
uint32_t scc_user_acl_delete_vmsup(const struct scc_acl_key* key, uint32_t* call_id_out) {
    if (key == nullptr) {
        SCC_LOG("scclib param invalid.");
        return result::invalid;
    }
    if (static_cast<i32>(key->acl_id) <= 0) {
        SCC_LOG("acl id is invalid.");
        return result::invalid;
    }
    if (key->app_type == 0 || key->app_type > limits::app_type_max) {
        SCC_LOG("acl app_type(%d) is invalid", key->app_type);
        return result::invalid;
    }
    request call({msg::user_acl_delete_vmsup, kind::user_acl_delete_vmsup}, call_id_out);
    if (!call.begin()) {
        return result::unavailable;
    }
    payload<232> sent(call.call_id());
    sent.put(216, *key);
    return call.finish({bytes_of(*key)}, {sent.bytes});
}

// The key is not checked, and the reply has no result code.
uint32_t scc_user_acl_change_vmsup(const struct scc_user_acl_record* record, uint8_t* out) {
    constexpr std::size_t answer_bytes = 16;
    if (record == nullptr || out == nullptr) {
        SCC_LOG("scclib param invalid.");
        return result::invalid;
    }
    SCC_LOG("applyinfo-vid:%d,mac:%s,apptype:%d,phyid:%lu,ifx:%d,direction:%d,", record->vid,
            mac_text(record->mac).text, record->apptype, record->phyid, record->ifx, record->direction);
    locked_call call;
    SCC_LOG("scclib func is called.");
    if (!call.is_registered()) {
        return result::unavailable;
    }
    payload<232> sent(0);
    sent.put(8, *record);
    sync_exchange exchange;
    u32 error = exchange.send(change_vmsup, sent.bytes);
    if (error != result::ok) {
        SCC_LOG("SCC_LMSG_ACL_USER_VMSUP_GET send msg failed. errno:%d.", error);
        return error;
    }
    error = exchange.receive(change_vmsup);
    if (error != result::ok) {
        if (!exchange.has_reply()) {
            SCC_LOG("SCC_LMSG_ACL_USER_VMSUP_RET recv msg failed. errno:%d.", error);
        }
        return error;
    }
    if (exchange.value().size() < answer_bytes) {
        return result::format;
    }
    std::memcpy(out, exchange.value().data(), answer_bytes);
    return result::ok;
}

uint32_t scc_acl_get_filter_counter(const struct scc_acl_key* key, uint64_t* counter) {
    if (const u32 error = check_counter_arguments(key, counter); error != result::ok) {
        return error;
    }
    *counter = 0;
    payload<24> sent(0);
    sent.put(4, *key).put(filter_counter.choice_offset, choice_read);
    return read_counter(filter_counter, sent.bytes, *counter);
}

uint32_t scc_acl_get_counter(const struct scc_acl_key* key, uint64_t* counter) {
    if (const u32 error = check_counter_arguments(key, counter); error != result::ok) {
        return error;
    }
    payload<40> sent(0);
    sent.put(4, *key).put(acl_counter.choice_offset, choice_read);
    return read_counter(acl_counter, sent.bytes, *counter);
}

uint32_t scc_ace_get_counter(const struct scc_acl_key* key, uint64_t ace, uint64_t* counter) {
    if (const u32 error = check_counter_arguments(key, counter); error != result::ok) {
        return error;
    }
    payload<40> sent(0);
    sent.put(4, *key).put(24, ace).put(ace_counter.choice_offset, choice_read);
    return read_counter(ace_counter, sent.bytes, *counter);
}

uint32_t scc_acl_reset_filter_counter(const struct scc_acl_key* key, uint32_t* call_id_out) {
    return reset_counter<24>({msg::filter_counter_reset, kind::filter_counter_reset}, key, call_id_out);
}

uint32_t scc_acl_reset_counter(const struct scc_acl_key* key, uint32_t* call_id_out) {
    return reset_counter<40>({msg::acl_counter_reset, kind::acl_counter_reset}, key, call_id_out);
}

uint32_t scc_ace_reset_counter(const struct scc_acl_key* key, uint64_t ace, uint32_t* call_id_out) {
    if (const u32 error = _scc_lib_acl_info_check(key); error != result::ok) {
        return error;
    }
    request call({msg::ace_counter_reset, kind::ace_counter_reset}, call_id_out);
    if (!call.begin()) {
        return result::unavailable;
    }
    std::array<u8, 24> saved{};
    store(saved.data(), 0, *key);
    store(saved.data(), 16, ace);
    payload<40> sent(call.call_id());
    sent.put(4, *key).put(24, ace).put(32, choice_reset);
    return call.finish({saved}, {sent.bytes});
}
}
