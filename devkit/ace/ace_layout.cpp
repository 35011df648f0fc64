// Encodes and decodes the devkit's rule in an ACE record. The header describes the byte layout.
#include "ace_layout.h"

#include <cstddef>
#include <cstring>

namespace scc::ace {
namespace {

enum offset : std::size_t {
    at_marker = 16,
    at_action = 20,
    at_family = 21,
    at_has_protocol = 22,
    at_protocol = 23,
    at_fields = 24,
    at_vlan = 26,
    at_ethertype = 28,
    at_dscp = 30,
    at_source = 32,
    at_destination = 48,
    at_source_prefix = 64,
    at_destination_prefix = 65,
    at_source_port = 68,
    at_destination_port = 72,
    at_source_mac = 76,
    at_destination_mac = 88,
    at_end = 100,
};

static_assert(at_marker == offsetof(scc_ace_record, match));
static_assert(at_end <= offsetof(scc_ace_record, sn), "the rule must stay clear of the library's fields");

// The rule lies entirely inside `match`, so record offsets are converted to offsets into it.
template <typename Value>
void put(scc_ace_record& record, std::size_t at, const Value& value) {
    std::memcpy(record.match + (at - at_marker), &value, sizeof value);
}

template <typename Value>
Value get(const scc_ace_record& record, std::size_t at) {
    Value value{};
    std::memcpy(&value, record.match + (at - at_marker), sizeof value);
    return value;
}

template <typename Value>
Value put_optional(scc_ace_record& record, std::size_t at, const std::optional<Value>& value) {
    const Value written = value.value_or(Value{});
    put(record, at, written);
    return written;
}

void put_ports(scc_ace_record& record, std::size_t at, const port_range& ports) {
    put(record, at, ports.first);
    put(record, at + 2, ports.last);
}

port_range get_ports(const scc_ace_record& record, std::size_t at) {
    return {get<std::uint16_t>(record, at), get<std::uint16_t>(record, at + 2)};
}

void put_mac(scc_ace_record& record, std::size_t at, const std::optional<mac_match>& mac) {
    const mac_match written = mac.value_or(mac_match{});
    put(record, at, written.bytes);
    put(record, at + 6, written.mask);
}

std::optional<mac_match> get_mac(const scc_ace_record& record, std::size_t at, bool present) {
    if (!present) {
        return std::nullopt;
    }
    return mac_match{get<mac_bytes>(record, at), get<mac_bytes>(record, at + 6)};
}

template <typename Value>
std::optional<Value> get_optional(const scc_ace_record& record, std::size_t at, bool present) {
    if (!present) {
        return std::nullopt;
    }
    return get<Value>(record, at);
}

std::uint16_t fields_of(const rule& from) {
    unsigned fields = 0;
    if (from.source_mac) {
        fields |= field_source_mac;
    }
    if (from.destination_mac) {
        fields |= field_destination_mac;
    }
    if (from.vlan) {
        fields |= field_vlan;
    }
    if (from.ethertype) {
        fields |= field_ethertype;
    }
    if (from.dscp) {
        fields |= field_dscp;
    }
    return static_cast<std::uint16_t>(fields);
}

bool prefixes_fit(const rule& read) {
    switch (read.family) {
        case frame_family::ipv4:
            return read.source.prefix_bits <= 32 && read.destination.prefix_bits <= 32;
        case frame_family::ipv6:
            return read.source.prefix_bits <= 128 && read.destination.prefix_bits <= 128;
        case frame_family::every_frame:
        case frame_family::any_ip:
            return read.source.prefix_bits == 0 && read.destination.prefix_bits == 0;
    }
    return false;  // unknown family
}

bool ports_fit(const rule& read) {
    if (read.source_port.first > read.source_port.last) {
        return false;
    }
    if (read.destination_port.first > read.destination_port.last) {
        return false;
    }
    const bool asks = !read.source_port.any() || !read.destination_port.any();
    return !asks || (read.protocol && has_ports(*read.protocol));
}

bool fields_fit(const rule& read) {
    const bool is_ip = read.family != frame_family::every_frame;
    if (!is_ip && (read.protocol || read.dscp)) {
        return false;
    }
    if (is_ip && read.ethertype) {
        return false;
    }
    if (read.family == frame_family::any_ip && !read.protocol) {
        return false;
    }
    if (read.vlan && (*read.vlan < vlan_min || *read.vlan > vlan_max)) {
        return false;
    }
    return !read.dscp || *read.dscp <= dscp_max;
}

// Bits that the rule ignores are 0 in a rule, whatever another writer left in the record.
void clear_ignored_bits(ip_prefix& prefix) {
    for (std::size_t bit = prefix.prefix_bits; bit < prefix.bytes.size() * 8; ++bit) {
        prefix.bytes[bit / 8] &= static_cast<std::uint8_t>(~(0x80u >> (bit % 8)));
    }
}

void clear_ignored_bits(std::optional<mac_match>& mac) {
    for (std::size_t i = 0; mac && i < mac->bytes.size(); ++i) {
        mac->bytes[i] &= mac->mask[i];
    }
}

}  // namespace

bool has_ports(std::uint8_t protocol) {
    return protocol == protocol_tcp || protocol == protocol_udp || protocol == protocol_sctp;
}

void encode(const rule& from, scc_ace_record& record) {
    std::memset(record.match, 0, at_end - at_marker);
    put(record, at_marker, layout_marker);
    put(record, at_action, from.action);
    put(record, at_family, from.family);
    put(record, at_has_protocol, static_cast<std::uint8_t>(from.protocol ? 1 : 0));
    put_optional(record, at_protocol, from.protocol);
    put(record, at_fields, fields_of(from));
    put_optional(record, at_vlan, from.vlan);
    put_optional(record, at_ethertype, from.ethertype);
    put_optional(record, at_dscp, from.dscp);
    put(record, at_source, from.source.bytes);
    put(record, at_destination, from.destination.bytes);
    put(record, at_source_prefix, from.source.prefix_bits);
    put(record, at_destination_prefix, from.destination.prefix_bits);
    put_ports(record, at_source_port, from.source_port);
    put_ports(record, at_destination_port, from.destination_port);
    put_mac(record, at_source_mac, from.source_mac);
    put_mac(record, at_destination_mac, from.destination_mac);
}

std::optional<rule> decode(const scc_ace_record& record) {
    if (get<std::uint32_t>(record, at_marker) != layout_marker) {
        return std::nullopt;
    }
    const auto action = get<std::uint8_t>(record, at_action);
    if (action > 1) {
        return std::nullopt;
    }
    const unsigned fields = get<std::uint16_t>(record, at_fields);

    rule read;
    read.action = static_cast<rule_action>(action);
    read.family = static_cast<frame_family>(get<std::uint8_t>(record, at_family));
    const bool has_protocol = get<std::uint8_t>(record, at_has_protocol) != 0;
    read.protocol = get_optional<std::uint8_t>(record, at_protocol, has_protocol);
    read.source = {get<ip_bytes>(record, at_source), get<std::uint8_t>(record, at_source_prefix)};
    read.destination = {get<ip_bytes>(record, at_destination),
                        get<std::uint8_t>(record, at_destination_prefix)};
    read.source_port = get_ports(record, at_source_port);
    read.destination_port = get_ports(record, at_destination_port);
    read.source_mac = get_mac(record, at_source_mac, (fields & field_source_mac) != 0);
    read.destination_mac = get_mac(record, at_destination_mac, (fields & field_destination_mac) != 0);
    read.vlan = get_optional<std::uint16_t>(record, at_vlan, (fields & field_vlan) != 0);
    read.ethertype = get_optional<std::uint16_t>(record, at_ethertype, (fields & field_ethertype) != 0);
    read.dscp = get_optional<std::uint8_t>(record, at_dscp, (fields & field_dscp) != 0);

    if (!prefixes_fit(read) || !ports_fit(read) || !fields_fit(read)) {
        return std::nullopt;
    }
    clear_ignored_bits(read.source);
    clear_ignored_bits(read.destination);
    clear_ignored_bits(read.source_mac);
    clear_ignored_bits(read.destination_mac);
    return read;
}

}  // namespace scc::ace
