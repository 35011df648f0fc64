// The conditions of an ACE's rule as the kernel's expressions. Pure; any thread.
//
// What the kernel sees differs from the wire in one way: an outer tag is taken off before the rules see the
// frame and is kept beside it, so that protocol and addresses of frames with one tag are compared like those
// of frames without. Those of frames with two tags are out of reach: only MAC addresses, tags and priority of
// such a frame are compared, and a rule that needs more does not match it.
#pragma once

#include <string>
#include <vector>

#include "ace/ace_layout.h"
#include "linux/expressions.h"

namespace scc::kernel {

// Whether the kernel can compare what the rule compares.
[[nodiscard]] bool is_supported(const ace::rule& rule);

// One list of conditions for each rule that the kernel needs: a packet matches if it meets all conditions of
// one of them; it never meets those of two. The rule must be supported.
[[nodiscard]] std::vector<expressions> conditions_of(const ace::rule& rule);

// Single conditions.
[[nodiscard]] expressions vlan_condition(u16 vlan);
[[nodiscard]] expressions source_mac_condition(const ace::mac_bytes& mac);
// Of the frame, or of its content if it has one tag.
[[nodiscard]] expressions ether_type_condition(u16 ether_type);
// Of the sender: an IPv4 or IPv6 packet, or an ARP message of the IPv4 address.
[[nodiscard]] expressions source_address_condition(bool is_ipv6, const scc_ace_address& address);
[[nodiscard]] expressions arp_sender_condition(const scc_ace_address& address);

}  // namespace scc::kernel
