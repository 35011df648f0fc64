// Results and replies as text and as JSON.
#include "output.h"

#include <fmt/format.h>

#include <cstdio>

#include "scclib.h"

namespace scc::ctl {
namespace {

void write(std::FILE* to, std::string_view text) {
    std::fwrite(text.data(), 1, text.size(), to);
    std::fputc('\n', to);
    std::fflush(to);
}

std::string one_line(const json& value) {
    return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

json out_json(const out_value& out, std::uint64_t value) {
    if (out.type == value_type::ipv4) return ipv4_of(static_cast<std::uint32_t>(value));
    return value;
}

void add_arguments(json& object, const outcome& shown_outcome) {
    std::size_t scalars = 0;
    for (const argument& each : shown_outcome.row->arguments) {
        json value = shown(each, scalars, shown_outcome.values);
        if (each.record == no_record) ++scalars;
        if (each.given == presence::fixed || value.is_null()) continue;
        object[json_name(each.name)] = std::move(value);
    }
}

void add_outs(json& object, const outcome& shown_outcome) {
    const auto& outs = shown_outcome.row->outs;
    for (std::size_t i = 0; i < outs.size() && i < shown_outcome.values.outs.size(); ++i) {
        // What a failed call wrote is the caller's own zero, but for the call id.
        if (shown_outcome.result != 0 && outs[i].name != "call-id") continue;
        object[json_name(outs[i].name)] = out_json(outs[i], shown_outcome.values.outs[i]);
    }
}

void indent(std::string& text, const json& value, std::size_t depth) {
    const std::string margin(2 * depth, ' ');
    for (const auto& [name, field] : value.items()) {
        const std::string label = value.is_array() ? "-" : name;
        if (field.is_structured() && !field.empty())
            fmt::format_to(std::back_inserter(text), "\n{}{}", margin, label), indent(text, field, depth + 1);
        else
            fmt::format_to(std::back_inserter(text), "\n{}{} {}", margin, label,
                           field.is_string() ? field.get<std::string>() : field.dump());
    }
}

}  // namespace

json outcome_json(const outcome& shown_outcome, const output_options& options) {
    json object = {{"command", shown_outcome.row->name}, {"function", shown_outcome.row->function}};
    if (!shown_outcome.answered) {
        object["error"] = shown_outcome.problem;
        return object;
    }
    object["result"] = shown_outcome.result;
    object["text"] = scc_strerror(static_cast<std::int32_t>(shown_outcome.result));
    add_arguments(object, shown_outcome);
    add_outs(object, shown_outcome);
    for (const auto& [name, value] : shown_outcome.values.more.items()) object[name] = value;
    if (!options.raw) return object;
    json& records = object["records"] = json::array();
    for (const Bytes& each : shown_outcome.values.records) records.push_back(hex_of(each));
    return object;
}

std::string outcome_text(const outcome& shown_outcome, const output_options& options) {
    json object = outcome_json(shown_outcome, options);
    std::string text = fmt::format("{}: {}", shown_outcome.row->name, object["text"].get<std::string>());
    for (const auto* known : {"command", "function", "result", "text"}) object.erase(known);
    indent(text, object, 1);
    return text;
}

void print(const outcome& shown_outcome, const output_options& options) {
    if (options.as_json) return write(stdout, one_line(outcome_json(shown_outcome, options)));
    if (!shown_outcome.answered)
        return print_problem(shown_outcome.row->name, shown_outcome.problem, options);
    if (shown_outcome.result == 0) return write(stdout, outcome_text(shown_outcome, options));
    print_problem(shown_outcome.row->name,
                  fmt::format("{} ({})", scc_strerror(static_cast<std::int32_t>(shown_outcome.result)),
                              shown_outcome.result),
                  options);
}

void print(const json& value, const output_options& options) {
    if (options.as_json) return write(stdout, one_line(value));
    if (!value.is_structured())
        return write(stdout, value.is_string() ? value.get<std::string>() : value.dump());
    std::string text;
    indent(text, value, 0);
    write(stdout, text.empty() ? text : text.substr(1));
}

void print_problem(std::string_view command, std::string_view problem, const output_options& options) {
    if (options.as_json) return write(stdout, one_line({{"command", command}, {"error", problem}}));
    write(stderr, fmt::format("sccctl: {}: {}", command, problem));
}

}  // namespace scc::ctl
