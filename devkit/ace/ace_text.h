// A rule of an ACE as one line of text.
//
//   ace      := [sn] rule ["id" N]
//   rule     := action protocol [address [ports] address [ports]] option*
//   action   := "permit" | "deny"
//   protocol := "ether"                                   every frame; takes no addresses
//             | "ip" | "ipv6"                             every IPv4, IPv6 packet
//             | "tcp" | "udp" | "icmp" | "icmp6" | 0..255 the number of the IP header
//   address  := "any" | "host" A | A "/" bits | A         source first, then destination
//   ports    := "port" N | "port" N "-" M                 after tcp, udp and 132 only
//   option   := "src-mac" M ["/" mask] | "dst-mac" M ["/" mask] | "vlan" 1..4094 | "dscp" 0..63
//             | "ethertype" N                             dscp of IP rules, ethertype of "ether" rules only
//
// A rule by protocol with "any" on both sides matches IPv4 and IPv6; write 0.0.0.0/0 or ::/0 for one of
// them. MAC addresses are six pairs with colons or three groups with dots. Numbers may be hexadecimal
// with 0x. What print_* writes, parse_* reads back to the same rule.
//
// Stateless; any thread may call every function.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "ace_layout.h"

namespace scc::ace {

// Parses a number, decimal or with 0x, within [min, max].
[[nodiscard]] std::optional<std::uint64_t> parse_number(std::string_view text, std::uint64_t min,
                                                        std::uint64_t max);

[[nodiscard]] std::optional<mac_bytes> parse_mac(std::string_view text);
[[nodiscard]] std::string print_mac(const mac_bytes& mac);

// Parses a rule without sequence number and id. On failure `error` says what is wrong.
[[nodiscard]] std::optional<rule> parse_rule(std::string_view text, std::string& error);
[[nodiscard]] std::string print_rule(const rule& from);

// Parses a whole ACE. The sequence number defaults to 0, the id to the sequence number.
[[nodiscard]] std::optional<scc_ace_record> parse_ace(std::string_view text, std::string& error);

// Prints a whole ACE: "SN RULE", and "id N" if it differs from the sequence number. Empty if the record
// holds none of the devkit's rules.
[[nodiscard]] std::optional<std::string> print_ace(const scc_ace_record& record);

}  // namespace scc::ace
