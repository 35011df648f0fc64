// The rule of an ACE in the bytes of its record. The header describes the layout.
#include "ace_bytes.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "names.h"
#include "words.h"

namespace scc::records {
namespace {

constexpr std::uint16_t source_mask_given = 0x2000;
constexpr std::uint16_t destination_mask_given = 0x4000;
constexpr unsigned known_fields = 0x1FFF;
constexpr std::uint16_t port_max = 65535;
constexpr unsigned every_day = 0x7F;
constexpr unsigned address_bits = 128;

// One member of the rule that is copied to and from the record.
struct piece {
    std::size_t in_rule;
    std::size_t in_record;
    std::size_t bytes;
};

constexpr std::size_t at_marker = 16;
constexpr std::size_t at_fields = 24;
constexpr std::size_t at_source_prefix = 64;
constexpr std::size_t at_destination_prefix = 65;
constexpr std::size_t at_source_ports = 68;
constexpr std::size_t at_destination_ports = 72;
constexpr std::size_t at_further_source_count = 102;
constexpr std::size_t at_further_destination_count = 103;
constexpr std::size_t at_source_mask = 104;
constexpr std::size_t at_destination_mask = 120;
constexpr std::size_t at_further_source_ports = 228;
constexpr std::size_t at_further_destination_ports = 284;
constexpr std::size_t at_remark = 340;

#define SCC_PIECE(member, record_offset)                                            \
    piece {                                                                         \
        offsetof(scc_ace_rule, member), record_offset, sizeof(scc_ace_rule::member) \
    }
constexpr piece pieces[] = {
    SCC_PIECE(action, 20),      SCC_PIECE(family, 21),        SCC_PIECE(has_protocol, 22),
    SCC_PIECE(protocol, 23),    SCC_PIECE(fields, at_fields), SCC_PIECE(vlan, 26),
    SCC_PIECE(ethertype, 28),   SCC_PIECE(dscp, 30),          SCC_PIECE(cos, 31),
    SCC_PIECE(inner_vlan, 66),  SCC_PIECE(source_mac, 76),    SCC_PIECE(destination_mac, 88),
    SCC_PIECE(icmp_type, 100),  SCC_PIECE(icmp_code, 101),    SCC_PIECE(time_days, 136),
    SCC_PIECE(time_begin, 138), SCC_PIECE(time_end, 140),     SCC_PIECE(remark, at_remark),
};
#undef SCC_PIECE

// The library's own fields lie between the two parts.
constexpr std::size_t match_end = offsetof(scc_ace_record, sn);
constexpr std::size_t action_begin = offsetof(scc_ace_record, action);
constexpr std::size_t action_end = at_remark + SCC_ACE_REMARK_BYTES;
static_assert(at_marker == offsetof(scc_ace_record, match) && match_end == 220);
static_assert(at_further_source_ports == action_begin);
static_assert(at_further_source_ports + (SCC_ACE_PORT_RANGES - 1) * sizeof(scc_ace_port_range) ==
              at_further_destination_ports);
static_assert(at_further_destination_ports + (SCC_ACE_PORT_RANGES - 1) * sizeof(scc_ace_port_range) ==
              at_remark);
static_assert(action_end <= sizeof(scc_ace_record));
static_assert(sizeof(scc_ace_rule) == 298);

using bytes = std::uint8_t[sizeof(scc_ace_record)];

template <typename Value>
void put(bytes& record, std::size_t at, const Value& value) {
    std::memcpy(record + at, &value, sizeof value);
}

template <typename Value>
Value get(const bytes& record, std::size_t at) {
    Value value{};
    std::memcpy(&value, record + at, sizeof value);
    return value;
}

unsigned leading_ones(const scc_ace_address& address) {
    unsigned bits = 0;
    while (bits < address_bits && (address.mask[bits / 8] & 0x80u >> bits % 8) != 0) {
        ++bits;
    }
    return bits;
}

bool is_any(const scc_ace_address& address) {
    return std::all_of(std::begin(address.mask), std::end(address.mask), [](auto byte) { return byte == 0; });
}

// ---- validity ------------------------------------------------------------------------------------

const char* address_problem(const scc_ace_rule& rule, const scc_ace_address& address) {
    const auto beyond_ipv4 = [&] {
        return std::any_of(address.mask + 4, std::end(address.mask), [](auto byte) { return byte != 0; });
    };
    switch (rule.family) {
        case SCC_ACE_EVERY_FRAME:
        case SCC_ACE_ANY_IP:
            return is_any(address) ? nullptr : "addresses need one IP family";
        case SCC_ACE_IPV4:
            return beyond_ipv4() ? "an IPv4 mask has 32 bits" : nullptr;
        case SCC_ACE_IPV6:
            return nullptr;
        default:
            return "the family is not known";
    }
}

const char* port_problem(const scc_ace_rule& rule, const scc_ace_ports& ports) {
    if (ports.count == 0) {
        return nullptr;
    }
    if (ports.count > SCC_ACE_PORT_RANGES) {
        return "a list holds at most 15 ports or ranges";
    }
    const auto reversed = [](const scc_ace_port_range& range) { return range.first > range.last; };
    if (std::any_of(ports.ranges, ports.ranges + ports.count, reversed)) {
        return "a port range ends before it begins";
    }
    if (rule.has_protocol == 0 || !has_ports(rule.protocol)) {
        return "ports need protocol tcp, udp or sctp";
    }
    return (rule.fields & SCC_ACE_FRAGMENTS) != 0 ? "the later fragments of a packet have no ports" : nullptr;
}

const char* ip_problem(const scc_ace_rule& rule) {
    const bool is_ip = rule.family != SCC_ACE_EVERY_FRAME;
    const unsigned fields = rule.fields;
    if (!is_ip && rule.has_protocol != 0) {
        return "'ether' has no protocol";
    }
    if (rule.family == SCC_ACE_ANY_IP && rule.has_protocol == 0) {
        return "IPv4 and IPv6 together need a protocol";
    }
    if (!is_ip && (fields & (SCC_ACE_DSCP | SCC_ACE_FRAGMENTS)) != 0) {
        return "'dscp' and 'fragments' need an IP protocol";
    }
    if (is_ip && (fields & SCC_ACE_ETHERTYPE) != 0) {
        return "'ethertype' goes with 'ether' alone";
    }
    return nullptr;
}

const char* transport_problem(const scc_ace_rule& rule) {
    const unsigned fields = rule.fields;
    const auto is = [&](std::uint8_t protocol) {
        return rule.has_protocol != 0 && rule.protocol == protocol;
    };
    if ((fields & SCC_ACE_ICMP_CODE) != 0 && (fields & SCC_ACE_ICMP_TYPE) == 0) {
        return "'icmp-code' needs 'icmp-type'";
    }
    if ((fields & SCC_ACE_ICMP_TYPE) != 0 && !is(protocol_icmp) && !is(protocol_icmp6)) {
        return "'icmp-type' needs protocol icmp or icmp6";
    }
    if ((fields & SCC_ACE_ESTABLISHED) != 0 && !is(protocol_tcp)) {
        return "'established' needs protocol tcp";
    }
    const bool asks_first = (fields & (SCC_ACE_ESTABLISHED | SCC_ACE_ICMP_TYPE)) != 0;
    if ((fields & SCC_ACE_FRAGMENTS) != 0 && asks_first) {
        return "the later fragments of a packet have neither flags nor ICMP types";
    }
    return nullptr;
}

const char* value_problem(const scc_ace_rule& rule) {
    const unsigned fields = rule.fields;
    const auto is_vlan = [](std::uint16_t vlan) { return vlan >= 1 && vlan <= SCC_ACE_VLAN_MAX; };
    if ((fields & SCC_ACE_VLAN) != 0 && !is_vlan(rule.vlan)) {
        return "a VLAN id is 1 to 4094";
    }
    if ((fields & SCC_ACE_INNER_VLAN) != 0 && !is_vlan(rule.inner_vlan)) {
        return "an inner VLAN id is 1 to 4094";
    }
    if ((fields & SCC_ACE_DSCP) != 0 && rule.dscp > SCC_ACE_DSCP_MAX) {
        return "a DSCP is 0 to 63";
    }
    if ((fields & SCC_ACE_COS) != 0 && rule.cos > SCC_ACE_COS_MAX) {
        return "a class of service is 0 to 7";
    }
    return nullptr;
}

const char* time_problem(const scc_ace_rule& rule) {
    if ((rule.fields & SCC_ACE_TIME) == 0) {
        return nullptr;
    }
    if (rule.time_days == 0 || rule.time_days > every_day) {
        return "a time range needs days";
    }
    if (rule.time_begin >= SCC_ACE_DAY_MINUTES || rule.time_end == 0 || rule.time_end > SCC_ACE_DAY_MINUTES) {
        return "a time is 00:00 to 24:00";
    }
    return rule.time_begin == rule.time_end ? "a time range that ends when it begins is empty" : nullptr;
}

const char* remark_problem(const scc_ace_rule& rule) {
    const char* const end = std::find(std::begin(rule.remark), std::end(rule.remark), '\0');
    if (end == std::end(rule.remark)) {
        return "a remark has at most 63 characters";
    }
    const bool is_plain = std::all_of(std::begin(rule.remark), end, [](char letter) {
        return letter >= ' ' && letter <= '~' && letter != '"';
    });
    return is_plain ? nullptr : "a remark is printable ASCII without quotes";
}

// ---- normal form ---------------------------------------------------------------------------------

template <std::size_t Bytes>
void clear_ignored(std::uint8_t (&address)[Bytes], const std::uint8_t (&mask)[Bytes]) {
    for (std::size_t i = 0; i < Bytes; ++i) {
        address[i] &= mask[i];
    }
}

void normalise(scc_ace_ports& ports) {
    scc_ace_port_range* const begin = ports.ranges;
    scc_ace_port_range* const end = begin + ports.count;
    std::sort(begin, end, [](const auto& a, const auto& b) { return a.first < b.first; });
    scc_ace_port_range* last = begin;
    for (scc_ace_port_range* each = begin; each != end; ++each) {
        if (each != begin && each->first <= last->last + 1) {
            last->last = std::max(last->last, each->last);
        } else if (each != begin) {
            *++last = *each;
        }
    }
    const bool matches_all = ports.count != 0 && begin->first == 0 && begin->last == port_max;
    ports.count = ports.count == 0 || matches_all ? 0 : static_cast<std::uint16_t>(last - begin + 1);
    std::fill(begin + ports.count, std::end(ports.ranges), scc_ace_port_range{});
}

template <typename Value>
void clear_unless(bool asked, Value& value) {
    if (!asked) {
        value = Value{};
    }
}

void clear_unused(scc_ace_rule& rule) {
    const auto asks = [&](unsigned field) { return (rule.fields & field) != 0; };
    clear_unless(rule.has_protocol != 0, rule.protocol);
    clear_unless(asks(SCC_ACE_VLAN), rule.vlan);
    clear_unless(asks(SCC_ACE_INNER_VLAN), rule.inner_vlan);
    clear_unless(asks(SCC_ACE_ETHERTYPE), rule.ethertype);
    clear_unless(asks(SCC_ACE_DSCP), rule.dscp);
    clear_unless(asks(SCC_ACE_COS), rule.cos);
    clear_unless(asks(SCC_ACE_ICMP_TYPE), rule.icmp_type);
    clear_unless(asks(SCC_ACE_ICMP_CODE), rule.icmp_code);
    clear_unless(asks(SCC_ACE_TIME), rule.time_days);
    clear_unless(asks(SCC_ACE_TIME), rule.time_begin);
    clear_unless(asks(SCC_ACE_TIME), rule.time_end);
    clear_unless(asks(SCC_ACE_SOURCE_MAC), rule.source_mac);
    clear_unless(asks(SCC_ACE_DESTINATION_MAC), rule.destination_mac);
    rule.zero = 0;
    char* const remark_end = std::find(std::begin(rule.remark), std::end(rule.remark), '\0');
    std::fill(remark_end, std::end(rule.remark), '\0');
}

// ---- the record ----------------------------------------------------------------------------------

void put_address(bytes& record, const scc_ace_address& address, std::size_t at, std::size_t prefix_at,
                 std::size_t mask_at, std::uint16_t mask_given) {
    put(record, at, address.bytes);
    put(record, prefix_at, static_cast<std::uint8_t>(leading_ones(address)));
    if (prefix_bits(address) < 0) {
        put(record, mask_at, address.mask);
        put(record, at_fields,
            static_cast<std::uint16_t>(get<std::uint16_t>(record, at_fields) | mask_given));
    }
}

// False for a prefix that no address has.
bool get_address(const bytes& record, scc_ace_address& address, std::size_t at, std::size_t prefix_at,
                 std::size_t mask_at, std::uint16_t mask_given) {
    std::memcpy(address.bytes, record + at, sizeof address.bytes);
    if ((get<std::uint16_t>(record, at_fields) & mask_given) != 0) {
        std::memcpy(address.mask, record + mask_at, sizeof address.mask);
        return true;
    }
    const unsigned bits = record[prefix_at];
    if (bits > address_bits) {
        return false;
    }
    set_prefix(address, bits);
    return true;
}

void put_ports(bytes& record, const scc_ace_ports& ports, std::size_t at, std::size_t count_at,
               std::size_t further_at) {
    const scc_ace_port_range any = {0, port_max};
    put(record, at, ports.count == 0 ? any : ports.ranges[0]);
    if (ports.count > 1) {
        record[count_at] = static_cast<std::uint8_t>(ports.count - 1);
        std::memcpy(record + further_at, ports.ranges + 1, (ports.count - 1u) * sizeof any);
    }
}

// False for more ranges than there is space for.
bool get_ports(const bytes& record, scc_ace_ports& ports, std::size_t at, std::size_t count_at,
               std::size_t further_at) {
    const unsigned further = record[count_at];
    if (further >= SCC_ACE_PORT_RANGES) {
        return false;
    }
    ports.ranges[0] = get<scc_ace_port_range>(record, at);
    std::memcpy(ports.ranges + 1, record + further_at, further * sizeof(scc_ace_port_range));
    const bool is_any = further == 0 && ports.ranges[0].first == 0 && ports.ranges[0].last == port_max;
    ports.count = static_cast<std::uint16_t>(is_any ? 0 : further + 1);
    return true;
}

void write(const scc_ace_rule& rule, bytes& record) {
    std::memset(record + at_marker, 0, match_end - at_marker);
    std::memset(record + action_begin, 0, action_end - action_begin);
    put(record, at_marker, static_cast<std::uint32_t>(SCC_ACE_MARKER));
    for (const piece& each : pieces) {
        std::memcpy(record + each.in_record, reinterpret_cast<const std::uint8_t*>(&rule) + each.in_rule,
                    each.bytes);
    }
    put_address(record, rule.source, 32, at_source_prefix, at_source_mask, source_mask_given);
    put_address(record, rule.destination, 48, at_destination_prefix, at_destination_mask,
                destination_mask_given);
    put_ports(record, rule.source_ports, at_source_ports, at_further_source_count, at_further_source_ports);
    put_ports(record, rule.destination_ports, at_destination_ports, at_further_destination_count,
              at_further_destination_ports);
}

bool read(const bytes& record, scc_ace_rule& rule) {
    for (const piece& each : pieces) {
        std::memcpy(reinterpret_cast<std::uint8_t*>(&rule) + each.in_rule, record + each.in_record,
                    each.bytes);
    }
    rule.fields &= static_cast<std::uint16_t>(~(source_mask_given | destination_mask_given));
    // Some writers leave any byte but 0 for "the protocol must match".
    rule.has_protocol = rule.has_protocol != 0 ? 1 : 0;
    return get_address(record, rule.source, 32, at_source_prefix, at_source_mask, source_mask_given) &&
           get_address(record, rule.destination, 48, at_destination_prefix, at_destination_mask,
                       destination_mask_given) &&
           get_ports(record, rule.source_ports, at_source_ports, at_further_source_count,
                     at_further_source_ports) &&
           get_ports(record, rule.destination_ports, at_destination_ports, at_further_destination_count,
                     at_further_destination_ports);
}

}  // namespace

int prefix_bits(const scc_ace_address& address) {
    scc_ace_address plain{};
    const unsigned bits = leading_ones(address);
    set_prefix(plain, bits);
    return std::memcmp(plain.mask, address.mask, sizeof plain.mask) == 0 ? static_cast<int>(bits) : -1;
}

void set_prefix(scc_ace_address& address, unsigned bits) {
    for (unsigned i = 0; i < sizeof address.mask; ++i) {
        const unsigned ones = bits > i * 8 ? std::min(bits - i * 8, 8u) : 0;
        address.mask[i] = static_cast<std::uint8_t>(0xFF00u >> ones);
    }
    clear_ignored(address.bytes, address.mask);
}

const char* problem_of(const scc_ace_rule& rule) {
    if (rule.action > SCC_ACE_PERMIT) {
        return "the action is neither permit nor deny";
    }
    if (rule.has_protocol > 1 || rule.zero != 0 || (rule.fields & ~known_fields) != 0) {
        return "the rule uses bits without a meaning";
    }
    for (const scc_ace_address* address : {&rule.source, &rule.destination}) {
        if (const char* problem = address_problem(rule, *address)) {
            return problem;
        }
    }
    for (const scc_ace_ports* ports : {&rule.source_ports, &rule.destination_ports}) {
        if (const char* problem = port_problem(rule, *ports)) {
            return problem;
        }
    }
    for (const auto check : {ip_problem, transport_problem, value_problem, time_problem, remark_problem}) {
        if (const char* problem = check(rule)) {
            return problem;
        }
    }
    return nullptr;
}

void normalise(scc_ace_rule& rule) {
    clear_unused(rule);
    clear_ignored(rule.source.bytes, rule.source.mask);
    clear_ignored(rule.destination.bytes, rule.destination.mask);
    clear_ignored(rule.source_mac.bytes, rule.source_mac.mask);
    clear_ignored(rule.destination_mac.bytes, rule.destination_mac.mask);
    normalise(rule.source_ports);
    normalise(rule.destination_ports);
}

}  // namespace scc::records

