// What planning a transaction works on. Not thread-safe.
#pragma once

#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "linux/runs.h"

namespace scc::kernel {

// A chain of an ACL's list as it shall be.
struct planned_list {
    std::vector<list_entry> entries;
    std::vector<held_run*> runs;  // by entry
    std::vector<std::shared_ptr<held_run>> known_runs;

    // Takes over the rules that the kernel has already.
    [[nodiscard]] std::vector<held_rule> carry_out();
};

struct plan_state {
    held_tables& held;
    const handle_fetcher& handles;
    list_limits limits;
    batch changes;
    std::set<std::string> needed;                        // counters
    std::set<std::string> unneeded;                      // likewise, unless they are needed
    std::map<chain_name, std::vector<held_rule>> after;  // chains that change
    std::map<chain_name, planned_list> lists;            // likewise
    std::vector<chain_name> gone;

    // Before the rule with the handle; 0: at the end.
    [[nodiscard]] kernel_rules add_rules(const chain_name& chain, const rule_identity& identity,
                                         const std::vector<expressions>& parts, u64 before);
    void delete_rules(const chain_name& chain, const kernel_rules& rules);
    void add_maps(const chain_name& chain, const held_run& run, std::size_t key_len, u32 key_type);
    void delete_maps(const chain_name& chain, const held_run& run);
    // With its maps, but without its rules.
    void drop_chain(const chain_name& chain);
};

}  // namespace scc::kernel
