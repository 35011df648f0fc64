// A fuzzer's input, read from the front. Reads past the end give 0, so every input is valid.
#pragma once

#include <algorithm>
#include <cstring>
#include <span>

#include "msg/protocol.h"

namespace scc::fuzz {

class input {
  public:
    input(const u8* data, std::size_t size) : left_(data, size) {}

    [[nodiscard]] bool empty() const { return left_.empty(); }
    [[nodiscard]] u8 byte() { return number<u8>(); }
    [[nodiscard]] u16 word() { return number<u16>(); }
    [[nodiscard]] u32 dword() { return number<u32>(); }
    // At most count bytes; fewer at the end.
    [[nodiscard]] std::span<const u8> bytes(std::size_t count) {
        const auto taken = left_.first(std::min(count, left_.size()));
        left_ = left_.subspan(taken.size());
        return taken;
    }
    [[nodiscard]] std::span<const u8> rest() { return bytes(left_.size()); }

  private:
    template <class T>
    T number() {
        T value{};
        const auto taken = bytes(sizeof value);
        if (!taken.empty()) {
            std::memcpy(&value, taken.data(), taken.size());
        }
        return value;
    }

    std::span<const u8> left_;
};

}  // namespace scc::fuzz
