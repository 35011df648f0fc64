// The model of the call statistics: thirteen entries of five counters.
#pragma once

#include <array>

#include "model/events.h"

namespace model {

struct call_counters {
    u32 calls = 0;
    u32 call_successes = 0;
    u32 outcome_successes = 0;
    u32 call_failures = 0;
    u32 outcome_failures = 0;
};

class statistics {
  public:
    void count_call(int entry, bool succeeded) {
        if (entry >= 0) {
            call_counters& counters = entries_.at(static_cast<std::size_t>(entry));
            ++counters.calls;
            ++(succeeded ? counters.call_successes : counters.call_failures);
        }
    }
    void count_outcome(int entry, bool succeeded) {
        if (entry >= 0) {
            call_counters& counters = entries_.at(static_cast<std::size_t>(entry));
            ++(succeeded ? counters.outcome_successes : counters.outcome_failures);
        }
    }
    void reset() { entries_ = {}; }

    // The answer when the daemon collects them.
    [[nodiscard]] bytes report(u32 app_id) const {
        wire out;
        out.u32(app_id).u32(static_cast<u32>(entries_.size()));
        u32 index = 0;
        for (const call_counters& each : entries_) {
            out.u32(index++).u32(each.calls).u32(each.call_successes).u32(each.outcome_successes);
            out.u32(each.call_failures).u32(each.outcome_failures);
        }
        return out;
    }

  private:
    std::array<call_counters, 13> entries_{};
};

}  // namespace model
