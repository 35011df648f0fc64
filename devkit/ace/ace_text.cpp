// Parses and prints the text of a rule. The grammar is in the header.
#include "ace_text.h"

#include <arpa/inet.h>
#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <utility>
#include <vector>

namespace scc::ace {
namespace {

using std::string_view;

constexpr std::uint8_t ipv4_bits = 32;
constexpr std::uint8_t ipv6_bits = 128;

struct protocol_name {
    string_view name;
    std::uint8_t number;
};
constexpr protocol_name protocol_names[] = {
    {"icmp", protocol_icmp},
    {"tcp", protocol_tcp},
    {"udp", protocol_udp},
    {"icmp6", protocol_icmp6},
};

// Thrown by the parsing steps; parse_rule turns it into its error text.
struct syntax_error {
    std::string text;
};

std::vector<string_view> split_words(string_view text) {
    constexpr string_view blanks = " \t\r\n";
    std::vector<string_view> words;
    for (auto begin = text.find_first_not_of(blanks); begin != string_view::npos;
         begin = text.find_first_not_of(blanks, begin)) {
        const auto end = std::min(text.find_first_of(blanks, begin), text.size());
        words.push_back(text.substr(begin, end - begin));
        begin = end;
    }
    return words;
}

// The words of a line that have not been parsed yet.
class word_reader {
  public:
    explicit word_reader(string_view text) : words_(split_words(text)) {}

    [[nodiscard]] bool done() const { return next_ == words_.size(); }
    [[nodiscard]] string_view peek() const { return done() ? string_view{} : words_[next_]; }

    string_view take(string_view what) {
        if (done()) {
            throw syntax_error{fmt::format("{} is missing", what)};
        }
        return words_[next_++];
    }
    bool take_if(string_view word) {
        if (done() || words_[next_] != word) {
            return false;
        }
        ++next_;
        return true;
    }

