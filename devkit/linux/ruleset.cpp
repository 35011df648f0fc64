#include "linux/ruleset.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <iterator>
#include <memory>
#include <utility>

#include "linux/list_planner.h"
#include "linux/rule_expressions.h"

namespace scc::kernel {
namespace {

// Changes with the rules that the service makes of the same operation, so that those of an earlier version
// are replaced.
constexpr char comment_version = '2';

class planner {
  public:
    planner(const held_tables& held, const handle_fetcher& handles, std::size_t list_chain)
        : held_(held), state_{held, handles, list_chain, {}, {}, {}, {}, {}} {}

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
        return [chains = std::move(state_.after), gone = std::move(state_.gone), added = std::move(added_),
                deleted = std::move(deleted_)](held_tables& held, const std::vector<u64>& handles) mutable {
            for (auto& [name, rules] : chains) {
                for (held_rule& rule : rules) {
                    take_handles(rule, handles);
                }
                held.chains[name] = std::move(rules);
            }
            for (const chain_name& name : gone) {
                held.chains.erase(name);
            }
            held.tables.insert(std::begin(families), std::end(families));
            held.counters.insert(added.begin(), added.end());
            for (const std::string& name : deleted) {
                held.counters.erase(name);
            }
        };
    }

  private:
    static void take_handles(held_rule& rule, const std::vector<u64>& handles) {
        if (rule.added_parts != 0 && rule.added_after + rule.added_parts <= handles.size()) {
            for (std::size_t part = 0; part < rule.added_parts; ++part) {
                rule.handles.push_back(handles[rule.added_after + part]);
            }
        }
        rule.added_parts = 0;
    }

    u32 drop(const chain_name& name) {
        if (held_.chains.contains(name)) {
            state_.changes.flush_chain(name);
            state_.changes.delete_chain(name);
            state_.gone.push_back(name);
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
                delete_rule(name, known[i]);
            }
        }
        for (std::size_t i = same_before; i < new_end; ++i) {
            after.push_back(
                state_.add_rule(name, {}, wanted[i], before_another ? known[old_end].handles.front() : 0));
        }
        after.insert(after.end(), known.begin() + static_cast<std::ptrdiff_t>(old_end), known.end());
        state_.after[name] = std::move(after);
        return 0;
    }

    u32 fetch_if_missing(const chain_name& name, const std::vector<held_rule>& held, std::size_t begin,
                         std::size_t end) {
        const bool missing = std::any_of(held.begin() + static_cast<std::ptrdiff_t>(begin),
                                         held.begin() + static_cast<std::ptrdiff_t>(end),
                                         [](const held_rule& rule) { return rule.handles.empty(); });
        return missing ? state_.handles(name) : 0;
    }

    void delete_rule(const chain_name& name, const held_rule& rule) {
        for (std::size_t part = 0; part < rule.handles.size(); ++part) {
            state_.changes.delete_rule(name, rule.handles[part]);
        }
    }

    const held_tables& held_;
    plan_state state_;
    std::vector<std::string> added_;
    std::vector<std::string> deleted_;
};

template <class Number>
bool take_number(std::string_view& text, Number& number, int base) {
    const auto [end, problem] = std::from_chars(text.data(), text.data() + text.size(), number, base);
    if (problem != std::errc()) {
        return false;
    }
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    return true;
}

bool take_char(std::string_view& text, char wanted) {
    if (text.empty() || text.front() != wanted) {
        return false;
    }
    text.remove_prefix(1);
    return true;
}

}  // namespace

std::string comment_of(const rule_identity& identity, std::size_t part, std::size_t parts) {
    return fmt::format("{}{} {} {} {} {:016x} {}/{}", identity.kind, comment_version, identity.first,
                       identity.second, identity.third, identity.fingerprint, part, parts);
}

std::optional<comment_fields> parse_comment(std::string_view comment) {
    comment_fields fields;
    if (comment.empty()) {
        return std::nullopt;
    }
    fields.identity.kind = comment.front();
    comment.remove_prefix(1);
    const bool whole = take_char(comment, comment_version) && take_char(comment, ' ') &&
                       take_number(comment, fields.identity.first, 10) && take_char(comment, ' ') &&
                       take_number(comment, fields.identity.second, 10) && take_char(comment, ' ') &&
                       take_number(comment, fields.identity.third, 10) && take_char(comment, ' ') &&
                       take_number(comment, fields.identity.fingerprint, 16) && take_char(comment, ' ') &&
                       take_number(comment, fields.part, 10) && take_char(comment, '/') &&
                       take_number(comment, fields.parts, 10) && comment.empty();
    return whole ? std::optional(fields) : std::nullopt;
}

std::string ace_counter(std::string_view acl_counter, u32 ace_id, u32 number) {
    return fmt::format("{}-{}.{}", acl_counter, ace_id, number);
}

chain_name first_of_list(const chain_name& chain) {
    return {chain.in, chain.name.substr(0, chain.name.find(list_separator))};
}

held_rule plan_state::add_rule(const chain_name& chain, const std::string& acl_counter,
                               const wanted_rule& rule, u64 before) {
    std::vector<expressions> parts = rule.ace == nullptr ? std::vector{rule.what} : conditions_of(*rule.ace);
    if (rule.ace != nullptr) {
        const std::string counter = ace_counter(acl_counter, rule.identity.second, rule.identity.third);
        needed.insert(counter);
        for (expressions& what : parts) {
            what.count_in(acl_counter).count_in(counter);
            rule.ace->denies() ? what.drop() : what.leave_chain();
        }
    }
    held_rule added{rule.identity, {}, changes.added_rules(), parts.size()};
    for (std::size_t part = 0; part < parts.size(); ++part) {
        changes.add_rule(chain, before, comment_of(rule.identity, part + 1, parts.size()), parts[part]);
    }
    return added;
}

std::vector<held_rule> group(const std::vector<kernel_rule>& rules) {
    std::vector<held_rule> groups;
    std::size_t next_part = 1;  // of the last group
    std::size_t parts = 0;
    for (const kernel_rule& rule : rules) {
        const auto fields = parse_comment(rule.comment);
        const bool continues = fields && next_part > 1 && groups.back().identity == fields->identity &&
                               fields->part == next_part && fields->parts == parts;
        // A group that breaks off is not the rule that it was made for.
        if (!continues && next_part > 1) {
            groups.back().identity.reset();
        }
        if (continues) {
            groups.back().handles.push_back(rule.handle);
        } else {
            const bool begins = fields && fields->part == 1 && fields->parts >= 1;
            groups.push_back({begins ? std::optional(fields->identity) : std::nullopt, {}, 0, 0});
            groups.back().handles.push_back(rule.handle);
            parts = begins ? fields->parts : 1;
            next_part = 1;
        }
        next_part = next_part == parts ? 1 : next_part + 1;
    }
    if (next_part > 1) {
        groups.back().identity.reset();
    }
    return groups;
}

u32 plan(const change_request& request, held_tables& held, const handle_fetcher& handles, transaction& out) {
    planner work(held, handles, request.list_chain);
    const u32 error = work.run(request);
    if (error == 0) {
        out.changes = work.changes();
        out.done = work.completion();
    }
    return error;
}

}  // namespace scc::kernel
