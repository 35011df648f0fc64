// The conditions of an ACE's rule as nftables' JSON. Pure; any thread.
//
// What the kernel sees differs from the wire in one way: an outer tag is taken off before the rules see the
// frame and is kept beside it, so that protocol and addresses of frames with one tag are compared like those
// of frames without. Those of frames with two tags are out of reach: only MAC addresses, tags and priority of
// such a frame are compared, and a rule that needs more does not match it.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "ace/ace_layout.h"

namespace scc::kernel {

// Whether the kernel can compare what the rule compares.
[[nodiscard]] bool is_supported(const ace::rule& rule);

// One list of conditions for each rule that the kernel needs: a packet matches if it meets all conditions of
// one of them; it never meets those of two. Each list is a sequence of JSON objects, each followed by a
// comma. The rule must be supported.
[[nodiscard]] std::vector<std::string> conditions_of(const ace::rule& rule);

// Single conditions, each with its comma.
[[nodiscard]] std::string vlan_condition(std::uint16_t vlan);
[[nodiscard]] std::string source_mac_condition(const ace::mac_bytes& mac);
[[nodiscard]] std::string protocol_condition(std::string_view ether_protocol);
[[nodiscard]] std::string ether_type_condition(std::uint16_t ether_type);
// Of the sender: an IPv4 or IPv6 packet, or an ARP message of the IPv4 address.
[[nodiscard]] std::string source_address_condition(bool is_ipv6, const scc_ace_address& address);
[[nodiscard]] std::string arp_sender_condition(const scc_ace_address& address);

}  // namespace scc::kernel
