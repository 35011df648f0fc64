// The deadline of a group's waits.
#pragma once

#include <chrono>
#include <cstdint>

#include "soak/report.h"

namespace soak {

// A recovery takes some seconds. A process that has not recovered by then never will, provided that the
// others make progress; on an overloaded machine the wait is longer.
inline constexpr std::chrono::milliseconds patience{60'000};
inline constexpr std::chrono::milliseconds longest_patience{300'000};
inline constexpr std::uint64_t answers_of_patience = 5000;

class deadline {
  public:
    using clock = std::chrono::steady_clock;

    explicit deadline(const group_report& report) : report_(report), answers_(report.answers) {}
    [[nodiscard]] bool is_over() const {
        const auto waited = clock::now() - start_;
        return waited > longest_patience ||
               (waited > patience && report_.answers - answers_ > answers_of_patience);
    }

  private:
    const group_report& report_;
    std::uint64_t answers_;
    clock::time_point start_ = clock::now();
};

}  // namespace soak
