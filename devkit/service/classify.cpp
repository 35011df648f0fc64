#include "service/classify.h"

#include <algorithm>

namespace scc::service {
namespace {

bool family_matches(const ace::rule& rule, const packet& packet) {
    const bool ipv4 = packet.network == network_kind::ipv4;
    const bool ipv6 = packet.network == network_kind::ipv6;
    switch (rule.family) {
        case ace::frame_family::every_frame:
            return true;
        case ace::frame_family::any_ip:
            return ipv4 || ipv6;
        case ace::frame_family::ipv4:
            return ipv4;
        case ace::frame_family::ipv6:
            return ipv6;
    }
    return false;
}

bool is_ip(const packet& packet) {
    return packet.network == network_kind::ipv4 || packet.network == network_kind::ipv6;
}

bool address_matches(const ace::ip_prefix& prefix, const ace::ip_bytes& address) {
    const std::size_t whole_bytes = std::min<std::size_t>(prefix.prefix_bits / 8, address.size());
    if (!std::equal(address.begin(), address.begin() + static_cast<std::ptrdiff_t>(whole_bytes),
                    prefix.bytes.begin())) {
        return false;
    }
    const unsigned rest_bits = prefix.prefix_bits % 8u;
    if (rest_bits == 0 || whole_bytes == address.size()) {
        return true;
    }
    const unsigned mask = 0xFFu << (8u - rest_bits) & 0xFFu;
    return (address[whole_bytes] & mask) == (prefix.bytes[whole_bytes] & mask);
}

bool mac_matches(const std::optional<ace::mac_match>& wanted, const ace::mac_bytes& mac) {
    if (!wanted) {
        return true;
    }
    for (std::size_t i = 0; i < mac.size(); ++i) {
        if (((mac[i] ^ wanted->bytes[i]) & wanted->mask[i]) != 0) {
            return false;
        }
    }
    return true;
}

bool ports_match(const ace::rule& rule, const packet& packet) {
    if (rule.source_port.any() && rule.destination_port.any()) {
        return true;
    }
    const auto within = [](const ace::port_range& range, u16 port) {
        return range.first <= port && port <= range.last;
    };
    return packet.has_ports && within(rule.source_port, packet.source_port) &&
           within(rule.destination_port, packet.destination_port);
}

template <class Number>
bool equals_if_asked(const std::optional<Number>& wanted, Number found) {
    return !wanted || *wanted == found;
}

}  // namespace

bool matches(const ace::rule& rule, const packet& packet) {
    if (!family_matches(rule, packet)) {
        return false;
    }
    if (rule.protocol && !(is_ip(packet) && *rule.protocol == packet.protocol)) {
        return false;
    }
    if (rule.dscp && !(is_ip(packet) && *rule.dscp == packet.dscp)) {
        return false;
    }
    return equals_if_asked(rule.vlan, packet.vid) && equals_if_asked(rule.ethertype, packet.ether_type) &&
           mac_matches(rule.source_mac, packet.source_mac) &&
           mac_matches(rule.destination_mac, packet.destination_mac) &&
           address_matches(rule.source, packet.source_ip) &&
           address_matches(rule.destination, packet.destination_ip) && ports_match(rule, packet);
}

}  // namespace scc::service
