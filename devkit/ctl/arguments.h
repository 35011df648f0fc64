// A command's arguments: numbers, addresses and record fields, and the conversion of their text to bytes.
//
// An argument is either a scalar parameter of the library's function or a field of one of its records. A
// field has a record number (counting the function's record parameters), an offset and a width; results
// are read back by the same entry.
#pragma once

#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "common/value_names.h"

namespace scc::ctl {

using byte_buffer = std::vector<std::uint8_t>;
using json = nlohmann::ordered_json;  // keeps the order of insertion

// The user's input is invalid. Shown as a usage error.
struct usage_error : std::runtime_error {
    using std::runtime_error::runtime_error;
};

enum class value_type : std::uint8_t {
    number,     // host order, decimal or with 0x
    mac,        // 6 bytes
    ipv4,       // 4 bytes, network order
    ipv6,       // 16 bytes
    address16,  // 16 bytes: IPv6, or IPv4 in the first 4
    bytes,      // a file of hexadecimal digits, or '-' for standard input: the whole record
    rule,       // the text of an ACE: the whole ACE record
    vlans,      // a list of VLAN ids, as in "10,20-30": a bit for each VLAN
};

enum class presence : std::uint8_t {
    positional,           // mandatory, by position
    optional_positional,  // optional, by position
    option,               // optional, as --name
    required_option,
    fixed,  // not settable: always the initial value
};

inline constexpr int no_record = -1;

struct argument {
    std::string_view name;
    std::string_view help;
    std::size_t width = 4;
    std::uint64_t min = 0;
    std::uint64_t max = UINT32_MAX;
    value_type type = value_type::number;
    presence given = presence::positional;
    std::uint64_t initial = 0;
    int record = no_record;
    std::size_t offset = 0;
    std::uint32_t flags = 0;      // bits that it sets in the record's flag word
    devkit::value_names names{};  // of the numbers that have one

    // Chainable modifiers, so that a row of a table reads as one sentence.
    [[nodiscard]] argument within(std::uint64_t low, std::uint64_t high) const;
    [[nodiscard]] argument as(value_type other) const;
    [[nodiscard]] argument as(presence other) const;
    [[nodiscard]] argument from(std::uint64_t value) const;
    [[nodiscard]] argument at(int record_number, std::size_t field_offset) const;
    [[nodiscard]] argument flagging(std::uint32_t bits) const;
    [[nodiscard]] argument named(devkit::value_names given_names) const;
};

// A number of `width` bytes; by default a mandatory scalar.
[[nodiscard]] argument number(std::string_view name, std::size_t width, std::string_view help);
// A field of a record; by default an option.
[[nodiscard]] argument field(std::string_view name, std::size_t offset, std::size_t width,
                             std::string_view help);
// A field that the command itself sets.
[[nodiscard]] argument constant(std::string_view name, std::size_t offset, std::uint64_t value);

// The values of one call, in the order of the function's parameters: scalars, records, values written
// through pointers, and additional output of special calls.
struct call_values {
    std::vector<std::uint64_t> scalars;
    std::vector<byte_buffer> records;
    std::vector<std::uint64_t> outs;
    json more = json::object();
};

// Empty if the file cannot be read.
[[nodiscard]] std::optional<std::string> text_of_file(const std::string& name);

// Stores an argument's text in the call. Throws usage_error.
void store(const argument& where, std::string_view text, call_values& into);
// Stores an argument's initial value in the call. Scalars must be stored in order.
void store_initial(const argument& where, call_values& into);
// Stores "OFFSET:WIDTH=VALUE" in a record: a number for widths 1, 2, 4 and 8, "hex:..." for any width.
void store_raw_field(std::string_view text, byte_buffer& record);

// The names of an argument's numbers, each once, in the table's order.
[[nodiscard]] std::vector<std::string> names_of(const argument& what);
// Reads an argument back; scalar_index counts the scalars before it. Null if it is missing.
[[nodiscard]] json shown(const argument& what, std::size_t scalar_index, const call_values& values);

[[nodiscard]] std::string hex_of(const byte_buffer& bytes);
[[nodiscard]] std::string ipv4_of(std::uint32_t network_order);
// "app-type" becomes "app_type".
[[nodiscard]] std::string json_name(std::string_view name);

}  // namespace scc::ctl
