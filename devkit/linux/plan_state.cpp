#include "linux/plan_state.h"

#include <algorithm>
#include <utility>

namespace scc::kernel {

std::vector<held_rule> planned_list::carry_out() {
    std::vector<held_rule> rules;
    rules.reserve(entries.size());
    for (std::size_t entry = 0; entry < entries.size(); ++entry) {
        held_rule& rule = rules.emplace_back(std::move(*entries[entry].rule));
        if (rule.run.get() != runs[entry]) {
            const auto run = std::find_if(
                known_runs.begin(), known_runs.end(),
                [&](const std::shared_ptr<held_run>& known) { return known.get() == runs[entry]; });
            rule.run = run == known_runs.end() ? nullptr : *run;
            rule.rules = rule.run ? kernel_rules() : rule.rules;
        }
    }
    return rules;
}

kernel_rules plan_state::add_rules(const chain_name& chain, const rule_identity& identity,
                                   const std::vector<expressions>& parts, u64 before) {
    kernel_rules added{{}, changes.added_rules(), parts.size()};
    for (std::size_t part = 0; part < parts.size(); ++part) {
        changes.add_rule(chain, before, comment_of(identity, part + 1, parts.size()), parts[part]);
    }
    return added;
}

void plan_state::delete_rules(const chain_name& chain, const kernel_rules& rules) {
    for (std::size_t part = 0; part < rules.handles.size(); ++part) {
        changes.delete_rule(chain, rules.handles[part]);
    }
}

void plan_state::add_maps(const chain_name& chain, const held_run& run, std::size_t key_len, u32 key_type) {
    for (const bool denies : {false, true}) {
        changes.add_map(map_name(chain, run.number, denies), key_len, key_type);
    }
}

void plan_state::delete_maps(const chain_name& chain, const held_run& run) {
    for (const bool denies : {false, true}) {
        changes.delete_map(map_name(chain, run.number, denies));
    }
}

void plan_state::drop_chain(const chain_name& chain) {
    const held_run* before = nullptr;
    for (const held_rule& rule : held.chains.at(chain)) {
        if (rule.run && rule.run.get() != before) {
            delete_maps(chain, *rule.run);
        }
        before = rule.run.get();
    }
    changes.delete_chain(chain);
    gone.push_back(chain);
}

}  // namespace scc::kernel
