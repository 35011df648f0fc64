// The devkit's own rule inside the opaque bytes of a 912-byte ACE record.
//
// The library and the daemon copy these bytes unread. sccctl encodes them from a rule's text; the
// software service decodes them to classify packets. Numbers are in host byte order, addresses in
// network byte order. Offsets are relative to the record:
//
//     0  the library's link            16  (unused here)
//    16  u32 marker                        a record without it holds no such rule
//    20  u8  action                        0 deny, 1 permit
//    21  u8  family                        frame_family
//    22  u8  1 if the protocol must match
//    23  u8  protocol                      the number of the IP header
//    24  u16 fields                        field_*: which of the optional fields below apply
//    26  u16 vlan                          1 to 4094
//    28  u16 ethertype
//    30  u8  dscp                          0 to 63
//    31  u8  zero
//    32  source address               16   IPv4 in the first 4 bytes, or IPv6
//    48  destination address          16
//    64  u8  source prefix length          0 is any address
//    65  u8  destination prefix length
//    66  u16 zero
//    68  u16 source port, first            0 to 65535 is any port
//    70  u16 source port, last
//    72  u16 destination port, first
//    74  u16 destination port, last
//    76  source MAC address            6
//    82  its mask                      6
//    88  destination MAC address       6
//    94  its mask                      6
//   220  u32 sequence number, 224 u32 ACE id (the library's own fields)
//
// Stateless; any thread may call every function.
#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <optional>

#include "scclib.h"

namespace scc::ace {

inline constexpr std::uint32_t layout_marker = 0x31454341;  // "ACE1" in memory on a little-endian host

inline constexpr std::uint16_t field_source_mac = 0x01;
inline constexpr std::uint16_t field_destination_mac = 0x02;
inline constexpr std::uint16_t field_vlan = 0x04;
inline constexpr std::uint16_t field_ethertype = 0x08;
inline constexpr std::uint16_t field_dscp = 0x10;

inline constexpr std::uint16_t vlan_min = 1;
inline constexpr std::uint16_t vlan_max = 4094;
inline constexpr std::uint8_t dscp_max = 63;
inline constexpr std::uint16_t port_max = 65535;

inline constexpr std::uint8_t protocol_icmp = 1;
inline constexpr std::uint8_t protocol_tcp = 6;
inline constexpr std::uint8_t protocol_udp = 17;
inline constexpr std::uint8_t protocol_icmp6 = 58;
inline constexpr std::uint8_t protocol_sctp = 132;

enum class rule_action : std::uint8_t { deny = 0, permit = 1 };

// The frames that a rule applies to.
enum class frame_family : std::uint8_t {
    every_frame = 0,  // any payload; the rule has no addresses, protocol or ports
    any_ip = 1,       // IPv4 or IPv6; the rule has a protocol and no addresses
    ipv4 = 4,
    ipv6 = 6,
};

using ip_bytes = std::array<std::uint8_t, 16>;
using mac_bytes = std::array<std::uint8_t, 6>;

// An address matches when its first prefix_bits bits are those of bytes. The remaining bits are 0.
struct ip_prefix {
    ip_bytes bytes{};
    std::uint8_t prefix_bits = 0;
    auto operator<=>(const ip_prefix&) const = default;
};

// A port matches when it lies within [first, last], host order.
struct port_range {
    std::uint16_t first = 0;
    std::uint16_t last = port_max;
    [[nodiscard]] bool any() const { return first == 0 && last == port_max; }
    auto operator<=>(const port_range&) const = default;
};

// A MAC address matches when its bits under mask are those of bytes.
struct mac_match {
    mac_bytes bytes{};
    mac_bytes mask{};
    auto operator<=>(const mac_match&) const = default;
};

struct rule {
    rule_action action = rule_action::deny;
    frame_family family = frame_family::every_frame;
    std::optional<std::uint8_t> protocol;
    ip_prefix source;
    ip_prefix destination;
    port_range source_port;
    port_range destination_port;
    std::optional<mac_match> source_mac;
    std::optional<mac_match> destination_mac;
    std::optional<std::uint16_t> vlan;
    std::optional<std::uint16_t> ethertype;
    std::optional<std::uint8_t> dscp;
    auto operator<=>(const rule&) const = default;
};

// Whether packets of this protocol have ports.
[[nodiscard]] bool has_ports(std::uint8_t protocol);

// Writes the rule's bytes (16 to 99); the rest of the record is unchanged.
void encode(const rule& from, scc_ace_record& record);

// Reads the rule of a record. Empty if the record holds no rule, or bytes that encode() never writes; such
// an ACE matches nothing.
[[nodiscard]] std::optional<rule> decode(const scc_ace_record& record);

}  // namespace scc::ace
