#include "names.h"

#include <arpa/inet.h>
#include <netdb.h>

#include "words.h"

namespace scc::records {
namespace {

struct name_row {
    string_view name;
    std::uint8_t number;
};

constexpr name_row protocols[] = {
    {"icmp", protocol_icmp},
    {"igmp", 2},
    {"tcp", protocol_tcp},
    {"udp", protocol_udp},
    {"gre", 47},
    {"esp", 50},
    {"ah", 51},
    {"icmp6", protocol_icmp6},
    {"ospf", 89},
    {"pim", 103},
    {"vrrp", 112},
    {"sctp", protocol_sctp},
};

constexpr name_row dscp_values[] = {
    {"default", 0}, {"le", 1},    {"cs0", 0},   {"cs1", 8},   {"cs2", 16},  {"cs3", 24},
    {"cs4", 32},    {"cs5", 40},  {"cs6", 48},  {"cs7", 56},  {"af11", 10}, {"af12", 12},
    {"af13", 14},   {"af21", 18}, {"af22", 20}, {"af23", 22}, {"af31", 26}, {"af32", 28},
    {"af33", 30},   {"af41", 34}, {"af42", 36}, {"af43", 38}, {"va", 44},   {"ef", 46},
};

// The acronyms of IEEE 802.1Q. Best effort is 0 and background, below it, is 1.
constexpr name_row cos_values[] = {
    {"be", 0}, {"bk", 1}, {"ee", 2}, {"ca", 3}, {"vi", 4}, {"vo", 5}, {"ic", 6}, {"nc", 7},
};

constexpr name_row days[] = {
    {"sun", 0}, {"mon", 1}, {"tue", 2}, {"wed", 3}, {"thu", 4}, {"fri", 5}, {"sat", 6},
};

constexpr int no_code = -1;
struct icmp_row {
    string_view name;
    std::uint8_t type;
    int code;
};

constexpr icmp_row icmp_types[] = {
    {"echo-reply", 0, no_code},
    {"unreachable", 3, no_code},
    {"net-unreachable", 3, 0},
    {"host-unreachable", 3, 1},
    {"protocol-unreachable", 3, 2},
    {"port-unreachable", 3, 3},
    {"packet-too-big", 3, 4},
    {"source-quench", 4, no_code},
    {"redirect", 5, no_code},
    {"echo", 8, no_code},
    {"echo-request", 8, no_code},
    {"router-advertisement", 9, no_code},
    {"router-solicitation", 10, no_code},
    {"time-exceeded", 11, no_code},
    {"ttl-exceeded", 11, 0},
    {"parameter-problem", 12, no_code},
    {"timestamp-request", 13, no_code},
    {"timestamp-reply", 14, no_code},
};

constexpr icmp_row icmp6_types[] = {
    {"unreachable", 1, no_code},
    {"no-route", 1, 0},
    {"admin-prohibited", 1, 1},
    {"address-unreachable", 1, 3},
    {"port-unreachable", 1, 4},
    {"packet-too-big", 2, no_code},
    {"time-exceeded", 3, no_code},
    {"parameter-problem", 4, no_code},
    {"echo", 128, no_code},
    {"echo-request", 128, no_code},
    {"echo-reply", 129, no_code},
    {"mld-query", 130, no_code},
    {"mld-report", 131, no_code},
    {"mld-done", 132, no_code},
    {"router-solicitation", 133, no_code},
    {"router-advertisement", 134, no_code},
    {"nd-solicitation", 135, no_code},
    {"nd-advertisement", 136, no_code},
    {"redirect", 137, no_code},
    {"mld2-report", 143, no_code},
};

template <std::size_t Count>
std::optional<std::uint8_t> number_named(const name_row (&rows)[Count], string_view name) {
    for (const name_row& row : rows) {
        if (row.name == name) {
            return row.number;
        }
    }
    return std::nullopt;
}

template <std::size_t Count>
const char* name_of(const name_row (&rows)[Count], unsigned number) {
    for (const name_row& row : rows) {
        if (row.number == number) {
            return row.name.data();
        }
    }
    return nullptr;
}

template <std::size_t Count>
std::optional<icmp_meaning> meaning_of(const icmp_row (&rows)[Count], string_view name) {
    for (const icmp_row& row : rows) {
        if (row.name != name) {
            continue;
        }
        if (row.code == no_code) {
            return icmp_meaning{row.type, std::nullopt};
        }
        return icmp_meaning{row.type, static_cast<std::uint8_t>(row.code)};
    }
    return std::nullopt;
}

const char* services_column(std::uint8_t protocol) {
    if (protocol == protocol_tcp) {
        return "tcp";
    }
    return protocol == protocol_udp ? "udp" : "sctp";
}

}  // namespace

bool has_ports(std::uint8_t protocol) {
    return protocol == protocol_tcp || protocol == protocol_udp || protocol == protocol_sctp;
}

std::optional<std::uint8_t> protocol_named(string_view name) {
    return number_named(protocols, name);
}

const char* protocol_name(std::uint8_t protocol) {
    // A rule read from an older file prints as it stood there.
    const bool is_named = protocol == protocol_icmp || protocol == protocol_tcp || protocol == protocol_udp ||
                          protocol == protocol_icmp6;
    return is_named ? name_of(protocols, protocol) : nullptr;
}

std::optional<std::uint8_t> dscp_named(string_view name) {
    return number_named(dscp_values, name);
}

std::optional<std::uint8_t> cos_named(string_view name) {
    return number_named(cos_values, name);
}

std::optional<icmp_meaning> icmp_named(std::uint8_t protocol, string_view name) {
    return protocol == protocol_icmp6 ? meaning_of(icmp6_types, name) : meaning_of(icmp_types, name);
}

std::optional<std::uint8_t> day_named(string_view name) {
    return number_named(days, name);
}

const char* day_name(unsigned day) {
    return name_of(days, day);
}

std::optional<std::uint16_t> port_named(std::uint8_t protocol, string_view word) {
    if (const auto number = parse_number(word, 0, UINT16_MAX)) {
        return static_cast<std::uint16_t>(*number);
    }
    const bool may_be_name =
        !word.empty() && word.size() < sizeof(c_string::text) && (word[0] < '0' || word[0] > '9');
    if (!may_be_name) {
        return std::nullopt;
    }
    servent entry{};
    servent* found = nullptr;
    char strings[1024];
    const int failure = getservbyname_r(c_string(word).text, services_column(protocol), &entry, strings,
                                        sizeof strings, &found);
    if (failure != 0 || found == nullptr) {
        return std::nullopt;
    }
    return ntohs(static_cast<std::uint16_t>(found->s_port));
}

}  // namespace scc::records
