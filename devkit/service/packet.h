// Decodes a captured Ethernet frame: addresses, VLAN tags, IPv4, IPv6, ARP, ports, TCP flags and ICMP. A
// truncated frame yields the fields that it contains. Pure; any thread.
#pragma once

#include <optional>

#include "ace/ace_layout.h"
#include "common/bytes.h"

namespace scc::service {

using devkit::byte_view;

enum class network_kind : u8 { other, ipv4, ipv6, arp };

inline constexpr u8 tcp_flag_reset = 0x04;
inline constexpr u8 tcp_flag_acknowledge = 0x10;

// A time of the week, for the rules that apply at certain hours.
struct day_time {
    u8 day = 0;      // 0 for Sunday to 6 for Saturday
    u16 minute = 0;  // after midnight, local time
};

struct packet {
    ace::mac_bytes destination_mac{};
    ace::mac_bytes source_mac{};
    u8 tags = 0;         // VLAN tags that were read: 0 to 2
    u8 cos = 0;          // of the outer tag
    u16 vid = 0;         // of the outer tag; 0: untagged, or a tag that carries a priority alone
    u16 inner_vid = 0;   // of the second tag
    u16 ether_type = 0;  // after the tags
    network_kind network = network_kind::other;

    // IPv4 (in the first 4 bytes), IPv6, and ARP: the addresses of its sender and its target.
    ace::ip_bytes source_ip{};
    ace::ip_bytes destination_ip{};

    // IPv4 and IPv6 only.
    u8 dscp = 0;
    u8 protocol = 0;              // of the IP header; for IPv6, after the extension headers
    bool later_fragment = false;  // not the first, so without ports

    bool has_ports = false;
    u16 source_port = 0;
    u16 destination_port = 0;

    bool has_tcp_flags = false;
    u8 tcp_flags = 0;

    bool has_icmp = false;  // ICMP or ICMPv6
    u8 icmp_type = 0;
    u8 icmp_code = 0;

    day_time captured;
};

// Empty if the frame is shorter than an Ethernet header.
[[nodiscard]] std::optional<packet> parse_packet(byte_view frame);

}  // namespace scc::service
