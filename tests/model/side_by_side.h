// One sequence of acts on the model and on the library, compared after each act.
#pragma once

#include <array>
#include <optional>

#include "model/acts.h"

namespace model {

// How often each kind of act was played, and how often it had an effect.
struct act_counts {
    std::array<u64, act_kinds> played{};
    std::array<u64, act_kinds> effective{};
};

// Both start and end unregistered. Returns the first difference.
std::optional<std::string> differs(const sequence& acts, act_counts& counts);

// Must be called once in a process, before the first sequence.
void prepare_process();

}  // namespace model
