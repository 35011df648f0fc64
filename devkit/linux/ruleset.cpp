#include "linux/ruleset.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "linux/list_planner.h"

namespace scc::kernel {
namespace {

class planner {
  public:
    planner(held_tables& held, const handle_fetcher& handles, const list_limits& limits)
        : held_(held), state_{held, handles, limits, {}, {}, {}, {}, {}, {}} {}

    u32 run(const change_request& request) {
        for (const family in : families) {
            if (!held_.tables.contains(in)) {
                state_.changes.add_table(in);
            }
        }
        for (const auto& [name, chain] : request.chains) {
            const u32 error = chain ? take(name, *chain) : drop(name);
            if (error != 0) {
                return error;
            }
        }
        for (const std::string& name : held_.stray_maps) {
            state_.changes.delete_map(name);
        }
        state_.needed.insert(request.counters_added.begin(), request.counters_added.end());
        state_.unneeded.insert(request.counters_deleted.begin(), request.counters_deleted.end());
        for (const std::string& name : state_.needed) {
            if (!held_.counters.contains(name)) {
                state_.changes.add_counter(name);
                added_.push_back(name);
            }
        }
        for (const std::string& name : state_.unneeded) {
            if (held_.counters.contains(name) && !state_.needed.contains(name)) {
                state_.changes.delete_counter(name);
                deleted_.push_back(name);
            }
        }
        return 0;
    }

    [[nodiscard]] batch changes() { return std::move(state_.changes); }

    [[nodiscard]] std::function<void(held_tables&, const std::vector<u64>&)> completion() {
        return [chains = std::move(state_.after), lists = std::move(state_.lists),
                gone = std::move(state_.gone), added = std::move(added_),
                deleted = std::move(deleted_)](held_tables& held, const std::vector<u64>& handles) mutable {
            for (auto& [name, list] : lists) {
                chains[name] = list.carry_out();
            }
            for (auto& [name, rules] : chains) {
                for (held_rule& rule : rules) {
                    (rule.run ? rule.run->rules : rule.rules).take_handles(handles);
                }
                held.chains[name] = std::move(rules);
            }
            for (const chain_name& name : gone) {
                held.chains.erase(name);
            }
            held.stray_maps.clear();
            held.tables.insert(std::begin(families), std::end(families));
            held.counters.insert(added.begin(), added.end());
            for (const std::string& name : deleted) {
                held.counters.erase(name);
            }
        };
    }

  private:
    u32 drop(const chain_name& name) {
        if (held_.chains.contains(name)) {
            state_.changes.flush_chain(name);
            state_.drop_chain(name);
            drop_counters(name);
        }
        return 0;
    }

    // An ACL's chain takes its counters with it.
    void drop_counters(const chain_name& name) {
        if (!name.name.starts_with(acl_prefix)) {
            return;
        }
        const std::string acl = name.name.substr(acl_prefix.size());
        for (auto at = held_.counters.lower_bound(acl); at != held_.counters.end() && at->starts_with(acl);
             ++at) {
            if (at->size() == acl.size() || (*at)[acl.size()] == '-') {
                state_.unneeded.insert(*at);
            }
        }
    }

    u32 take(const chain_name& name, const wanted_chain& wanted) {
        if (name.name.starts_with(acl_prefix)) {
            return list_planner(state_, name, wanted).run();
        }
        const auto held = held_.chains.find(name);
        if (held == held_.chains.end()) {
            state_.changes.add_chain(name, wanted.hook);
            return rewrite(name, {}, wanted, 0, 0);
        }
        const std::size_t shorter = std::min(held->second.size(), wanted.rules.size());
        std::size_t same_before = 0;
        while (same_before < shorter && is_same(held->second[same_before], wanted.rules[same_before])) {
            ++same_before;
        }
        std::size_t same_after = 0;
        while (same_after < shorter - same_before &&
               is_same(*(held->second.rbegin() + static_cast<std::ptrdiff_t>(same_after)),
                       *(wanted.rules.rbegin() + static_cast<std::ptrdiff_t>(same_after)))) {
            ++same_after;
        }
        return rewrite(name, held->second, wanted, same_before, same_after);
    }

    static bool is_same(const held_rule& held, const wanted_rule& wanted) {
        return held.identity == wanted.identity;
    }

    // Replaces what lies between the first same_before and the last same_after rules.
    u32 rewrite(const chain_name& name, const std::vector<held_rule>& held, const wanted_chain& chain,
                std::size_t same_before, std::size_t same_after) {
        const std::vector<wanted_rule>& wanted = chain.rules;
        const std::size_t old_end = held.size() - same_after;
        const std::size_t new_end = wanted.size() - same_after;
        if (old_end == same_before && new_end == same_before) {
            if (held.empty()) {
                state_.after[name] = {};
            }
            return 0;
        }
        const bool all_old = same_before == 0 && same_after == 0;
        if (all_old && !held.empty()) {
            state_.changes.flush_chain(name);
        }
        // The handle of the first rule that stays after the new ones.
        const bool before_another = new_end > same_before && same_after > 0;
        if ((!all_old && old_end > same_before) || before_another) {
            const u32 error = fetch_if_missing(name, held, same_before, old_end + (before_another ? 1 : 0));
            if (error != 0) {
                return error;
            }
        }
        const std::vector<held_rule>& known = held.empty() ? held : held_.chains.at(name);
        std::vector<held_rule> after(known.begin(), known.begin() + static_cast<std::ptrdiff_t>(same_before));
        for (std::size_t i = same_before; i < old_end; ++i) {
            if (!all_old) {
                state_.delete_rules(name, known[i].rules);
            }
        }
        for (std::size_t i = same_before; i < new_end; ++i) {
            const u64 before = before_another ? known[old_end].rules.handles.front() : 0;
            held_rule& added = after.emplace_back();
            added.identity = wanted[i].identity;
            added.rules = state_.add_rules(name, wanted[i].identity, {wanted[i].what}, before);
        }
        after.insert(after.end(), known.begin() + static_cast<std::ptrdiff_t>(old_end), known.end());
        state_.after[name] = std::move(after);
        return 0;
    }

    u32 fetch_if_missing(const chain_name& name, const std::vector<held_rule>& held, std::size_t begin,
                         std::size_t end) {
        const bool missing = std::any_of(held.begin() + static_cast<std::ptrdiff_t>(begin),
                                         held.begin() + static_cast<std::ptrdiff_t>(end),
                                         [](const held_rule& rule) { return rule.rules.handles.empty(); });
        return missing ? state_.handles(name) : 0;
    }

    const held_tables& held_;
    plan_state state_;
    std::vector<std::string> added_;
    std::vector<std::string> deleted_;
};

}  // namespace

u32 plan(const change_request& request, held_tables& held, const handle_fetcher& handles, transaction& out) {
    planner work(held, handles, request.limits);
    const u32 error = work.run(request);
    if (error == 0) {
        out.changes = work.changes();
        out.done = work.completion();
    }
    return error;
}

}  // namespace scc::kernel
