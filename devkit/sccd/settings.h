// Settings other than ACLs and users: those that a returning security service must get again, and the
// interfaces on which the ARP check is on.
#pragma once

#include <map>
#include <optional>
#include <set>
#include <tuple>

#include "common/bytes.h"
#include "sccd/change.h"

namespace scc::sccd {

struct nac_application {
    u32 ifx = 0;
    u32 type = 0;
    u32 vid = 0;  // 0: the whole interface

    friend bool operator<(const nac_application& a, const nac_application& b) {
        return std::tie(a.ifx, a.type, a.vid) < std::tie(b.ifx, b.type, b.vid);
    }
};

struct daemon_settings {
    std::map<u32, u32> egress_ports;          // value by ifx; unset ports are not listed
    std::optional<u32> router_acl;            // the last value given
    std::map<u32, u32> cpu_protection;        // enable by type
    std::map<nac_application, u32> nac_apps;  // operation word
    std::set<u32> http_ports;
    std::optional<devkit::byte_buffer> offline_detection;  // the operation's value
    std::optional<devkit::byte_buffer> direct_vlan;        // the notification's value
    std::set<u32> arp_check_ifxs;

    [[nodiscard]] bool nothing_for_service() const;
};

// Sets an entry, or removes it if `value` is empty.
template <class Key, class Value>
[[nodiscard]] state_change set_entry(std::map<Key, Value>& entries, const Key& key,
                                     std::optional<Value> value) {
    std::optional<Value> before;
    if (const auto known = entries.find(key); known != entries.end()) {
        before = known->second;
    }
    const auto put = [&entries, key](const std::optional<Value>& wanted) {
        if (wanted) {
            entries.insert_or_assign(key, *wanted);
        } else {
            entries.erase(key);
        }
    };
    put(value);
    return state_change::made([put, before] { put(before); });
}

template <class Value>
[[nodiscard]] state_change set_value(std::optional<Value>& place, Value value) {
    std::optional<Value> before = std::move(place);
    place = std::move(value);
    return state_change::made([&place, before = std::move(before)] { place = before; });
}

}  // namespace scc::sccd
