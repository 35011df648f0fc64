#include "linux/list_planner.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <tuple>
#include <utility>

namespace scc::kernel {
namespace {

// The kernel lets chains lead from one to another no further than 16 times, of which the interface takes one.
constexpr std::size_t chains_max = 13;

bool is_ace(const held_rule& rule) {
    return rule.identity && rule.identity->kind == kind_ace;
}

auto key_of(const rule_identity& identity) {
    return std::tuple(identity.first, identity.second, identity.third, identity.fingerprint);
}

}  // namespace

list_planner::list_planner(plan_state& state, const chain_name& first, const wanted_chain& wanted)
    : state_(state), first_(first), wanted_(wanted) {
    for (auto at = state.held.chains.lower_bound(first);
         at != state.held.chains.end() && first_of_list(at->first) == first; ++at) {
        chains_.push_back(at->first);
    }
}

u32 list_planner::run() {
    state_.needed.insert(wanted_.counter);
    if (!state_.held.chains.contains(first_) ||
        (!wanted_.touched && (!is_in_order() || is_uneven() || keeps_little()))) {
        return rebuild();
    }
    const std::set<u32> all = wanted_.touched ? std::set<u32>() : all_numbers();
    auto next = wanted_.rules.begin();
    for (const u32 sn : wanted_.touched ? *wanted_.touched : all) {
        const auto last = std::find_if(next, wanted_.rules.end(),
                                       [sn](const wanted_rule& rule) { return rule.identity.first != sn; });
        const u32 error = change_group(sn, next, last);
        if (error != 0) {
            return error;
        }
        next = last;
    }
    return 0;
}

chain_name list_planner::chain_number(std::size_t number) const {
    return number == 0
               ? first_
               : chain_name{first_.in, fmt::format("{}{}{:02}", first_.name, list_separator, number + 1)};
}

rule_identity list_planner::link_to(std::size_t number) const {
    return {kind_next, static_cast<u32>(number + 1), 0, 0,
            expressions().go_to(chain_number(number).name).fingerprint()};
}

const list_planner::rule_list& list_planner::rules_of(std::size_t chain) const {
    const auto changed = state_.after.find(chains_[chain]);
    return changed == state_.after.end() ? state_.held.chains.at(chains_[chain]) : changed->second;
}

std::size_t list_planner::ace_count(std::size_t chain) const {
    return rules_of(chain).size() - (chain + 1 < chains_.size() ? 1 : 0);
}

// Whether only ACEs' rules and the links between the chains are there, as they should be.
bool list_planner::is_in_order() const {
    u32 before = 0;
    for (std::size_t chain = 0; chain < chains_.size(); ++chain) {
        const rule_list& rules = rules_of(chain);
        const bool is_last = chain + 1 == chains_.size();
        if (chains_[chain] != chain_number(chain) ||
            (!is_last && (rules.empty() || rules.back().identity != link_to(chain + 1)))) {
            return false;
        }
        for (std::size_t index = 0; index < ace_count(chain); ++index) {
            if (!is_ace(rules[index]) || rules[index].identity->first < before) {
                return false;
            }
            before = rules[index].identity->first;
        }
    }
    return true;
}

// Whether one of the chains would become far longer than the others.
bool list_planner::is_uneven() const {
    auto next = wanted_.rules.begin();
    for (std::size_t chain = 0; chain < chains_.size() && chains_.size() < chains_max; ++chain) {
        if (ace_count(chain) == 0) {
            continue;
        }
        const u32 last = rules_of(chain)[ace_count(chain) - 1].identity->first;
        const auto after =
            std::upper_bound(next, wanted_.rules.end(), last,
                             [](u32 sn, const wanted_rule& rule) { return sn < rule.identity.first; });
        if (static_cast<std::size_t>(after - next) > 2 * state_.list_chain) {
            return true;
        }
        next = after;
    }
    return false;
}

// Whether most of the rules change, so that it is cheaper to write them all.
bool list_planner::keeps_little() const {
    std::set<std::tuple<u32, u32, u32, u64>> wanted;
    for (const wanted_rule& rule : wanted_.rules) {
        wanted.insert(key_of(rule.identity));
    }
    std::size_t kept = 0;
    std::size_t all = 0;
    for (std::size_t chain = 0; chain < chains_.size(); ++chain) {
        for (std::size_t index = 0; index < ace_count(chain); ++index, ++all) {
            kept += wanted.count(key_of(*rules_of(chain)[index].identity));
        }
    }
    return kept * 2 < all;
}

std::set<u32> list_planner::all_numbers() const {
    std::set<u32> numbers;
    for (const wanted_rule& rule : wanted_.rules) {
        numbers.insert(numbers.end(), rule.identity.first);
    }
    for (std::size_t chain = 0; chain < chains_.size(); ++chain) {
        for (std::size_t index = 0; index < ace_count(chain); ++index) {
            numbers.insert(rules_of(chain)[index].identity->first);
        }
    }
    return numbers;
}

list_planner::place list_planner::first_from(u32 sn) const {
    place at;
    for (at.chain = 0;; ++at.chain) {
        const rule_list& rules = rules_of(at.chain);
        const std::size_t count = ace_count(at.chain);
        const auto found =
            std::partition_point(rules.begin(), rules.begin() + static_cast<std::ptrdiff_t>(count),
                                 [sn](const held_rule& rule) { return rule.identity->first < sn; });
        at.index = static_cast<std::size_t>(found - rules.begin());
        if (at.index < count || at.chain + 1 == chains_.size()) {
            return at;
        }
    }
}

std::vector<list_planner::place> list_planner::group_at(place first, u32 sn) const {
    std::vector<place> group;
    for (place at = first; at.chain < chains_.size(); at = {at.chain + 1, 0}) {
        for (; at.index < ace_count(at.chain); ++at.index) {
            if (rules_of(at.chain)[at.index].identity->first != sn) {
                return group;
            }
            group.push_back(at);
        }
    }
    return group;
}

u32 list_planner::change_group(u32 sn, wanted_at first, wanted_at last) {
    place at = first_from(sn);
    std::vector<place> old = group_at(at, sn);
    const auto is_same = [this](const place& held, const wanted_rule& wanted) {
        return rules_of(held.chain)[held.index].identity == wanted.identity;
    };
    while (!old.empty() && first != last && is_same(old.back(), *std::prev(last))) {
        at = old.back();
        old.pop_back();
        --last;
    }
    auto kept = old.begin();
    for (; kept != old.end() && first != last && is_same(*kept, *first); ++kept, ++first) {
        at = {kept->chain, kept->index + 1};
    }
    if (kept != old.end()) {
        at = *kept;
    }
    // From the back, so that the other places stay right.
    for (auto doomed = old.end(); doomed != kept; --doomed) {
        const u32 error = erase(*std::prev(doomed));
        if (error != 0) {
            return error;
        }
    }
    for (; first != last; ++first) {
        const u32 error = insert(at, *first);
        if (error != 0) {
            return error;
        }
    }
    return 0;
}

u32 list_planner::edit(std::size_t chain, bool needs_handles, rule_list*& rules) {
    const chain_name& name = chains_[chain];
    const auto changed = state_.after.find(name);
    if (changed != state_.after.end()) {
        rules = &changed->second;
        return 0;
    }
    const rule_list& held = state_.held.chains.at(name);
    if (needs_handles &&
        std::any_of(held.begin(), held.end(), [](const held_rule& rule) { return rule.handles.empty(); })) {
        const u32 error = state_.handles(name);
        if (error != 0) {
            return error;
        }
    }
    rules = &state_.after.emplace(name, held).first->second;
    return 0;
}

void list_planner::forget(const held_rule& rule) {
    if (is_ace(rule)) {
        state_.unneeded.insert(
            ace_counter(first_.name.substr(acl_prefix.size()), rule.identity->second, rule.identity->third));
    }
}

u32 list_planner::erase(place at) {
    rule_list* rules = nullptr;
    const u32 error = edit(at.chain, true, rules);
    if (error != 0) {
        return error;
    }
    const auto rule = rules->begin() + static_cast<std::ptrdiff_t>(at.index);
    if (rule->handles.empty()) {
        return needs_all_rules;
    }
    for (std::size_t part = 0; part < rule->handles.size(); ++part) {
        state_.changes.delete_rule(chains_[at.chain], rule->handles[part]);
    }
    forget(*rule);
    rules->erase(rule);
    return 0;
}

u32 list_planner::insert(place& at, const wanted_rule& rule) {
    const bool is_last_chain = at.chain + 1 == chains_.size();
    const bool is_at_end = is_last_chain && at.index == ace_count(at.chain);
    if (chains_.size() < chains_max && is_at_end && at.index >= state_.list_chain) {
        rule_list* full = nullptr;
        (void)edit(at.chain, false, full);
        add_chain();
        at = {at.chain + 1, 0};
    } else if (wanted_.touched && chains_.size() < chains_max &&
               ace_count(at.chain) >= 2 * state_.list_chain) {
        return needs_all_rules;
    }
    rule_list* rules = nullptr;
    const u32 error = edit(at.chain, at.index < rules_of(at.chain).size(), rules);
    if (error != 0) {
        return error;
    }
    u64 before = 0;
    if (at.index < rules->size()) {
        if ((*rules)[at.index].handles.empty()) {
            return needs_all_rules;
        }
        before = (*rules)[at.index].handles.front();
    }
    rules->insert(rules->begin() + static_cast<std::ptrdiff_t>(at.index),
                  state_.add_rule(chains_[at.chain], wanted_.counter, rule, before));
    ++at.index;
    return 0;
}

// After the last one, which leads to it from now on.
void list_planner::add_chain() {
    const chain_name& last = chains_.back();
    const chain_name next = chain_number(chains_.size());
    const wanted_rule link{link_to(chains_.size()), nullptr, expressions().go_to(next.name)};
    if (!state_.held.chains.contains(next)) {
        state_.changes.add_chain(next, {});
    }
    state_.after.at(last).push_back(state_.add_rule(last, {}, link, 0));
    state_.after[next] = {};
    chains_.push_back(next);
}

// Writes all chains.
u32 list_planner::rebuild() {
    if (wanted_.touched) {
        return needs_all_rules;
    }
    const std::vector<chain_name> before = std::exchange(chains_, {first_});
    const std::size_t per_chain =
        std::max(state_.list_chain, (wanted_.rules.size() + chains_max - 1) / chains_max);
    if (!state_.held.chains.contains(first_)) {
        state_.changes.add_chain(first_, {});
    }
    for (const chain_name& chain : before) {
        for (const held_rule& rule : state_.held.chains.at(chain)) {
            forget(rule);
        }
        state_.changes.flush_chain(chain);
    }
    state_.after[first_] = {};
    for (const wanted_rule& rule : wanted_.rules) {
        if (state_.after.at(chains_.back()).size() == per_chain) {
            add_chain();
        }
        const chain_name& last = chains_.back();
        state_.after.at(last).push_back(state_.add_rule(last, wanted_.counter, rule, 0));
    }
    for (const chain_name& chain : before) {
        if (std::find(chains_.begin(), chains_.end(), chain) == chains_.end()) {
            state_.changes.delete_chain(chain);
            state_.gone.push_back(chain);
        }
    }
    return 0;
}

}  // namespace scc::kernel
