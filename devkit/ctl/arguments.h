// What a command takes: numbers, addresses and record fields, and how their text becomes bytes.
//
// An argument is either a scalar of the library's function or a field of one of its records. Where it is
// a field, its record's number (counted over the function's record parameters), offset and width say
// where the bytes go; the same entry reads them back when a result is shown.
#pragma once

#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace scc::ctl {

using byte_buffer = std::vector<std::uint8_t>;
using json = nlohmann::ordered_json;  // shown in the order in which it was put together

// What the user typed cannot be used. Shown as a usage error.
struct usage_error : std::runtime_error {
    using std::runtime_error::runtime_error;
};

enum class value_type : std::uint8_t {
    number,     // host order, decimal or with 0x
    mac,        // 6 bytes
    ipv4,       // 4 bytes, network order
    address16,  // 16 bytes: IPv6, or IPv4 in the first 4
    bytes,      // a file of hexadecimal digits, or '-' for standard input: the whole record
    rule,       // the text of an ACE: the whole ACE record
};

enum class presence : std::uint8_t {
    positional,           // must be given, by place
    optional_positional,  // may be given, by place
    option,               // may be given, as --name
    required_option,
    fixed,  // never given: always the initial value
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
    std::uint32_t flags = 0;  // bits of the record's flag word that giving it sets

    // Changes in place, so that a table's row reads as one sentence.
    [[nodiscard]] argument within(std::uint64_t low, std::uint64_t high) const;
    [[nodiscard]] argument as(value_type other) const;
    [[nodiscard]] argument as(presence other) const;
    [[nodiscard]] argument from(std::uint64_t value) const;
    [[nodiscard]] argument at(int record_number, std::size_t field_offset) const;
    [[nodiscard]] argument flagging(std::uint32_t bits) const;
};

// A number of width bytes, a scalar that must be given until a row says otherwise.
[[nodiscard]] argument number(std::string_view name, std::size_t width, std::string_view help);
// A field of a record, which may be given as an option.
[[nodiscard]] argument field(std::string_view name, std::size_t offset, std::size_t width,
                             std::string_view help);
// A field that the command itself decides.
[[nodiscard]] argument constant(std::string_view name, std::size_t offset, std::uint64_t value);

// The values of one call, in the order of the function's parameters: its scalars, its records, what it
// wrote through its pointers, and more that a special call has to say.
struct call_values {
    std::vector<std::uint64_t> scalars;
    std::vector<byte_buffer> records;
    std::vector<std::uint64_t> outs;
    json more = json::object();
};

// Nothing when the file cannot be read.
[[nodiscard]] std::optional<std::string> text_of_file(const std::string& name);

// Puts an argument's text into the call. Throws usage_error.
void store(const argument& where, std::string_view text, call_values& into);
// Puts an argument's initial value into the call; scalars must be stored in order.
void store_initial(const argument& where, call_values& into);
// Puts "OFFSET:WIDTH=VALUE" into a record: a number for widths 1, 2, 4 and 8, "hex:..." for every width.
void store_raw_field(std::string_view text, byte_buffer& record);

// Reads an argument back; scalar_index counts the scalars before it. Null when the values lack it.
[[nodiscard]] json shown(const argument& what, std::size_t scalar_index, const call_values& values);

[[nodiscard]] std::string hex_of(const byte_buffer& bytes);
[[nodiscard]] std::string ipv4_of(std::uint32_t network_order);
// "app-type" becomes "app_type".
[[nodiscard]] std::string json_name(std::string_view name);

}  // namespace scc::ctl
