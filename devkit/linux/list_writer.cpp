#include "linux/list_writer.h"

#include <algorithm>
#include <utility>

#include "linux/rule_expressions.h"

namespace scc::kernel {
namespace {

constexpr std::size_t no_entry = static_cast<std::size_t>(-1);
const std::vector<held_rule> nothing;

bool is_ace(const held_rule& rule) {
    return rule.identity && rule.identity->kind == kind_ace;
}

// What becomes of the packets that an ACE matches.
expressions& decide(expressions& what, bool denies) {
    return denies ? what.drop() : what.leave_chain();
}

}  // namespace

list_writer::list_writer(plan_state& state, const chain_name& chain, const std::string& acl_counter,
                         std::vector<list_entry> entries)
    : state_(state),
      chain_(chain),
      acl_counter_(acl_counter),
      old_(state.held.chains.contains(chain) ? state.held.chains.at(chain) : nothing),
      planned_{std::move(entries), {}, {}},
      entry_of_(old_.size(), no_entry) {
    for (std::size_t entry = 0; entry < entries_.size(); ++entry) {
        if (!entries_[entry].is_new()) {
            entry_of_[static_cast<std::size_t>(entries_[entry].rule - old_.data())] = entry;
        }
    }
}

u32 list_writer::run() {
    describe_entries();
    choose_runs();
    if (!has_what_it_adds()) {
        return needs_all_rules;
    }
    find_successors();
    const u32 error = fetch_handles();
    if (error == 0) {
        remove();
        add();
        state_.lists[chain_] = std::move(planned_);
    }
    return error;
}

void list_writer::describe_entries() {
    for (const list_entry& entry : entries_) {
        if (entry.ace == nullptr || entry.rule->shape != 0) {
            continue;
        }
        entry.rule->denies = entry.ace->denies();
        if (auto keyed = keyed_conditions_of(*entry.ace)) {
            entry.rule->shape = keyed->shape;
            entry.rule->key = std::move(keyed->key);
        }
    }
}

void list_writer::choose_runs() {
    for (const held_rule& rule : old_) {
        if (rule.run && before_.insert(rule.run.get()).second) {
            planned_.known_runs.push_back(rule.run);
        }
    }
    runs_ = runs_of(entries_, state_.limits.run, [this](u64 shape) { return add_run(shape); });
    after_.insert(runs_.begin(), runs_.end());
    after_.erase(nullptr);
}

held_run* list_writer::add_run(u64 shape) {
    const auto is_taken = [this](u32 number) {
        return std::any_of(planned_.known_runs.begin(), planned_.known_runs.end(),
                           [number](const auto& run) { return run->number == number; }) ||
               state_.held.stray_maps.contains(map_name(chain_, number, true)) ||
               state_.held.stray_maps.contains(map_name(chain_, number, false));
    };
    u32 number = 1;
    while (is_taken(number)) {
        ++number;
    }
    planned_.known_runs.push_back(std::make_shared<held_run>(held_run{number, shape, {}}));
    return planned_.known_runs.back().get();
}

// What was not touched, and yet changes its form, may not be at hand.
bool list_writer::has_what_it_adds() const {
    std::set<const held_run*> can_be_added = before_;
    for (std::size_t entry = 0; entry < entries_.size(); ++entry) {
        const bool is_at_hand = entries_[entry].ace != nullptr || !is_ace(*entries_[entry].rule);
        if (runs_[entry] != nullptr && is_at_hand) {
            can_be_added.insert(runs_[entry]);
        }
        if (runs_[entry] == nullptr && !keeps_rule(entry) && !is_at_hand) {
            return false;
        }
    }
    return std::includes(can_be_added.begin(), can_be_added.end(), after_.begin(), after_.end());
}

bool list_writer::keeps_rule(std::size_t entry) const {
    return !entries_[entry].is_new() && !entries_[entry].rule->run && runs_[entry] == nullptr;
}

bool list_writer::keeps_element(std::size_t entry) const {
    return !entries_[entry].is_new() && runs_[entry] != nullptr &&
           entries_[entry].rule->run.get() == runs_[entry];
}

void list_writer::find_successors() {
    successors_.resize(entries_.size());
    const kernel_rules* next = nullptr;
    for (std::size_t entry = entries_.size(); entry-- > 0;) {
        successors_[entry] = next;
        if (keeps_rule(entry)) {
            next = &entries_[entry].rule->rules;
        } else if (runs_[entry] != nullptr && before_.contains(runs_[entry])) {
            next = &runs_[entry]->rules;
        }
    }
    keeps_rules_ = next != nullptr;
}

bool list_writer::lacks_handles() const {
    for (std::size_t at = 0; keeps_rules_ && at < old_.size(); ++at) {
        const held_rule& rule = old_[at];
        const bool stays = rule.run ? after_.contains(rule.run.get())
                                    : entry_of_[at] != no_entry && keeps_rule(entry_of_[at]);
        if (!stays && (rule.run ? rule.run->rules : rule.rules).handles.empty()) {
            return true;
        }
    }
    for (std::size_t entry = 0; entry < entries_.size(); ++entry) {
        const bool adds = runs_[entry] != nullptr ? !before_.contains(runs_[entry]) : !keeps_rule(entry);
        if (adds && successors_[entry] != nullptr && successors_[entry]->handles.empty()) {
            return true;
        }
    }
    return false;
}

u32 list_writer::fetch_handles() {
    if (!lacks_handles()) {
        return 0;
    }
    const u32 error = state_.handles(chain_);
    if (error != 0) {
        return error;
    }
    return lacks_handles() ? ESTALE : 0;
}

void list_writer::remove() {
    if (!keeps_rules_ && !old_.empty()) {
        state_.changes.flush_chain(chain_);
    }
    for (std::size_t at = 0; at < old_.size(); ++at) {
        remove(old_[at], entry_of_[at]);
    }
    for (const held_run* run : before_) {
        if (after_.contains(run)) {
            continue;
        }
        if (keeps_rules_) {
            state_.delete_rules(chain_, run->rules);
        }
        state_.delete_maps(chain_, *run);
    }
}

void list_writer::remove(const held_rule& old, std::size_t entry) {
    const bool goes = entry == no_entry;
    if (old.run) {
        // The maps of a run that ends go as a whole.
        if (after_.contains(old.run.get()) && (goes || !keeps_element(entry))) {
            state_.changes.delete_element(map_name(chain_, old.run->number, old.denies), old.key);
        }
    } else if (keeps_rules_ && (goes || !keeps_rule(entry))) {
        state_.delete_rules(chain_, old.rules);
    }
    if (goes && is_ace(old)) {
        state_.unneeded.insert(counter_of(old));
    }
}

void list_writer::add() {
    std::set<const held_run*> known = before_;
    for (std::size_t entry = 0; entry < entries_.size(); ++entry) {
        const held_rule& rule = *entries_[entry].rule;
        if (entries_[entry].is_new() && is_ace(rule)) {
            state_.needed.insert(counter_of(rule));
        }
        if (keeps_rule(entry) || keeps_element(entry)) {
            continue;
        }
        if (runs_[entry] == nullptr) {
            add_rule(entry);
            continue;
        }
        if (known.insert(runs_[entry]).second) {
            add_run_rules(entry);
        }
        state_.changes.add_element(map_name(chain_, runs_[entry]->number, rule.denies), rule.key,
                                   counter_of(rule), comment_of(*rule.identity, 1, 1));
    }
}

// One rule for each form of the packets and each verdict. Every form has the same key.
void list_writer::add_run_rules(std::size_t first) {
    held_run& run = *runs_[first];
    const auto with_ace = std::find_if(entries_.begin() + static_cast<std::ptrdiff_t>(first), entries_.end(),
                                       [](const list_entry& entry) { return entry.ace != nullptr; });
    const auto keyed = keyed_conditions_of(*with_ace->ace);
    state_.add_maps(chain_, run, keyed->key.size(), keyed->key_type);
    std::vector<expressions> parts;
    for (const bool denies : {true, false}) {
        for (expressions what : keyed->loads) {
            what.count_in_map(map_name(chain_, run.number, denies)).count_in(acl_counter_);
            parts.push_back(decide(what, denies));
        }
    }
    run.rules = state_.add_rules(chain_, {kind_run, run.number, 0, 0, run.shape}, parts, position_of(first));
}

void list_writer::add_rule(std::size_t entry) {
    held_rule& rule = *entries_[entry].rule;
    std::vector<expressions> parts;
    if (is_ace(rule)) {
        parts = conditions_of(*entries_[entry].ace);
        for (expressions& what : parts) {
            decide(what.count_in(acl_counter_).count_in(counter_of(rule)), rule.denies);
        }
    } else {
        const chain_name next = chain_of_list(first_of_list(chain_), rule.identity->first);
        parts.push_back(expressions().go_to(next.name));
    }
    rule.rules = state_.add_rules(chain_, *rule.identity, parts, position_of(entry));
}

u64 list_writer::position_of(std::size_t entry) const {
    return successors_[entry] == nullptr ? 0 : successors_[entry]->handles.front();
}

std::string list_writer::counter_of(const held_rule& ace) const {
    return ace_counter(acl_counter_, ace.identity->second, ace.identity->third);
}

}  // namespace scc::kernel
