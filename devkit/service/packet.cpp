#include "service/packet.h"

#include <algorithm>

namespace scc::service {
namespace {

constexpr u16 ether_type_ipv4 = 0x0800;
constexpr u16 ether_type_arp = 0x0806;
constexpr u16 ether_type_ipv6 = 0x86DD;
constexpr u16 tag_customer = 0x8100;
constexpr u16 tag_service = 0x88A8;
constexpr u16 tag_service_old = 0x9100;

constexpr u8 extension_hop_by_hop = 0;
constexpr u8 extension_routing = 43;
constexpr u8 extension_fragment = 44;
constexpr u8 extension_authentication = 51;
constexpr u8 extension_destination = 60;

constexpr std::size_t ethernet_bytes = 14;
constexpr std::size_t tag_bytes = 4;
constexpr std::size_t ipv4_bytes = 20;
constexpr std::size_t ipv6_bytes = 40;
constexpr std::size_t arp_bytes = 28;
constexpr std::size_t tcp_flags_offset = 13;

u8 byte_at(byte_view bytes, std::size_t offset) {
    return offset < bytes.size() ? bytes[offset] : u8{0};
}

u16 network_u16_at(byte_view bytes, std::size_t offset) {
    return static_cast<u16>(byte_at(bytes, offset) << 8 | byte_at(bytes, offset + 1));
}

void copy_address(ace::ip_bytes& address, byte_view source) {
    std::copy_n(source.begin(), std::min(source.size(), address.size()), address.begin());
}

ace::mac_bytes mac_of(byte_view source) {
    ace::mac_bytes mac{};
    std::copy_n(source.begin(), std::min(source.size(), mac.size()), mac.begin());
    return mac;
}

bool is_tag(u16 ether_type) {
    return ether_type == tag_customer || ether_type == tag_service || ether_type == tag_service_old;
}

void parse_transport(byte_view bytes, packet& found) {
    if (found.later_fragment) {
        return;
    }
    if (ace::has_ports(found.protocol) && bytes.size() >= 4) {
        found.has_ports = true;
        found.source_port = network_u16_at(bytes, 0);
        found.destination_port = network_u16_at(bytes, 2);
    }
    if (found.protocol == ace::protocol_tcp && bytes.size() > tcp_flags_offset) {
        found.has_tcp_flags = true;
        found.tcp_flags = bytes[tcp_flags_offset];
    }
    const u8 icmp = found.network == network_kind::ipv4 ? ace::protocol_icmp : ace::protocol_icmp6;
    if (found.protocol == icmp && bytes.size() >= 2) {
        found.has_icmp = true;
        found.icmp_type = bytes[0];
        found.icmp_code = bytes[1];
    }
}

void parse_ipv4(byte_view bytes, packet& found) {
    const std::size_t header_bytes = static_cast<std::size_t>(byte_at(bytes, 0) & 0x0F) * 4;
    if (bytes.size() < ipv4_bytes || byte_at(bytes, 0) >> 4 != 4 || header_bytes < ipv4_bytes) {
        return;
    }
    found.network = network_kind::ipv4;
    found.dscp = static_cast<u8>(bytes[1] >> 2);
    found.later_fragment = (network_u16_at(bytes, 6) & 0x1FFF) != 0;
    found.protocol = bytes[9];
    copy_address(found.source_ip, bytes.subspan(12, 4));
    copy_address(found.destination_ip, bytes.subspan(16, 4));
    parse_transport(devkit::slice(bytes, header_bytes, bytes.size()), found);
}

// The length of an extension header, or 0 for any other header.
std::size_t extension_bytes(u8 protocol, byte_view bytes) {
    const std::size_t length = byte_at(bytes, 1);
    switch (protocol) {
        case extension_hop_by_hop:
        case extension_routing:
        case extension_destination:
            return (length + 1) * 8;
        case extension_authentication:
            return (length + 2) * 4;
        case extension_fragment:
            return 8;
        default:
            return 0;
    }
}

void parse_ipv6(byte_view bytes, packet& found) {
    if (bytes.size() < ipv6_bytes || bytes[0] >> 4 != 6) {
        return;
    }
    found.network = network_kind::ipv6;
    found.dscp = static_cast<u8>((network_u16_at(bytes, 0) >> 6) & 0x3F);
    found.protocol = bytes[6];
    copy_address(found.source_ip, bytes.subspan(8, 16));
    copy_address(found.destination_ip, bytes.subspan(24, 16));

    byte_view rest = bytes.subspan(ipv6_bytes);
    while (!found.later_fragment) {
        const std::size_t length = extension_bytes(found.protocol, rest);
        if (length == 0 || length > rest.size()) {
            break;
        }
        if (found.protocol == extension_fragment) {
            found.later_fragment = (network_u16_at(rest, 2) & 0xFFF8) != 0;
        }
        found.protocol = rest[0];
        rest = rest.subspan(length);
    }
    parse_transport(rest, found);
}

void parse_arp(byte_view bytes, packet& found) {
    constexpr u16 hardware_ethernet = 1;
    if (bytes.size() < arp_bytes || network_u16_at(bytes, 0) != hardware_ethernet ||
        network_u16_at(bytes, 2) != ether_type_ipv4) {
        return;
    }
    found.network = network_kind::arp;
    copy_address(found.source_ip, bytes.subspan(14, 4));
    copy_address(found.destination_ip, bytes.subspan(24, 4));
}

// Reads up to two VLAN tags. Returns the offset of the payload.
std::size_t parse_tags(byte_view frame, packet& found) {
    std::size_t offset = ethernet_bytes;
    found.ether_type = network_u16_at(frame, offset - 2);
    for (int tags = 0; tags < 2 && is_tag(found.ether_type) && devkit::holds(frame, offset, tag_bytes);
         ++tags) {
        const u16 tag = network_u16_at(frame, offset);
        if (tags == 0) {
            found.vid = tag & 0x0FFF;
            found.cos = static_cast<u8>(tag >> 13);
        } else {
            found.inner_vid = tag & 0x0FFF;
        }
        ++found.tags;
        found.ether_type = network_u16_at(frame, offset + 2);
        offset += tag_bytes;
    }
    return offset;
}

}  // namespace

std::optional<packet> parse_packet(byte_view frame) {
    if (frame.size() < ethernet_bytes) {
        return std::nullopt;
    }
    packet found;
    found.destination_mac = mac_of(frame.subspan(0, 6));
    found.source_mac = mac_of(frame.subspan(6, 6));
    const std::size_t offset = parse_tags(frame, found);
    const byte_view payload = devkit::slice(frame, offset, frame.size());
    if (found.ether_type == ether_type_ipv4) {
        parse_ipv4(payload, found);
    }
    if (found.ether_type == ether_type_ipv6) {
        parse_ipv6(payload, found);
    }
    if (found.ether_type == ether_type_arp) {
        parse_arp(payload, found);
    }
    return found;
}

}  // namespace scc::service
