// What happened on each side, in order: each message on a socket, each handler call, each return of a
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

// An argument that is a pointer: the bytes that it points to.
inline void append_block(bytes& to, const void* block, std::size_t count) {
    to.push_back('@');
    const auto* at = static_cast<const u8*>(block);
    to.insert(to.end(), at, at + count);
}

// The event as text, with some of its bytes.
inline std::string show(const event& shown, std::size_t from) {
    constexpr std::size_t longest = 64;
    static const char* digits = "0123456789abcdef";
    const bytes& data = shown.data;
    std::string text = shown.what + " of " + std::to_string(data.size()) + " bytes";
    if (shown.what == "display") {
        return shown.what + ' ' + std::string(data.begin(), data.end());
    }
    text += from > 0 ? ", from byte " + std::to_string(from) + ":" : ":";
    for (std::size_t i = from; i < data.size() && i < from + longest; ++i) {
        text += i % 4 == 0 ? " " : "";
        text += digits[data[i] >> 4U];
        text += digits[data[i] & 15U];
    }
    return text + (data.size() > from + longest ? " ..." : "");
}

}  // namespace model
