// Frames and records for the tests of the software security service, written out byte by byte.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include "ace/ace_text.h"
#include "service/packet.h"

namespace scc::service::testing {

using frame_bytes = std::vector<u8>;

inline frame_bytes operator+(frame_bytes frame, const frame_bytes& more) {
    frame.insert(frame.end(), more.begin(), more.end());
    return frame;
}

// 02:00:00:00:00:01 to 02:00:00:00:00:fe.
inline const frame_bytes addresses = {0x02, 0, 0, 0, 0, 0xFE, 0x02, 0, 0, 0, 0, 0x01};
inline const frame_bytes vlan_10 = {0x81, 0x00, 0x00, 0x0A};
inline const frame_bytes vlan_20 = {0x81, 0x00, 0x00, 0x14};
inline const frame_bytes is_ipv4 = {0x08, 0x00};
inline const frame_bytes is_ipv6 = {0x86, 0xDD};
inline const frame_bytes is_arp = {0x08, 0x06};

// From 192.0.2.1 to 198.51.100.1; the DSCP is 46.
inline frame_bytes ipv4_header(u8 protocol, std::initializer_list<u8> fragment = {0x00, 0x00}) {
    return frame_bytes{0x45, 0xB8, 0x00, 0x28, 0x00, 0x01} + frame_bytes(fragment) +
           frame_bytes{0x40, protocol, 0x00, 0x00} + frame_bytes{192, 0, 2, 1, 198, 51, 100, 1};
}

// From 2001:db8::5 to 2001:db8::80; the DSCP is 46.
inline frame_bytes ipv6_header(u8 next_header) {
    return frame_bytes{0x6B, 0x80, 0x00, 0x00, 0x00, 0x14, next_header, 0x40} +
           frame_bytes{0x20, 0x01, 0x0D, 0xB8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x05} +
           frame_bytes{0x20, 0x01, 0x0D, 0xB8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x80};
}

// Port 40001 to port 80, and that many more bytes.
inline const frame_bytes ports = {0x9C, 0x41, 0x00, 0x50};
inline const frame_bytes rest_of_tcp = frame_bytes(16, 0);

inline frame_bytes tcp_frame() {
    return addresses + vlan_10 + is_ipv4 + ipv4_header(6) + ports + rest_of_tcp;
}
inline frame_bytes udp_frame() {
    return addresses + is_ipv4 + ipv4_header(17) + ports + frame_bytes{0, 8, 0, 0};
}
inline frame_bytes icmp_frame() {
    return addresses + is_ipv4 + ipv4_header(1) + frame_bytes{8, 0, 0, 0, 0, 4, 0, 1};
}
inline frame_bytes tcp6_frame() {
    return addresses + is_ipv6 + ipv6_header(6) + ports + rest_of_tcp;
}
inline frame_bytes arp_frame() {
    return addresses + is_arp + frame_bytes{0, 1, 8, 0, 6, 4, 0, 1, 0x02, 0, 0, 0, 0, 0x01, 192, 0, 2, 1} +
           frame_bytes{0, 0, 0, 0, 0, 0, 192, 0, 2, 254};
}

inline packet packet_of(const frame_bytes& frame) {
    const std::optional<packet> found = parse_packet(frame);
    EXPECT_TRUE(found.has_value());
    return found.value_or(packet{});
}

inline ace::rule rule_of(std::string_view text) {
    std::string error;
    const std::optional<ace::rule> rule = ace::parse_rule(text, error);
    EXPECT_TRUE(rule.has_value()) << text << ": " << error;
    return rule.value_or(ace::rule{});
}

inline scc_ace_record ace_of(std::string_view text) {
    std::string error;
    const std::optional<scc_ace_record> record = ace::parse_ace(text, error);
    EXPECT_TRUE(record.has_value()) << text << ": " << error;
    return record.value_or(scc_ace_record{});
}

inline scc_acl_key key_of(u32 acl_id) {
    return {1, 2, acl_id, 3};
}

enum class direction : u8 { in = 0, out = 1 };

// Interface and direction are the first bytes following the key.
inline scc_acl_apply_record application_of(u32 acl_id, u8 ifx, direction way = direction::in) {
    scc_acl_apply_record record{};
    record.key = key_of(acl_id);
    record.target[0] = ifx;
    record.target[4] = static_cast<u8>(way);
    record.apply_type = 2;
    return record;
}

inline scc_ss_user user_of(u8 last_mac_byte, u32 ifx) {
    scc_ss_user user{};
    user.ifx = ifx;
    user.mac[0] = 0x02;
    user.mac[5] = last_mac_byte;
    const u8 ip[4] = {192, 0, 2, last_mac_byte};
    std::copy_n(ip, 4, reinterpret_cast<u8*>(&user.ip));
    return user;
}

}  // namespace scc::service::testing
