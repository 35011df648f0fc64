// Descriptors, threads and resident memory of a process, and how far they drift.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>

#include "soak/report.h"

namespace soak {

struct footprint {
    int descriptors = 0;   // entries of /proc/PID/fd
    int threads = 0;       // entries of /proc/PID/task
    int resident_kib = 0;  // Rss of /proc/PID/smaps_rollup
};

std::optional<footprint> footprint_of(pid_t pid);

inline constexpr int memory_growth_max_kib = 1024;

// One life of a process. It is measured when all clients of its group work, so it has the same connections
// each time. Each time, the numbers of descriptors and threads must return to the smallest seen; memory may
// grow while the process is young.
class footprint_watch {
  public:
    using clock = std::chrono::steady_clock;

    explicit footprint_watch(std::chrono::milliseconds warm_up) : warm_up_(warm_up) {}

    // Whether descriptors and threads are as before. False for a moment while a connection is being closed.
    bool is_steady(pid_t pid);
    // The message if they are not.
    [[nodiscard]] std::string text() const;
    // Evaluates the newest measurement; returns the fault, if any.
    std::string take(drift& drifts);

  private:
    std::chrono::milliseconds warm_up_;
    clock::time_point start_ = clock::now();
    std::optional<footprint> least_;
    std::optional<footprint> newest_;
    std::optional<int> warm_kib_;
    bool counted_ = false;
};

}  // namespace soak
