// Reads the fields of a control request. A field may be missing; one of the wrong kind is recorded as a
// problem. unexpected_field finds fields that nobody reads, so a request is understood completely or refused.
#pragma once

#include <array>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/bytes.h"

namespace scc::sccd {

using json = nlohmann::ordered_json;  // keeps the order of insertion

// IPv4 in the first 4 bytes.
struct ip_address {
    std::array<u8, 16> bytes{};
    bool is_ipv6 = false;
};

// The error text if `request` has a field with none of these names; empty otherwise.
[[nodiscard]] std::string unexpected_field(std::string_view what, const json& request,
                                           const std::vector<std::string_view>& own_words,
                                           const std::vector<std::string_view>& known);

class json_fields {
  public:
    explicit json_fields(const json& object) : object_(object) {}

    // JSON numbers, booleans and text such as "10" or "0x0a".
    [[nodiscard]] u64 number(std::string_view name, u64 otherwise = 0);
    [[nodiscard]] u32 number32(std::string_view name, u32 otherwise = 0);
    [[nodiscard]] u16 number16(std::string_view name);
    [[nodiscard]] u64 number_within(std::string_view name, u64 otherwise, u64 min, u64 max);
    [[nodiscard]] bool flag(std::string_view name) { return number(name) != 0; }
    [[nodiscard]] std::string text(std::string_view name);
    [[nodiscard]] devkit::byte_buffer hex(std::string_view name);
    [[nodiscard]] devkit::mac_address mac(std::string_view name);
    [[nodiscard]] u32 ipv4(std::string_view name);
    [[nodiscard]] ip_address address(std::string_view name);
    // The elements of a list; empty if the field is missing.
    [[nodiscard]] std::vector<json> list(std::string_view name);
    [[nodiscard]] bool has(std::string_view name) const { return object_.contains(std::string(name)); }

    [[nodiscard]] const std::string& problem() const { return problem_; }
    void refuse(std::string_view name, std::string_view reason);

    // Empty if `value` is not a number in one of the accepted forms.
    [[nodiscard]] static std::optional<u64> as_number(const json& value);

  private:
    [[nodiscard]] const json* field(std::string_view name) const;

    const json& object_;
    std::string problem_;
};

}  // namespace scc::sccd
