// The settings that applications make: one row for each request that is kept, with the fields of its value,
// what tells two records of it apart, and what removes one. Requests, control commands and the state file are
// driven by it.
#pragma once

#include <array>
#include <span>
#include <string_view>

#include "sccd/record_fields.h"

namespace scc::sccd {

enum class setting_removal : u8 {
    never,      // a later request replaces the record
    operation,  // the operation word: 0 and 1 set, 3 removes, others make no sense
    zero,       // the field of that name is 0
};

using setting_key = std::array<std::string_view, 3>;

struct setting_row {
    u16 type = 0;
    u32 bytes = 0;  // of the value, call id included; shorter ones are padded, longer ones cut
    record_fields fields{};
    setting_key key{};  // names of fields; empty ones count nothing, and without any there is one record
    setting_removal removal = setting_removal::never;
    std::string_view removal_field = "";
    u32 missing = 0;  // the result when there is nothing to remove
    bool has_call_id = true;

    [[nodiscard]] std::string_view name() const;
    [[nodiscard]] const record_field* field(std::string_view wanted) const;
};

[[nodiscard]] std::span<const setting_row> setting_rows();
// Null if there is none.
[[nodiscard]] const setting_row* find_setting(u16 type);
[[nodiscard]] const setting_row* find_setting(std::string_view name);

}  // namespace scc::sccd
