// The table of message types: name, route, least length of the value, how it is answered, and the layout of
// the value. The daemon's dispatch, its length checks, its traces and the Wireshark dissector are driven by
// it.
#pragma once

#include <span>
#include <string_view>

#include "common/bytes.h"
#include "common/value_names.h"

namespace scc::devkit {

// Sender and receiver. Lifecycle items are the same for applications and the service.
enum class message_route : u8 {
    request,    // application to daemon
    to_client,  // daemon to application
    operation,  // daemon to security service
    report,     // security service to daemon
};

enum class answer_kind : u8 {
    none,       // not answered
    result,     // request: a 401 result with its call id; operation: a 402 result with call id and scc-type
    reply,      // request: a reply of `reply_type` on the synchronous socket
    untyped,    // operation: a 402 result with the call id and scc-type 0
    counter,    // operation: a 402 result that carries a counter
    user_read,  // operation: a 402 result under a call id of the service's own
};

enum class field_kind : u8 {
    number8,
    number16,
    number32,
    number64,
    mac,
    ipv4,
    ipv6,
    address,  // IPv4 in the first of 16 bytes, or IPv6, as the family word says
    key,      // an ACL key
    text,     // ends at a zero byte, or at its length
    bytes,
    vlans,  // a bit for each VLAN
};

struct message_field {
    std::string_view name;
    u32 offset = 0;
    field_kind kind = field_kind::number32;
    u32 bytes = 0;         // of text, bytes and vlans; 0: the rest of the value
    value_names names{};   // of the numbers
    u32 family_at = 0;     // of an address: the offset of its family word
    bool in_brief = true;  // shown in every trace; the full trace shows all
};

using field_list = std::span<const message_field>;

// Elements of equal length, from an offset to the end of the value. Their fields' offsets are the element's.
struct element_list {
    std::string_view name;  // empty if there are none
    u32 offset = 0;
    u32 element_bytes = 0;
    field_list fields{};
};

struct value_layout {
    field_list fields{};
    element_list elements{};
    u32 only_bytes = 0;  // for values of exactly this length; 0: for any other
};

inline constexpr u32 no_result_offset = 0xffffffff;

struct message_type {
    message_route route{};
    u16 number = 0;
    std::string_view name;
    u32 least_bytes = 0;
    answer_kind answer{};
    u16 reply_type = 0;
    u32 reply_bytes = 0;
    u32 result_offset = no_result_offset;  // of the result code in the reply
    std::span<const value_layout> layouts{};
};

// The row of a type on a route; the service also takes what every client takes. Null if unknown.
[[nodiscard]] const message_type* find_message(message_route route, u16 number);
// By name, on this route alone. Null if unknown.
[[nodiscard]] const message_type* find_message(message_route route, std::string_view name);
[[nodiscard]] std::span<const message_type> message_types();

// The layout of a value of this length.
[[nodiscard]] const value_layout& layout_of(const message_type& type, std::size_t value_bytes);
// The bytes that a field takes in a value of this length; 0 if it lies beyond the end.
[[nodiscard]] std::size_t bytes_of(const message_field& field, std::size_t value_bytes);
// Whether an address field holds an IPv6 address.
[[nodiscard]] bool holds_ipv6(byte_view value, const message_field& field);
[[nodiscard]] std::size_t element_count(const element_list& elements, std::size_t value_bytes);

}  // namespace scc::devkit
