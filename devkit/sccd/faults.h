// Injected faults: the next requests of a type are refused with a given result, or never answered.
#pragma once

#include <map>
#include <optional>

#include "msg/protocol.h"

namespace scc::sccd {

class ordered_faults {
  public:
    void fail_next(u16 type, u32 result, u32 count) { failures_[type] = {result, count}; }
    void mute(u16 type, u32 count) { muted_[type] = count; }
    void unmute(u16 type) { muted_.erase(type); }
    void unmute_all() { muted_.clear(); }

    // Each call consumes one injected fault.
    [[nodiscard]] std::optional<u32> take_failure(u16 type) {
        const auto failure = failures_.find(type);
        if (failure == failures_.end()) {
            return std::nullopt;
        }
        const u32 result = failure->second.result;
        if (--failure->second.left == 0) {
            failures_.erase(failure);
        }
        return result;
    }

    [[nodiscard]] bool take_mute(u16 type) {
        const auto muted = muted_.find(type);
        if (muted == muted_.end()) {
            return false;
        }
        if (--muted->second == 0) {
            muted_.erase(muted);
        }
        return true;
    }

  private:
    struct ordered_failure {
        u32 result = 0;
        u32 left = 0;  // at least 1
    };

    std::map<u16, ordered_failure> failures_;
    std::map<u16, u32> muted_;
};

}  // namespace scc::sccd
