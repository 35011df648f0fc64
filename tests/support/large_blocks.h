// Counts blocks of memory that are larger than all else that a test allocates, by what the allocator says is
// in use. Under the sanitizers, which find leaks themselves, there are none.
#pragma once

#include <malloc.h>

#include <cmath>
#include <cstddef>

namespace test {

class large_blocks {
  public:
    // A block of this size is large; one read of the asynchronous socket brings a little more.
    static constexpr std::size_t size = 16000;

    large_blocks() : before_(in_use()) {}

    // How many there are more than at first.
    [[nodiscard]] long more() const { return std::lround((in_use() - before_) / double{size}); }

  private:
    [[nodiscard]] static double in_use() {
        const struct mallinfo2 now = mallinfo2();
        return static_cast<double>(now.uordblks + now.hblkhd);
    }

    double before_;
};

}  // namespace test
