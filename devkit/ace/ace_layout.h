// The rule of an ACE in C++: names, comparison, and an optional where the C interface returns a code. Its
// layout and its limits are those of scc_records.h. Stateless; any thread.
#pragma once

#include <array>
#include <cstdint>
#include <cstring>
#include <optional>
#include <type_traits>

#include "records/names.h"
#include "scc_records.h"

namespace scc::ace {

inline constexpr std::uint32_t layout_marker = SCC_ACE_MARKER;
inline constexpr std::uint16_t vlan_max = SCC_ACE_VLAN_MAX;

using records::has_ports;
using records::protocol_icmp;
using records::protocol_icmp6;
using records::protocol_tcp;

using ip_bytes = std::array<std::uint8_t, 16>;
using mac_bytes = std::array<std::uint8_t, 6>;

struct rule : scc_ace_rule {
    rule() : scc_ace_rule{} {}
    explicit rule(const scc_ace_rule& from) : scc_ace_rule(from) {}

    [[nodiscard]] bool compares(unsigned field) const { return (fields & field) != 0; }
    [[nodiscard]] bool denies() const { return action == SCC_ACE_DENY; }

    friend bool operator==(const rule& a, const rule& b) {
        static_assert(std::has_unique_object_representations_v<scc_ace_rule>);
        return std::memcmp(&a, &b, sizeof(scc_ace_rule)) == 0;
    }
};

// Writes the rule's bytes; link, sequence number and id of the record are unchanged. The rule must be valid.
inline void encode(const rule& from, scc_ace_record& record) {
    scc_ace_encode(&from, &record, nullptr);
}

// Empty if the record holds no rule, or bytes that encode() never writes; such an ACE matches nothing.
[[nodiscard]] inline std::optional<rule> decode(const scc_ace_record& record) {
    rule read;
    return scc_ace_decode(&record, &read) == 0 ? std::optional(read) : std::nullopt;
}

}  // namespace scc::ace
