// The kernel's packet filter, through netlink.
//
// An interface, so that tests can let the kernel's answers fail. One thread at a time.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "linux/netlink_socket.h"
#include "linux/ruleset.h"

namespace scc::kernel {

struct counted {
    std::string name;
    u64 packets = 0;
    u64 bytes = 0;
};

// Each call returns 0 or an errno value.
class packet_filter {
  public:
    virtual ~packet_filter() = default;

    // `text` gets the kernel's complaint, `handles` those of the added rules in their order. It stays empty
    // if there are many. ERESTART if somebody changed the kernel's rules after the last read_tables().
    [[nodiscard]] virtual u32 run(const batch& changes, std::vector<u64>& handles, std::string& text) = 0;

    [[nodiscard]] virtual u32 read_tables(held_tables& tables) = 0;
    // ENOENT if there is no such chain.
    [[nodiscard]] virtual u32 read_rules(const chain_name& chain, std::vector<kernel_rule>& rules) = 0;
    [[nodiscard]] virtual u32 read_counters(std::vector<counted>& counters) = 0;
    [[nodiscard]] virtual u32 read_counter(const std::string& name, bool reset, u64& packets) = 0;
};

// Null, with the problem, if the kernel or the process's rights do not allow it.
[[nodiscard]] std::unique_ptr<packet_filter> open_packet_filter(std::string& problem);
// On sockets of this kind. None is opened before the first call.
[[nodiscard]] std::unique_ptr<packet_filter> packet_filter_on(socket_opener open);

}  // namespace scc::kernel
