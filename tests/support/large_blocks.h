// Counts the blocks of memory that are larger than any other of a test: glibc maps each of them apart from its
// heap, and unmaps it when it is freed. Under the sanitizers, which find leaks themselves, there are none.
#pragma once

#include <malloc.h>

#include <cstddef>

namespace test {

class large_blocks {
  public:
    // A block of this size is large.
    static constexpr std::size_t size = 12000;

    large_blocks() {
        mallopt(M_MMAP_THRESHOLD, size);
        before_ = count();
    }

    // How many there are more than at first.
    [[nodiscard]] std::ptrdiff_t more() const { return count() - before_; }

  private:
    [[nodiscard]] static std::ptrdiff_t count() { return static_cast<std::ptrdiff_t>(mallinfo2().hblks); }

    std::ptrdiff_t before_;
};

}  // namespace test
