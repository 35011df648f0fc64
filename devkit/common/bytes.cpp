#include "common/bytes.h"

#include <arpa/inet.h>
#include <fmt/format.h>

#include <algorithm>

#include "records/hex_digit.h"

namespace scc::devkit {

void copy_at(byte_buffer& bytes, std::size_t offset, byte_view source) {
    if (source.empty() || !holds(bytes, offset, source.size())) {
        return;
    }
    std::memmove(bytes.data() + offset, source.data(), source.size());
}

byte_buffer to_bytes(byte_view view) {
    return byte_buffer(view.begin(), view.end());
}

mac_address mac_at(byte_view bytes, std::size_t offset) {
    mac_address mac{};
    const byte_view source = slice(bytes, offset, mac.size());
    std::copy(source.begin(), source.end(), mac.begin());
    return mac;
}

std::string mac_text(const mac_address& mac) {
    return fmt::format("{:02x}", fmt::join(mac, ":"));
}

std::optional<mac_address> parse_mac(std::string_view text) {
    std::string digits;
    for (const char letter : text) {
        if (letter != ':' && letter != '-' && letter != '.') {
            digits.push_back(letter);
        }
    }
    const std::optional<byte_buffer> bytes = parse_hex(digits);
    if (!bytes || bytes->size() != mac_address{}.size()) {
        return std::nullopt;
    }
    return mac_at(*bytes, 0);
}

std::string ipv4_text(u32 address) {
    std::array<u8, 4> parts{};
    std::memcpy(parts.data(), &address, parts.size());
    return fmt::format("{}", fmt::join(parts, "."));
}

std::string ipv6_text(byte_view address) {
    std::array<u8, 16> bytes{};
    std::copy_n(address.begin(), std::min(address.size(), bytes.size()), bytes.begin());
    std::array<char, INET6_ADDRSTRLEN> text{};
    return inet_ntop(AF_INET6, bytes.data(), text.data(), text.size());
}

std::optional<u32> parse_ipv4(const std::string& text) {
    in_addr address{};
    if (inet_pton(AF_INET, text.c_str(), &address) != 1) {
        return std::nullopt;
    }
    return address.s_addr;
}

std::string hex_text(byte_view bytes) {
    return fmt::format("{:02x}", fmt::join(bytes, ""));
}

std::optional<byte_buffer> parse_hex(std::string_view text) {
    byte_buffer bytes;
    int high = -1;
    for (const char letter : text) {
        if (letter == ' ' && high < 0) {
            continue;
        }
        const int digit = records::hex_digit(letter);
        if (digit < 0) {
            return std::nullopt;
        }
        if (high < 0) {
            high = digit;
            continue;
        }
        bytes.push_back(static_cast<u8>(high * 16 + digit));
        high = -1;
    }
    if (high >= 0) {
        return std::nullopt;
    }
    return bytes;
}

}  // namespace scc::devkit
