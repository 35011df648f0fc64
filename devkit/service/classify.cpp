#include "service/classify.h"

#include <algorithm>

namespace scc::service {
namespace {

bool family_matches(const ace::rule& rule, const packet& packet) {
    const bool ipv4 = packet.network == network_kind::ipv4;
    const bool ipv6 = packet.network == network_kind::ipv6;
    switch (rule.family) {
        case SCC_ACE_EVERY_FRAME:
            return true;
        case SCC_ACE_ANY_IP:
            return ipv4 || ipv6;
        case SCC_ACE_IPV4:
            return ipv4;
        case SCC_ACE_IPV6:
            return ipv6;
        default:
            return false;
    }
}

bool is_ip(const packet& packet) {
    return packet.network == network_kind::ipv4 || packet.network == network_kind::ipv6;
}

// For an IP and for a MAC address: the bits under the mask are equal.
template <class Wanted, class Address>
bool address_matches(const Wanted& wanted, const Address& address) {
    for (std::size_t i = 0; i < address.size(); ++i) {
        if (((address[i] ^ wanted.bytes[i]) & wanted.mask[i]) != 0) {
            return false;
        }
    }
    return true;
}

bool contains(const scc_ace_ports& ports, u16 port) {
    return ports.count == 0 || std::any_of(ports.ranges, ports.ranges + ports.count, [&](const auto& range) {
               return range.first <= port && port <= range.last;
           });
}

bool ports_match(const ace::rule& rule, const packet& packet) {
    if (rule.source_ports.count == 0 && rule.destination_ports.count == 0) {
        return true;
    }
    return packet.has_ports && contains(rule.source_ports, packet.source_port) &&
           contains(rule.destination_ports, packet.destination_port);
}

bool tags_match(const ace::rule& rule, const packet& packet) {
    if (rule.compares(SCC_ACE_VLAN) && rule.vlan != packet.vid) {
        return false;
    }
    if (rule.compares(SCC_ACE_INNER_VLAN) && rule.inner_vlan != packet.inner_vid) {
        return false;
    }
    return !rule.compares(SCC_ACE_COS) || (packet.tags != 0 && rule.cos == packet.cos);
}

bool ip_matches(const ace::rule& rule, const packet& packet) {
    if (rule.has_protocol != 0 && !(is_ip(packet) && rule.protocol == packet.protocol)) {
        return false;
    }
    if (rule.compares(SCC_ACE_DSCP) && !(is_ip(packet) && rule.dscp == packet.dscp)) {
        return false;
    }
    return !rule.compares(SCC_ACE_FRAGMENTS) || packet.later_fragment;
}

bool transport_matches(const ace::rule& rule, const packet& packet) {
    if (rule.compares(SCC_ACE_ICMP_TYPE) && !(packet.has_icmp && rule.icmp_type == packet.icmp_type)) {
        return false;
    }
    if (rule.compares(SCC_ACE_ICMP_CODE) && rule.icmp_code != packet.icmp_code) {
        return false;
    }
    constexpr u8 either = tcp_flag_acknowledge | tcp_flag_reset;
    return !rule.compares(SCC_ACE_ESTABLISHED) || (packet.has_tcp_flags && (packet.tcp_flags & either) != 0);
}

bool is_day(const ace::rule& rule, unsigned day) {
    return (rule.time_days >> day & 1u) != 0;
}

// A range that ends before it begins belongs to the day on which it begins.
bool time_matches(const ace::rule& rule, const day_time& now) {
    if (!rule.compares(SCC_ACE_TIME)) {
        return true;
    }
    const bool has_begun = rule.time_begin <= now.minute;
    const bool has_ended = rule.time_end <= now.minute;
    if (rule.time_begin < rule.time_end) {
        return has_begun && !has_ended && is_day(rule, now.day);
    }
    const unsigned yesterday = (now.day + 6u) % 7u;
    return (has_begun && is_day(rule, now.day)) || (!has_ended && is_day(rule, yesterday));
}

}  // namespace

bool matches(const ace::rule& rule, const packet& packet) {
    if (rule.compares(SCC_ACE_ETHERTYPE) && rule.ethertype != packet.ether_type) {
        return false;
    }
    return family_matches(rule, packet) && ip_matches(rule, packet) && tags_match(rule, packet) &&
           address_matches(rule.source_mac, packet.source_mac) &&
           address_matches(rule.destination_mac, packet.destination_mac) &&
           address_matches(rule.source, packet.source_ip) &&
           address_matches(rule.destination, packet.destination_ip) && ports_match(rule, packet) &&
           transport_matches(rule, packet) && time_matches(rule, packet.captured);
}

}  // namespace scc::service
