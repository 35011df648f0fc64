// Whether the tests are built with a sanitizer whose allocator replaces the C library's. Each compiler says
// so in its own way.
#pragma once

namespace test {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool sanitizer_allocates = true;
#elif defined(__has_feature)
inline constexpr bool sanitizer_allocates =
    __has_feature(address_sanitizer) || __has_feature(thread_sanitizer);
#else
inline constexpr bool sanitizer_allocates = false;
#endif

}  // namespace test
