#include "linux/rule_expressions.h"

#include <net/ethernet.h>
#include <netinet/in.h>

#include <algorithm>
#include <array>
#include <utility>

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

// The types of nft(8).
constexpr u32 type_integer = 4;
constexpr u32 type_ipv4_addr = 7;
constexpr u32 type_ipv6_addr = 8;
constexpr u32 type_ether_addr = 9;
constexpr u32 type_ether_type = 10;
constexpr u32 type_inet_proto = 12;
constexpr u32 type_inet_service = 13;
constexpr u32 type_bits = 6;
constexpr std::size_t types_max = 5;

// A field of the packet, or some of its bits.
struct field {
    std::optional<nft_meta_keys> meta;  // or else:
    nft_payload_bases base = NFT_PAYLOAD_LL_HEADER;
    u32 offset = 0;
    u32 len = 0;
    std::string mask;  // empty: all bits
    u32 type = type_integer;

    [[nodiscard]] expressions load(u32 to) const {
        expressions what;
        meta ? what.meta(*meta, to) : what.payload(base, offset, len, to);
        return mask.empty() ? what : what.mask(mask, to);
    }
};

field field_at(nft_payload_bases base, u32 offset, u32 len, std::string mask = {}) {
    return {std::nullopt, base, offset, len, std::move(mask), type_integer};
}

field typed_field_at(nft_payload_bases base, u32 offset, u32 len, u32 type) {
    return {std::nullopt, base, offset, len, {}, type};
}

// Conditions that a packet has to meet one after the other.
class conditions {
  public:
    conditions() = default;
    explicit(false) conditions(expressions what) { all_.push_back({std::move(what), {}, {}}); }
    // The field has the value, which may be a part of a key.
    conditions(field what, std::string value) { all_.push_back({{}, std::move(what), std::move(value)}); }

    conditions& operator+=(const conditions& more) {
        all_.insert(all_.end(), more.all_.begin(), more.all_.end());
        return *this;
    }
    friend conditions operator+(conditions first, const conditions& more) { return first += more; }

    [[nodiscard]] expressions compared() const {
        expressions all;
        for (const condition& one : all_) {
            all += one.value.empty() ? one.other : one.what.load(work_register).equals(one.value);
        }
        return all;
    }
    // The key is loaded last, since the other conditions need its registers.
    [[nodiscard]] expressions loaded() const {
        expressions all;
        for (const condition& one : all_) {
            all += one.other;
        }
        u32 to = key_register;
        for (const condition& one : all_) {
            if (!one.value.empty()) {
                all += one.what.load(to);
                to += static_cast<u32>(registers_of(one.value));
            }
        }
        return all;
    }
    [[nodiscard]] std::string key() const {
        std::string key;
        for (const condition& one : all_) {
            key += one.value;
            key.resize(key.size() + registers_of(one.value) * register_bytes - one.value.size());
        }
        return key;
    }
    // A single number shows what has no type of its own, or too many.
    [[nodiscard]] u32 key_type() const {
        u32 types = 0;
        std::size_t count = 0;
        for (const condition& one : all_) {
            if (!one.value.empty() && (one.what.type == type_integer || ++count > types_max)) {
                return type_integer;
            }
            types = one.value.empty() ? types : types << type_bits | one.what.type;
        }
        return types;
    }

  private:
    struct condition {
        expressions other;  // unless there is a value
        field what;
        std::string value;
    };
    static std::size_t registers_of(const std::string& value) {
        return (value.size() + register_bytes - 1) / register_bytes;
    }

    std::vector<condition> all_;
};

// Tags that take a VLAN id, of customers and of providers.
conditions tagged(u32 offset) {
    return at(NFT_PAYLOAD_LL_HEADER, offset, 2)
        .lies_in({{0x8100, 0x8100}, {0x88A8, 0x88A8}, {0x9100, 0x9100}});
}

conditions of_vlan(u16 vlan) {
    return tagged(12) + conditions(field_at(NFT_PAYLOAD_LL_HEADER, 14, 2, bytes_of(0x0FFF)), bytes_of(vlan));
}

// Bits that the mask lacks are not compared; without any bit there is no condition.
conditions masked(field what, const u8* bytes, const u8* mask) {
    if (std::all_of(mask, mask + what.len, [](u8 bits) { return bits == 0; })) {
        return {};
    }
    std::string wanted(what.len, '\0');
    std::transform(bytes, bytes + what.len, mask, wanted.begin(),
                   [](u8 byte, u8 bits) { return static_cast<char>(byte & bits); });
    if (!std::all_of(mask, mask + what.len, [](u8 bits) { return bits == 0xFF; })) {
        what.mask = text_of(mask, what.len);
    }
    return {std::move(what), std::move(wanted)};
}