namespace records = scc::records;

uint32_t scc_ace_encode(const scc_ace_rule* rule, scc_ace_record* ace, scc_records_error* error) {
    if (rule == nullptr || ace == nullptr) {
        return records::refuse(error, "a null pointer");
    }
    if (const char* problem = records::problem_of(*rule)) {
        return records::refuse(error, problem);
    }
    scc_ace_rule normal = *rule;
    records::normalise(normal);
    records::bytes record;
    std::memcpy(record, ace, sizeof record);
    records::write(normal, record);
    std::memcpy(ace, record, sizeof record);
    return records::result_ok;
}

uint32_t scc_ace_decode(const scc_ace_record* ace, scc_ace_rule* rule) {
    if (ace == nullptr || rule == nullptr) {
        return records::result_invalid;
    }
    records::bytes record;
    std::memcpy(record, ace, sizeof record);
    scc_ace_rule found{};
    const bool is_ours = records::get<std::uint32_t>(record, records::at_marker) == SCC_ACE_MARKER;
    if (!is_ours || !records::read(record, found) || records::problem_of(found) != nullptr) {
        return records::result_absent;
    }
    records::normalise(found);
    *rule = found;
    return records::result_ok;
}

uint32_t scc_ace_ipv4(scc_ace_address* address, uint32_t ip, uint32_t bits) {
    if (address == nullptr || bits > 32) {
        return records::result_invalid;
    }
    *address = {};
    std::memcpy(address->bytes, &ip, sizeof ip);
    records::set_prefix(*address, bits);
    return records::result_ok;
}

uint32_t scc_ace_ipv6(scc_ace_address* address, const uint8_t* ip, uint32_t bits) {
    if (address == nullptr || ip == nullptr || bits > 128) {
        return records::result_invalid;
    }
    std::memcpy(address->bytes, ip, sizeof address->bytes);
    records::set_prefix(*address, bits);
    return records::result_ok;
}
