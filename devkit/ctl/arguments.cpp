// Converts the text of an argument to the bytes of a call and back.
#include "arguments.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>
#include <utility>

#include "ace_text.h"
#include "common/bytes.h"
#include "common/records.h"
#include "scclib.h"
#include "suggestion.h"

namespace scc::ctl {
namespace {

std::uint64_t largest(std::size_t width) {
    return width >= 8 ? UINT64_MAX : (1ull << (8 * width)) - 1;
}

void put_bytes(byte_buffer& record, std::size_t offset, const void* bytes, std::size_t len) {
    if (offset > record.size() || len > record.size() - offset) {
        throw usage_error(
            fmt::format("{} bytes at {} lie outside the record of {} bytes", len, offset, record.size()));
    }
    std::memcpy(record.data() + offset, bytes, len);
}

// All widths are those of machine integers; the host is little-endian.
void put_number(byte_buffer& record, std::size_t offset, std::size_t width, std::uint64_t value) {
    const auto narrow = [&](auto typed) {
        typed = static_cast<decltype(typed)>(value);
        put_bytes(record, offset, &typed, sizeof typed);
    };
    switch (width) {
        case 1:
            return narrow(std::uint8_t{});
        case 2:
            return narrow(std::uint16_t{});
        case 4:
            return narrow(std::uint32_t{});
        case 8:
            return narrow(std::uint64_t{});
        default:
            throw usage_error(fmt::format("a number is 1, 2, 4 or 8 bytes wide, not {}", width));
    }
}

std::uint64_t get_number(const byte_buffer& record, std::size_t offset, std::size_t width) {
    switch (width) {
        case 1:
            return devkit::read_at<std::uint8_t>(record, offset);
        case 2:
            return devkit::read_at<std::uint16_t>(record, offset);
        case 4:
            return devkit::read_at<std::uint32_t>(record, offset);
        default:
            return devkit::read_at<std::uint64_t>(record, offset);
    }
}

[[noreturn]] void refuse_number(const argument& where, std::string_view text) {
    const std::string range = fmt::format("a number from {} to {}", where.min, where.max);
    if (where.names.empty()) {
        throw usage_error(fmt::format("{}: '{}' is not {}", where.name, text, range));
    }
    const auto names = names_of(where);
    throw usage_error(fmt::format("{}: '{}' is neither {} nor one of {}{}", where.name, text, range,
                                  fmt::join(names, ", "), did_you_mean(text, names)));
}

// A number or its name. An IPv4 address is a number in network order.
std::uint64_t number_of(const argument& where, std::string_view text) {
    if (where.type == value_type::ipv4) {
        const auto address = devkit::parse_ipv4(std::string(text));
        if (!address) {
            throw usage_error(fmt::format("{}: '{}' is not an IPv4 address", where.name, text));
        }
        return *address;
    }
    const auto named = devkit::value_of(where.names, text);
    const auto value = named ? named : ace::parse_number(text, where.min, where.max);
    if (!value) {
        refuse_number(where, text);
    }
    return *value;
}

// "10,20-30"
byte_buffer vlans_of_text(const argument& where, std::string_view text) {
    byte_buffer record(where.width);
    const auto vlan = [&](std::string_view digits) {
        const auto number = ace::parse_number(digits, 0, devkit::vlan_count - 1);
        if (!number) {
            throw usage_error(fmt::format("{}: '{}' in '{}' is not a number from 0 to {}", where.name, digits,
                                          text, devkit::vlan_count - 1));
        }
        return *number;
    };
    for (std::size_t begin = 0; begin <= text.size();) {
        const auto end = std::min(text.find(',', begin), text.size());
        const std::string_view part = text.substr(begin, end - begin);
        const auto dash = part.find('-');
        const auto first = vlan(part.substr(0, dash));
        const auto last = dash == std::string_view::npos ? first : vlan(part.substr(dash + 1));
        if (last < first) {
            throw usage_error(fmt::format("{}: '{}' in '{}' is an empty range", where.name, part, text));
        }
        for (auto each = first; each <= last; ++each) {
            (void)devkit::set_vlan(record, 0, each);
        }
        begin = end + 1;
    }
    return record;
}

byte_buffer ipv6_of(const argument& where, const std::string& text) {
    byte_buffer address(16);
    if (inet_pton(AF_INET6, text.c_str(), address.data()) != 1) {
        throw usage_error(fmt::format("{}: '{}' is not an IPv6 address", where.name, text));
    }
    return address;
}

byte_buffer address16_of(const argument& where, const std::string& text) {
    byte_buffer address(16);
    if (inet_pton(AF_INET, text.c_str(), address.data()) == 1) {
        return address;
    }
    if (inet_pton(AF_INET6, text.c_str(), address.data()) == 1) {
        return address;
    }
    throw usage_error(fmt::format("{}: '{}' is not an address", where.name, text));
}

byte_buffer bytes_of_file(const argument& where, const std::string& name) {
    std::string text;
    if (name == "-") {
        text.assign(std::istreambuf_iterator<char>(std::cin), {});
    } else {
        auto file = text_of_file(name);
        if (!file) {
            throw usage_error(fmt::format("{}: cannot read {}", where.name, name));
        }
        text = std::move(*file);
    }
    std::replace_if(
        text.begin(), text.end(), [](char c) { return c == '\n' || c == '\r' || c == '\t'; }, ' ');
    const auto bytes = devkit::parse_hex(text);
    if (!bytes) {
        throw usage_error(fmt::format("{}: {} does not hold hexadecimal pairs", where.name, name));
    }
    return *bytes;
}

byte_buffer ace_of(std::string_view text) {
    std::string error;
    const auto ace = ace::parse_ace(text, error);
    if (!ace) {
        throw usage_error("rule: " + error);
    }
    byte_buffer bytes(sizeof *ace);
    std::memcpy(bytes.data(), &*ace, sizeof *ace);
    return bytes;
}

byte_buffer field_bytes(const argument& where, std::string_view text) {
    const std::string word(text);
    switch (where.type) {
        case value_type::mac: {
            const auto mac = ace::parse_mac(text);
            if (!mac) {
                throw usage_error(fmt::format("{}: '{}' is not a MAC address", where.name, text));
            }
            return {mac->begin(), mac->end()};
        }
        case value_type::ipv4: {
            byte_buffer address(4);
            if (inet_pton(AF_INET, word.c_str(), address.data()) != 1) {
                throw usage_error(fmt::format("{}: '{}' is not an IPv4 address", where.name, text));
            }
            return address;
        }
        case value_type::ipv6:
            return ipv6_of(where, word);
        case value_type::address16:
            return address16_of(where, word);
        case value_type::bytes:
            return bytes_of_file(where, word);
        case value_type::rule:
            return ace_of(text);
        case value_type::vlans:
            return vlans_of_text(where, text);
        case value_type::number:
            break;
    }
    byte_buffer bytes(where.width);
    put_number(bytes, 0, where.width, number_of(where, text));
    return bytes;
}

json shown_ace(const byte_buffer& record) {
    scc_ace_record ace{};
    std::memcpy(&ace, record.data(), std::min(record.size(), sizeof ace));
    const auto text = ace::print_ace(ace);
    return text ? json(*text) : json();
}

std::string ipv6_text(const byte_buffer& bytes) {
    char text[INET6_ADDRSTRLEN] = "";
    inet_ntop(AF_INET6, bytes.data(), text, sizeof text);
    return text;
}

std::string address16_text(const byte_buffer& bytes) {
    const bool is_ipv4 =
        bytes[0] != 0 && std::all_of(bytes.begin() + 4, bytes.end(), [](auto b) { return b == 0; });
    return is_ipv4 ? ipv4_of(devkit::u32_at(bytes, 0)) : ipv6_text(bytes);
}

template <class Value>
argument with(argument changed, Value argument::*member, Value value) {
    changed.*member = value;
    return changed;
}

}  // namespace

argument argument::within(std::uint64_t low, std::uint64_t high) const {
    return with(with(*this, &argument::min, low), &argument::max, high);
}

argument argument::as(value_type other) const {
    return with(*this, &argument::type, other);
}

argument argument::as(presence other) const {
    return with(*this, &argument::given, other);
}

argument argument::from(std::uint64_t value) const {
    return with(*this, &argument::initial, value);
}

argument argument::at(int record_number, std::size_t field_offset) const {
    return with(with(*this, &argument::record, record_number), &argument::offset, field_offset);
}

argument argument::flagging(std::uint32_t bits) const {
    return with(*this, &argument::flags, bits);
}

argument argument::named(devkit::value_names given_names) const {
    return with(*this, &argument::names, given_names);
}

std::vector<std::string> names_of(const argument& what) {
    std::vector<std::string> names;
    for (const devkit::value_name& each : what.names) {
        if (each.value >= what.min && each.value <= what.max) {
            names.emplace_back(each.name);
        }
    }
    return names;
}

argument number(std::string_view name, std::size_t width, std::string_view help) {
    argument made;
    made.name = name;
    made.help = help;
    made.width = width;
    made.max = largest(width);
    return made;
}

argument field(std::string_view name, std::size_t offset, std::size_t width, std::string_view help) {
    return number(name, width, help).as(presence::option).at(0, offset);
}

argument constant(std::string_view name, std::size_t offset, std::uint64_t value) {
    return field(name, offset, 4, "").as(presence::fixed).from(value);
}

std::optional<std::string> text_of_file(const std::string& name) {
    std::ifstream file(name);
    std::ostringstream text;
    // A directory can be opened; only reading it fails.
    if (!file || (file.peek() != std::ifstream::traits_type::eof() && !(text << file.rdbuf()))) {
        return {};
    }
    if (file.bad()) {
        return {};
    }
    return std::move(text).str();
}

void store(const argument& where, std::string_view text, call_values& into) {
    if (where.record == no_record) {
        into.scalars.push_back(number_of(where, text));
        return;
    }
    byte_buffer& record = into.records.at(static_cast<std::size_t>(where.record));
    const byte_buffer bytes = field_bytes(where, text);
    if (record.empty()) {
        record.resize(bytes.size());  // bytes of any number
    }
    put_bytes(record, where.offset, bytes.data(), bytes.size());
}

void store_initial(const argument& where, call_values& into) {
    if (where.record == no_record) {
        into.scalars.push_back(where.initial);
    } else if (where.type == value_type::number && where.initial != 0) {
        put_number(into.records.at(static_cast<std::size_t>(where.record)), where.offset, where.width,
                   where.initial);
    }
}

void store_raw_field(std::string_view text, byte_buffer& record) {
    const auto colon = text.find(':');
    const auto equals = text.find('=');
    if (colon == std::string_view::npos || equals == std::string_view::npos || equals < colon) {
        throw usage_error(fmt::format("field: '{}' is not OFFSET:WIDTH=VALUE", text));
    }
    const auto part = [&](std::string_view digits, std::uint64_t max) {
        const auto value = ace::parse_number(digits, 0, max);
        if (!value) {
            throw usage_error(
                fmt::format("field: '{}' in '{}' is not a number from 0 to {}", digits, text, max));
        }
        return *value;
    };
    const auto offset = static_cast<std::size_t>(part(text.substr(0, colon), record.size()));
    const auto width =
        static_cast<std::size_t>(part(text.substr(colon + 1, equals - colon - 1), record.size()));
    const std::string_view value = text.substr(equals + 1);
    if (!value.starts_with("hex:")) {
        return put_number(record, offset, width, part(value, largest(width)));
    }
    const auto bytes = devkit::parse_hex(value.substr(4));
    if (!bytes || bytes->size() != width) {
        throw usage_error(fmt::format("field: '{}' does not hold {} bytes", text, width));
    }
    put_bytes(record, offset, bytes->data(), bytes->size());
}

json shown(const argument& what, std::size_t scalar_index, const call_values& values) {
    if (what.record == no_record) {
        if (scalar_index >= values.scalars.size()) {
            return {};
        }
        const std::uint64_t scalar = values.scalars[scalar_index];
        return what.type == value_type::ipv4 ? json(ipv4_of(static_cast<std::uint32_t>(scalar)))
                                             : json(scalar);
    }
    const auto index = static_cast<std::size_t>(what.record);
    if (index >= values.records.size()) {
        return {};
    }
    const byte_buffer& record = values.records[index];
    if (what.type == value_type::rule) {
        return shown_ace(record);
    }
    if (what.type == value_type::bytes) {
        return hex_of(record);
    }
    if (!devkit::holds(record, what.offset, what.width)) {
        return {};
    }
    const auto begin = record.begin() + static_cast<std::ptrdiff_t>(what.offset);
    const byte_buffer bytes(begin, begin + static_cast<std::ptrdiff_t>(what.width));
    switch (what.type) {
        case value_type::mac:
            return devkit::mac_text(devkit::mac_at(record, what.offset));
        case value_type::ipv4:
            return ipv4_of(devkit::u32_at(record, what.offset));
        case value_type::ipv6:
            return ipv6_text(bytes);
        case value_type::address16:
            return address16_text(bytes);
        case value_type::vlans:
            return devkit::vlans_of(bytes);
        default:
            return get_number(record, what.offset, what.width);
    }
}

std::string hex_of(const byte_buffer& bytes) {
    return devkit::hex_text(bytes);
}

std::string ipv4_of(std::uint32_t network_order) {
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &network_order, text, sizeof text);
    return text;
}

std::string json_name(std::string_view name) {
    std::string changed(name);
    std::replace(changed.begin(), changed.end(), '-', '_');
    return changed;
}

}  // namespace scc::ctl
