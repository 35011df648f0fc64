#include "linux/held_tables.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <set>
#include <utility>

namespace scc::kernel {
namespace {

// Changes with the rules that the service makes of the same operation, so that those of an earlier version
// are replaced.
constexpr char comment_version = '2';

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

bool is_run(const held_rule& rule) {
    return rule.identity && rule.identity->kind == kind_run;
}

// Appends the ACEs of a map; false if one of its elements is something else.
bool take_elements(const std::vector<kernel_element>& elements, bool denies,
                   const std::shared_ptr<held_run>& run, std::vector<held_rule>& aces) {
    for (const kernel_element& element : elements) {
        const auto fields = parse_comment(element.comment);
        if (!fields || fields->identity.kind != kind_ace) {
            return false;
        }
        aces.push_back({fields->identity, {}, run->shape, element.key, denies, run});
    }
    return true;
}

// The ACEs of a run in their order; none if its maps are not as they should be.
std::vector<held_rule> aces_of(const chain_name& chain, const held_rule& rule, kernel_maps& maps) {
    const auto run =
        std::make_shared<held_run>(held_run{rule.identity->first, rule.identity->fingerprint, rule.rules});
    std::vector<held_rule> aces;
    for (const bool denies : {false, true}) {
        const auto map = maps.find(map_name(chain, run->number, denies));
        if (map == maps.end() || !take_elements(map->second, denies, run, aces)) {
            return {};
        }
    }
    const auto number_of = [](const held_rule& ace) { return ace.identity->first; };
    std::sort(aces.begin(), aces.end(),
              [&](const held_rule& a, const held_rule& b) { return number_of(a) < number_of(b); });
    const auto same = std::adjacent_find(
        aces.begin(), aces.end(),
        [&](const held_rule& a, const held_rule& b) { return number_of(a) == number_of(b); });
    if (aces.empty() || same != aces.end()) {
        return {};
    }
    for (const bool denies : {false, true}) {
        maps.erase(map_name(chain, run->number, denies));
    }
    return aces;
}

}  // namespace

bool is_repetitive(const std::vector<kernel_element>& elements) {
    std::set<std::string_view> keys;
    return std::any_of(elements.begin(), elements.end(),
                       [&](const kernel_element& element) { return !keys.insert(element.key).second; });
}

chain_name first_of_list(const chain_name& chain) {
    return {chain.in, chain.name.substr(0, chain.name.find(list_separator))};
}

chain_name chain_of_list(const chain_name& first, u32 number) {
    return number == 1 ? first
                       : chain_name{first.in, fmt::format("{}{}{:02}", first.name, list_separator, number)};
}

std::string ace_counter(std::string_view acl_counter, u32 ace_id, u32 number) {
    return fmt::format("{}-{}.{}", acl_counter, ace_id, number);
}

std::string map_name(const chain_name& chain, u32 run, bool denies) {
    return fmt::format("{}-{}-{}", chain.name, denies ? "deny" : "permit", run);
}

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

void kernel_rules::take_handles(const std::vector<u64>& added) {
    if (added_parts != 0 && added_after + added_parts <= added.size()) {
        for (std::size_t part = 0; part < added_parts; ++part) {
            handles.push_back(added[added_after + part]);
        }
    }
    added_parts = 0;
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
            groups.back().rules.handles.push_back(rule.handle);
        } else {
            const bool begins = fields && fields->part == 1 && fields->parts >= 1;
            held_rule& begun = groups.emplace_back();
            if (begins) {
                begun.identity = fields->identity;
            }
            begun.rules.handles.push_back(rule.handle);
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

void expand_runs(const chain_name& chain, std::vector<held_rule>& rules, kernel_maps& maps) {
    if (std::none_of(rules.begin(), rules.end(), is_run)) {
        return;
    }
    std::vector<held_rule> expanded;
    for (held_rule& rule : rules) {
        std::vector<held_rule> aces = is_run(rule) ? aces_of(chain, rule, maps) : std::vector<held_rule>();
        if (is_run(rule)) {
            rule.identity.reset();
        }
        if (aces.empty()) {
            expanded.push_back(std::move(rule));
        } else {
            std::move(aces.begin(), aces.end(), std::back_inserter(expanded));
        }
    }
    rules = std::move(expanded);
}

bool enter_handles(const std::vector<kernel_rule>& rules, std::vector<held_rule>& known) {
    const std::vector<held_rule> found = group(rules);
    std::vector<kernel_rules*> places;
    const held_run* run = nullptr;
    for (held_rule& rule : known) {
        if (rule.run && rule.run.get() == run) {
            continue;
        }
        run = rule.run.get();
        const auto wanted = run == nullptr
                                ? rule.identity
                                : std::optional(rule_identity{kind_run, run->number, 0, 0, run->shape});
        if (places.size() == found.size() || found[places.size()].identity != wanted) {
            return false;
        }
        places.push_back(run == nullptr ? &rule.rules : &rule.run->rules);
    }
    if (places.size() != found.size()) {
        return false;
    }
    for (std::size_t index = 0; index < places.size(); ++index) {
        places[index]->handles = found[index].rules.handles;
    }
    return true;
}

}  // namespace scc::kernel
