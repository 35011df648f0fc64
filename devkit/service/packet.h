// Decodes a captured Ethernet frame: addresses, VLAN tag, IPv4, IPv6, ARP and ports. A truncated frame
// yields the fields that it contains. Pure; any thread.
#pragma once

#include <optional>

#include "ace/ace_layout.h"
#include "common/bytes.h"

namespace scc::service {

using devkit::byte_view;

enum class network_kind : u8 { other, ipv4, ipv6, arp };

struct packet {
    ace::mac_bytes destination_mac{};
    ace::mac_bytes source_mac{};
    u16 vid = 0;         // of the outer tag; 0: untagged
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
};

// Empty if the frame is shorter than an Ethernet header.
[[nodiscard]] std::optional<packet> parse_packet(byte_view frame);

}  // namespace scc::service
