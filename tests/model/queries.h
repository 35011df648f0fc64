// The queries that the daemon answers: request, reply, and what the caller gets.
#pragma once

#include <span>

#include "model/arguments.h"

namespace model {

struct query_facts {
    u32 early_error = 0;
    u16 type = 0;
    bool takes_call_id = false;
    bytes value;  // with 0 in the place of the call id
    u16 reply_type = 0;
    bytes reply;
    u32 result = 0;   // what the call returns
    bytes untouched;  // the caller's out value if no reply was read
    bytes answer;     // the caller's out value after this reply
};

struct query_row {
    const char* name;
    // Appends the caller's out value; call_id is set if the query has one.
    u32 (*make)(u8 seed, u32* call_id, bytes& out);
    query_facts (*facts)(u8 seed, u32 result);
};

std::span<const query_row> queries();

}  // namespace model
