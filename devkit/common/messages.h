// The table of message types: name, route, least length of the value, how it is answered, and the fields
// shown in traces. The daemon's dispatch and its length checks are driven by it.
#pragma once

#include <array>
#include <span>
#include <string_view>

#include "common/bytes.h"

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

enum class field_kind : u8 { number8, number16, number32, number64, mac, ipv4, key };

struct message_field {
    std::string_view name;  // empty after the last field
    u16 offset = 0;
    field_kind kind = field_kind::number32;
};

inline constexpr u32 no_result_offset = 0xffffffff;
inline constexpr std::size_t fields_max = 6;

struct message_type {
    message_route route{};
    u16 number = 0;
    std::string_view name;
    u32 least_bytes = 0;
    answer_kind answer{};
    u16 reply_type = 0;
    u32 reply_bytes = 0;
    u32 result_offset = no_result_offset;  // of the result code in the reply
    std::array<message_field, fields_max> fields{};
};

// The row of a type on a route; the service also takes what every client takes. Null if unknown.
[[nodiscard]] const message_type* find_message(message_route route, u16 number);
[[nodiscard]] std::span<const message_type> message_types();

}  // namespace scc::devkit
