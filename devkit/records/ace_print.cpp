// Prints the rule of an ACE, so that it parses back to the same rule.
#include <arpa/inet.h>

#include <algorithm>
#include <cstring>

#include "ace_bytes.h"
#include "names.h"
#include "words.h"

namespace scc::records {
namespace {

constexpr unsigned every_day = 0x7F;
constexpr std::uint8_t whole_mac[6] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};

void print_wildcard(text_writer& out, int family, const scc_ace_address& address) {
    std::uint8_t wildcard[sizeof address.mask];
    std::transform(std::begin(address.mask), std::end(address.mask), wildcard,
                   [](std::uint8_t byte) { return static_cast<std::uint8_t>(~byte); });
    out.add(" ");
    out.add_ip(family, address.bytes);
    out.add(" ");
    out.add_ip(family, wildcard);
}

void print_address(text_writer& out, const scc_ace_rule& rule, const scc_ace_address& address) {
    const bool is_ipv4 = rule.family == SCC_ACE_IPV4;
    const int family = is_ipv4 ? AF_INET : AF_INET6;
    const int bits = prefix_bits(address);
    if (bits < 0) {
        print_wildcard(out, family, address);
    } else if (bits == (is_ipv4 ? 32 : 128)) {
        out.add(" host ");
        out.add_ip(family, address.bytes);
    } else {
        out.add(" ");
        out.add_ip(family, address.bytes);
        out.add("/%d", bits);
    }
}

void print_ports(text_writer& out, const scc_ace_ports& ports) {
    for (std::size_t i = 0; i < ports.count; ++i) {
        const scc_ace_port_range& range = ports.ranges[i];
        out.add("%s%u", i == 0 ? " port " : ",", range.first);
        if (range.last != range.first) {
            out.add("-%u", range.last);
        }
    }
}

void print_protocol(text_writer& out, const scc_ace_rule& rule) {
    if (rule.family == SCC_ACE_EVERY_FRAME) {
        out.add("ether");
    } else if (rule.has_protocol == 0) {
        out.add(rule.family == SCC_ACE_IPV6 ? "ipv6" : "ip");
    } else if (const char* name = protocol_name(rule.protocol)) {
        out.add("%s", name);
    } else {
        out.add("%u", rule.protocol);
    }
}

void print_sides(text_writer& out, const scc_ace_rule& rule) {
    const bool any_source = prefix_bits(rule.source) == 0;
    const bool any_destination = prefix_bits(rule.destination) == 0;
    // A protocol with "any" on both sides parses as both families, so a single family is written out.
    const bool name_family =
        rule.has_protocol != 0 && rule.family != SCC_ACE_ANY_IP && any_source && any_destination;
    if (any_source && !name_family) {
        out.add(" any");
    } else {
        print_address(out, rule, rule.source);
    }
    print_ports(out, rule.source_ports);
    if (any_destination) {
        out.add(" any");
    } else {
        print_address(out, rule, rule.destination);
    }
    print_ports(out, rule.destination_ports);
}

void print_mac(text_writer& out, const char* name, const scc_ace_mac& mac) {
    out.add(" %s ", name);
    out.add_mac(mac.bytes);
    if (std::memcmp(mac.mask, whole_mac, sizeof whole_mac) != 0) {
        out.add("/");
        out.add_mac(mac.mask);
    }
}

// Three days or more in a row as a range, from Monday on.
void print_days(text_writer& out, unsigned days) {
    const auto has = [days](unsigned from_monday) { return (days & 1u << (from_monday + 1) % 7) != 0; };
    const char* separator = " ";
    for (unsigned first = 0; first < 7; ++first) {
        if (!has(first)) {
            continue;
        }
        unsigned last = first;
        while (last + 1 < 7 && has(last + 1)) {
            ++last;
        }
        out.add("%s%s", separator, day_name((first + 1) % 7));
        separator = ",";
        if (last >= first + 2) {
            out.add("-%s", day_name((last + 1) % 7));
            first = last;
        }
    }
}

void print_time(text_writer& out, const scc_ace_rule& rule) {
    out.add(" time-range");
    if (rule.time_days != every_day) {
        print_days(out, rule.time_days);
    }
    out.add(" %02u:%02u-%02u:%02u", rule.time_begin / 60u, rule.time_begin % 60u, rule.time_end / 60u,
            rule.time_end % 60u);
}

void print_options(text_writer& out, const scc_ace_rule& rule) {
    const auto asks = [&](unsigned field) { return (rule.fields & field) != 0; };
    const auto add = [&](unsigned field, const char* name, unsigned value) {
        if (asks(field)) {
            out.add(" %s %u", name, value);
        }
    };
    if (asks(SCC_ACE_SOURCE_MAC)) {
        print_mac(out, "src-mac", rule.source_mac);
    }
    if (asks(SCC_ACE_DESTINATION_MAC)) {
        print_mac(out, "dst-mac", rule.destination_mac);
    }
    add(SCC_ACE_VLAN, "vlan", rule.vlan);
    add(SCC_ACE_INNER_VLAN, "inner-vlan", rule.inner_vlan);
    add(SCC_ACE_COS, "cos", rule.cos);
    if (asks(SCC_ACE_ETHERTYPE)) {
        out.add(" ethertype 0x%04x", rule.ethertype);
    }
    add(SCC_ACE_DSCP, "dscp", rule.dscp);
    add(SCC_ACE_ICMP_TYPE, "icmp-type", rule.icmp_type);
    add(SCC_ACE_ICMP_CODE, "icmp-code", rule.icmp_code);
    if (asks(SCC_ACE_ESTABLISHED)) {
        out.add(" established");
    }
    if (asks(SCC_ACE_FRAGMENTS)) {
        out.add(" fragments");
    }
    if (asks(SCC_ACE_TIME)) {
        print_time(out, rule);
    }
    if (asks(SCC_ACE_LOG)) {
        out.add(" log");
    }
    if (rule.remark[0] != '\0') {
        out.add(" remark \"%.*s\"", static_cast<int>(sizeof rule.remark), rule.remark);
    }
}

void print_rule(text_writer& out, const scc_ace_rule& rule) {
    out.add(rule.action == SCC_ACE_PERMIT ? "permit " : "deny ");
    print_protocol(out, rule);
    if (rule.family != SCC_ACE_EVERY_FRAME) {
        print_sides(out, rule);
    }
    print_options(out, rule);
}

}  // namespace
}  // namespace scc::records

namespace records = scc::records;

size_t scc_ace_print_rule(const scc_ace_rule* rule, char* buffer, size_t size) {
    records::text_writer out(buffer, size);
    if (rule == nullptr || records::problem_of(*rule) != nullptr) {
        return 0;
    }
    scc_ace_rule normal = *rule;
    records::normalise(normal);
    records::print_rule(out, normal);
    return out.length();
}

size_t scc_ace_print(const scc_ace_record* ace, char* buffer, size_t size) {
    records::text_writer out(buffer, size);
    scc_ace_rule rule;
    if (scc_ace_decode(ace, &rule) != records::result_ok) {
        return 0;
    }
    out.add("%u ", ace->sn);
    records::print_rule(out, rule);
    if (ace->ace_id != ace->sn) {
        out.add(" id %u", ace->ace_id);
    }
    return out.length();
}
