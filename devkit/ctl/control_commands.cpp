// The commands of the development daemon's control socket. They need no registration.
#include <fmt/format.h>

#include <array>
#include <memory>

#include "ace_text.h"
#include "common/control.h"
#include "common/control_client.h"
#include "program.h"

namespace scc::ctl {
namespace {

namespace control = devkit::control;

struct control_options {
    std::string word;
    std::vector<std::string> pairs;
};

// A refusal comes from a daemon that runs; everything else means that none does.
int status_of(const std::string& error) {
    constexpr std::array<std::string_view, 4> unreachable = {"no daemon", "TMPDIR", "the daemon broke off",
                                                             "no answer"};
    for (const std::string_view each : unreachable)
        if (error.starts_with(each)) return exit_unreachable;
    return exit_refused;
}

json ask(const json& request) {
    return devkit::control_call(request);
}

int call(const json& request, const context& within) {
    json reply = ask(request);
    if (!reply.value("ok", false)) {
        const std::string error = reply.value("error", std::string("the daemon gave no reason"));
        print_problem(request.at("do").get<std::string>(), error, within.output);
        return status_of(error);
    }
    if (!within.output.as_json) reply.erase("ok");
    print(!within.output.as_json && reply.empty() ? json("ok") : reply, within.output);
    return exit_success;
}

json request(std::string_view name) {
    return {{"do", name}};
}

json about_app(std::string_view name, const context& within) {
    json made = request(name);
    made["app"] = within.registration.app_id;
    return made;
}

json with_timeout(json made, const context& within) {
    made["timeout_ms"] = within.registration.timeout.count();
    return made;
}

// "name=value": lists and objects as JSON, everything else as text, which the daemon reads as it needs.
void add_pairs(json& into, const std::vector<std::string>& pairs) {
    for (const std::string& each : pairs) {
        const auto equals = each.find('=');
        if (equals == std::string::npos || equals == 0)
            throw usage_error(fmt::format("'{}' is not NAME=VALUE", each));
        const std::string text = each.substr(equals + 1);
        json value = text;
        if (text.starts_with('[') || text.starts_with('{')) value = json::parse(text, nullptr, false);
        if (value.is_discarded()) throw usage_error(fmt::format("'{}' is not JSON", text));
        into[each.substr(0, equals)] = std::move(value);
    }
}

int debug(const control_options& options, const context& within) {
    json made = about_app(control::debug, within);
    made["open"] = options.word == "on" ? 1 : 0;
    return call(made, within);
}

int notify(const control_options& options, const context& within) {
    const bool by_type = ace::parse_number(options.word, 1, UINT16_MAX).has_value();
    json made = request(by_type ? control::notify : control::notify_named);
    made["to"] = within.app_given ? within.registration.app_id : 0;
    if (by_type)
        made["type"] = *ace::parse_number(options.word, 1, UINT16_MAX);
    else
        made["name"] = options.word;
    add_pairs(made, options.pairs);
    return call(made, within);
}

// Every client in turn, unless one was asked for.
int alive(const context& within) {
    if (within.app_given) return call(with_timeout(about_app(control::alive, within), within), within);
    const json reply = ask(request(control::clients));
    if (!reply.value("ok", false)) return call(request(control::clients), within);  // says why
    int worst = exit_success;
    for (const json& client : reply.value("clients", json::array())) {
        json made = with_timeout(request(control::alive), within);
        made["app"] = client.at("app");
        worst = std::max(worst, call(made, within));
    }
    return worst;
}

int any(const control_options& options, const context& within) {
    json made = request(options.word);
    add_pairs(made, options.pairs);
    return call(made, within);
}

}  // namespace

void add_control_commands(CLI::App& app, context& within, std::function<int()>& action) {
    const auto options = std::make_shared<control_options>();
    const auto add = [&](const char* name, const char* help, auto run) {
        CLI::App* made = app.add_subcommand(name, help)->group("Development daemon");
        made->callback(
            [&action, options, &within, run] { action = [=, &within] { return run(*options, within); }; });
        return made;
    };
    add("clients", "list who is registered",
        [](const control_options&, const context& in) { return call(request(control::clients), in); });
    add("stats", "show an application's call statistics (--app)",
        [](const control_options&, const context& in) {
            return call(with_timeout(about_app(control::stats, in), in), in);
        });
    add("alive", "ask whether clients answer (one with --app)",
        [](const control_options&, const context& in) { return alive(in); });
    add("debug", "switch an application's debug log (--app)", &debug)
        ->add_option("switch", options->word, "on or off")
        ->required()
        ->check(CLI::IsMember({"on", "off"}));

    CLI::App* made =
        add("notify", "have the daemon send a notification (to one application with --app)", &notify);
    made->add_option("name", options->word, "the notification's name, or its message type")->required();
    made->add_option("fields", options->pairs, "NAME=VALUE, may be repeated; for a type: hex=BYTES, sub=N");
    made->footer("Example: sccctl notify station-move permit=1");

    made = add("daemon", "send any command to the control socket", &any);
    made->add_option("name", options->word, "the command's name")->required();
    made->add_option("fields", options->pairs, "NAME=VALUE, may be repeated");
    made->footer("Example: sccctl daemon fail-next type=131 result=2010");
}

}  // namespace scc::ctl
