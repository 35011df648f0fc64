// When a wait of a group is over.
#pragma once

#include <chrono>
#include <cstdint>

#include "soak/report.h"

namespace soak {

// A recovery takes some seconds. Whoever has not come back by then never will, if the others have got on
// well; on a machine that is too busy for anybody the wait is longer.
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
