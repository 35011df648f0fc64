// Synchronous queries. Any thread; each holds scc_lib_lock until the daemon has answered.
#include <algorithm>
#include <cstring>

#include "api/sync_exchange.h"
#include "util/address_text.h"

using namespace scc;

namespace scc {
namespace {

constexpr std::size_t record_payload_offset = 8;
constexpr std::size_t record_payload_bytes = record_payload_offset + record::config;

constexpr exchange_row mac_query{msg::mac_query, msg::mac_query_ret, "SCC_LMSG_USER_MAC_QUERY_RET"};
constexpr exchange_row port_addr_num{msg::port_addr_num, msg::port_addr_num_ret,
                                     "SCC_LMSG_PORT_SECU_ADDR_NUM_RET"};
constexpr exchange_row span_dest_port{msg::span_dest_port, msg::span_dest_port_ret,
                                      "SCC_LMSG_SPAN_DEST_PORT_SYNC_RET"};
constexpr exchange_row nac_user_get{msg::nac_user_get, msg::call_ret, "SCC_LMSG_CALL_RET"};
constexpr exchange_row arp_check_status{msg::arp_check_status, msg::arp_check_status_ret,
                                        "SCC_LMSG_ARPCHK_STATUS_RET"};
constexpr exchange_row arp_check_count{msg::arp_check_user_count, msg::arp_check_user_count_ret,
                                       "SCC_LMSG_ARPCHK_USER_COUNT_RET"};
constexpr exchange_row arp_check_data{msg::arp_check_user_data, msg::arp_check_user_data_ret,
                                      "SCC_LMSG_ARPCHK_USER_DATA_RET"};

constexpr u32 no_call_id = 0xFFFFFFFF;

static_assert(sizeof(scc_arp_check_entry) == record::arp_check_entry);

u32 refuse_null(const char* function = __builtin_FUNCTION()) {
    SCC_LOG_FROM(function, "scclib param invalid.");
    return result::invalid;
}

// Sends a record under a call id of its own; nothing is saved. The call id is handed out once the query is
// sent, whatever the reply.
u32 record_query(const exchange_row& row, const scc_config_record* record, u32* call_id_out,
                 const char* function = __builtin_FUNCTION()) {
    if (record == nullptr) {
        return refuse_null(function);
    }
    locked_call call;
    if (!call.is_registered(function)) {
        return result::unavailable;
    }
    const u32 call_id = _scc_lib_call_id_get();
    payload<record_payload_bytes> sent(call_id);
    sent.put(record_payload_offset, *record);
    sync_exchange exchange(function);
    u32 error = exchange.send(row, sent.bytes);
    if (error != result::ok) {
        return error;
    }
    if (call_id_out != nullptr) {
        *call_id_out = call_id;
    }
    error = exchange.receive(row);
    if (error != result::ok) {
        return error;
    }
    u32 outcome = 0;
    return exchange.read(0, outcome) ? outcome : result::format;
}

}  // namespace
}  // namespace scc

