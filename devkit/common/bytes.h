// Bounds-checked reads and writes of numbers in byte buffers: reading outside a buffer yields zero,
// writing outside is ignored, so a length sent by a peer can never lead past the end. All numbers are in
// host byte order. Pure functions; any thread.
#pragma once

#include <array>
#include <cstring>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "msg/protocol.h"

namespace scc::devkit {

using byte_buffer = std::vector<u8>;
using byte_view = std::span<const u8>;
using mac_address = std::array<u8, 6>;

[[nodiscard]] constexpr bool holds(byte_view bytes, std::size_t offset, std::size_t len) {
    return offset <= bytes.size() && len <= bytes.size() - offset;
}

// At most `len` bytes from `offset` on.
[[nodiscard]] constexpr byte_view slice(byte_view bytes, std::size_t offset, std::size_t len) {
    if (offset >= bytes.size()) {
        return {};
    }
    return bytes.subspan(offset, std::min(len, bytes.size() - offset));
}

template <class Number>
[[nodiscard]] Number read_at(byte_view bytes, std::size_t offset) {
    static_assert(std::is_unsigned_v<Number>);
    Number number = 0;
    if (holds(bytes, offset, sizeof number)) {
        std::memcpy(&number, bytes.data() + offset, sizeof number);
    }
    return number;
}

template <class Number>
void write_at(byte_buffer& bytes, std::size_t offset, Number number) {
    static_assert(std::is_unsigned_v<Number>);
    if (holds(bytes, offset, sizeof number)) {
        std::memcpy(bytes.data() + offset, &number, sizeof number);
    }
}

[[nodiscard]] inline u32 u32_at(byte_view bytes, std::size_t offset) {
    return read_at<u32>(bytes, offset);
}
[[nodiscard]] inline u64 u64_at(byte_view bytes, std::size_t offset) {
    return read_at<u64>(bytes, offset);
}

void copy_at(byte_buffer& bytes, std::size_t offset, byte_view source);
[[nodiscard]] byte_buffer to_bytes(byte_view view);

[[nodiscard]] mac_address mac_at(byte_view bytes, std::size_t offset);
[[nodiscard]] std::string mac_text(const mac_address& mac);
[[nodiscard]] std::optional<mac_address> parse_mac(std::string_view text);

// An IPv4 address in network byte order, as one word.
[[nodiscard]] std::string ipv4_text(u32 address);
// 16 bytes; fewer are padded with zeros.
[[nodiscard]] std::string ipv6_text(byte_view address);
[[nodiscard]] std::optional<u32> parse_ipv4(const std::string& text);

[[nodiscard]] std::string hex_text(byte_view bytes);
// Pairs of hexadecimal digits, optionally separated by blanks.
[[nodiscard]] std::optional<byte_buffer> parse_hex(std::string_view text);

}  // namespace scc::devkit
