// Prints results and replies as text and as JSON.
#include "output.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <iterator>

#include "common/standard_output.h"
#include "scclib.h"

namespace scc::ctl {
namespace {

void write(std::FILE* to, std::string_view text) {
    const std::string line = std::string(text) + '\n';
    if (to == stdout) {
        devkit::print_output(line);
    } else {
        std::fwrite(line.data(), 1, line.size(), to);
    }
}

// The names of numbers, for readers.
void name_numbers(json& object, const std::vector<argument>& arguments) {
    for (const argument& each : arguments) {
        const auto found = object.find(json_name(each.name));
        if (found == object.end() || !found->is_number_unsigned()) {
            continue;
        }
        const auto number = found->get<std::uint64_t>();
        const std::string_view name = devkit::name_of(each.names, number);
        if (!name.empty()) {
            *found = fmt::format("{} ({})", name, number);
        }
    }
}

std::string one_line(const json& value) {
    return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

json out_json(const out_value& out, std::uint64_t value) {
    if (out.type == value_type::ipv4) {
        return ipv4_of(static_cast<std::uint32_t>(value));
    }
    return value;
}

void add_arguments(json& object, const outcome& shown_outcome) {
    std::size_t scalars = 0;
    for (const argument& each : shown_outcome.row->arguments) {
        json value = shown(each, scalars, shown_outcome.values);
        if (each.record == no_record) {
            ++scalars;
        }
        if (each.given == presence::fixed || value.is_null()) {
            continue;
        }
        object[json_name(each.name)] = std::move(value);
    }
}

void add_outs(json& object, const outcome& shown_outcome) {
    const auto& outs = shown_outcome.row->outs;
    for (std::size_t i = 0; i < outs.size() && i < shown_outcome.values.outs.size(); ++i) {
        // A failed call leaves its outputs at zero, except the call id.
        if (shown_outcome.result != 0 && outs[i].name != "call-id") {
            continue;
        }
        object[json_name(outs[i].name)] = out_json(outs[i], shown_outcome.values.outs[i]);
    }
}

std::string cell(const json& value) {
    return value.is_string() ? value.get<std::string>() : value.dump();
}

// A list of objects with the same plain fields is printed as a table.
bool is_table(const json& value) {
    if (!value.is_array() || value.empty() || !value[0].is_object()) {
        return false;
    }
    return std::all_of(value.begin(), value.end(), [&](const json& row) {
        if (!row.is_object() || row.size() != value[0].size()) {
            return false;
        }
        return std::all_of(row.begin(), row.end(),
                           [](const json& field) { return !field.is_structured(); }) &&
               std::equal(row.items().begin(), row.items().end(), value[0].items().begin(),
                          [](const auto& a, const auto& b) { return a.key() == b.key(); });
    });
}

void add_table(std::string& text, const json& rows, std::size_t depth) {
    std::vector<std::vector<std::string>> lines(1);
    for (const auto& [name, field] : rows[0].items()) {
        lines[0].push_back(name);
    }
    for (const json& row : rows) {
        lines.emplace_back();
        for (const json& field : row) {
            lines.back().push_back(cell(field));
        }
    }
    std::vector<std::size_t> widths(lines[0].size());
    for (const auto& line : lines) {
        for (std::size_t i = 0; i < line.size(); ++i) {
            widths[i] = std::max(widths[i], line[i].size());
        }
    }
    for (const auto& line : lines) {
        text.append(1, '\n').append(2 * depth, ' ');
        for (std::size_t i = 0; i + 1 < line.size(); ++i) {
            text += fmt::format("{:<{}}  ", line[i], widths[i]);
        }
        text += line.back();
    }
}

void indent(std::string& text, const json& value, std::size_t depth) {
    if (is_table(value)) {
        return add_table(text, value, depth);
    }
    const std::string margin(2 * depth, ' ');
    for (const auto& [name, field] : value.items()) {
        text += fmt::format("\n{}{}", margin, value.is_array() ? "-" : name);
        if (field.is_structured() && !field.empty()) {
            indent(text, field, depth + 1);
        } else {
            text.append(1, ' ').append(cell(field));
        }
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
    if (!shown_outcome.hint.empty()) {
        object["hint"] = shown_outcome.hint;
    }
    add_arguments(object, shown_outcome);
    add_outs(object, shown_outcome);
    for (const auto& [name, value] : shown_outcome.values.more.items()) {
        object[name] = value;
    }
    if (!options.raw) {
        return object;
    }
    json& records = object["records"] = json::array();
    for (const byte_buffer& each : shown_outcome.values.records) {
        records.push_back(hex_of(each));
    }
    return object;
}

std::string outcome_text(const outcome& shown_outcome, const output_options& options) {
    json object = outcome_json(shown_outcome, options);
    name_numbers(object, shown_outcome.row->arguments);
    std::string text = fmt::format("{}: {}", shown_outcome.row->name, object["text"].get<std::string>());
    for (const auto* known : {"command", "function", "result", "text"}) {
        object.erase(known);
    }
    indent(text, object, 1);
    return text;
}

void print_text(std::string_view text) {
    write(stdout, text);
}

void print(const outcome& shown_outcome, const output_options& options) {
    if (options.as_json) {
        return write(stdout, one_line(outcome_json(shown_outcome, options)));
    }
    if (!shown_outcome.answered) {
        return print_problem(shown_outcome.row->name, shown_outcome.problem, options);
    }
    if (shown_outcome.result == 0) {
        return write(stdout, outcome_text(shown_outcome, options));
    }
    const std::string_view text = shown_outcome.hint.empty()
                                      ? scc_strerror(static_cast<std::int32_t>(shown_outcome.result))
                                      : shown_outcome.hint;
    print_problem(shown_outcome.row->name, fmt::format("{} ({})", text, shown_outcome.result), options);
}

void print(const json& value, const output_options& options) {
    if (options.as_json) {
        return write(stdout, one_line(value));
    }
    if (!value.is_structured()) {
        return write(stdout, cell(value));
    }
    std::string text;
    indent(text, value, 0);
    write(stdout, text.empty() ? text : text.substr(1));
}

void print_problem(std::string_view command, std::string_view problem, const output_options& options) {
    if (options.as_json) {
        return write(stdout, one_line({{"command", command}, {"error", problem}}));
    }
    write(stderr, fmt::format("sccctl: {}: {}", command, problem));
}

}  // namespace scc::ctl
