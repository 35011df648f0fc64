// NAC users and ARP entries: record requests that send an adjusted mask. Any thread.
#include <cstring>

#include "api/request.h"
#include "util/address_text.h"

using namespace scc;

static_assert(sizeof(scc_user_record) == record::config);
static_assert(offsetof(scc_user_record, entry_type) == 16);
static_assert(offsetof(scc_user_record, operation) == 24);
static_assert(offsetof(scc_user_record, flags) == 32);
static_assert(offsetof(scc_user_record, mask) == 648);

namespace scc {
namespace {

constexpr u32 all_ones_word = 0xFFFFFFFF;

// An IPv4 mask is the first word. The whole is an IPv6 mask, which is never logged.
[[maybe_unused]] address_text mask_text(const scc_user_record& record) {
    return ipv4_text(record.mask[0]);
}

// SCC_USER_MASK_WHOLE takes precedence. The record is a copy of the caller's.
void adjust_mask(scc_user_record& record, const char* function) {
    if ((record.flags & SCC_USER_MASK_WHOLE) != 0) {
        std::memset(record.mask, 0xFF, sizeof record.mask);
        return;
    }
    if ((record.flags & SCC_USER_MASK_FIRST_WORD) == 0) {
        return;
    }
    if ((record.flags & SCC_USER_MASK_KEEP) != 0) {
        SCC_LOG_FROM(function, "mask flag set:%s", mask_text(record).text);
    } else if (record.entry_type == 5 || record.entry_type == 1) {
        SCC_LOG_FROM(function, "1x or ipv4 scg mask:%s", mask_text(record).text);
    } else {
        record.mask[0] = all_ones_word;
    }
}

u32 user_request(request_row row, const scc_user_record* record, bool counted, u32* call_id_out) {
    if (record == nullptr ||
        (record->operation != SCC_USER_OPERATION_ADD && record->operation != SCC_USER_OPERATION_DELETE)) {
        SCC_LOG_FROM(row.function, "scclib param invalid.");
        return result::invalid;
    }
    if (counted) {
        row.statistics =
            record->operation == SCC_USER_OPERATION_ADD ? stat_nac_user_add : stat_nac_user_delete;
    }
    request call(row, call_id_out);
    if (!call.begin()) {
        return result::unavailable;
    }
    scc_user_record adjusted = *record;
    adjust_mask(adjusted, row.function);
    const record_head head(call.call_id());
    return call.finish({bytes_of(*record)}, {head.bytes, bytes_of(adjusted)});
}

}  // namespace
}  // namespace scc

extern "C" {

uint32_t scc_nac_user_set(const struct scc_user_record* record, uint32_t* call_id_out) {
    return user_request({msg::nac_user, kind::nac_user}, record, true, call_id_out);
}

uint32_t scc_arp_entry_set(const struct scc_user_record* record, uint32_t* call_id_out) {
    return user_request({msg::arp_entry, kind::arp_entry}, record, false, call_id_out);
}

uint32_t scc_arp_dyn_entry_set(const struct scc_user_record* record, uint32_t* call_id_out) {
    return user_request({msg::arp_dyn_entry, kind::arp_dyn_entry}, record, false, call_id_out);
}
}
