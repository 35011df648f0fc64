// The fields of a record: where each is, how it is shown as JSON and read back. A table of fields describes a
// record completely; what the fields do not cover is kept as hexadecimal bytes.
#pragma once

#include <limits>
#include <span>
#include <string>
#include <string_view>

#include "common/bytes.h"
#include "common/messages.h"
#include "sccd/json_fields.h"

namespace scc::sccd {

struct record_field {
    std::string_view name;
    u32 offset = 0;
    devkit::field_kind kind = devkit::field_kind::number32;  // bytes are the rest of the record
    u64 min = 0;                                             // of a number
    u64 max = std::numeric_limits<u32>::max();
    u32 bytes = 0;  // of a text
};

using record_fields = std::span<const record_field>;

// The number at a field; 0 if the field is none.
[[nodiscard]] u64 number_of(const record_field& field, devkit::byte_view record);
// The name of a field whose number is out of its range; empty if there is none.
[[nodiscard]] std::string_view field_out_of_range(record_fields fields, devkit::byte_view record);
// The bytes of a field in an order in which numbers ascend.
[[nodiscard]] std::string sort_key(const record_field& field, devkit::byte_view record);

// All fields, and "bytes" with the whole record if the fields alone would not give it back.
[[nodiscard]] json show_record(record_fields fields, devkit::byte_view record);
// Reads what show_record writes into a record of `len` bytes; fields that are not given are zero. Problems
// are recorded in `from`. A record that ends with `bytes` may have any length.
[[nodiscard]] devkit::byte_buffer read_record(record_fields fields, std::size_t len, json_fields& from);
// The names that read_record understands.
[[nodiscard]] std::vector<std::string_view> field_names(record_fields fields);

}  // namespace scc::sccd
