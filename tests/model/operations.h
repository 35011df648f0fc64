// The operations that the daemon requests of the service: the bytes of each item, its handler and its answer.
#pragma once

#include "model/arguments.h"

namespace model {

struct operation {
    u16 type;
    bytes value;
    u32 id;
    u32 handler;  // its place in the service's record
    u32 code;
    bool has_key;
    bool is_counted;    // under its code, when it arrives and when it is answered
    bool is_counter;    // its answer has a value
    bool has_ace;       // an ACE counter
    bool is_query;      // answered at once on the synchronous socket
    u32 answered_type;  // the word of its answer
};

constexpr u8 operation_kinds = 16;
operation make_operation(u8 which, u8 seed);

struct operation_answer {
    u32 result;
    u64 counter;
};

// The value of the answering message.
bytes answer_value(const operation& of, const operation_answer& with);

}  // namespace model
