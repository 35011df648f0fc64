// The commands of the development daemon's control socket. They need no registration.
#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <cctype>
#include <memory>

#include "common/control.h"
#include "common/control_client.h"
#include "common/messages.h"
#include "msg/protocol.h"
#include "program.h"
#include "suggestion.h"

namespace scc::ctl {
namespace {

namespace control = devkit::control;

struct control_options {
    std::string word;
    std::vector<std::string> pairs;
};

json ask(const json& request) {
    return devkit::control_call(request);
}

int call(std::string_view command, const json& request, const context& within) {
    int status = exit_success;
    auto reply = control_reply(command, request, within, status);
    if (!reply) {
        return status;
    }
    if (!within.output.as_json) {
        reply->erase("ok");
    }
    print(!within.output.as_json && reply->empty() ? json("ok") : *reply, within.output);
    return exit_success;
}

// A notification that reaches nobody has failed.
int call_somebody(std::string_view command, const json& request, const context& within) {
    int status = exit_success;
    auto reply = control_reply(command, request, within, status);
    if (!reply) {
        return status;
    }
    if (reply->value("sent", 1) == 0) {
        print_problem(command, "nobody is registered", within.output);
        return exit_refused;
    }
    if (!within.output.as_json) {
        reply->erase("ok");
    }
    print(*reply, within.output);
    return exit_success;
}

json request(std::string_view name) {
    return {{"do", name}};
}

std::vector<std::string> request_names() {
    std::vector<std::string> names;
    for (const devkit::message_type& each : devkit::message_types()) {
        if (each.route == devkit::message_route::request) {
            names.emplace_back(each.name);
        }
    }
    return names;
}

bool is_number(const std::string& text) {
    return !text.empty() && std::isdigit(static_cast<unsigned char>(text[0])) != 0;
}

// The commands that name a type of request or a result take their names, too.
void replace_names(json& request) {
    const std::string command = request.at("do");
    const bool faulty = command == control::fault;
    if (!faulty && command != control::fail_next && command != control::mute && command != control::unmute) {
        return;
    }
    const std::string_view key = faulty ? "request" : "type";
    const auto type = request.find(key);
    if (type != request.end() && !is_number(*type)) {
        const std::string name = *type;
        const devkit::message_type* const found =
            devkit::find_message(devkit::message_route::request, std::string_view(name));
        if (found == nullptr) {
            throw usage_error(
                fmt::format("{}: '{}' is no request{}", key, name, did_you_mean(name, request_names())));
        }
        *type = found->number;
    }
    const auto result = request.find("result");
    if (result != request.end() && !is_number(*result)) {
        const std::string name = *result;
        const auto number = devkit::value_of(devkit::names::results, name);
        if (!number) {
            const auto names = names_of(argument().named(devkit::names::results));
            throw usage_error(fmt::format("result: '{}' is no result{}", name, did_you_mean(name, names)));
        }
        *result = *number;
    }
}

template <typename Names>
std::vector<std::string> strings(const Names& names) {
    return {names.begin(), names.end()};
}

json with_timeout(json made, const context& within) {
    made["timeout_ms"] = within.registration.timeout.count();
    return made;
}

// "name=value": lists and objects as JSON, everything else as text, which the daemon converts.
void add_pairs(json& into, const std::vector<std::string>& pairs) {
    for (const std::string& each : pairs) {
        const auto equals = each.find('=');
        if (equals == std::string::npos || equals == 0) {
            throw usage_error(fmt::format("'{}' is not NAME=VALUE", each));
        }
        const std::string text = each.substr(equals + 1);
        json value = text;
        if (text.starts_with('[') || text.starts_with('{')) {
            value = json::parse(text, nullptr, false);
        }
        if (value.is_discarded()) {
            throw usage_error(fmt::format("'{}' is not JSON", text));
        }
        into[each.substr(0, equals)] = std::move(value);
    }
}

int notify(const control_options& options, const context& within) {
    const bool by_type = is_number(options.word);
    const auto known = strings(control::notifications);
    if (!by_type && std::find(known.begin(), known.end(), options.word) == known.end()) {
        throw usage_error(
            fmt::format("no notification '{}'{}", options.word, did_you_mean(options.word, known)));
    }
    json made = request(by_type ? control::notify : control::notify_named);
    made["to"] = within.app_given ? within.registration.app_id : 0;
    made[by_type ? "type" : "name"] = options.word;
    add_pairs(made, options.pairs);
    return call_somebody("notify", made, within);
}

// Asks the application of --app, or every client in turn, except the service, which does not answer.
int call_each(json made, bool service_too, const context& within) {
    const std::string command = made.at("do");
    if (within.app_given) {
        made["app"] = within.registration.app_id;
        return call(command, made, within);
    }
    const json reply = ask(request(control::clients));
    if (!reply.value("ok", false)) {
        return call(command, request(control::clients), within);  // prints the reason
    }
    int worst = exit_success;
    bool anybody = false;
    for (const json& client : reply.value("clients", json::array())) {
        if (client.at("app") == limits::service_app_id && !service_too) {
            continue;
        }
        anybody = true;
        made["app"] = client.at("app");
        worst = std::max(worst, call(command, made, within));
    }
    if (!anybody) {
        const json none = {{"ok", true}, {"clients", json::array()}};
        print(within.output.as_json ? none : json("nobody is registered"), within.output);
    }
    return worst;
}

int debug(const control_options& options, const context& within) {
    json made = request(control::debug);
    made["open"] = options.word == "on" ? 1 : 0;
    return call_each(std::move(made), true, within);
}

// "settings NAME", "fault list", "fault clear" and "fault ACTION": a word that is no pair belongs to the
// command.
json request_with_word(const std::string& name, const std::string& word) {
    json made = request(name);
    if (name == control::settings) {
        made["name"] = word;
    } else if (word == "list" || word == "clear") {
        made = request(fmt::format("{}-{}", name, word));
    } else {
        made["action"] = word;
    }
    return made;
}

int any(const control_options& options, const context& within) {
    const auto known = strings(control::commands);
    if (std::find(known.begin(), known.end(), options.word) == known.end()) {
        const std::string guess = did_you_mean(options.word, known);
        const std::string all = fmt::format("; there are {}", fmt::join(known, ", "));
        throw usage_error(
            fmt::format("no command '{}' of the daemon{}", options.word, guess.empty() ? all : guess));
    }
    const bool takes_word = options.word == control::settings || options.word == control::fault;
    const bool has_word =
        takes_word && !options.pairs.empty() && options.pairs.front().find('=') == std::string::npos;
    json made = has_word ? request_with_word(options.word, options.pairs.front()) : request(options.word);
    add_pairs(made, {options.pairs.begin() + (has_word ? 1 : 0), options.pairs.end()});
    replace_names(made);
    return call(options.word, made, within);
}

}  // namespace

std::optional<json> control_reply(std::string_view command, const json& request, const context& within,
                                  int& status) {
    json reply = ask(request);
    if (reply.value("ok", false)) {
        return reply;
    }
    const std::string error = reply.value("error", std::string("the daemon gave no reason"));
    print_problem(command, error, within.output);
    status = reply.value("unreachable", false) ? exit_unreachable : exit_refused;
    return std::nullopt;
}

void add_control_commands(CLI::App& app, context& within, choice_map& choices, std::function<int()>& action) {
    const auto options = std::make_shared<control_options>();
    const auto add = [&](const char* name, const char* help, auto run) {
        CLI::App* made = app.add_subcommand(name, help)->group("Development daemon");
        made->callback(
            [&action, options, &within, run] { action = [=, &within] { return run(*options, within); }; });
        return made;
    };
    add("clients", "list who is registered", [](const control_options&, const context& in) {
        return call(control::clients, request(control::clients), in);
    });
    add("stats", "show the clients' call statistics (one's with --app)",
        [](const control_options&, const context& in) {
            return call_each(with_timeout(request(control::stats), in), true, in);
        });
    add("alive", "ask whether applications answer (one with --app)",
        [](const control_options&, const context& in) {
            return call_each(with_timeout(request(control::alive), in), false, in);
        });
    CLI::Option* operand = add("debug", "switch the clients' debug logs (one's with --app)", &debug)
                               ->add_option("switch", options->word, "on or off")
                               ->required()
                               ->check(CLI::IsMember({"on", "off"}));
    choices[operand] = {"on", "off"};

    CLI::App* made =
        add("notify", "have the daemon send a notification (to one application with --app)", &notify);
    operand =
        made->add_option("name", options->word, "the notification's name, or its message type")->required();
    choices[operand] = strings(control::notifications);
    made->add_option("fields", options->pairs, "NAME=VALUE, may be repeated; for a type: hex=BYTES, sub=N");
    made->footer("Example: sccctl notify station-move permit=1");

    made = add("daemon", "send any command to the control socket", &any);
    operand = made->add_option("name", options->word, "the command's name")->required();
    choices[operand] = strings(control::commands);
    made->add_option("fields", options->pairs,
                     "NAME=VALUE, may be repeated; settings takes a name, fault an action, list or clear");
    made->footer("Example: sccctl daemon fault delay request=addr-learning ms=300");
}

}  // namespace scc::ctl
