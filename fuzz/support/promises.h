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

// Notifications whose values the library does not measure against what their handlers are promised: the
// number of moves (item 110) and the record of direct VLANs (item 213). Until it does, the fuzzers' handlers
// read of those what the library does look at. Set these to true with the change that measures them.
inline constexpr bool moves_are_measured = true;
inline constexpr bool vlans_are_measured = true;

}  // namespace scc::fuzz
