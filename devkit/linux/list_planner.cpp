#include "linux/list_planner.h"

#include <algorithm>
#include <iterator>
#include <tuple>
#include <utility>

#include "linux/list_writer.h"

namespace scc::kernel {
namespace {

// The kernel lets chains lead from one to another no further than 16 times, of which the interface takes one.
constexpr std::size_t chains_max = 13;

bool is_ace(const held_rule& rule) {
    return rule.identity && rule.identity->kind == kind_ace;
}

list_entry entry_of(const wanted_rule& rule) {
    auto added = std::make_shared<held_rule>();
    added->identity = rule.identity;
    return {added.get(), added, rule.ace};
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
    return write();
}

chain_name list_planner::chain_number(std::size_t number) const {
    return chain_of_list(first_, static_cast<u32>(number + 1));
}

rule_identity list_planner::link_to(std::size_t number) const {
    return {kind_next, static_cast<u32>(number + 1), 0, 0,
            expressions().go_to(chain_number(number).name).fingerprint()};
}

std::size_t list_planner::rule_count(std::size_t chain) const {
    const auto edited = edited_.find(chain);
    return edited == edited_.end() ? state_.held.chains.at(chains_[chain]).size() : edited->second.size();
}

std::size_t list_planner::ace_count(std::size_t chain) const {
    return rule_count(chain) - (chain + 1 < chains_.size() ? 1 : 0);
}

const held_rule& list_planner::rule_at(const place& at) const {
    const auto edited = edited_.find(at.chain);
    return edited == edited_.end() ? state_.held.chains.at(chains_[at.chain])[at.index]
                                   : *edited->second[at.index].rule;
}

// Whether only ACEs' rules and the links between the chains are there, as they should be.
bool list_planner::is_in_order() const {
    u32 before = 0;
    for (std::size_t chain = 0; chain < chains_.size(); ++chain) {
        const std::size_t count = rule_count(chain);
        const bool is_last = chain + 1 == chains_.size();
        if (chains_[chain] != chain_number(chain) ||
            (!is_last && (count == 0 || rule_at({chain, count - 1}).identity != link_to(chain + 1)))) {
            return false;
        }
        for (std::size_t index = 0; index < ace_count(chain); ++index) {
            const held_rule& rule = rule_at({chain, index});
            if (!is_ace(rule) || rule.identity->first < before) {
                return false;
            }
            before = rule.identity->first;
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
        const u32 last = rule_at({chain, ace_count(chain) - 1}).identity->first;
        const auto after =
            std::upper_bound(next, wanted_.rules.end(), last,
                             [](u32 sn, const wanted_rule& rule) { return sn < rule.identity.first; });
        if (static_cast<std::size_t>(after - next) > 2 * state_.limits.chain) {
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
            kept += wanted.count(key_of(*rule_at({chain, index}).identity));
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
            numbers.insert(rule_at({chain, index}).identity->first);
        }
    }
    return numbers;
}

list_planner::place list_planner::first_from(u32 sn) const {
    place at;
    for (at.chain = 0;; ++at.chain) {
        const std::size_t count = ace_count(at.chain);
        std::size_t end = count;
        for (at.index = 0; at.index < end;) {
            const std::size_t middle = at.index + (end - at.index) / 2;
            if (rule_at({at.chain, middle}).identity->first < sn) {
                at.index = middle + 1;
            } else {
                end = middle;
            }
        }
        if (at.index < count || at.chain + 1 == chains_.size()) {
            return at;
        }
    }
}

std::vector<list_planner::place> list_planner::group_at(place first, u32 sn) const {
    std::vector<place> group;
    for (place at = first; at.chain < chains_.size(); at = {at.chain + 1, 0}) {
        for (; at.index < ace_count(at.chain); ++at.index) {
            if (rule_at(at).identity->first != sn) {
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
        return rule_at(held).identity == wanted.identity;
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
        erase(*std::prev(doomed));
    }
    for (; first != last; ++first) {
        const u32 error = insert(at, *first);
        if (error != 0) {
            return error;
        }
    }
    return 0;
}

std::vector<list_entry>& list_planner::edit(std::size_t chain) {
    const auto [edited, is_new] = edited_.try_emplace(chain);
    if (is_new) {
        std::vector<held_rule>& held = state_.held.chains.at(chains_[chain]);
        edited->second.reserve(held.size() + 1);
        for (held_rule& rule : held) {
            edited->second.push_back({&rule, nullptr, nullptr});
        }
    }
    return edited->second;
}

void list_planner::erase(const place& at) {
    std::vector<list_entry>& entries = edit(at.chain);
    entries.erase(entries.begin() + static_cast<std::ptrdiff_t>(at.index));
}

u32 list_planner::insert(place& at, const wanted_rule& rule) {
    const bool is_last_chain = at.chain + 1 == chains_.size();
    const bool is_at_end = is_last_chain && at.index == ace_count(at.chain);
    if (chains_.size() < chains_max && is_at_end && at.index >= state_.limits.chain) {
        add_chain();
        at = {at.chain + 1, 0};
    } else if (wanted_.touched && chains_.size() < chains_max &&
               ace_count(at.chain) >= 2 * state_.limits.chain) {
        return needs_all_rules;
    }
    std::vector<list_entry>& entries = edit(at.chain);
    entries.insert(entries.begin() + static_cast<std::ptrdiff_t>(at.index), entry_of(rule));
    ++at.index;
    return 0;
}

// After the last one, which leads to it from now on.
void list_planner::add_chain() {
    const chain_name next = chain_number(chains_.size());
    edit(chains_.size() - 1).push_back(entry_of({link_to(chains_.size()), nullptr, {}}));
    if (!state_.held.chains.contains(next)) {
        state_.changes.add_chain(next, {});
    }
    edited_[chains_.size()] = {};
    chains_.push_back(next);
}

// Writes all chains.
u32 list_planner::rebuild() {
    if (wanted_.touched) {
        return needs_all_rules;
    }
    const std::vector<chain_name> before = std::exchange(chains_, {first_});
    const std::size_t per_chain =
        std::max(state_.limits.chain, (wanted_.rules.size() + chains_max - 1) / chains_max);
    if (!state_.held.chains.contains(first_)) {
        state_.changes.add_chain(first_, {});
    }
    edited_[0] = {};
    for (const wanted_rule& rule : wanted_.rules) {
        if (edited_.rbegin()->second.size() == per_chain) {
            add_chain();
        }
        edited_.rbegin()->second.push_back(entry_of(rule));
    }
    drop_rest(before);
    return write();
}

void list_planner::drop_rest(const std::vector<chain_name>& before) {
    for (const chain_name& chain : before) {
        if (std::find(chains_.begin(), chains_.end(), chain) != chains_.end()) {
            continue;
        }
        for (const held_rule& rule : state_.held.chains.at(chain)) {
            if (is_ace(rule)) {
                state_.unneeded.insert(
                    ace_counter(wanted_.counter, rule.identity->second, rule.identity->third));
            }
        }
        state_.changes.flush_chain(chain);
        state_.drop_chain(chain);
    }
}

// The ACEs of the edited chains, if all of the list are there.
void list_planner::bring_aces() {
    if (wanted_.touched) {
        return;
    }
    auto next = wanted_.rules.begin();
    for (std::size_t chain = 0; chain < chains_.size(); ++chain) {
        const std::size_t count = ace_count(chain);
        const auto edited = edited_.find(chain);
        for (std::size_t index = 0; edited != edited_.end() && index < count; ++index) {
            edited->second[index].ace = next[static_cast<std::ptrdiff_t>(index)].ace;
        }
        next += static_cast<std::ptrdiff_t>(count);
    }
}

u32 list_planner::write() {
    bring_aces();
    for (auto& [chain, entries] : edited_) {
        const u32 error = list_writer(state_, chains_[chain], wanted_.counter, std::move(entries)).run();
        if (error != 0) {
            return error;
        }
    }
    return 0;
}

}  // namespace scc::kernel
