// How a result reaches the application: which handler, by its position, and which arguments.
#pragma once

#include "model/events.h"

namespace model {

struct result_target {
    u32 position = 0;  // 0 for an unknown kind
    bytes arguments;
};

// For a call of this kind with this saved data.
result_target target_of(u32 kind, u32 result, u32 call_id, const bytes& saved);
// The counter of the outcome, or -1.
int outcome_counter_of(u32 kind, const bytes& saved);

}  // namespace model
