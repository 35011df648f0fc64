// Reads everything that a handler may read of its arguments. One query of the sanitizer's shadow memory
// suffices for any length.
#pragma once

#include <sanitizer/asan_interface.h>

#include <cstddef>
#include <cstdint>

namespace scc::fuzz {

inline void read_all(const void* bytes, std::size_t count) {
    if (count == 0) {
        return;
    }
    // The invalid read makes the sanitizer print its own report.
    void* const bad = __asan_region_is_poisoned(const_cast<void*>(bytes), count);
    const auto* at = static_cast<const volatile std::uint8_t*>(bad != nullptr ? bad : bytes);
    (void)*at;
    (void)static_cast<const volatile std::uint8_t*>(bytes)[count - 1];
}

}  // namespace scc::fuzz
