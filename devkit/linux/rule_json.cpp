#include "linux/rule_json.h"

#include <arpa/inet.h>
#include <fmt/format.h>

#include <algorithm>
#include <array>

#include "ace/ace_text.h"

namespace scc::kernel {
namespace {

constexpr std::array<std::uint8_t, 6> whole_mac = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};

std::string match(std::string_view left, std::string_view right, std::string_view op = "==") {
    return fmt::format(R"({{"match":{{"op":"{}","left":{},"right":{}}}}},)", op, left, right);
}

std::string raw(std::string_view base, unsigned offset_bits, unsigned len_bits) {
    return fmt::format(R"({{"payload":{{"base":"{}","offset":{},"len":{}}}}})", base, offset_bits, len_bits);
}

std::string field(std::string_view protocol, std::string_view name) {
    return fmt::format(R"({{"payload":{{"protocol":"{}","field":"{}"}}}})", protocol, name);
}

std::string meta(std::string_view key) {
    return fmt::format(R"({{"meta":{{"key":"{}"}}}})", key);
}

std::string masked(std::string_view left, std::string_view mask) {
    return fmt::format(R"({{"&":[{},"{}"]}})", left, mask);
}

std::string quoted(std::string_view text) {
    return fmt::format("\"{}\"", text);
}

// The tags that take a VLAN id, of customers and of providers.
std::string tagged_condition(unsigned type_offset_bits) {
    return match(raw("ll", type_offset_bits, 16), R"({"set":[33024,34984,37120]})");
}

std::string mac_text(const std::uint8_t* bytes) {
    ace::mac_bytes mac;
    std::copy_n(bytes, mac.size(), mac.begin());
    return ace::print_mac(mac);
}

std::string mac_condition(std::string_view name, const scc_ace_mac& wanted) {
    const std::string left = field("ether", name);
    if (std::equal(whole_mac.begin(), whole_mac.end(), wanted.mask)) {
        return match(left, quoted(mac_text(wanted.bytes)));
    }
    std::array<std::uint8_t, 6> bits{};
    std::transform(
        wanted.bytes, wanted.bytes + bits.size(), wanted.mask, bits.begin(),
        [](std::uint8_t byte, std::uint8_t mask) { return static_cast<std::uint8_t>(byte & mask); });
    const bool compares_nothing =
        std::all_of(wanted.mask, wanted.mask + 6, [](auto mask) { return mask == 0; });
    return compares_nothing ? std::string()
                            : match(masked(left, mac_text(wanted.mask)), quoted(mac_text(bits.data())));
}

std::string ip_text(bool is_ipv6, const std::uint8_t* bytes) {
    std::array<char, INET6_ADDRSTRLEN> text{};
    return inet_ntop(is_ipv6 ? AF_INET6 : AF_INET, bytes, text.data(), text.size());
}

std::string address_condition(bool is_ipv6, std::string_view name, const scc_ace_address& wanted) {
    const std::size_t size = is_ipv6 ? 16 : 4;
    if (std::all_of(wanted.mask, wanted.mask + size, [](auto mask) { return mask == 0; })) {
        return {};
    }
    const std::string left = field(is_ipv6 ? "ip6" : "ip", name);
    return match(masked(left, ip_text(is_ipv6, wanted.mask)), quoted(ip_text(is_ipv6, wanted.bytes)));
}

std::string ports_condition(unsigned offset_bits, const scc_ace_ports& ports) {
    if (ports.count == 0) {
        return {};
    }
    std::vector<std::string> ranges;
    for (const auto* range = ports.ranges; range != ports.ranges + ports.count; ++range) {
        ranges.push_back(range->first == range->last
                             ? fmt::format("{}", range->first)
                             : fmt::format(R"({{"range":[{},{}]}})", range->first, range->last));
    }
    const std::string right =
        ranges.size() == 1 ? ranges.front() : fmt::format(R"({{"set":[{}]}})", fmt::join(ranges, ","));
    return match(raw("th", offset_bits, 16), right);
}

std::string tag_conditions(const ace::rule& rule) {
    std::string conditions;
    if (rule.compares(SCC_ACE_VLAN)) {
        conditions += vlan_condition(rule.vlan);
    }
    if (rule.compares(SCC_ACE_COS)) {
        conditions += tagged_condition(96) + match(raw("ll", 112, 3), fmt::format("{}", rule.cos));
    }
    if (rule.compares(SCC_ACE_INNER_VLAN)) {
        conditions += tagged_condition(96) + tagged_condition(128);
        conditions += match(raw("ll", 148, 12), fmt::format("{}", rule.inner_vlan));
    }
    return conditions;
}

// The conditions that are the same for both versions of IP.
std::string transport_conditions(const ace::rule& rule) {
    std::string conditions;
    if (rule.has_protocol != 0) {
        conditions += match(meta("l4proto"), fmt::format("{}", rule.protocol));
    }
    conditions += ports_condition(0, rule.source_ports) + ports_condition(16, rule.destination_ports);
    if (rule.compares(SCC_ACE_ICMP_TYPE)) {
        conditions += match(raw("th", 0, 8), fmt::format("{}", rule.icmp_type));
    }
    if (rule.compares(SCC_ACE_ICMP_CODE)) {
        conditions += match(raw("th", 8, 8), fmt::format("{}", rule.icmp_code));
    }
    if (rule.compares(SCC_ACE_ESTABLISHED)) {
        constexpr unsigned acknowledge_or_reset = 0x14;
        conditions +=
            match(fmt::format(R"({{"&":[{},{}]}})", raw("th", 104, 8), acknowledge_or_reset), "0", "!=");
    }
    return conditions;
}

bool compares_transport(const ace::rule& rule) {
    return rule.source_ports.count != 0 || rule.destination_ports.count != 0 ||
           rule.compares(SCC_ACE_ICMP_TYPE) || rule.compares(SCC_ACE_ESTABLISHED);
}

std::string fragment_offset(bool is_ipv6, std::string_view op) {
    constexpr unsigned offset_mask = 0x1FFF;
    return is_ipv6 ? match(R"({"exthdr":{"name":"frag","field":"frag-off"}})", "0", op)
                   : match(fmt::format(R"({{"&":[{},{}]}})", raw("nh", 48, 16), offset_mask), "0", op);
}

// The bytes that follow the IP header are ports only in packets that are whole, and in first fragments. In
// IPv6 those two are told apart by an extension header.
std::vector<std::string> ip_conditions(const ace::rule& rule, bool is_ipv6) {
    std::string conditions = protocol_condition(is_ipv6 ? "ip6" : "ip");
    if (rule.compares(SCC_ACE_DSCP)) {
        conditions += match(field(is_ipv6 ? "ip6" : "ip", "dscp"), fmt::format("{}", rule.dscp));
    }
    conditions += address_condition(is_ipv6, "saddr", rule.source);
    conditions += address_condition(is_ipv6, "daddr", rule.destination);
    if (rule.compares(SCC_ACE_FRAGMENTS)) {
        conditions += fragment_offset(is_ipv6, "!=");
    }
    const std::string transport = transport_conditions(rule);
    if (!compares_transport(rule)) {
        return {conditions + transport};
    }
    std::vector<std::string> all = {conditions + fragment_offset(is_ipv6, "==") + transport};
    if (is_ipv6) {
        all.push_back(conditions + match(R"({"exthdr":{"name":"frag"}})", "false") + transport);
    }
    return all;
}

}  // namespace