conditions of_address(bool is_ipv6, bool of_source, const scc_ace_address& wanted) {
    const u32 size = is_ipv6 ? 16 : 4;
    const u32 source_offset = is_ipv6 ? 8 : 12;
    const u32 offset = of_source ? source_offset : source_offset + size;
    return masked(
        typed_field_at(NFT_PAYLOAD_NETWORK_HEADER, offset, size, is_ipv6 ? type_ipv6_addr : type_ipv4_addr),
        wanted.bytes, wanted.mask);
}

conditions of_ports(u32 offset, const scc_ace_ports& ports) {
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
    if (ranges.size() == 1 && ranges[0].first == ranges[0].last) {
        return {typed_field_at(NFT_PAYLOAD_TRANSPORT_HEADER, offset, 2, type_inet_service),
                bytes_of(ranges[0].first)};
    }
    return at(NFT_PAYLOAD_TRANSPORT_HEADER, offset, 2).lies_in(ranges);
}

conditions of_tags(const ace::rule& rule) {
    conditions all;
    if (rule.compares(SCC_ACE_VLAN)) {
        all += of_vlan(rule.vlan);
    }
    if (rule.compares(SCC_ACE_COS)) {
        all += tagged(12);
        all += {field_at(NFT_PAYLOAD_LL_HEADER, 14, 1, one_byte(0xE0)), one_byte(unsigned{rule.cos} << 5u)};
    }
    if (rule.compares(SCC_ACE_INNER_VLAN)) {
        all += tagged(12) + tagged(16);
        all += {field_at(NFT_PAYLOAD_LL_HEADER, 18, 2, bytes_of(0x0FFF)), bytes_of(rule.inner_vlan)};
    }
    return all;
}

// The conditions that are the same for both versions of IP.
conditions of_transport(const ace::rule& rule) {
    conditions all;
    if (rule.has_protocol != 0) {
        all += {field{NFT_META_L4PROTO, {}, 0, 0, {}, type_inet_proto}, one_byte(rule.protocol)};
    }
    all += of_ports(0, rule.source_ports) + of_ports(2, rule.destination_ports);
    if (rule.compares(SCC_ACE_ICMP_TYPE)) {
        all += {field_at(NFT_PAYLOAD_TRANSPORT_HEADER, 0, 1), one_byte(rule.icmp_type)};
    }
    if (rule.compares(SCC_ACE_ICMP_CODE)) {
        all += {field_at(NFT_PAYLOAD_TRANSPORT_HEADER, 1, 1), one_byte(rule.icmp_code)};
    }
    if (rule.compares(SCC_ACE_ESTABLISHED)) {
        constexpr unsigned acknowledge_or_reset = 0x14;
        all +=
            at(NFT_PAYLOAD_TRANSPORT_HEADER, 13, 1).mask(one_byte(acknowledge_or_reset)).differs(one_byte(0));
    }
    return all;
}

bool compares_transport(const ace::rule& rule) {
    return rule.source_ports.count != 0 || rule.destination_ports.count != 0 ||
           rule.compares(SCC_ACE_ICMP_TYPE) || rule.compares(SCC_ACE_ESTABLISHED);
}

conditions of_fragments(bool is_ipv6, bool is_later) {
    expressions offset = is_ipv6 ? expressions().extension(IPPROTO_FRAGMENT, 2, 2).mask(bytes_of(0xFFF8))
                                 : at(NFT_PAYLOAD_NETWORK_HEADER, 6, 2).mask(bytes_of(0x1FFF));
    return is_later ? offset.differs(bytes_of(0)) : offset.equals(bytes_of(0));
}

conditions of_dscp(bool is_ipv6, unsigned dscp) {
    return is_ipv6
               ? conditions(field_at(NFT_PAYLOAD_NETWORK_HEADER, 0, 2, bytes_of(0x0FC0)),
                            bytes_of(static_cast<u16>(dscp << 6u)))
               : conditions(field_at(NFT_PAYLOAD_NETWORK_HEADER, 1, 1, one_byte(0xFC)), one_byte(dscp << 2u));
}