extern "C" {

// Request, 152 bytes: u32 call id, 6 bytes MAC at 4. Reply: u32 result at 12, u32 address at 32.
uint32_t scc_mac_query(const uint8_t* mac, uint32_t* ip) {
    if (mac == nullptr || ip == nullptr) {
        return refuse_null();
    }
    locked_call call;
    if (!call.is_registered()) {
        return result::unavailable;
    }
    payload<152> sent(_scc_lib_call_id_get());
    std::memcpy(sent.bytes.data() + 4, mac, 6);
    sync_exchange exchange;
    if (const u32 error = exchange.query(mac_query, sent.bytes); error != result::ok) {
        return error;
    }
    u32 outcome = 0;
    u32 address = 0;
    // A refusal need not carry an address; one that does is logged with it.
    const bool has_address = exchange.read(32, address);
    if (!exchange.read(12, outcome) || (outcome == 0 && !has_address)) {
        return result::format;
    }
    if (outcome == 0) {
        *ip = address;
    }
    SCC_LOG("query by %s %s ,ip:%s.", mac_text(mac).text, outcome == 0 ? "success" : "fail",
            ipv4_text(address).text);
    return outcome;
}

uint32_t scc_sp_port_addr_num(const struct scc_config_record* record, uint32_t* call_id_out) {
    return record_query(port_addr_num, record, call_id_out);
}

uint32_t scc_nac_span_dport_set(const struct scc_config_record* record, uint32_t* call_id_out) {
    return record_query(span_dest_port, record, call_id_out);
}

// The reply is laid out as a call return: u32 result at 4, the record at the odd offset 10. The record is
// copied back whatever the result; a refusal need not carry one.
uint32_t scc_nac_user_get(struct scc_user_record* record) {
    constexpr std::size_t record_offset = 10;
    if (record == nullptr || record->operation != SCC_USER_OPERATION_GET) {
        return refuse_null();
    }
    locked_call call;
    if (!call.is_registered()) {
        return result::unavailable;
    }
    payload<record_payload_bytes> sent(no_call_id);
    sent.put(record_payload_offset, *record);
    sync_exchange exchange;
    if (const u32 error = exchange.query(nac_user_get, sent.bytes); error != result::ok) {
        return error;
    }
    u32 outcome = 0;
    scc_user_record found;
    const bool has_record = exchange.read(record_offset, found);
    if (!exchange.read(4, outcome) || (outcome == 0 && !has_record)) {
        return result::format;
    }
    if (has_record) {
        *record = found;
    }
    return outcome;
}

uint32_t scc_is_arp_check_enabled(uint8_t* enabled) {
    if (enabled == nullptr) {
        return refuse_null();
    }
    locked_call call;
    if (!call.is_registered()) {
        return result::unavailable;
    }
    sync_exchange exchange;
    if (const u32 error = exchange.query(arp_check_status, {}); error != result::ok) {
        return error;
    }
    u32 status = 0;
    if (!exchange.read(0, status)) {
        return result::format;
    }
    *enabled = status != 0 ? 1 : 0;
    return result::ok;
}

uint32_t scc_arp_check_user_count_get(uint32_t key, uint32_t* count) {
    if (count == nullptr) {
        return refuse_null();
    }
    locked_call call;
    if (!call.is_registered()) {
        return result::unavailable;
    }
    payload<12> sent(0);
    sent.put(4, key);
    sync_exchange exchange;
    if (const u32 error = exchange.query(arp_check_count, sent.bytes); error != result::ok) {
        return error;
    }
    u32 outcome = 0;
    u32 answer = 0;
    if (!exchange.read(0, outcome) || (outcome == 0 && !exchange.read(8, answer))) {
        return result::format;
    }
    if (outcome == 0) {
        *count = answer;
    }
    return outcome;
}

// Reply: u32 result, u32 entries at 8, the entries from 12.
uint32_t scc_arp_check_user_data_get(uint32_t selector, void* buf, int* count) {
    constexpr std::size_t entries_offset = 12;
    if (buf == nullptr || count == nullptr) {
        return refuse_null();
    }
    locked_call call;
    if (!call.is_registered()) {
        return result::unavailable;
    }
    payload<12> sent(0);
    sent.put(4, selector).put(8, *count);
    sync_exchange exchange;
    if (const u32 error = exchange.query(arp_check_data, sent.bytes); error != result::ok) {
        return error;
    }
    u32 outcome = 0;
    u32 entries = 0;
    if (!exchange.read(0, outcome) || (outcome == 0 && !exchange.read(8, entries))) {
        return result::format;
    }
    if (outcome != 0) {
        return outcome;
    }
    const u32 capacity = *count > 0 ? static_cast<u32>(*count) : 0;
    const u32 taken = std::min(entries, capacity);
    const u64 bytes = u64{taken} * record::arp_check_entry;
    if (entries_offset + bytes > exchange.value().size()) {
        return result::format;
    }
    std::memcpy(buf, exchange.value().data() + entries_offset, bytes);
    if (entries < capacity) {
        *count = static_cast<int>(entries);
    }
    return result::ok;
}
}
