// What both sides say happened, in order: each message on a socket, each call of a handler, each return of a
// function and each line of the cache's display. The two lists are compared after every act.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "support/wire_bytes.h"

namespace model {

using u8 = std::uint8_t;
using u16 = std::uint16_t;
using u32 = std::uint32_t;
using u64 = std::uint64_t;
using test::bytes;
using test::wire;

struct event {
    std::string what;
    bytes data;

    bool operator==(const event&) const = default;
};

using events = std::vector<event>;

// An argument of a handler: its width and its bytes, so that a wrong width shows.
template <class Number>
void append_number(bytes& to, Number value) {
    to.push_back(sizeof value);
    const auto* at = reinterpret_cast<const u8*>(&value);
    to.insert(to.end(), at, at + sizeof value);
}

// An argument that is a pointer: what it leads to.
inline void append_block(bytes& to, const void* block, std::size_t count) {
    to.push_back('@');
    const auto* at = static_cast<const u8*>(block);
    to.insert(to.end(), at, at + count);
}

inline std::string show(const event& shown, std::size_t longest = 96) {
    static const char* digits = "0123456789abcdef";
    std::string text = shown.what + " [" + std::to_string(shown.data.size()) + "]";
    if (shown.what == "display") {
        return text + " " + std::string(shown.data.begin(), shown.data.end());
    }
    for (std::size_t i = 0; i < shown.data.size() && i < longest; ++i) {
        text += i % 4 == 0 ? " " : "";
        text += digits[shown.data[i] >> 4U];
        text += digits[shown.data[i] & 15U];
    }
    return text + (shown.data.size() > longest ? " ..." : "");
}

}  // namespace model
