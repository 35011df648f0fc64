// The commands that watch the daemon: its notifications, its counters and its messages.
#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <array>

#include "common/control.h"
#include "common/number_option.h"
#include "notifications.h"
#include "program.h"
#include "suggestion.h"

namespace scc::ctl {
namespace {

constexpr std::uint64_t count_max = 1'000'000'000'000'000;

struct tool_options {
    std::string file;
    double seconds = 0;
    std::uint64_t count = 0;
    watch_options watch;
    std::vector<std::string> where;
    top_options top;
    std::string format = "prometheus";
};

struct tool_parser {
    CLI::App& app;
    context& within;
    choice_map& choices;
    std::function<int()>& action;
    std::shared_ptr<tool_options> own = std::make_shared<tool_options>();

    [[nodiscard]] CLI::App& add(const std::string& name, const std::string& help) const {
        return *app.add_subcommand(name, help)->group("Tool");
    }
};

// "90", "90s", "5m" or "1h".
CLI::Validator duration() {
    const auto to_seconds = [](std::string& text) -> std::string {
        constexpr std::array<std::pair<char, double>, 3> units{{{'s', 1}, {'m', 60}, {'h', 3600}}};
        std::string digits = text;
        double unit = 1;
        for (const auto& [letter, seconds] : units) {
            if (!digits.empty() && digits.back() == letter) {
                digits.pop_back();
                unit = seconds;
                break;
            }
        }
        double value = 0;
        if (!CLI::detail::lexical_cast(digits, value) || !(value >= 0) || value * unit > seconds_max) {
            return fmt::format("'{}' is not a time up to a day, as in 90, 90s, 5m or 1h", text);
        }
        text = fmt::format("{}", value * unit);
        return {};
    };
    return {to_seconds, "TIME", "duration"};
}

// A field that none of the chosen notifications has would match nothing for ever.
std::vector<std::pair<std::string, std::string>> fields_of_words(const std::vector<std::string>& words,
                                                                 const std::vector<std::string>& chosen) {
    const std::vector<std::string> known = notification_fields(chosen);
    std::vector<std::pair<std::string, std::string>> fields;
    for (const std::string& each : words) {
        const auto equals = each.find('=');
        if (equals == std::string::npos || equals == 0) {
            throw usage_error(fmt::format("where: '{}' is not FIELD=VALUE", each));
        }
        const std::string name = each.substr(0, equals);
        if (!std::binary_search(known.begin(), known.end(), name)) {
            const std::string guess = did_you_mean(name, known);
            const std::string all = fmt::format("; there are {}", fmt::join(known, ", "));
            throw usage_error(
                fmt::format("where: no field '{}' in {}{}", name,
                            chosen.empty() ? "any notification" : fmt::format("{}", fmt::join(chosen, ", ")),
                            guess.empty() ? all : guess));
        }
        fields.emplace_back(name, each.substr(equals + 1));
    }
    return fields;
}

void add_limits(tool_parser& into, CLI::App& app, std::string_view counted) {
    app.add_option("--seconds,--duration", into.own->seconds,
                   "stop after this time (90, 90s, 5m, 1h), 0 for never")
        ->transform(duration())
        ->type_name("TIME");
    app.add_option("--count", into.own->count, fmt::format("stop after this many {}, 0 for never", counted))
        ->transform(devkit::number_within(0, count_max))
        ->type_name("N");
}

void add_watch(tool_parser& into) {
    CLI::App& app = into.add("watch", "print notifications as they arrive");
    add_limits(into, app, "notifications");
    app.add_flag("--times", into.own->watch.times, "begin each line with the time");
    const std::vector<std::string> names(devkit::control::notifications.begin(),
                                         devkit::control::notifications.end());
    CLI::Option* const only =
        app.add_option("--only", into.own->watch.only, "show only these notifications")->delimiter(',');
    only->type_name("NAME,...")->expected(1)->take_all()->check([names](const std::string& name) {
        const bool known = std::find(names.begin(), names.end(), name) != names.end();
        return known ? std::string() : fmt::format("no notification '{}'{}", name, did_you_mean(name, names));
    });
    into.choices[only] = names;
    app.add_option("--where", into.own->where, "show only those with this field, may be repeated")
        ->type_name("FIELD=VALUE")
        ->expected(1)
        ->take_all();
    app.footer("Example: sccctl watch --times --only flow,user-change --where ifx=3 --duration 5m");
    app.callback([into] {
        into.action = [into] {
            into.own->watch.seconds = into.own->seconds;
            into.own->watch.count = into.own->count;
            into.own->watch.where = fields_of_words(into.own->where, into.own->watch.only);
            return run_watch(into.within, into.own->watch);
        };
    });
}

void add_top(tool_parser& into) {
    constexpr double shortest_seconds = 0.1;
    CLI::App& app = into.add("top", "show the clients with their rates, refreshed in place");
    app.add_option("--interval", into.own->top.interval_seconds, "seconds between two tables")
        ->check(within_limits(shortest_seconds, seconds_max))
        ->capture_default_str();
    app.add_option("--count", into.own->top.count, "stop after this many tables, 0 for never")
        ->transform(devkit::number_within(0, count_max))
        ->type_name("N");
    app.callback([into] { into.action = [into] { return run_top(into.within, into.own->top); }; });
}

void add_metrics(tool_parser& into) {
    CLI::App& app = into.add("metrics", "print the counters of the daemon and its clients");
    app.add_option("--output", into.own->file, "replace this file at once instead")->type_name("FILE");
    CLI::Option* const format = app.add_option("--format", into.own->format,
                                               "prometheus, as node_exporter's text files, or openmetrics")
                                    ->check(CLI::IsMember({"prometheus", "openmetrics"}))
                                    ->capture_default_str();
    into.choices[format] = {"prometheus", "openmetrics"};
    app.footer("Example: sccctl metrics --output /var/lib/prometheus/node-exporter/scc.prom");
    app.callback([into] {
        into.action = [into] {
            if (into.within.output.as_json) {
                throw usage_error("metrics prints no JSON: 'sccctl daemon metrics --json' does");
            }
            const bool open = into.own->format == "openmetrics";
            return run_metrics(into.within, into.own->file,
                               open ? metrics_format::open_metrics : metrics_format::prometheus);
        };
    });
}

void add_capture(tool_parser& into) {
    CLI::App& app = into.add("capture", "write what the daemon sends and receives to a pcapng file");
    app.add_option("file", into.own->file, "the file, - for standard output")->required()->type_name("FILE");
    add_limits(into, app, "messages");
    app.footer("Example: sccctl capture wire.pcapng --duration 30s");
    app.callback([into] {
        into.action = [into] {
            return run_capture(into.within, into.own->file, into.own->seconds, into.own->count);
        };
    });
}

}  // namespace

void add_tool_commands(CLI::App& app, context& within, choice_map& choices, std::function<int()>& action) {
    tool_parser into{app, within, choices, action};
    if (within.shared == nullptr) {
        add_watch(into);
    }
    add_top(into);
    add_metrics(into);
    add_capture(into);
}

}  // namespace scc::ctl