  private:
    std::vector<string_view> words_;
    std::size_t next_ = 0;
};

template <typename Number>
Number number_of(string_view word, string_view what, std::uint64_t min, std::uint64_t max) {
    const auto value = parse_number(word, min, max);
    if (!value) {
        throw syntax_error{fmt::format("{} '{}' is not a number from {} to {}", what, word, min, max)};
    }
    return static_cast<Number>(*value);
}

struct parsed_address {
    frame_family family = frame_family::any_ip;  // any_ip: the word "any"
    ip_prefix prefix;
};

void clear_behind_prefix(ip_prefix& prefix) {
    for (std::size_t bit = prefix.prefix_bits; bit < ipv6_bits; ++bit) {
        prefix.bytes[bit / 8] &= static_cast<std::uint8_t>(~(0x80u >> (bit % 8)));
    }
}

parsed_address address_of(string_view word, bool is_host) {
    const auto slash = word.find('/');
    const std::string text(word.substr(0, slash));
    parsed_address address;
    std::uint8_t bits = ipv4_bits;
    if (inet_pton(AF_INET, text.c_str(), address.prefix.bytes.data()) == 1) {
        address.family = frame_family::ipv4;
    } else if (inet_pton(AF_INET6, text.c_str(), address.prefix.bytes.data()) == 1) {
        address.family = frame_family::ipv6;
        bits = ipv6_bits;
    } else {
        throw syntax_error{fmt::format("'{}' is not an address", word)};
    }
    if (slash != string_view::npos) {
        if (is_host) {
            throw syntax_error{"'host' takes an address without a prefix length"};
        }
        bits = number_of<std::uint8_t>(word.substr(slash + 1), "prefix length", 0, bits);
    }
    address.prefix.prefix_bits = bits;
    clear_behind_prefix(address.prefix);
    return address;
}

parsed_address take_address(word_reader& words, string_view what) {
    if (words.take_if("any")) {
        return {};
    }
    const bool is_host = words.take_if("host");
    return address_of(words.take(what), is_host);
}

void join_family(rule& into, frame_family family) {
    if (family == frame_family::any_ip || family == into.family) {
        return;
    }
    if (into.family != frame_family::any_ip) {
        throw syntax_error{"IPv4 and IPv6 do not go together in one rule"};
    }
    into.family = family;
}

port_range take_ports(word_reader& words, const rule& within) {
    if (!words.take_if("port")) {
        return {};
    }
    if (!within.protocol || !has_ports(*within.protocol)) {
        throw syntax_error{"'port' needs protocol tcp, udp or 132"};
    }
    const string_view word = words.take("port number");
    const auto dash = word.find('-');
    port_range ports;
    ports.first = number_of<std::uint16_t>(word.substr(0, dash), "port", 0, port_max);
    ports.last = ports.first;
    if (dash != string_view::npos) {
        ports.last = number_of<std::uint16_t>(word.substr(dash + 1), "port", ports.first, port_max);
    }
    return ports;
}

mac_match take_mac(word_reader& words, string_view what) {
    const string_view word = words.take(what);
    const auto slash = word.find('/');
    const auto address = parse_mac(word.substr(0, slash));
    if (!address) {
        throw syntax_error{fmt::format("'{}' is not a MAC address", word)};
    }
    mac_match match{*address, {}};
    match.mask.fill(0xFF);
    if (slash != string_view::npos) {
        const auto mask = parse_mac(word.substr(slash + 1));
        if (!mask) {
            throw syntax_error{fmt::format("'{}' has no MAC mask after the slash", word)};
        }
        match.mask = *mask;
    }
    for (std::size_t i = 0; i < match.bytes.size(); ++i) {
        match.bytes[i] &= match.mask[i];
    }
    return match;
}

void take_protocol(word_reader& words, rule& into) {
    const string_view word = words.take("protocol");
    into.family = frame_family::any_ip;
    if (word == "ether") {
        into.family = frame_family::every_frame;
    } else if (word == "ip") {
        into.family = frame_family::ipv4;
    } else if (word == "ipv6") {
        into.family = frame_family::ipv6;
    } else {
        const auto* known = std::find_if(std::begin(protocol_names), std::end(protocol_names),
                                         [&](const protocol_name& entry) { return entry.name == word; });
        into.protocol = known != std::end(protocol_names) ? known->number
                                                          : number_of<std::uint8_t>(word, "protocol", 0, 255);
    }
}

void take_sides(word_reader& words, rule& into) {
    const parsed_address source = take_address(words, "source address");
    into.source_port = take_ports(words, into);
    const parsed_address destination = take_address(words, "destination address");
    into.destination_port = take_ports(words, into);
    join_family(into, source.family);
    join_family(into, destination.family);
    into.source = source.prefix;
    into.destination = destination.prefix;
}

template <typename Value>
void set_once(std::optional<Value>& field, string_view name, Value value) {
    if (field) {
        throw syntax_error{fmt::format("'{}' is given twice", name)};
    }
    field = value;
}

void take_option(word_reader& words, rule& into) {
    const string_view name = words.take("option");
    const bool is_ip = into.family != frame_family::every_frame;
    if (name == "src-mac") {
        set_once(into.source_mac, name, take_mac(words, "source MAC address"));
    } else if (name == "dst-mac") {
        set_once(into.destination_mac, name, take_mac(words, "destination MAC address"));
    } else if (name == "vlan") {
        set_once(into.vlan, name, number_of<std::uint16_t>(words.take(name), name, vlan_min, vlan_max));
    } else if (name == "dscp" && is_ip) {
        set_once(into.dscp, name, number_of<std::uint8_t>(words.take(name), name, 0, dscp_max));
    } else if (name == "ethertype" && !is_ip) {
        set_once(into.ethertype, name, number_of<std::uint16_t>(words.take(name), name, 0, 0xFFFF));
    } else {
        throw syntax_error{fmt::format("unknown option '{}'", name)};
    }
}

rule_action take_action(word_reader& words) {
    const string_view word = words.take("action");
    if (word == "permit") {
        return rule_action::permit;
    }
    if (word == "deny") {
        return rule_action::deny;
    }
    throw syntax_error{fmt::format("'{}' is neither permit nor deny", word)};
}

rule take_rule(word_reader& words) {
    rule read;
    read.action = take_action(words);
    take_protocol(words, read);
    if (read.family != frame_family::every_frame) {
        take_sides(words, read);
    }
    while (!words.done() && words.peek() != "id") {
        take_option(words, read);
    }
    return read;
}

bool starts_with_digit(string_view word) {
    return !word.empty() && word[0] >= '0' && word[0] <= '9';
}

std::string print_address(const ip_prefix& prefix, frame_family family) {
    const bool is_ipv4 = family == frame_family::ipv4;
    char text[INET6_ADDRSTRLEN] = "";
    inet_ntop(is_ipv4 ? AF_INET : AF_INET6, prefix.bytes.data(), text, sizeof text);
    if (prefix.prefix_bits == (is_ipv4 ? ipv4_bits : ipv6_bits)) {
        return fmt::format("host {}", text);
    }
    return fmt::format("{}/{}", text, prefix.prefix_bits);
}

std::string print_ports(const port_range& ports) {
    if (ports.any()) {
        return {};
    }
    if (ports.first == ports.last) {
        return fmt::format(" port {}", ports.first);
    }
    return fmt::format(" port {}-{}", ports.first, ports.last);
}

std::string print_protocol(const rule& from) {
    if (from.family == frame_family::every_frame) {
        return "ether";
    }
    if (!from.protocol) {
        return from.family == frame_family::ipv6 ? "ipv6" : "ip";
    }
    for (const protocol_name& entry : protocol_names) {
        if (entry.number == *from.protocol) {
            return std::string(entry.name);
        }
    }
    return std::to_string(*from.protocol);
}

std::string print_sides(const rule& from) {
    // A protocol with "any" on both sides parses as both families, so a single family is written out.
    const bool name_family = from.protocol && from.family != frame_family::any_ip &&
                             from.source.prefix_bits == 0 && from.destination.prefix_bits == 0;
    const auto side = [&](const ip_prefix& prefix, bool is_source) {
        if (prefix.prefix_bits == 0 && !(name_family && is_source)) {
            return std::string("any");
        }
        return print_address(prefix, from.family);
    };
    return fmt::format(" {}{} {}{}", side(from.source, true), print_ports(from.source_port),
                       side(from.destination, false), print_ports(from.destination_port));
}

std::string print_mac_option(string_view name, const mac_match& match) {
    constexpr mac_bytes whole = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
    if (match.mask == whole) {
        return fmt::format(" {} {}", name, print_mac(match.bytes));
    }
    return fmt::format(" {} {}/{}", name, print_mac(match.bytes), print_mac(match.mask));
}

}  // namespace

std::optional<std::uint64_t> parse_number(string_view text, std::uint64_t min, std::uint64_t max) {
    const bool is_hex = text.starts_with("0x") || text.starts_with("0X");
    if (is_hex) {
        text.remove_prefix(2);
    }
    std::uint64_t value = 0;
    const auto [end, failure] =
        std::from_chars(text.data(), text.data() + text.size(), value, is_hex ? 16 : 10);
    if (failure != std::errc{} || end != text.data() + text.size()) {
        return std::nullopt;
    }
    if (value < min || value > max) {
        return std::nullopt;
    }
    return value;
}

std::optional<mac_bytes> parse_mac(string_view text) {
    // "00:11:22:33:44:55" or "0011.2233.4455".
    const bool has_colons = text.size() == 17;
    if (!has_colons && text.size() != 14) {
        return std::nullopt;
    }
    const std::size_t group = has_colons ? 2 : 4;
    std::string digits;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (i % (group + 1) == group) {
            if (text[i] != (has_colons ? ':' : '.')) {
                return std::nullopt;
            }
        } else {
            digits += text[i];
        }
    }
    mac_bytes mac{};
    for (std::size_t i = 0; i < mac.size(); ++i) {
        const char* const begin = digits.data() + 2 * i;
        const auto [end, failure] = std::from_chars(begin, begin + 2, mac[i], 16);
        if (failure != std::errc{} || end != begin + 2) {
            return std::nullopt;
        }
    }
    return mac;
}

