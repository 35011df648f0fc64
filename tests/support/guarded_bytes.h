// Bytes whose end is the end of a page, after which nothing may be read or written.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "support/wire_bytes.h"

namespace test {

class guarded_bytes {
  public:
    explicit guarded_bytes(const bytes& content) : page_(static_cast<std::size_t>(sysconf(_SC_PAGESIZE))) {
        void* pages = mmap(nullptr, 2 * page_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (pages == MAP_FAILED || content.size() > page_) {
            std::abort();
        }
        pages_ = static_cast<std::uint8_t*>(pages);
        if (mprotect(pages_ + page_, page_, PROT_NONE) != 0) {
            std::abort();
        }
        data_ = pages_ + page_ - content.size();
        std::memcpy(data_, content.data(), content.size());
    }
    ~guarded_bytes() { munmap(pages_, 2 * page_); }
    guarded_bytes(const guarded_bytes&) = delete;
    guarded_bytes& operator=(const guarded_bytes&) = delete;

    [[nodiscard]] std::uint8_t* data() const { return data_; }

  private:
    std::size_t page_;
    std::uint8_t* pages_ = nullptr;
    std::uint8_t* data_ = nullptr;
};

}  // namespace test
