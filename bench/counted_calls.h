// What `steps` counts beside instructions. The functions are those of counted_calls.cpp, which is preloaded.
#pragma once

#include <array>

namespace bench {

enum counted { system_calls, locks, allocations, copied_bytes, counted_kinds };

using call_counts = std::array<unsigned long, counted_kinds>;

}  // namespace bench

// Everything counted since the process began.
extern "C" void bench_read_counts(bench::call_counts* counts);
