#include "sccd/json_fields.h"

#include <arpa/inet.h>
#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <limits>
#include <optional>

namespace scc::sccd {

std::string unexpected_field(std::string_view what, const json& request,
                             const std::vector<std::string_view>& own_words,
                             const std::vector<std::string_view>& known) {
    const auto among = [](const std::vector<std::string_view>& names, const std::string& name) {
        return std::find(names.begin(), names.end(), name) != names.end();
    };
    for (const auto& [name, value] : request.items()) {
        if (among(own_words, name) || among(known, name)) {
            continue;
        }
        if (known.empty()) {
            return fmt::format("no field '{}'; {} takes none", name, what);
        }
        return fmt::format("no field '{}'; {} takes {}", name, what, fmt::join(known, ", "));
    }
    return {};
}

const json* json_fields::field(std::string_view name) const {
    const auto found = object_.find(name);
    return found == object_.end() || found->is_null() ? nullptr : &*found;
}

void json_fields::refuse(std::string_view name, std::string_view reason) {
    if (problem_.empty()) {
        problem_ = std::string(name) + ": " + std::string(reason);
    }
}

std::optional<u64> json_fields::as_number(const json& value) {
    if (value.is_boolean()) {
        return value.get<bool>() ? 1 : 0;
    }
    if (value.is_number_unsigned()) {
        return value.get<u64>();
    }
    if (!value.is_string()) {
        return std::nullopt;
    }
    const std::string& text = value.get_ref<const std::string&>();
    const bool hexadecimal = text.starts_with("0x") || text.starts_with("0X");
    const char* const first = text.data() + (hexadecimal ? 2 : 0);
    const char* const last = text.data() + text.size();
    u64 number = 0;
    const auto [end, error] = std::from_chars(first, last, number, hexadecimal ? 16 : 10);
    if (error != std::errc{} || end != last || first == last) {
        return std::nullopt;
    }
    return number;
}

u64 json_fields::number_within(std::string_view name, u64 otherwise, u64 min, u64 max) {
    const json* const value = field(name);
    if (value == nullptr) {
        return otherwise;
    }
    const std::optional<u64> found = as_number(*value);
    if (!found || *found < min || *found > max) {
        const std::string written = value->is_string() ? value->get<std::string>() : value->dump();
        refuse(name, fmt::format("'{}' is not a number from {} to {}", written, min, max));
        return otherwise;
    }
    return *found;
}

u64 json_fields::number(std::string_view name, u64 otherwise) {
    return number_within(name, otherwise, 0, std::numeric_limits<u64>::max());
}

u32 json_fields::number32(std::string_view name, u32 otherwise) {
    return static_cast<u32>(number_within(name, otherwise, 0, std::numeric_limits<u32>::max()));
}

u16 json_fields::number16(std::string_view name) {
    return static_cast<u16>(number_within(name, 0, 0, std::numeric_limits<u16>::max()));
}

std::string json_fields::text(std::string_view name) {
    const json* const value = field(name);
    if (value == nullptr) {
        return {};
    }
    if (value->is_string()) {
        return value->get<std::string>();
    }
    refuse(name, "not a text");
    return {};
}

devkit::byte_buffer json_fields::hex(std::string_view name) {
    const std::optional<devkit::byte_buffer> bytes = devkit::parse_hex(text(name));
    if (!bytes) {
        refuse(name, "not a row of hexadecimal bytes");
    }
    return bytes.value_or(devkit::byte_buffer{});
}

devkit::mac_address json_fields::mac(std::string_view name) {
    if (field(name) == nullptr) {
        return {};
    }
    const std::optional<devkit::mac_address> address = devkit::parse_mac(text(name));
    if (!address) {
        refuse(name, "not a MAC address");
    }
    return address.value_or(devkit::mac_address{});
}

u32 json_fields::ipv4(std::string_view name) {
    if (field(name) == nullptr) {
        return 0;
    }
    const std::optional<u32> address = devkit::parse_ipv4(text(name));
    if (!address) {
        refuse(name, "not an IPv4 address");
    }
    return address.value_or(0);
}

ip_address json_fields::address(std::string_view name) {
    ip_address address;
    if (field(name) == nullptr) {
        return address;
    }
    const std::string written = text(name);
    if (inet_pton(AF_INET, written.c_str(), address.bytes.data()) == 1) {
        return address;
    }
    address.is_ipv6 = inet_pton(AF_INET6, written.c_str(), address.bytes.data()) == 1;
    if (!address.is_ipv6) {
        refuse(name, "not an IPv4 or IPv6 address");
    }
    return address;
}

std::vector<json> json_fields::list(std::string_view name) {
    const json* const value = field(name);
    if (value == nullptr) {
        return {};
    }
    if (!value->is_array()) {
        refuse(name, "not a list");
        return {};
    }
    return {value->begin(), value->end()};
}

}  // namespace scc::sccd
