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

#include "linux/plan_state.h"

namespace scc::kernel {

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
    using wanted_at = std::vector<wanted_rule>::const_iterator;

    [[nodiscard]] chain_name chain_number(std::size_t number) const;
    [[nodiscard]] rule_identity link_to(std::size_t number) const;
    [[nodiscard]] std::size_t rule_count(std::size_t chain) const;
    // Without the link.
    [[nodiscard]] std::size_t ace_count(std::size_t chain) const;
    [[nodiscard]] const held_rule& rule_at(const place& at) const;
    [[nodiscard]] bool is_in_order() const;
    [[nodiscard]] bool is_uneven() const;
    [[nodiscard]] bool keeps_little() const;
    [[nodiscard]] std::set<u32> all_numbers() const;
    [[nodiscard]] place first_from(u32 sn) const;
    // The rules with this sequence number; they may lie in two chains.
    [[nodiscard]] std::vector<place> group_at(place first, u32 sn) const;
    [[nodiscard]] u32 change_group(u32 sn, wanted_at first, wanted_at last);
    void erase(const place& at);
    // Moves the place after the new rule.
    [[nodiscard]] u32 insert(place& at, const wanted_rule& rule);
    // The chain's entries, to be changed.
    [[nodiscard]] std::vector<list_entry>& edit(std::size_t chain);
    void add_chain();
    [[nodiscard]] u32 rebuild();
    void drop_rest(const std::vector<chain_name>& before);
    void bring_aces();
    [[nodiscard]] u32 write();

    plan_state& state_;
    const chain_name& first_;
    const wanted_chain& wanted_;
    std::vector<chain_name> chains_;
    std::map<std::size_t, std::vector<list_entry>> edited_;  // by number of the chain
};

}  // namespace scc::kernel
