// The file that says which interface of the kernel each interface index of the daemon is:
//
//   ifx NUMBER NAME [router]    "router": a layer-3 interface, whose ACLs apply while router ACLs are open
//   cpp TYPE RATE RULE          CPU protection of this type lets RATE packets a second through of those that
//   the
//                               rule matches; the rule is that of an ACE without action, such as "icmp any
//                               any"
//   # a comment
//
// Stateless; any thread.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "ace/ace_layout.h"
#include "common/bytes.h"

namespace scc::kernel {

struct mapped_interface {
    std::string name;
    bool router = false;
};

struct protection {
    u32 packets_per_second = 0;
    ace::rule rule;
};

struct interface_map {
    std::map<u32, mapped_interface> interfaces;
    std::map<u32, protection> protections;  // by type
};

// On failure `error` is one line, with the line's number.
[[nodiscard]] std::optional<interface_map> parse_interface_map(std::string_view text, std::string& error);
[[nodiscard]] std::optional<interface_map> read_interface_map(const std::string& path, std::string& error);

// Names an interface of the map that the kernel does not have; empty if it has all of them.
[[nodiscard]] std::string missing_interface(const interface_map& map);

}  // namespace scc::kernel
