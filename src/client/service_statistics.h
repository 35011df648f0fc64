// The block of the service's counters, {received, answered} for each operation. src/ss counts in it, and
// every registration with the daemon resets it. Null until a service has registered.
#pragma once

#include <array>

#include "msg/protocol.h"

namespace scc {

struct operation_count {
    u32 received;
    u32 answered;
};

inline constexpr u32 operation_counts = 25;
using service_statistics = std::array<operation_count, operation_counts>;

static_assert(sizeof(service_statistics) == 200);

void reset_service_statistics();

}  // namespace scc

extern "C" scc::service_statistics* ss_stat;  // written once, under scc_lib_lock