std::string print_mac(const mac_bytes& mac) {
    return fmt::format("{:02x}:{:02x}:{:02x}:{:02x}:{:02x}:{:02x}", mac[0], mac[1], mac[2], mac[3], mac[4],
                       mac[5]);
}

std::optional<rule> parse_rule(string_view text, std::string& error) try {
    word_reader words(text);
    rule read = take_rule(words);
    if (!words.done()) {
        throw syntax_error{"'id' belongs to an ACE, not to a rule"};
    }
    return read;
} catch (const syntax_error& problem) {
    error = problem.text;
    return std::nullopt;
}

std::string print_rule(const rule& from) {
    std::string text = from.action == rule_action::permit ? "permit " : "deny ";
    text += print_protocol(from);
    if (from.family != frame_family::every_frame) {
        text += print_sides(from);
    }
    if (from.source_mac) {
        text += print_mac_option("src-mac", *from.source_mac);
    }
    if (from.destination_mac) {
        text += print_mac_option("dst-mac", *from.destination_mac);
    }
    if (from.vlan) {
        text += fmt::format(" vlan {}", *from.vlan);
    }
    if (from.ethertype) {
        text += fmt::format(" ethertype 0x{:04x}", *from.ethertype);
    }
    if (from.dscp) {
        text += fmt::format(" dscp {}", *from.dscp);
    }
    return text;
}

std::optional<scc_ace_record> parse_ace(string_view text, std::string& error) try {
    word_reader words(text);
    scc_ace_record record{};
    if (starts_with_digit(words.peek())) {
        record.sn = number_of<std::uint32_t>(words.take("sequence number"), "sequence number", 0, UINT32_MAX);
    }
    record.ace_id = record.sn;
    encode(take_rule(words), record);
    if (words.take_if("id")) {
        record.ace_id = number_of<std::uint32_t>(words.take("ACE id"), "ACE id", 0, UINT32_MAX);
    }
    if (!words.done()) {
        throw syntax_error{fmt::format("'{}' follows the end of the ACE", words.peek())};
    }
    return record;
} catch (const syntax_error& problem) {
    error = problem.text;
    return std::nullopt;
}

std::optional<std::string> print_ace(const scc_ace_record& record) {
    const auto read = decode(record);
    if (!read) {
        return std::nullopt;
    }
    std::string text = fmt::format("{} {}", record.sn, print_rule(*read));
    if (record.ace_id != record.sn) {
        text += fmt::format(" id {}", record.ace_id);
    }
    return text;
}

}  // namespace scc::ace
