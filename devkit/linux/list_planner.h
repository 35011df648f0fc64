// An ACL in the kernel. It may be long, and the kernel writes a chain anew whenever one of its rules changes;
// therefore the list is cut into chains of a certain number of ACEs. Each ends with a rule that leads to the
// next one as if it were the same chain: what leaves it, leaves the list. Rules are in the order of their
// sequence numbers.
//
// Not thread-safe.
#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "linux/ruleset.h"

namespace scc::kernel {

// What planning a transaction works on.
struct plan_state {
    const held_tables& held;
    const handle_fetcher& handles;
    std::size_t list_chain;  // how many ACEs of a long ACL share a chain
    batch changes;
    std::set<std::string> needed;                        // counters
    std::set<std::string> unneeded;                      // likewise, unless they are needed
    std::map<chain_name, std::vector<held_rule>> after;  // chains that change
    std::vector<chain_name> gone;

    // Before the rule with the handle; 0: at the end.
    [[nodiscard]] held_rule add_rule(const chain_name& chain, const std::string& acl_counter,
                                     const wanted_rule& rule, u64 before);
};

class list_planner {
  public:
    list_planner(plan_state& state, const chain_name& first, const wanted_chain& wanted);

    // Returns 0, needs_all_rules or another errno value.
    [[nodiscard]] u32 run();

  private:
    struct place {
        std::size_t chain = 0;
        std::size_t index = 0;
    };
    using rule_list = std::vector<held_rule>;
    using wanted_at = std::vector<wanted_rule>::const_iterator;

    [[nodiscard]] chain_name chain_number(std::size_t number) const;
    [[nodiscard]] rule_identity link_to(std::size_t number) const;
    [[nodiscard]] const rule_list& rules_of(std::size_t chain) const;
    // Without the link.
    [[nodiscard]] std::size_t ace_count(std::size_t chain) const;
    [[nodiscard]] bool is_in_order() const;
    [[nodiscard]] bool is_uneven() const;
    [[nodiscard]] bool keeps_little() const;
    [[nodiscard]] std::set<u32> all_numbers() const;
    [[nodiscard]] place first_from(u32 sn) const;
    // The rules with this sequence number; they may lie in two chains.
    [[nodiscard]] std::vector<place> group_at(place first, u32 sn) const;
    [[nodiscard]] u32 change_group(u32 sn, wanted_at first, wanted_at last);
    [[nodiscard]] u32 erase(place at);
    // Moves the place after the new rule.
    [[nodiscard]] u32 insert(place& at, const wanted_rule& rule);
    // The chain's rules, to be changed.
    [[nodiscard]] u32 edit(std::size_t chain, bool needs_handles, rule_list*& rules);
    void add_chain();
    [[nodiscard]] u32 rebuild();
    void forget(const held_rule& rule);

    plan_state& state_;
    const chain_name& first_;
    const wanted_chain& wanted_;
    std::vector<chain_name> chains_;
};

}  // namespace scc::kernel
