#include "common/bytes.h"

#include <arpa/inet.h>
#include <fmt/format.h>

#include <algorithm>

namespace scc::devkit {
namespace {

int hex_digit(char letter) {
    if (letter >= '0' && letter <= '9') return letter - '0';
    if (letter >= 'a' && letter <= 'f') return letter - 'a' + 10;
    if (letter >= 'A' && letter <= 'F') return letter - 'A' + 10;
    return -1;
}

}  // namespace

void copy_at(Bytes& bytes, std::size_t offset, View source) {
    if (source.empty() || !holds(bytes, offset, source.size())) return;
    std::memmove(bytes.data() + offset, source.data(), source.size());
}

Bytes to_bytes(View view) {
    return Bytes(view.begin(), view.end());
}

MacAddress mac_at(View bytes, std::size_t offset) {
    MacAddress mac{};
    const View source = slice(bytes, offset, mac.size());
    std::copy(source.begin(), source.end(), mac.begin());
    return mac;
}

std::string mac_text(const MacAddress& mac) {
    return fmt::format("{:02x}", fmt::join(mac, ":"));
}

std::optional<MacAddress> parse_mac(std::string_view text) {
    std::string digits;
    for (const char letter : text) {
        if (letter != ':' && letter != '-' && letter != '.') digits.push_back(letter);
    }
    const std::optional<Bytes> bytes = parse_hex(digits);
    if (!bytes || bytes->size() != MacAddress{}.size()) return std::nullopt;
    return mac_at(*bytes, 0);
}

std::string ipv4_text(u32 address) {
    std::array<u8, 4> parts{};
    std::memcpy(parts.data(), &address, parts.size());
    return fmt::format("{}", fmt::join(parts, "."));
}

std::string ipv6_text(View address) {
    std::array<u8, 16> bytes{};
    std::copy_n(address.begin(), std::min(address.size(), bytes.size()), bytes.begin());
    std::array<char, INET6_ADDRSTRLEN> text{};
    return inet_ntop(AF_INET6, bytes.data(), text.data(), text.size());
}

std::optional<u32> parse_ipv4(const std::string& text) {
    in_addr address{};
    if (inet_pton(AF_INET, text.c_str(), &address) != 1) return std::nullopt;
    return address.s_addr;
}

std::string hex_text(View bytes) {
    return fmt::format("{:02x}", fmt::join(bytes, ""));
}

std::optional<Bytes> parse_hex(std::string_view text) {
    Bytes bytes;
    int high = -1;
    for (const char letter : text) {
        if (letter == ' ' && high < 0) continue;
        const int digit = hex_digit(letter);
        if (digit < 0) return std::nullopt;
        if (high < 0) {
            high = digit;
            continue;
        }
        bytes.push_back(static_cast<u8>(high * 16 + digit));
        high = -1;
    }
    if (high >= 0) return std::nullopt;
    return bytes;
}

}  // namespace scc::devkit
