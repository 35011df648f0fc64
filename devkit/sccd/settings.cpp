#include "sccd/settings.h"

#include <algorithm>
#include <array>
#include <optional>
#include <utility>

#include "common/records.h"

namespace scc::sccd {
namespace {

using devkit::byte_buffer;
using devkit::byte_view;

constexpr std::size_t records_max = 1024 * 1024;  // of one type
constexpr u32 operation_unset = 0;

// What the service gets again after it returns.
constexpr std::array for_service{msg::http_dport,     msg::nac_app, msg::global_eport,
                                 msg::svi_router_acl, msg::cpp,     msg::offline_detect_cfg,
                                 msg::direct_vlan};

byte_buffer kept(const setting_row& row, byte_view value) {
    byte_buffer record = devkit::to_bytes(value);
    const bool any_length = row.fields.back().kind == devkit::field_kind::bytes;
    if (!any_length || record.size() < row.bytes) {
        record.resize(row.bytes);
    }
    if (row.has_call_id) {
        devkit::write_at(record, 0, u32{0});
    }
    return record;
}

std::string key_of(const setting_row& row, byte_view record) {
    std::string key;
    for (const std::string_view name : row.key) {
        if (!name.empty()) {
            key += sort_key(*row.field(name), record);
        }
    }
    return key;
}

bool makes_sense(const setting_row& row, byte_view record) {
    if (!field_out_of_range(row.fields, record).empty()) {
        return false;
    }
    if (row.removal != setting_removal::operation) {
        return true;
    }
    const u64 word = number_of(*row.field(row.removal_field), record);
    return word == operation_unset || word == devkit::user_operation::add ||
           word == devkit::user_operation::remove;
}

}  // namespace

bool removes(const setting_row& row, byte_view value) {
    switch (row.removal) {
        case setting_removal::operation:
            return number_of(*row.field(row.removal_field), value) == devkit::user_operation::remove;
        case setting_removal::zero:
            return number_of(*row.field(row.removal_field), value) == 0;
        case setting_removal::never:
            return false;
    }
    return false;
}

state_change setting_store::change(const setting_row& row, byte_view value) {
    byte_buffer record = kept(row, value);
    if (!makes_sense(row, record)) {
        return state_change::refused(result::invalid_argument);
    }
    record_map& records = records_[row.type];
    const std::string key = key_of(row, record);
    std::optional<byte_buffer> before;
    if (const auto known = records.find(key); known != records.end()) {
        before = known->second;
    }
    if (removes(row, record)) {
        if (!before) {
            return state_change{row.missing, {}};
        }
        records.erase(key);
    } else if (!before && records.size() >= records_max) {
        return state_change::refused(result::no_space);
    } else {
        records.insert_or_assign(key, std::move(record));
    }
    return state_change::made([&records, key, before = std::move(before)] {
        if (before) {
            records.insert_or_assign(key, *before);
        } else {
            records.erase(key);
        }
    });
}

const setting_store::record_map& setting_store::records(u16 type) const {
    static const record_map none;
    const auto found = records_.find(type);
    return found == records_.end() ? none : found->second;
}

const byte_buffer* setting_store::on_interface(u16 type, u32 ifx) const {
    const record_map& all = records(type);
    byte_buffer place(sizeof ifx);
    for (const u32 each : {ifx, u32{0}}) {
        devkit::write_at(place, 0, each);
        const std::string key = sort_key({"ifx", 0}, place);
        const auto found = all.lower_bound(key);
        if (found != all.end() && found->first.starts_with(key)) {
            return &found->second;
        }
    }
    return nullptr;
}

bool setting_store::nothing_for_service() const {
    return std::all_of(for_service.begin(), for_service.end(),
                       [this](u16 type) { return records(type).empty(); });
}

}  // namespace scc::sccd
