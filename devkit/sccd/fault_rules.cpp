#include "sccd/fault_rules.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <limits>
#include <stdexcept>

#include "common/messages.h"
#include "sccd/json_file.h"

namespace scc::sccd {
namespace {

using word_list = std::vector<std::string_view>;

constexpr u32 call_id_bytes = 4;
constexpr u32 time_max_ms = 3'600'000;

// The fields of an action beside those of every rule.
struct action_row {
    std::string_view name;
    fault_action action{};
    bool has_time = false;
    bool has_result = false;
    bool has_bytes = false;
};

constexpr std::array actions{
    action_row{"refuse", fault_action::refuse, false, true},
    action_row{"mute", fault_action::mute},
    action_row{"delay", fault_action::delay, true},
    action_row{"twice", fault_action::twice},
    action_row{"late", fault_action::late},
    action_row{"wrong-type", fault_action::wrong_type},
    action_row{"short-value", fault_action::short_value, false, false, true},
    action_row{"half-message", fault_action::half_message, true},
    action_row{"disconnect", fault_action::disconnect},
    action_row{"stop-reading", fault_action::stop_reading, true},
    action_row{"restart", fault_action::restart, true},
};

const action_row& row_of(fault_action action) {
    return *std::find_if(actions.begin(), actions.end(),
                         [action](const action_row& row) { return row.action == action; });
}

std::string name_of(u16 type) {
    const devkit::message_type* const message = devkit::find_message(devkit::message_route::request, type);
    return message == nullptr ? fmt::format("{}", type) : std::string(message->name);
}

// A request by its name or number; 0 for one that does not exist.
u16 type_of(json_fields& fields, const json& object) {
    const auto given = object.find("request");
    const std::optional<u64> number = given == object.end() ? std::nullopt : json_fields::as_number(*given);
    const std::string name = number ? std::string() : fields.text("request");
    for (const devkit::message_type& each : devkit::message_types()) {
        const bool matches = number ? each.number == *number : each.name == name;
        if (each.route == devkit::message_route::request && matches) {
            return each.number;
        }
    }
    fields.refuse("request", "there is no such request");
    return 0;
}

u32 positive(json_fields& fields, std::string_view name) {
    return static_cast<u32>(fields.number_within(name, 1, 1, std::numeric_limits<u32>::max()));
}

word_list fields_of(const action_row& row) {
    word_list known{"action", "request", "app", "pid", "nth", "every", "count"};
    if (row.has_time) {
        known.emplace_back("ms");
    }
    if (row.has_result) {
        known.emplace_back("result");
    }
    if (row.has_bytes) {
        known.emplace_back("bytes");
    }
    return known;
}

void read_effect(const action_row& row, json_fields& fields, fault_effect& effect) {
    effect.action = row.action;
    const bool needs_time = row.has_time && row.action != fault_action::half_message;
    if (needs_time && !fields.has("ms")) {
        fields.refuse("ms", "missing");
    }
    effect.time = std::chrono::milliseconds(fields.number_within("ms", 0, needs_time ? 1 : 0, time_max_ms));
    if (row.has_result && !fields.has("result")) {
        fields.refuse("result", "missing");
    }
    constexpr u64 result_max = std::numeric_limits<u32>::max();
    effect.result = static_cast<u32>(fields.number_within("result", 0, row.has_result ? 1 : 0, result_max));
    effect.bytes = fields.number32("bytes", call_id_bytes);
}

}  // namespace

u64 fault_rules::add(fault_rule rule) {
    rule.id = ++last_id_;
    rules_.push_back(rule);
    return rule.id;
}

bool fault_rules::drop(u64 id) {
    return std::erase_if(rules_, [id](const fault_rule& rule) { return rule.id == id; }) != 0;
}

void fault_rules::drop_all(fault_action action, u16 type) {
    std::erase_if(rules_, [=](const fault_rule& rule) {
        return rule.effect.action == action && (type == 0 || rule.type == type);
    });
}

void fault_rules::replace(const fault_rule& rule) {
    drop_all(rule.effect.action, rule.type);
    add(rule);
}

std::optional<fault_effect> fault_rules::take(u16 type, u32 app, u32 pid) {
    std::optional<fault_effect> taken;
    for (auto rule = rules_.begin(); rule != rules_.end();) {
        const auto here = rule++;
        const bool of_type = here->type == 0 ? type != msg::registration : here->type == type;
        const bool matches =
            of_type && (here->app == 0 || here->app == app) && (here->pid == 0 || here->pid == pid);
        if (!matches) {
            continue;
        }
        ++here->seen;
        const bool hit = here->seen >= here->nth && (here->seen - here->nth) % here->every == 0;
        if (!hit || taken) {
            continue;
        }
        taken = here->effect;
        ++here->hits;
        if (here->hits == here->count) {
            rules_.erase(here);
        }
    }
    return taken;
}

json fault_rules::show() const {
    json list = json::array();
    for (const fault_rule& rule : rules_) {
        const action_row& row = row_of(rule.effect.action);
        json shown = {{"id", rule.id}, {"action", row.name}};
        if (rule.type != 0) {
            shown["request"] = name_of(rule.type);
        }
        if (rule.app != 0) {
            shown["app"] = rule.app;
        }
        if (rule.pid != 0) {
            shown["pid"] = rule.pid;
        }
        if (row.has_time) {
            shown["ms"] = rule.effect.time.count();
        }
        if (row.has_result) {
            shown["result"] = rule.effect.result;
        }
        if (row.has_bytes) {
            shown["bytes"] = rule.effect.bytes;
        }
        shown.update({{"nth", rule.nth},
                      {"every", rule.every},
                      {"count", rule.count},
                      {"seen", rule.seen},
                      {"hits", rule.hits}});
        list.push_back(std::move(shown));
    }
    return list;
}

std::string read_fault(const json& object, const word_list& own_words, fault_rule& rule) {
    json_fields fields(object);
    const std::string action = fields.text("action");
    const auto row = std::find_if(actions.begin(), actions.end(),
                                  [&action](const action_row& each) { return each.name == action; });
    if (row == actions.end()) {
        word_list names;
        std::transform(actions.begin(), actions.end(), std::back_inserter(names),
                       [](const action_row& each) { return each.name; });
        return fmt::format("no action '{}'; there are {}", action, fmt::join(names, ", "));
    }
    if (const std::string unknown = unexpected_field(row->name, object, own_words, fields_of(*row));
        !unknown.empty()) {
        return unknown;
    }
    read_effect(*row, fields, rule.effect);
    rule.type = fields.has("request") ? type_of(fields, object) : u16{0};
    rule.app = fields.number32("app");
    rule.pid = fields.number32("pid");
    rule.nth = positive(fields, "nth");
    rule.every = positive(fields, "every");
    rule.count = fields.number32("count", 1);
    return fields.problem();
}

void load_scenario(fault_rules& rules, const std::string& path) {
    const auto fail = [&path](const std::string& reason) { throw std::runtime_error(path + ": " + reason); };
    const std::optional<json> scenario = read_json_file(path);
    if (!scenario) {
        fail("no such file");
    }
    if (!scenario->is_object()) {
        fail("not a JSON object");
    }
    json_fields fields(*scenario);
    if (const std::string unknown = unexpected_field("a scenario", *scenario, {}, {"about", "faults"});
        !unknown.empty()) {
        fail(unknown);
    }
    const std::vector<json> faults = fields.list("faults");
    if (!fields.problem().empty() || faults.empty()) {
        fail(fields.problem().empty() ? "faults: missing" : fields.problem());
    }
    std::vector<fault_rule> all(faults.size());
    for (std::size_t index = 0; index < faults.size(); ++index) {
        const std::string problem =
            faults[index].is_object() ? read_fault(faults[index], {}, all[index]) : "not an object";
        if (!problem.empty()) {
            fail(fmt::format("faults[{}]: {}", index, problem));
        }
    }
    for (const fault_rule& rule : all) {
        rules.add(rule);
    }
}

}  // namespace scc::sccd
