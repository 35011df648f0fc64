// Parses the text of an ACE. The grammar is in the header.
#include <arpa/inet.h>

#include <algorithm>
#include <cstring>

#include "ace_bytes.h"
#include "names.h"
#include "words.h"

namespace scc::records {
namespace {

constexpr std::uint16_t port_max = 65535;
constexpr unsigned ipv4_bits = 32;
constexpr unsigned ipv6_bits = 128;
constexpr std::uint8_t every_day = 0x7F;

int length(string_view word) {
    return static_cast<int>(word.size());
}

bool starts_with_digit(string_view word) {
    return !word.empty() && word[0] >= '0' && word[0] <= '9';
}

// ---- addresses -----------------------------------------------------------------------------------

struct parsed_address {
    std::uint8_t family = SCC_ACE_ANY_IP;  // SCC_ACE_ANY_IP: the word "any"
    scc_ace_address address{};
};

// The family of an address without prefix length; SCC_ACE_ANY_IP if the word is none.
std::uint8_t plain_family(string_view word, std::uint8_t* bytes) {
    if (word.size() >= sizeof(c_string::text)) {
        return SCC_ACE_ANY_IP;
    }
    const c_string text(word);
    if (inet_pton(AF_INET, text.text, bytes) == 1) {
        return SCC_ACE_IPV4;
    }
    return inet_pton(AF_INET6, text.text, bytes) == 1 ? SCC_ACE_IPV6 : SCC_ACE_ANY_IP;
}

bool is_plain(string_view word) {
    std::uint8_t ignored[16];
    return plain_family(word, ignored) != SCC_ACE_ANY_IP;
}

bool begins_address(string_view word) {
    return word == "any" || word == "host" || is_plain(part(word, 0, word.find('/')));
}

bool is_port_word(string_view word) {
    return word == "port" || word == "eq" || word == "neq" || word == "lt" || word == "gt" || word == "range";
}

// Whether the next word is the wildcard mask of a source that has just been read. It may also be the
// destination: without a further address, it is.
bool is_source_wildcard(word_reader& words) {
    word_reader ahead = words;
    const string_view next = ahead.take("");
    const bool has_ports = is_port_word(ahead.peek());
    if (has_ports) {
        const bool is_range = ahead.peek() == "range";
        for (int i = 0; i < (is_range ? 3 : 2) && !ahead.done(); ++i) {
            ahead.take("");
        }
    }
    const string_view further = ahead.peek();
    if (further.empty() || !begins_address(further)) {
        return false;
    }
    if (has_ports || !is_plain(further)) {
        return true;
    }
    ahead.take("");
    if (is_plain(ahead.peek())) {
        return true;
    }
    return words.fail(
        next, "'%.*s' may be a wildcard mask or the destination: write 'host' before single addresses",
        length(next), next.data());
}

parsed_address address_of(word_reader& words, string_view word, bool is_host) {
    parsed_address read;
    const auto slash = word.find('/');
    read.family = plain_family(part(word, 0, slash), read.address.bytes);
    if (read.family == SCC_ACE_ANY_IP) {
        words.fail(word, "'%.*s' is not an address", length(word), word.data());
        return read;
    }
    unsigned bits = read.family == SCC_ACE_IPV4 ? ipv4_bits : ipv6_bits;
    if (slash != string_view::npos) {
        if (is_host) {
            words.fail(word, "'host' takes an address without a prefix length");
            return read;
        }
        bits = static_cast<unsigned>(words.number(part(word, slash + 1), "prefix length", 0, bits));
    }
    set_prefix(read.address, bits);
    return read;
}

enum class side : std::uint8_t { source, destination };

void take_wildcard(word_reader& words, parsed_address& of) {
    std::uint8_t wildcard[16] = {};
    plain_family(words.take("wildcard mask"), wildcard);
    const std::size_t bytes = of.family == SCC_ACE_IPV4 ? 4 : sizeof wildcard;
    for (std::size_t i = 0; i < bytes; ++i) {
        of.address.mask[i] = static_cast<std::uint8_t>(~wildcard[i]);
    }
}

parsed_address take_address(word_reader& words, side which) {
    if (words.take_if("any")) {
        return {};
    }
    const bool is_host = words.take_if("host");
    const string_view word = words.take(which == side::source ? "source address" : "destination address");
    if (word.empty()) {
        return {};
    }
    parsed_address read = address_of(words, word, is_host);
    std::uint8_t ignored[16];
    const bool may_have_wildcard = !words.failed() && !is_host && word.find('/') == string_view::npos &&
                                   plain_family(words.peek(), ignored) == read.family;
    if (may_have_wildcard && (which == side::destination || is_source_wildcard(words))) {
        take_wildcard(words, read);
    }
    return read;
}

// ---- ports ---------------------------------------------------------------------------------------

std::uint16_t port_of(word_reader& words, string_view word, std::uint8_t protocol, unsigned min = 0) {
    const auto port = port_named(protocol, word);
    if (!port && !starts_with_digit(word)) {
        words.fail(word, "'%.*s' is not a port of services(5)", length(word), word.data());
        return 0;
    }
    if (!port || *port < min) {
        words.fail(word, "port '%.*s' is not a number from %u to 65535", length(word), word.data(), min);
        return 0;
    }
    return *port;
}

void add_range(word_reader& words, string_view word, scc_ace_ports& ports, unsigned first, unsigned last) {
    if (ports.count == SCC_ACE_PORT_RANGES) {
        words.fail(word, "a list holds at most 15 ports or ranges");
        return;
    }
    ports.ranges[ports.count++] = {static_cast<std::uint16_t>(first), static_cast<std::uint16_t>(last)};
}

// The dash between two ports. Names may contain dashes themselves.
std::size_t dash_between(string_view item, std::uint8_t protocol) {
    const std::size_t first = item.find('-');
    for (std::size_t dash = first; dash != string_view::npos; dash = item.find('-', dash + 1)) {
        if (port_named(protocol, part(item, 0, dash)) && port_named(protocol, part(item, dash + 1))) {
            return dash;
        }
    }
    return first;
}

// A port or "first-last".
void add_item(word_reader& words, string_view item, std::uint8_t protocol, scc_ace_ports& ports) {
    if (item.find('-') == string_view::npos || port_named(protocol, item)) {
        const std::uint16_t port = port_of(words, item, protocol);
        return add_range(words, item, ports, port, port);
    }
    const std::size_t dash = dash_between(item, protocol);
    const std::uint16_t first = port_of(words, part(item, 0, dash), protocol);
    add_range(words, item, ports, first, port_of(words, part(item, dash + 1), protocol, first));
}

void add_list(word_reader& words, string_view list, std::uint8_t protocol, scc_ace_ports& ports) {
    while (!words.failed()) {
        const auto comma = list.find(',');
        add_item(words, part(list, 0, comma), protocol, ports);
        if (comma == string_view::npos) {
            return;
        }
        list.remove_prefix(comma + 1);
    }
}

void add_compared(word_reader& words, string_view how, string_view word, std::uint8_t protocol,
                  scc_ace_ports& ports) {
    const unsigned port = port_of(words, word, protocol);
    if (words.failed()) {
        return;
    }
    if (how != "gt" && port > 0) {
        add_range(words, word, ports, 0, port - 1);
    }
    if (how != "lt" && port < port_max) {
        add_range(words, word, ports, port + 1, port_max);
    }
    if (ports.count == 0) {
        words.fail(word, "no port is %s %u", how == "lt" ? "less than" : "greater than", port);
    }
}

void take_ports(word_reader& words, const scc_ace_rule& within, scc_ace_ports& ports) {
    const string_view how = words.peek();
    if (words.failed() || !is_port_word(how)) {
        return;
    }
    if (within.has_protocol == 0 || !has_ports(within.protocol)) {
        words.fail(how, "'%.*s' needs protocol tcp, udp or sctp", length(how), how.data());
        return;
    }
    words.take("");
    const string_view word = words.take("port number");
    if (word.empty()) {
        return;
    }
    if (how == "port" || how == "eq") {
        add_list(words, word, within.protocol, ports);
    } else if (how == "range") {
        const std::uint16_t first = port_of(words, word, within.protocol);
        const string_view last = words.take("last port");
        if (!words.failed()) {
            add_range(words, word, ports, first, port_of(words, last, within.protocol, first));
        }
    } else {
        add_compared(words, how, word, within.protocol, ports);
    }
}

// ---- options -------------------------------------------------------------------------------------

void take_mac(word_reader& words, const char* what, scc_ace_mac& mac) {
    const string_view word = words.take(what);
    const auto slash = word.find('/');
    if (!parse_mac(part(word, 0, slash), mac.bytes)) {
        words.fail(word, "'%.*s' is not a MAC address", length(word), word.data());
    }
    std::memset(mac.mask, 0xFF, sizeof mac.mask);
    if (slash != string_view::npos && !parse_mac(part(word, slash + 1), mac.mask)) {
        words.fail(word, "'%.*s' has no MAC mask after the slash", length(word), word.data());
    }
}

// A number, or a name that `named` knows.
std::uint8_t take_named(word_reader& words, const char* what, std::uint8_t max,
                        std::optional<std::uint8_t> (*named)(string_view)) {
    const string_view word = words.take(what);
    if (word.empty()) {
        return 0;
    }
    if (const auto number = named(word)) {
        return *number;
    }
    if (!starts_with_digit(word)) {
        words.fail(word, "%s '%.*s' is neither a known name nor a number", what, length(word), word.data());
        return 0;
    }
    return static_cast<std::uint8_t>(words.number(word, what, 0, max));
}

void take_icmp_type(word_reader& words, scc_ace_rule& into) {
    const string_view word = words.take("ICMP type");
    if (word.empty()) {
        return;
    }
    if (starts_with_digit(word)) {
        into.icmp_type = static_cast<std::uint8_t>(words.number(word, "icmp-type", 0, UINT8_MAX));
        return;
    }
    const auto meaning = icmp_named(into.protocol, word);
    if (!meaning) {
        words.fail(word, "'%.*s' is not an ICMP type of protocol %u", length(word), word.data(),
                   into.protocol);
        return;
    }
    into.icmp_type = meaning->type;
    if (meaning->code) {
        into.icmp_code = *meaning->code;
        into.fields |= SCC_ACE_ICMP_CODE;
    }
}

std::uint8_t days_of(word_reader& words, string_view list) {
    unsigned days = 0;
    while (true) {
        const auto comma = list.find(',');
        const string_view item = part(list, 0, comma);
        const auto dash = item.find('-');
        const auto first = day_named(part(item, 0, dash));
        const auto last = dash == string_view::npos ? first : day_named(part(item, dash + 1));
        if (!first || !last) {
            words.fail(item, "'%.*s' is neither a day (sun to sat) nor a time", length(item), item.data());
            return 0;
        }
        for (unsigned day = *first;; day = (day + 1) % 7) {
            days |= 1u << day;
            if (day == *last) {
                break;
            }
        }
        if (comma == string_view::npos) {
            return static_cast<std::uint8_t>(days);
        }
        list.remove_prefix(comma + 1);
    }
}

// "HH:MM", in minutes.
std::optional<unsigned> minutes_of(string_view word) {
    if (word.size() != 5 || word[2] != ':') {
        return std::nullopt;
    }
    const auto hour = parse_number(part(word, 0, 2), 0, 24);
    const auto minute = parse_number(part(word, 3), 0, 59);
    if (!hour || !minute || (*hour == 24 && *minute != 0)) {
        return std::nullopt;
    }
    return static_cast<unsigned>(*hour * 60 + *minute);
}

void take_time_range(word_reader& words, scc_ace_rule& into) {
    into.time_days = every_day;
    if (!words.done() && !starts_with_digit(words.peek())) {
        into.time_days = days_of(words, words.take("days"));
    }
    const string_view word = words.take("time");
    if (words.failed()) {
        return;
    }
    const auto begin = minutes_of(part(word, 0, word.find('-')));
    const auto end = word.size() == 11 && word[5] == '-' ? minutes_of(part(word, 6)) : std::nullopt;
    if (!begin || !end || *begin == SCC_ACE_DAY_MINUTES) {
        words.fail(word, "'%.*s' is not a time HH:MM-HH:MM", length(word), word.data());
        return;
    }
    into.time_begin = static_cast<std::uint16_t>(*begin);
    into.time_end = static_cast<std::uint16_t>(*end == 0 ? SCC_ACE_DAY_MINUTES : *end);
}

void take_remark(word_reader& words, scc_ace_rule& into) {
    const string_view begin = words.peek();
    const string_view text = words.take_quoted("remark");
    if (words.failed()) {
        return;
    }
    if (text.empty()) {
        words.fail(begin, "the remark is empty");
    } else if (text.size() >= sizeof into.remark) {
        words.fail(begin, "a remark has at most 63 characters");
    } else {
        std::memcpy(into.remark, text.data(), text.size());
    }
}

struct option_row {
    string_view name;
    unsigned field;  // 0: the remark
    void (*take)(word_reader& words, scc_ace_rule& into);
};

std::uint16_t take_vlan(word_reader& words, const char* what) {
    const string_view word = words.take(what);
    return word.empty() ? std::uint16_t{0}
                        : static_cast<std::uint16_t>(words.number(word, what, 1, SCC_ACE_VLAN_MAX));
}

constexpr option_row options[] = {
    {"src-mac", SCC_ACE_SOURCE_MAC,
     [](word_reader& words, scc_ace_rule& into) { take_mac(words, "source MAC address", into.source_mac); }},
    {"dst-mac", SCC_ACE_DESTINATION_MAC,
     [](word_reader& words, scc_ace_rule& into) {
         take_mac(words, "destination MAC address", into.destination_mac);
     }},
    {"vlan", SCC_ACE_VLAN,
     [](word_reader& words, scc_ace_rule& into) { into.vlan = take_vlan(words, "vlan"); }},
    {"inner-vlan", SCC_ACE_INNER_VLAN,
     [](word_reader& words, scc_ace_rule& into) { into.inner_vlan = take_vlan(words, "inner-vlan"); }},
    {"cos", SCC_ACE_COS,
     [](word_reader& words, scc_ace_rule& into) {
         into.cos = take_named(words, "cos", SCC_ACE_COS_MAX, cos_named);
     }},
    {"ethertype", SCC_ACE_ETHERTYPE,
     [](word_reader& words, scc_ace_rule& into) {
         const string_view word = words.take("ethertype");
         into.ethertype = word.empty()
                              ? std::uint16_t{0}
                              : static_cast<std::uint16_t>(words.number(word, "ethertype", 0, UINT16_MAX));
     }},
    {"dscp", SCC_ACE_DSCP,
     [](word_reader& words, scc_ace_rule& into) {
         into.dscp = take_named(words, "dscp", SCC_ACE_DSCP_MAX, dscp_named);
     }},
    {"icmp-type", SCC_ACE_ICMP_TYPE, take_icmp_type},
    {"icmp-code", SCC_ACE_ICMP_CODE,
     [](word_reader& words, scc_ace_rule& into) {
         const string_view word = words.take("icmp-code");
         into.icmp_code = word.empty()
                              ? std::uint8_t{0}
                              : static_cast<std::uint8_t>(words.number(word, "icmp-code", 0, UINT8_MAX));
     }},
    {"established", SCC_ACE_ESTABLISHED, [](word_reader&, scc_ace_rule&) {}},
    {"fragments", SCC_ACE_FRAGMENTS, [](word_reader&, scc_ace_rule&) {}},
    {"time-range", SCC_ACE_TIME, take_time_range},
    {"log", SCC_ACE_LOG, [](word_reader&, scc_ace_rule&) {}},
    {"remark", 0, take_remark},
};

void take_option(word_reader& words, scc_ace_rule& into) {
    const string_view name = words.take("option");
    const auto* row = std::find_if(std::begin(options), std::end(options),
                                   [&](const option_row& each) { return each.name == name; });
    if (row == std::end(options)) {
        words.fail(name, "unknown option '%.*s'", length(name), name.data());
        return;
    }
    const bool is_given = row->field == 0 ? into.remark[0] != '\0' : (into.fields & row->field) != 0;
    if (is_given) {
        words.fail(name, "'%.*s' is given twice", length(name), name.data());
        return;
    }
    into.fields = static_cast<std::uint16_t>(into.fields | row->field);
    // What the option contradicts is told before its value is read.
    scc_ace_rule without_value = into;
    without_value.vlan = without_value.inner_vlan = 1;
    without_value.time_begin = 0;
    without_value.time_end = 1;
    without_value.time_days = every_day;
    const char* const problem = problem_of(without_value);
    if (problem != nullptr) {
        words.fail(name, "%s", problem);
        return;
    }
    row->take(words, into);
    if (const char* const wrong = words.failed() ? nullptr : problem_of(into)) {
        words.fail(name, "%s", wrong);
    }
}

// ---- the rule ------------------------------------------------------------------------------------

void take_action(word_reader& words, scc_ace_rule& into) {
    const string_view word = words.take("action");
    if (word == "permit") {
        into.action = SCC_ACE_PERMIT;
    } else if (word != "deny" && !word.empty()) {
        words.fail(word, "'%.*s' is neither permit nor deny", length(word), word.data());
    }
}

void take_protocol(word_reader& words, scc_ace_rule& into) {
    const string_view word = words.take("protocol");
    if (words.failed()) {
        return;
    }
    into.family = SCC_ACE_ANY_IP;
    if (word == "ether") {
        into.family = SCC_ACE_EVERY_FRAME;
    } else if (word == "ip") {
        into.family = SCC_ACE_IPV4;
    } else if (word == "ipv6") {
        into.family = SCC_ACE_IPV6;
    } else {
        into.has_protocol = 1;
        const auto known = protocol_named(word);
        into.protocol =
            known ? *known : static_cast<std::uint8_t>(words.number(word, "protocol", 0, UINT8_MAX));
    }
}

void join_family(word_reader& words, string_view at, scc_ace_rule& into, std::uint8_t family) {
    if (family == SCC_ACE_ANY_IP || family == into.family || words.failed()) {
        return;
    }
    if (into.family != SCC_ACE_ANY_IP) {
        words.fail(at, "IPv4 and IPv6 do not go together in one rule");
        return;
    }
    into.family = family;
}

void take_sides(word_reader& words, scc_ace_rule& into) {
    const string_view source_at = words.peek();
    const parsed_address source = take_address(words, side::source);
    join_family(words, source_at, into, source.family);
    take_ports(words, into, into.source_ports);
    if (words.failed()) {
        return;
    }
    const string_view destination_at = words.peek();
    const parsed_address destination = take_address(words, side::destination);
    join_family(words, destination_at, into, destination.family);
    take_ports(words, into, into.destination_ports);
    into.source = source.address;
    into.destination = destination.address;
}

scc_ace_rule take_rule(word_reader& words) {
    scc_ace_rule read{};
    take_action(words, read);
    if (!words.failed()) {
        take_protocol(words, read);
    }
    if (!words.failed() && read.family != SCC_ACE_EVERY_FRAME) {
        take_sides(words, read);
    }
    while (!words.failed() && !words.done() && words.peek() != "id") {
        take_option(words, read);
    }
    if (!words.failed()) {
        normalise(read);
    }
    return read;
}

void take_ace(word_reader& words, scc_ace_record& record) {
    if (starts_with_digit(words.peek())) {
        record.sn = static_cast<std::uint32_t>(
            words.number(words.take("sequence number"), "sequence number", 0, UINT32_MAX));
    }
    record.ace_id = record.sn;
    if (words.failed()) {
        return;
    }
    const scc_ace_rule rule = take_rule(words);
    if (words.failed()) {
        return;
    }
    scc_ace_encode(&rule, &record, nullptr);
    if (words.take_if("id")) {
        const string_view word = words.take("ACE id");
        if (!word.empty()) {
            record.ace_id = static_cast<std::uint32_t>(words.number(word, "ACE id", 0, UINT32_MAX));
        }
    }
    if (!words.failed() && !words.done()) {
        const string_view rest = words.peek();
        words.fail(rest, "'%.*s' follows the end of the ACE", length(rest), rest.data());
    }
}

}  // namespace
}  // namespace scc::records

namespace records = scc::records;

uint32_t scc_ace_parse(const char* text, scc_ace_record* ace, scc_records_error* error) {
    if (text == nullptr || ace == nullptr) {
        return records::refuse(error, "a null pointer");
    }
    records::word_reader words(text, error);
    scc_ace_record read{};
    records::take_ace(words, read);
    if (words.failed()) {
        return records::result_invalid;
    }
    *ace = read;
    return records::result_ok;
}

uint32_t scc_ace_parse_rule(const char* text, scc_ace_rule* rule, scc_records_error* error) {
    if (text == nullptr || rule == nullptr) {
        return records::refuse(error, "a null pointer");
    }
    records::word_reader words(text, error);
    const scc_ace_rule read = records::take_rule(words);
    if (!words.failed() && !words.done()) {
        words.fail(words.peek(), "'id' belongs to an ACE, not to a rule");
    }
    if (words.failed()) {
        return records::result_invalid;
    }
    *rule = read;
    return records::result_ok;
}
