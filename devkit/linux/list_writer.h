// Makes one chain of an ACL's list what it shall be, with the fewest changes. Not thread-safe.
#pragma once

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "linux/plan_state.h"

namespace scc::kernel {

class list_writer {
  public:
    list_writer(plan_state& state, const chain_name& chain, const std::string& acl_counter,
                std::vector<list_entry> entries);

    // Returns 0, needs_all_rules or another errno value.
    [[nodiscard]] u32 run();

  private:
    void describe_entries();
    void choose_runs();
    [[nodiscard]] held_run* add_run(u64 shape);
    [[nodiscard]] bool has_what_it_adds() const;
    // The entry has, and keeps, a rule of its own.
    [[nodiscard]] bool keeps_rule(std::size_t entry) const;
    [[nodiscard]] bool keeps_element(std::size_t entry) const;
    void find_successors();
    [[nodiscard]] u32 fetch_handles();
    [[nodiscard]] bool lacks_handles() const;

    void remove();
    void remove(const held_rule& old, std::size_t entry);
    void add();
    void add_run_rules(std::size_t first);
    void add_rule(std::size_t entry);
    [[nodiscard]] u64 position_of(std::size_t entry) const;
    [[nodiscard]] std::string counter_of(const held_rule& ace) const;

    plan_state& state_;
    const chain_name& chain_;
    const std::string& acl_counter_;
    const std::vector<held_rule>& old_;
    planned_list planned_;
    std::vector<list_entry>& entries_ = planned_.entries;
    std::vector<held_run*>& runs_ = planned_.runs;
    std::vector<std::size_t> entry_of_;            // by place in old_
    std::vector<const kernel_rules*> successors_;  // by entry: the rules that stay, and come next
    std::set<const held_run*> before_;             // the runs of old_
    std::set<const held_run*> after_;              // those that there shall be
    bool keeps_rules_ = false;                     // of whatever kind
};

}  // namespace scc::kernel
