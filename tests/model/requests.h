// The requests: how a process makes each, and its facts: the message, the data saved for its result and the
// counters. The facts are written by hand, from the protocol.
#pragma once

#include <span>

#include "model/arguments.h"

namespace model {

constexpr int not_counted = -1;
constexpr u32 one_way = 0;  // kind of what has no call id and no result

struct request_facts {
    u32 early_error = 0;  // whatever the state
    u32 late_error = 0;   // once a call id was taken
    u16 type = 0;
    u32 kind = one_way;
    bytes value;  // with 0 in the place of the call id
    bytes saved;
    int statistics = not_counted;
    bool on_sync_socket = false;
};

struct request_row {
    const char* name;
    u32 (*make)(u8 seed, u8 how, u32* call_id);
    request_facts (*facts)(u8 seed, u8 how, u32 app_id);
};

std::span<const request_row> requests();

}  // namespace model
