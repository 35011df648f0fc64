// Builds the command line from the table and runs the chosen command.
#include "program.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <deque>

#include "common/bytes.h"
#include "common/number_option.h"
#include "msg/protocol.h"
#include "usage_problem.h"

namespace scc::ctl {
namespace {

// The words of a rule as one text. The shell has removed the quotes of a remark.
std::string rule_text(const std::vector<std::string>& words) {
    std::string text;
    for (std::size_t i = 0; i < words.size(); ++i) {
        const bool is_bare_remark = i > 0 && words[i - 1] == "remark" && !words[i].starts_with('"');
        text += i == 0 ? "" : " ";
        text += is_bare_remark ? fmt::format("\"{}\"", words[i]) : words[i];
    }
    return text;
}

// The user's input for one argument. A rule is several words, everything else one.
struct given_text {
    CLI::Option* option = nullptr;  // null for a fixed argument
    std::string one;
    std::vector<std::string> many;

    [[nodiscard]] bool given() const { return option != nullptr && option->count() != 0; }
    [[nodiscard]] std::string text() const { return many.empty() ? one : rule_text(many); }
};

// The user's input for one row.
struct bound_command {
    const command* row = nullptr;
    CLI::App* app = nullptr;
    std::vector<given_text> texts;  // of each argument
    std::vector<std::string> fields;
    std::string hex;
    bool reset = false;
};

struct built {
    CLI::App app{"Talk to the security-control daemon: one command for every request and query.", "sccctl"};
    std::deque<bound_command> rows;  // a deque keeps addresses valid
    choice_map choices;
    std::function<int()> action;
    bool list = false;
    double timeout_seconds = 0;
    unsigned option = 1;
};

std::vector<std::string> split(std::string_view name) {
    std::vector<std::string> words;
    for (std::size_t begin = 0; begin < name.size();) {
        const auto end = std::min(name.find(' ', begin), name.size());
        words.emplace_back(name.substr(begin, end - begin));
        begin = end + 1;
    }
    return words;
}

std::string_view group_of(const command& row) {
    switch (row.kind) {
        case call_kind::request:
            return row.confirmed != nullptr ? "ACLs" : "Requests";
        case call_kind::one_way:
            return "Requests without an answer";
        case call_kind::query:
            return "Queries";
        case call_kind::local:
            break;
    }
    return "Local answers";
}

CLI::App* child_or_null(CLI::App& parent, const std::string& name) {
    const auto found = parent.get_subcommands([&](const CLI::App* each) { return each->get_name() == name; });
    return found.empty() ? nullptr : found.front();
}

// Finds or makes the subcommand, and its groups ("acl"), which require one of their own subcommands.
CLI::App& place(CLI::App& app, std::string_view name, const std::string& help, std::string_view group) {
    CLI::App* at = &app;
    for (const std::string& word : split(name)) {
        CLI::App* const below = child_or_null(*at, word);
        if (at != &app && below == nullptr) {
            at->require_subcommand(1);
            at->description(at->get_description() + (at->get_description().empty() ? "" : ", ") + word);
        }
        at = below != nullptr ? below : at->add_subcommand(word)->group(std::string(group));
    }
    at->description(help);
    return *at;
}

constexpr std::size_t shown_names_max = 6;

std::string range_text(const argument& each) {
    if (each.type != value_type::number) {
        return {};
    }
    auto names = names_of(each);
    if (names.size() > shown_names_max) {
        names.resize(shown_names_max / 2);
        names.emplace_back("...");
    }
    std::string text =
        fmt::format(" [{}{}{}..{}]", fmt::join(names, ", "), names.empty() ? "" : " or ", each.min, each.max);
    if (each.initial != 0) {
        text += fmt::format(", {} unless given", each.initial);
    }
    return text;
}

// The names that range_text leaves out.
std::string all_names_text(const command& row) {
    std::string text;
    for (const argument& each : row.arguments) {
        const auto names = names_of(each);
        if (names.size() > shown_names_max) {
            text += fmt::format("Names of {}: {}.\n", each.name, fmt::join(names, ", "));
        }
    }
    return text;
}

bool is_positional(const argument& each) {
    return each.given == presence::positional || each.given == presence::optional_positional;
}

std::string type_name_of(const argument& each) {
    switch (each.type) {
        case value_type::number:
            return each.names.empty() ? "N" : "NAME|N";
        case value_type::bytes:
            return "FILE";
        case value_type::mac:
            return "MAC";
        case value_type::ipv4:
            return "IPV4";
        case value_type::ipv6:
            return "IPV6";
        case value_type::address16:
            return "ADDRESS";
        case value_type::vlans:
            return "LIST";
        case value_type::rule:
            break;
    }
    return "TEXT";
}

void add_argument(bound_command& bound, std::size_t index, choice_map& choices) {
    const argument& each = bound.row->arguments[index];
    if (each.given == presence::fixed) {
        return;
    }
    const std::string name = (is_positional(each) ? "" : "--") + std::string(each.name);
    const std::string help = std::string(each.help) + range_text(each);
    given_text& into = bound.texts[index];
    if (each.type == value_type::rule) {
        into.option = bound.app->add_option(name, into.many, help)->expected(0, -1);
    } else {
        into.option = bound.app->add_option(name, into.one, help);
    }
    into.option->type_name(type_name_of(each));
    if (!each.names.empty()) {
        choices[into.option] = names_of(each);
    }
    into.option->required(each.given == presence::positional || each.given == presence::required_option);
}

void add_row(built& into, const command& row) {
    bound_command& bound = into.rows.emplace_back();
    bound.row = &row;
    bound.app = &place(into.app, row.name, std::string(row.help), group_of(row));
    bound.texts.resize(row.arguments.size());
    for (std::size_t i = 0; i < row.arguments.size(); ++i) {
        add_argument(bound, i, into.choices);
    }
    if (row.open_record() != no_record) {
        bound.app
            ->add_option("--hex", bound.hex, "the record's bytes: a file of hexadecimal pairs, - for input")
            ->type_name("FILE");
        bound.app
            ->add_option("--field", bound.fields, "OFFSET:WIDTH=VALUE within the record, may be repeated")
            ->expected(1)
            ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
            ->allow_extra_args(false);
    }
    if (!row.reset_row.empty()) {
        bound.app->add_flag("--reset", bound.reset, "reset the counter instead");
    }
    bound.app->footer(fmt::format("{}Calls {}.\nExample: sccctl {}{}{}", all_names_text(row), row.function,
                                  row.name, row.example.empty() ? "" : " ", row.example));
}

const command& row_named(std::string_view name) {
    return *std::find_if(commands().begin(), commands().end(),
                         [&](const command& row) { return row.name == name; });
}

// The flag word says which addresses a record carries; an explicit one is left unchanged.
void mark_given_addresses(const bound_command& bound, call_values& values) {
    std::uint32_t flags = 0;
    const argument* flag_word = nullptr;
    for (std::size_t i = 0; i < bound.texts.size(); ++i) {
        const argument& each = bound.row->arguments[i];
        if (bound.texts[i].given()) {
            flags |= each.flags;
        }
        if (each.name != "flags") {
            continue;
        }
        if (bound.texts[i].given()) {
            return;
        }
        flag_word = &each;
    }
    if (flag_word == nullptr || flags == 0) {
        return;
    }
    byte_buffer& record = values.records.at(static_cast<std::size_t>(flag_word->record));
    devkit::write_at(record, flag_word->offset, devkit::u32_at(record, flag_word->offset) | flags);
}

// A mandatory record: filled from its arguments, or from its bytes.
void refuse_empty_rule(const bound_command& bound) {
    if (!bound.hex.empty() || !bound.fields.empty()) {
        return;
    }
    for (std::size_t i = 0; i < bound.texts.size(); ++i) {
        if (bound.row->arguments[i].type == value_type::rule && !bound.texts[i].given()) {
            throw usage_error("a rule, --hex or --field must say what the ACE holds");
        }
    }
}

call_values values_of(const bound_command& bound) {
    const command& row = *bound.row;
    refuse_empty_rule(bound);
    call_values values;
    for (const std::size_t bytes : row.record_bytes) {
        values.records.emplace_back(bytes);
    }
    const int open = row.open_record();
    if (!bound.hex.empty()) {
        const argument whole = number("hex", 0, "").as(value_type::bytes).at(open, 0);
        store(whole, bound.hex, values);
    }
    for (std::size_t i = 0; i < row.arguments.size(); ++i) {
        if (bound.texts[i].given()) {
            store(row.arguments[i], bound.texts[i].text(), values);
        } else {
            store_initial(row.arguments[i], values);
        }
    }
    mark_given_addresses(bound, values);
    for (const std::string& each : bound.fields) {
        store_raw_field(each, values.records[static_cast<std::size_t>(open)]);
    }
    return values;
}

int run_row(const bound_command& bound, context& within) {
    const command& row = bound.reset ? row_named(bound.row->reset_row) : *bound.row;
    const call_values values = values_of(bound);
    const auto finish = [&](session* registered) {
        outcome came = run(row, values, registered);
        if (came.result == SCC_E_NO_ACL && within.shared == nullptr) {
            came.hint = row.absent_hint;
        }
        print(came, within.output);
        return came.exit_status();
    };
    if (row.kind == call_kind::local) {
        return finish(nullptr);
    }
    return with_session(within, row.name, [&](session& registered) { return finish(&registered); });
}

void add_own_commands(built& into, context& within) {
    add_acl_commands(into.app, within, into.action);
    if (within.shared == nullptr) {
        CLI::App& shell =
            place(into.app, "shell", "read commands from standard input, with one registration", "Tool");
        shell.callback([&] { into.action = [&] { return run_shell(within); }; });
    }
    add_tool_commands(into.app, within, into.choices, into.action);
    add_control_commands(into.app, within, into.choices, into.action);
}

void add_common_options(built& into, context& within) {
    using std::chrono::duration;
    into.timeout_seconds = duration<double>(within.registration.timeout).count();
    into.option = within.registration.option;
    into.app
        .add_option("--app", within.registration.app_id, "application id to register with, or to ask about")
        ->transform(devkit::number_within(1, limits::app_id_max))
        ->type_name("N")
        ->capture_default_str();
    into.app.add_option("--timeout", into.timeout_seconds, "seconds to wait for the daemon, each time")
        ->check(within_limits(0.001, seconds_max))
        ->capture_default_str();
    into.app.add_option("--option", into.option, "registration option; 1 keeps a readable ACL cache")
        ->transform(devkit::number_within(0, UINT8_MAX))
        ->type_name("N")
        ->capture_default_str();
    into.app.add_flag("--json", within.output.as_json, "print one JSON object a line");
    into.app.add_flag("--raw", within.output.raw, "with --json, show the records' bytes, too");
    into.app.add_flag("--list-commands", into.list, "list every command with its options");
}

void build(built& into, context& within) {
    into.app.require_subcommand(0, 1);
    into.app.set_version_flag("--version", "sccctl " SCC_VERSION_TEXT);
    add_common_options(into, within);
    for (const command& row : commands()) {
        add_row(into, row);
    }
    add_own_commands(into, within);
    // Last, or every command would inherit it.
    into.app.footer(
        "The options may precede or follow the command; 'sccctl help COMMAND' tells those of a command.\n"
        "Exit status: 0 done, 1 refused, 2 usage, 3 no daemon.");
}

// The general options may also follow the command; they are moved to the front, where the parser expects
// them.
std::vector<std::string> common_options_first(const std::vector<std::string>& words) {
    constexpr std::array<std::string_view, 3> with_value = {"--app", "--timeout", "--option"};
    constexpr std::array<std::string_view, 2> alone = {"--json", "--raw"};
    std::vector<std::string> front;
    std::vector<std::string> rest;
    for (std::size_t i = 0; i < words.size(); ++i) {
        const std::string name = words[i].substr(0, words[i].find('='));
        const bool takes = std::find(with_value.begin(), with_value.end(), name) != with_value.end();
        const bool flag = std::find(alone.begin(), alone.end(), name) != alone.end();
        (takes || flag ? front : rest).push_back(words[i]);
        if (takes && name == words[i] && i + 1 < words.size()) {
            front.push_back(words[++i]);
        }
    }
    front.insert(front.end(), rest.begin(), rest.end());
    return front;
}

// "help acl create" is "acl create --help".
std::vector<std::string> help_asked(std::vector<std::string> words) {
    if (words.empty() || words[0] != "help") {
        return words;
    }
    std::rotate(words.begin(), words.begin() + 1, words.end());
    words.back() = "--help";
    return words;
}

// A shell's lines share one registration, which their options cannot change; the commands of the
// development daemon take --app and --timeout as their own.
void refuse_registration_options(const built& parsed, const context& within) {
    if (within.shared == nullptr || parsed.action) {
        return;
    }
    for (const auto* name : {"--app", "--timeout", "--option"}) {
        if (parsed.app.get_option(name)->count() != 0) {
            throw usage_error(fmt::format("{} belongs to the shell itself, not to a line of it", name));
        }
    }
}

int run_chosen(built& parsed, context& within) {
    if (parsed.list) {
        std::string list = list_commands();
        list.pop_back();  // print_text ends the last line
        print_text(list);
        return exit_success;
    }
    refuse_registration_options(parsed, within);
    if (parsed.action) {
        return parsed.action();
    }
    for (const bound_command& each : parsed.rows) {
        if (each.app->parsed()) {
            return run_row(each, within);
        }
    }
    fmt::print(stderr, "{}", parsed.app.help());
    return exit_usage;
}

void take_common_options(const built& parsed, context& within) {
    within.registration.option = static_cast<std::uint8_t>(parsed.option);
    within.registration.timeout =
        std::chrono::milliseconds(static_cast<std::int64_t>(std::ceil(parsed.timeout_seconds * 1000)));
    within.app_given = within.app_given || parsed.app.get_option("--app")->count() != 0;
}

std::string listed_options(const CLI::App& leaf) {
    std::string text;
    for (const CLI::Option* each : leaf.get_options()) {
        if (each->get_name().starts_with("--") && each->get_name() != "--help") {
            text += (text.empty() ? "" : " ") + each->get_name();
        }
    }
    return text;
}

void list_below(const CLI::App& app, const std::string& path, std::string& text) {
    const auto children = app.get_subcommands([](const CLI::App*) { return true; });
    for (const CLI::App* each : children) {
        list_below(*each, path.empty() ? each->get_name() : path + " " + each->get_name(), text);
    }
    if (children.empty()) {
        text += fmt::format("{}\t{}\t{}\n", path, listed_options(app), app.get_description());
    }
}

}  // namespace

CLI::Validator within_limits(double min, double max) {
    const auto problem = [min, max](const std::string& text) -> std::string {
        double value = 0;
        if (CLI::detail::lexical_cast(text, value) && value >= min && value <= max) {
            return {};
        }
        return fmt::format("'{}' is not a number from {} to {:.0f}", text, min, max);
    };
    return CLI::Validator(problem, fmt::format("[{}..{:.0f}]", min, max), "limits");
}

const std::vector<command>& commands() {
    static const std::vector<command> all = [] {
        std::vector<command> rows;
        for (auto part : {config_commands(), acl_commands(), query_commands()}) {
            rows.insert(rows.end(), part.begin(), part.end());
        }
        return rows;
    }();
    return all;
}

int command::open_record() const {
    constexpr std::size_t smallest_open = sizeof(scc_acl_key) + 1;  // keys and MAC addresses have no gaps
    for (std::size_t i = record_bytes.size(); i-- > 0;) {
        if (record_bytes[i] >= smallest_open) {
            return static_cast<int>(i);
        }
    }
    return no_record;
}

int run_command_line(const std::vector<std::string>& words, context& within) {
    built parsed;
    build(parsed, within);
    std::vector<std::string> reversed = common_options_first(help_asked(words));
    // The error of a line that cannot be parsed is printed in the format that the line asks for.
    output_options form = within.output;
    form.as_json = form.as_json || std::find(words.begin(), words.end(), "--json") != words.end();
    std::reverse(reversed.begin(), reversed.end());  // the parser takes them in reverse
    try {
        parsed.app.parse(reversed);
        take_common_options(parsed, within);
        return run_chosen(parsed, within);
    } catch (const CLI::ParseError& problem) {
        if (problem.get_exit_code() == 0 && unknown_command(parsed.app).empty()) {
            return parsed.app.exit(problem);  // help was requested
        }
        print_problem("usage", problem_text(problem, parsed.app, help_asked(words)), form);
        return exit_usage;
    } catch (const usage_error& problem) {
        print_problem("usage", problem.what(), form);
        return exit_usage;
    }
}

int with_session(context& within, std::string_view command, const std::function<int(session&)>& action) {
    if (within.shared != nullptr) {
        return action(*within.shared);
    }
    session own(within.registration);
    if (!own.start()) {
        print_problem(command, own.problem(), within.output);
        return exit_unreachable;
    }
    return action(own);
}

completion complete_words(const std::vector<std::string>& words, const context* shell) {
    context inside = shell != nullptr ? *shell : context();
    built all;
    build(all, inside);
    return complete(all.app, all.choices, words);
}

void print_completion(const std::vector<std::string>& words) {
    const completion found = complete_words(words);
    for (const candidate& each : found.candidates) {
        print_text(each.help.empty() ? each.word : each.word + "\t" + each.help);
    }
    if (found.files) {
        print_text("@files");
    }
}

std::string list_commands() {
    context plain;
    built all;
    build(all, plain);
    std::string text;
    list_below(all.app, "", text);
    return text;
}

}  // namespace scc::ctl