// The bytes that follow the IP header are ports only in packets that are whole, and in first fragments. In
// IPv6 those two are told apart by an extension header.
std::vector<conditions> of_ip(const ace::rule& rule, bool is_ipv6) {
    conditions all = ether_type_condition(is_ipv6 ? ETHERTYPE_IPV6 : ETHERTYPE_IP);
    if (rule.compares(SCC_ACE_DSCP)) {
        all += of_dscp(is_ipv6, rule.dscp);
    }
    all += of_address(is_ipv6, true, rule.source);
    all += of_address(is_ipv6, false, rule.destination);
    if (rule.compares(SCC_ACE_FRAGMENTS)) {
        all += of_fragments(is_ipv6, true);
    }
    const conditions transport = of_transport(rule);
    if (!compares_transport(rule)) {
        return {all + transport};
    }
    std::vector<conditions> variants = {all + of_fragments(is_ipv6, false) + transport};
    if (is_ipv6) {
        all += expressions().has_extension(IPPROTO_FRAGMENT).equals(one_byte(0));
        variants.push_back(all + transport);
    }
    return variants;
}

std::vector<conditions> variants_of(const ace::rule& rule) {
    conditions frame = of_tags(rule);
    frame += masked(typed_field_at(NFT_PAYLOAD_LL_HEADER, 6, 6, type_ether_addr), rule.source_mac.bytes,
                    rule.source_mac.mask);
    frame += masked(typed_field_at(NFT_PAYLOAD_LL_HEADER, 0, 6, type_ether_addr), rule.destination_mac.bytes,
                    rule.destination_mac.mask);
    if (rule.compares(SCC_ACE_ETHERTYPE)) {
        frame += {field{NFT_META_PROTOCOL, {}, 0, 0, {}, type_ether_type}, bytes_of(rule.ethertype)};
    }
    if (rule.family == SCC_ACE_EVERY_FRAME) {
        return {frame};
    }
    std::vector<conditions> all;
    for (const bool is_ipv6 : {false, true}) {
        if (rule.family == SCC_ACE_ANY_IP || rule.family == (is_ipv6 ? SCC_ACE_IPV6 : SCC_ACE_IPV4)) {
            for (const conditions& ip : of_ip(rule, is_ipv6)) {
                all.push_back(frame + ip);
            }
        }
    }
    return all;
}

}  // namespace

expressions vlan_condition(u16 vlan) {
    return of_vlan(vlan).compared();
}

expressions source_mac_condition(const ace::mac_bytes& mac) {
    return at(NFT_PAYLOAD_LL_HEADER, 6, 6).equals(text_of(mac.data(), mac.size()));
}

expressions ether_type_condition(u16 ether_type) {
    return expressions().meta(NFT_META_PROTOCOL).equals(bytes_of(ether_type));
}

expressions source_address_condition(bool is_ipv6, const scc_ace_address& address) {
    return ether_type_condition(is_ipv6 ? ETHERTYPE_IPV6 : ETHERTYPE_IP) +
           of_address(is_ipv6, true, address).compared();
}

expressions arp_sender_condition(const scc_ace_address& address) {
    return ether_type_condition(ETHERTYPE_ARP) +
           masked(field_at(NFT_PAYLOAD_NETWORK_HEADER, 14, 4), address.bytes, address.mask).compared();
}

// The kernel's clock of day and hour is not that of the local time zone, and it reports no packets.
bool is_supported(const ace::rule& rule) {
    const bool known = rule.family == SCC_ACE_EVERY_FRAME || rule.family == SCC_ACE_ANY_IP ||
                       rule.family == SCC_ACE_IPV4 || rule.family == SCC_ACE_IPV6;
    return known && !rule.compares(SCC_ACE_TIME) && !rule.compares(SCC_ACE_LOG);
}

std::vector<expressions> conditions_of(const ace::rule& rule) {
    std::vector<expressions> all;
    for (const conditions& variant : variants_of(rule)) {
        all.push_back(variant.compared());
    }
    return all;
}

std::optional<keyed_conditions> keyed_conditions_of(const ace::rule& rule) {
    keyed_conditions keyed;
    expressions shape;
    for (const conditions& variant : variants_of(rule)) {
        const std::string key = variant.key();
        if (key.empty() || key.size() > key_bytes_max || (!keyed.loads.empty() && key != keyed.key)) {
            return std::nullopt;
        }
        keyed.key = key;
        keyed.key_type = variant.key_type();
        keyed.loads.push_back(variant.loaded());
        shape += keyed.loads.back();
    }
    keyed.shape = shape.fingerprint() | 1u;
    return keyed;
}

}  // namespace scc::kernel