std::string vlan_condition(std::uint16_t vlan) {
    return tagged_condition(96) + match(raw("ll", 116, 12), fmt::format("{}", vlan));
}

std::string source_mac_condition(const ace::mac_bytes& mac) {
    return match(field("ether", "saddr"), quoted(mac_text(mac.data())));
}

std::string protocol_condition(std::string_view ether_protocol) {
    return match(meta("protocol"), quoted(ether_protocol));
}

std::string ether_type_condition(std::uint16_t ether_type) {
    return match(meta("protocol"), fmt::format("{}", ether_type));
}

std::string source_address_condition(bool is_ipv6, const scc_ace_address& address) {
    return protocol_condition(is_ipv6 ? "ip6" : "ip") + address_condition(is_ipv6, "saddr", address);
}

std::string arp_sender_condition(const scc_ace_address& address) {
    const std::string left = field("arp", "saddr ip");
    return protocol_condition("arp") +
           match(masked(left, ip_text(false, address.mask)), quoted(ip_text(false, address.bytes)));
}

// The kernel's clock of day and hour is not that of the local time zone, and it reports no packets.
bool is_supported(const ace::rule& rule) {
    const bool known = rule.family == SCC_ACE_EVERY_FRAME || rule.family == SCC_ACE_ANY_IP ||
                       rule.family == SCC_ACE_IPV4 || rule.family == SCC_ACE_IPV6;
    return known && !rule.compares(SCC_ACE_TIME) && !rule.compares(SCC_ACE_LOG);
}

std::vector<std::string> conditions_of(const ace::rule& rule) {
    std::string frame = tag_conditions(rule);
    frame += mac_condition("saddr", rule.source_mac) + mac_condition("daddr", rule.destination_mac);
    if (rule.compares(SCC_ACE_ETHERTYPE)) {
        frame += ether_type_condition(rule.ethertype);
    }
    if (rule.family == SCC_ACE_EVERY_FRAME) {
        return {frame};
    }
    std::vector<std::string> all;
    for (const bool is_ipv6 : {false, true}) {
        if (rule.family == SCC_ACE_ANY_IP || rule.family == (is_ipv6 ? SCC_ACE_IPV6 : SCC_ACE_IPV4)) {
            for (const std::string& conditions : ip_conditions(rule, is_ipv6)) {
                all.push_back(frame + conditions);
            }
        }
    }
    return all;
}

}  // namespace scc::kernel
