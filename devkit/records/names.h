// The names that stand for numbers in the text of an ACE: protocols, DSCP, classes of service, ICMP types,
// days and ports. Names are read, numbers are printed. Stateless; any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace scc::records {

using std::string_view;

inline constexpr std::uint8_t protocol_icmp = 1;
inline constexpr std::uint8_t protocol_tcp = 6;
inline constexpr std::uint8_t protocol_udp = 17;
inline constexpr std::uint8_t protocol_icmp6 = 58;
inline constexpr std::uint8_t protocol_sctp = 132;

// Whether packets of this protocol have ports.
[[nodiscard]] bool has_ports(std::uint8_t protocol);

[[nodiscard]] std::optional<std::uint8_t> protocol_named(string_view name);
// Null if the protocol is printed as a number.
[[nodiscard]] const char* protocol_name(std::uint8_t protocol);

[[nodiscard]] std::optional<std::uint8_t> dscp_named(string_view name);
[[nodiscard]] std::optional<std::uint8_t> cos_named(string_view name);

// Some names stand for a type and a code.
struct icmp_meaning {
    std::uint8_t type;
    std::optional<std::uint8_t> code;
};
// `protocol` is that of ICMP or of ICMPv6.
[[nodiscard]] std::optional<icmp_meaning> icmp_named(std::uint8_t protocol, string_view name);

// 0 for Sunday to 6 for Saturday.
[[nodiscard]] std::optional<std::uint8_t> day_named(string_view name);
[[nodiscard]] const char* day_name(unsigned day);

// A port by its number or its name in services(5), for a protocol with ports.
[[nodiscard]] std::optional<std::uint16_t> port_named(std::uint8_t protocol, string_view word);

}  // namespace scc::records
