// The conditions of an ACE's rule as the kernel's expressions. Pure; any thread.
//
// What the kernel sees differs from the wire in one way: an outer tag is taken off before the rules see the
// frame and is kept beside it, so that protocol and addresses of frames with one tag are compared like those
// of frames without. Those of frames with two tags are out of reach: only MAC addresses, tags and priority of
// such a frame are compared, and a rule that needs more does not match it.
#pragma once

#include <optional>
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

// The same conditions with the values of single fields, the key, set apart from the rest, the shape. Of two
// rules of the same shape with different keys, no packet meets the conditions of both.
struct keyed_conditions {
    // Like those of conditions_of(); they load the key in place of comparing its fields.
    std::vector<expressions> loads;
    std::string key;
    u32 key_type = 0;  // by which nft(8) shows it
    u64 shape = 0;     // never 0
};
// Empty if the rule compares no field with a single value, too many of them, or other values in IPv4 than in
// IPv6.
[[nodiscard]] std::optional<keyed_conditions> keyed_conditions_of(const ace::rule& rule);

// Single conditions.
[[nodiscard]] expressions vlan_condition(u16 vlan);
[[nodiscard]] expressions source_mac_condition(const ace::mac_bytes& mac);
// Of the frame, or of its content if it has one tag.
[[nodiscard]] expressions ether_type_condition(u16 ether_type);
// Of the sender: an IPv4 or IPv6 packet, or an ARP message of the IPv4 address.
[[nodiscard]] expressions source_address_condition(bool is_ipv6, const scc_ace_address& address);
[[nodiscard]] expressions arp_sender_condition(const scc_ace_address& address);

}  // namespace scc::kernel
