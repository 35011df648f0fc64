// Names of the numbers in message values. Traces, the dissector and the command line show and take them. A
// number may have several names; the first one is shown.
#pragma once

#include <array>
#include <optional>
#include <span>
#include <string_view>

#include "msg/protocol.h"

namespace scc::devkit {

struct value_name {
    u64 value = 0;
    std::string_view name;
};

using value_names = std::span<const value_name>;

// Empty if the number has no name.
[[nodiscard]] std::string_view name_of(value_names names, u64 value);
[[nodiscard]] std::optional<u64> value_of(value_names names, std::string_view name);

namespace names {

inline constexpr std::array<value_name, 2> on_off{{{1, "on"}, {0, "off"}}};
inline constexpr std::array<value_name, 2> add_delete{{{1, "add"}, {0, "delete"}}};
inline constexpr std::array<value_name, 2> set_clear{{{1, "set"}, {0, "clear"}}};
inline constexpr std::array<value_name, 2> create_delete{{{1, "create"}, {0, "delete"}}};
inline constexpr std::array<value_name, 2> apply_unapply{{{1, "apply"}, {0, "unapply"}}};
inline constexpr std::array<value_name, 2> start_end{{{1, "start"}, {0, "end"}}};
inline constexpr std::array<value_name, 2> read_reset{{{1, "read"}, {0, "reset"}}};
inline constexpr std::array<value_name, 2> permit_deny{{{1, "permit"}, {0, "deny"}}};
inline constexpr std::array<value_name, 2> direction{{{0, "in"}, {1, "out"}}};
inline constexpr std::array<value_name, 2> socket{{{1, "sync"}, {0, "async"}}};
inline constexpr std::array<value_name, 2> debug_command{{{1, "switch"}, {3, "show"}}};
inline constexpr std::array<value_name, 3> family{{{1, "ipv4"}, {3, "ipv6"}, {4, "ipv6"}}};
// The operation word of configuration, user and ARP records.
inline constexpr std::array<value_name, 5> operation{
    {{1, "add"}, {1, "open"}, {2, "get"}, {3, "delete"}, {3, "close"}}};
// The forms of DHCP snooping's record.
inline constexpr std::array<value_name, 2> dhcp_form{{{9, "first"}, {10, "second"}}};

inline constexpr std::array<value_name, 13> statistics{{{0, "acl-create"},
                                                        {1, "acl-delete"},
                                                        {2, "ace-add"},
                                                        {3, "ace-delete"},
                                                        {4, "acl-apply"},
                                                        {5, "acl-unapply"},
                                                        {6, "nac-user-add"},
                                                        {7, "nac-user-delete"},
                                                        {8, "user-added"},
                                                        {9, "user-deleted"},
                                                        {10, "noflow-offline"},
                                                        {11, "d1x-addr-move"},
                                                        {12, "data-recover"}}};

inline constexpr std::array<value_name, 28> results{{{0, "ok"},
                                                     {2, "not-found"},
                                                     {5, "io-error"},
                                                     {12, "no-memory"},
                                                     {22, "invalid-argument"},
                                                     {28, "no-space"},
                                                     {32, "broken-pipe"},
                                                     {2000, "register-rejected"},
                                                     {2001, "unregister-rejected"},
                                                     {2002, "registered-already"},
                                                     {2003, "unregistered-already"},
                                                     {2004, "unavailable"},
                                                     {2005, "no-acl"},
                                                     {2006, "no-ace"},
                                                     {2007, "format"},
                                                     {2008, "not-applied"},
                                                     {2009, "applied-already"},
                                                     {2010, "acl-exists"},
                                                     {2011, "ace-exists"},
                                                     {2012, "still-applied"},
                                                     {2013, "no-data-query"},
                                                     {2014, "no-http-port"},
                                                     {2015, "no-direct-host"},
                                                     {2016, "no-direct-site"},
                                                     {2017, "no-sequence-number"},
                                                     {2018, "no-vacl"},
                                                     {2019, "no-list-node"},
                                                     {2020, "service-timeout"}}};

inline constexpr std::array<value_name, limits::nacm_types> nac_application{
    {{0, "none"},
     {1, "dot1x-mac"},
     {2, "dot1x-port-static"},
     {3, "dot1x-port-move"},
     {4, "dot1x-port-single"},
     {5, "dot1x-mab"},
     {6, "port-security"},
     {7, "dot1x-author"},
     {8, "port-security-ipv4-bind"},
     {9, "ipv4-source-guard"},
     {10, "wfb-bind"},
     {11, "global-ipv4-bind"},
     {12, "port-security-ipv6-bind"},
     {13, "ipv6-source-guard"},
     {14, "nd-snooping"},
     {15, "global-ipv6-bind"},
     {16, "web-authentication"},
     {17, "web-authentication-ipv6"},
     {18, "safe-channel"},
     {19, "web-direct"},
     {20, "vvlan"},
     {21, "ipv6-loose"},
     {22, "ipv6-strict"},
     {23, "ipv6-compatible"},
     {24, "nd-snooping-none"},
     {25, "nd-snooping-loose"},
     {26, "nd-snooping-strict"},
     {27, "nd-snooping-hardware-check"},
     {28, "dot1x-port-open"},
     {29, "dot1x-port-max"},
     {30, "dot1x-kw2"},
     {31, "port-security-violation"},
     {32, "arp-check"},
     {33, "close-learning"},
     {34, "safe-channel-export"},
     {35, "global-ip-mac-export"},
     {36, "station-address-move"},
     {37, "direct-vlan"},
     {38, "other"}}};

}  // namespace names
}  // namespace scc::devkit
