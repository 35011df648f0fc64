// Hides the latency of lines last written by another core. A hint, which cannot fault.
#pragma once

#include <cstddef>

#include "msg/protocol.h"

namespace scc {

inline constexpr std::size_t cache_line_bytes = 64;

// Fetches a line in exclusive state: the first write to a line that was fetched for reading has to wait
// again. Compilers emit PREFETCHW only for named processors; 64-bit processors that lack it ignore it.
inline void prefetch_line_for_writing(const void* at) {
#if defined(__x86_64__)
    asm volatile("prefetchw %0" : : "m"(*static_cast<const u8*>(at)));
#else
    __builtin_prefetch(at, 1);
#endif
}

inline void prefetch_for_writing(const void* from, std::size_t length) {
    const auto* const bytes = static_cast<const u8*>(from);
    for (std::size_t at = 0; at < length; at += cache_line_bytes) {
        prefetch_line_for_writing(bytes + at);
    }
    prefetch_line_for_writing(bytes + length - 1);
}

}  // namespace scc
