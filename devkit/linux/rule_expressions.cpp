#include "linux/rule_expressions.h"

#include <net/ethernet.h>
#include <netinet/in.h>

#include <algorithm>
#include <array>

namespace scc::kernel {
namespace {

std::string text_of(const u8* bytes, std::size_t size) {
    return {reinterpret_cast<const char*>(bytes), size};
}

std::string one_byte(unsigned number) {
    return {static_cast<char>(number)};
}

expressions at(nft_payload_bases base, u32 offset, u32 len) {
    return expressions().payload(base, offset, len);
}

// Tags that take a VLAN id, of customers and of providers.
expressions tagged_condition(u32 offset) {
    return at(NFT_PAYLOAD_LL_HEADER, offset, 2)
        .lies_in({{0x8100, 0x8100}, {0x88A8, 0x88A8}, {0x9100, 0x9100}});
}

// Bits that the mask lacks are not compared; without any bit there is no condition.
expressions masked_condition(expressions loaded, const u8* bytes, const u8* mask, std::size_t size) {
    if (std::all_of(mask, mask + size, [](u8 bits) { return bits == 0; })) {
        return {};
    }
    std::string wanted(size, '\0');
    std::transform(bytes, bytes + size, mask, wanted.begin(),
                   [](u8 byte, u8 bits) { return static_cast<char>(byte & bits); });
    if (!std::all_of(mask, mask + size, [](u8 bits) { return bits == 0xFF; })) {
        loaded.mask(text_of(mask, size));
    }
    return loaded.equals(wanted);
}

expressions address_condition(bool is_ipv6, bool of_source, const scc_ace_address& wanted) {
    const u32 size = is_ipv6 ? 16 : 4;
    const u32 source_offset = is_ipv6 ? 8 : 12;
    return masked_condition(
        at(NFT_PAYLOAD_NETWORK_HEADER, of_source ? source_offset : source_offset + size, size), wanted.bytes,
        wanted.mask, size);
}

expressions ports_condition(u32 offset, const scc_ace_ports& ports) {
    if (ports.count == 0) {
        return {};
    }
    std::vector<number_range> ranges;
    for (const auto* range = ports.ranges; range != ports.ranges + ports.count; ++range) {
        if (!ranges.empty() && range->first <= ranges.back().last + 1) {
            ranges.back().last = std::max(ranges.back().last, range->last);
        } else {
            ranges.push_back({range->first, range->last});
        }
    }
    return at(NFT_PAYLOAD_TRANSPORT_HEADER, offset, 2).lies_in(ranges);
}

expressions tag_conditions(const ace::rule& rule) {
    expressions conditions;
    if (rule.compares(SCC_ACE_VLAN)) {
        conditions += vlan_condition(rule.vlan);
    }
    if (rule.compares(SCC_ACE_COS)) {
        conditions += tagged_condition(12);
        conditions +=
            at(NFT_PAYLOAD_LL_HEADER, 14, 1).mask(one_byte(0xE0)).equals(one_byte(unsigned{rule.cos} << 5u));
    }
    if (rule.compares(SCC_ACE_INNER_VLAN)) {
        conditions += tagged_condition(12) + tagged_condition(16);
        conditions +=
            at(NFT_PAYLOAD_LL_HEADER, 18, 2).mask(bytes_of(0x0FFF)).equals(bytes_of(rule.inner_vlan));
    }
    return conditions;
}

// The conditions that are the same for both versions of IP.
expressions transport_conditions(const ace::rule& rule) {
    expressions conditions;
    if (rule.has_protocol != 0) {
        conditions.meta(NFT_META_L4PROTO).equals(one_byte(rule.protocol));
    }
    conditions += ports_condition(0, rule.source_ports) + ports_condition(2, rule.destination_ports);
    if (rule.compares(SCC_ACE_ICMP_TYPE)) {
        conditions.payload(NFT_PAYLOAD_TRANSPORT_HEADER, 0, 1).equals(one_byte(rule.icmp_type));
    }
    if (rule.compares(SCC_ACE_ICMP_CODE)) {
        conditions.payload(NFT_PAYLOAD_TRANSPORT_HEADER, 1, 1).equals(one_byte(rule.icmp_code));
    }
    if (rule.compares(SCC_ACE_ESTABLISHED)) {
        constexpr unsigned acknowledge_or_reset = 0x14;
        conditions.payload(NFT_PAYLOAD_TRANSPORT_HEADER, 13, 1)
            .mask(one_byte(acknowledge_or_reset))
            .differs(one_byte(0));
    }
    return conditions;
}

bool compares_transport(const ace::rule& rule) {
    return rule.source_ports.count != 0 || rule.destination_ports.count != 0 ||
           rule.compares(SCC_ACE_ICMP_TYPE) || rule.compares(SCC_ACE_ESTABLISHED);
}

expressions fragment_condition(bool is_ipv6, bool is_later) {
    expressions offset = is_ipv6 ? expressions().extension(IPPROTO_FRAGMENT, 2, 2).mask(bytes_of(0xFFF8))
                                 : at(NFT_PAYLOAD_NETWORK_HEADER, 6, 2).mask(bytes_of(0x1FFF));
    return is_later ? offset.differs(bytes_of(0)) : offset.equals(bytes_of(0));
}

expressions dscp_condition(bool is_ipv6, unsigned dscp) {
    return is_ipv6 ? at(NFT_PAYLOAD_NETWORK_HEADER, 0, 2)
                         .mask(bytes_of(0x0FC0))
                         .equals(bytes_of(static_cast<u16>(dscp << 6u)))
                   : at(NFT_PAYLOAD_NETWORK_HEADER, 1, 1).mask(one_byte(0xFC)).equals(one_byte(dscp << 2u));
}

// The bytes that follow the IP header are ports only in packets that are whole, and in first fragments. In
// IPv6 those two are told apart by an extension header.
std::vector<expressions> ip_conditions(const ace::rule& rule, bool is_ipv6) {
    expressions conditions = ether_type_condition(is_ipv6 ? ETHERTYPE_IPV6 : ETHERTYPE_IP);
    if (rule.compares(SCC_ACE_DSCP)) {
        conditions += dscp_condition(is_ipv6, rule.dscp);
    }
    conditions += address_condition(is_ipv6, true, rule.source);
    conditions += address_condition(is_ipv6, false, rule.destination);
    if (rule.compares(SCC_ACE_FRAGMENTS)) {
        conditions += fragment_condition(is_ipv6, true);
    }
    const expressions transport = transport_conditions(rule);
    if (!compares_transport(rule)) {
        return {conditions + transport};
    }
    std::vector<expressions> all = {conditions + fragment_condition(is_ipv6, false) + transport};
    if (is_ipv6) {
        conditions.has_extension(IPPROTO_FRAGMENT).equals(one_byte(0));
        all.push_back(conditions + transport);
    }
    return all;
}

}  // namespace

expressions vlan_condition(u16 vlan) {
    return tagged_condition(12) +
           at(NFT_PAYLOAD_LL_HEADER, 14, 2).mask(bytes_of(0x0FFF)).equals(bytes_of(vlan));
}

expressions source_mac_condition(const ace::mac_bytes& mac) {
    return at(NFT_PAYLOAD_LL_HEADER, 6, 6).equals(text_of(mac.data(), mac.size()));
}

expressions ether_type_condition(u16 ether_type) {
    return expressions().meta(NFT_META_PROTOCOL).equals(bytes_of(ether_type));
}

expressions source_address_condition(bool is_ipv6, const scc_ace_address& address) {
    return ether_type_condition(is_ipv6 ? ETHERTYPE_IPV6 : ETHERTYPE_IP) +
           address_condition(is_ipv6, true, address);
}

expressions arp_sender_condition(const scc_ace_address& address) {
    return ether_type_condition(ETHERTYPE_ARP) +
           masked_condition(at(NFT_PAYLOAD_NETWORK_HEADER, 14, 4), address.bytes, address.mask, 4);
}

// The kernel's clock of day and hour is not that of the local time zone, and it reports no packets.
bool is_supported(const ace::rule& rule) {
    const bool known = rule.family == SCC_ACE_EVERY_FRAME || rule.family == SCC_ACE_ANY_IP ||
                       rule.family == SCC_ACE_IPV4 || rule.family == SCC_ACE_IPV6;
    return known && !rule.compares(SCC_ACE_TIME) && !rule.compares(SCC_ACE_LOG);
}

std::vector<expressions> conditions_of(const ace::rule& rule) {
    expressions frame = tag_conditions(rule);
    frame +=
        masked_condition(at(NFT_PAYLOAD_LL_HEADER, 6, 6), rule.source_mac.bytes, rule.source_mac.mask, 6);
    frame += masked_condition(at(NFT_PAYLOAD_LL_HEADER, 0, 6), rule.destination_mac.bytes,
                              rule.destination_mac.mask, 6);
    if (rule.compares(SCC_ACE_ETHERTYPE)) {
        frame += ether_type_condition(rule.ethertype);
    }
    if (rule.family == SCC_ACE_EVERY_FRAME) {
        return {frame};
    }
    std::vector<expressions> all;
    for (const bool is_ipv6 : {false, true}) {
        if (rule.family == SCC_ACE_ANY_IP || rule.family == (is_ipv6 ? SCC_ACE_IPV6 : SCC_ACE_IPV4)) {
            for (const expressions& conditions : ip_conditions(rule, is_ipv6)) {
                all.push_back(frame + conditions);
            }
        }
    }
    return all;
}

}  // namespace scc::kernel
