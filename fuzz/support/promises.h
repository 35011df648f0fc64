// What a handler may read of what it is given, read. One look at the sanitizer's map of the memory does for
// any length.
#pragma once

#include <sanitizer/asan_interface.h>

#include <cstddef>
#include <cstdint>

namespace scc::fuzz {

inline void read_all(const void* bytes, std::size_t count) {
    if (count == 0) {
        return;
    }
    // The report is the sanitizer's own: it comes from reading what must not be read.
    void* const bad = __asan_region_is_poisoned(const_cast<void*>(bytes), count);
    const auto* at = static_cast<const volatile std::uint8_t*>(bad != nullptr ? bad : bytes);
    (void)*at;
    (void)static_cast<const volatile std::uint8_t*>(bytes)[count - 1];
}

}  // namespace scc::fuzz
