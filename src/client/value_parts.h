// A value in parts, which are copied once, to where they go: what the library writes, the caller's record,
// and what the library writes after it.
#pragma once

#include <cstring>
#include <span>

#include "msg/protocol.h"

namespace scc {

struct value_parts {
    std::span<const u8> head;
    std::span<const u8> record{};
    std::span<const u8> tail{};

    [[nodiscard]] std::size_t size() const { return head.size() + record.size() + tail.size(); }

    void copy_to(u8* at) const { copy(tail, copy(record, copy(head, at))); }

  private:
    static u8* copy(std::span<const u8> part, u8* at) {
        if (!part.empty()) {
            std::memcpy(at, part.data(), part.size());
        }
        return at + part.size();
    }
};

// For the functions with C linkage; a negative length is an empty value.
[[nodiscard]] inline value_parts value_of(const void* value, int len) {
    return {{static_cast<const u8*>(value), len > 0 ? static_cast<std::size_t>(len) : 0}};
}

}  // namespace scc
