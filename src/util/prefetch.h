// Hides the latency of lines last written by another core. A hint, which cannot fault.
#pragma once

#include <cstddef>

#include "msg/protocol.h"

namespace scc {

inline constexpr std::size_t cache_line_bytes = 64;

inline void prefetch_for_writing(const void* from, std::size_t length) {
    for (std::size_t at = 0; at < length; at += cache_line_bytes) {
        __builtin_prefetch(static_cast<const u8*>(from) + at, 1);
    }
}

}  // namespace scc
