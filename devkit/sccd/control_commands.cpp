#include "sccd/control_commands.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <limits>

#include "common/control.h"
#include "sccd/json_fields.h"
#include "sccd/metrics_dump.h"
#include "sccd/named_notifications.h"
#include "sccd/state_dump.h"

namespace scc::sccd {
namespace {

using devkit::byte_buffer;
using devkit::byte_view;

constexpr u32 probe_timeout_ms = 5000;
constexpr std::size_t debug_bytes = 52;
constexpr u32 debug_switch = 1;
constexpr u32 debug_show_command = 3;
constexpr std::size_t statistics_entry_bytes = 24;

using word_list = std::vector<std::string_view>;

struct command_call {
    daemon_core& daemon;
    json_fields& fields;
    const json& request;
    const control_reply& reply;
};

// The names of the entries of an application's call statistics.
constexpr std::array<std::string_view, 13> statistics_names = {
    "acl-create",     "acl-delete",    "ace-add",         "ace-delete", "acl-apply",
    "acl-unapply",    "nac-user-add",  "nac-user-delete", "user-added", "user-deleted",
    "noflow-offline", "d1x-addr-move", "data-recover"};

json success() {
    return {{"ok", true}};
}

json nobody(u32 app_id) {
    return control_failure(fmt::format("no application {} is registered", app_id));
}

// Fails the call if a field could not be read.
bool understood(const command_call& call) {
    if (call.fields.problem().empty()) {
        return true;
    }
    call.reply(control_failure(call.fields.problem()));
    return false;
}

// Sends to one client, or to every application if app_id is 0. Fails if that client is not registered.
void send_to(const command_call& call, u32 app_id, u16 sub_id, u16 type, byte_view value) {
    if (!understood(call)) {
        return;
    }
    if (app_id == 0) {
        const std::vector<client_entry> applications = call.daemon.clients.registry().applications();
        for (const client_entry& client : applications) {
            call.daemon.clients.send_async(client.id, sub_id, type, value);
        }
        json answer = success();
        answer["sent"] = applications.size();
        return call.reply(answer);
    }
    const client_entry* const client = call.daemon.clients.registry().find_app(app_id);
    if (client == nullptr || client->async == 0) {
        return call.reply(nobody(app_id));
    }
    call.daemon.clients.send_async(client->id, sub_id, type, value);
    json answer = success();
    answer["sent"] = 1;
    call.reply(answer);
}

void clients(const command_call& call) {
    json list = json::array();
    for (const auto& [app_id, client] : call.daemon.clients.registry().by_app()) {
        list.push_back({{"app", app_id},
                        {"pid", client.pid},
                        {"option", client.option},
                        {"sync", client.sync != 0},
                        {"async", client.async != 0}});
    }
    json answer = success();
    answer["clients"] = list;
    call.reply(answer);
}

void notify(const command_call& call) {
    const byte_buffer value = call.fields.hex("hex");
    const u16 type = call.fields.number16("type");
    const u16 sub_id = call.fields.number16("sub");
    send_to(call, call.fields.number32("to"), sub_id, type, value);
}

void notify_named(const command_call& call) {
    const std::string name = call.fields.text("name");
    const u32 to = call.fields.number32("to");
    if (!understood(call)) {
        return;
    }
    std::string problem;
    const std::optional<notification_item> notification = named_notification(name, call.request, problem);
    if (!notification) {
        return call.reply(control_failure(problem));
    }
    send_to(call, to, 0, notification->type, notification->value);
}

void debug(const command_call& call) {
    byte_buffer value(debug_bytes, 0);
    devkit::write_at(value, 24, call.fields.flag("open") ? 1u : 0u);
    devkit::write_at(value, 32, debug_switch);
    send_to(call, call.fields.number32("app"), 0, msg::debug, value);
}

void debug_show(const command_call& call) {
    byte_buffer value(debug_bytes, 0);
    devkit::write_at(value, 32, debug_show_command);
    devkit::write_at(value, 36, call.fields.number32("mode"));
    devkit::write_at(value, 40, call.fields.number32("vdev"));
    devkit::write_at(value, 44, call.fields.number32("type"));
    devkit::write_at(value, 48, call.fields.number32("id"));
    send_to(call, call.fields.number32("app"), 0, msg::debug, value);
}

void debug_dump_service(const command_call& call) {
    byte_buffer value(debug_bytes, 0);
    devkit::write_at(value, 32, debug_show_command);
    send_to(call, limits::service_app_id, 0, msg::debug, value);
}

json statistics(byte_view answer) {
    json entries = json::array();
    const u32 count = devkit::u32_at(answer, 4);
    for (std::size_t offset = 8; offset + statistics_entry_bytes <= answer.size() && entries.size() < count;
         offset += statistics_entry_bytes) {
        const u32 index = devkit::u32_at(answer, offset);
        entries.push_back({{"index", index},
                           {"name", index < statistics_names.size() ? statistics_names[index] : "unknown"},
                           {"calls", devkit::u32_at(answer, offset + 4)},
                           {"call_successes", devkit::u32_at(answer, offset + 8)},
                           {"callback_successes", devkit::u32_at(answer, offset + 12)},
                           {"call_failures", devkit::u32_at(answer, offset + 16)},
                           {"callback_failures", devkit::u32_at(answer, offset + 20)}});
    }
    return entries;
}

void ask(const command_call& call, u16 type) {
    const u32 app_id = call.fields.number32("app");
    const u32 limit_ms = call.fields.number32("timeout_ms", probe_timeout_ms);
    if (!understood(call)) {
        return;
    }
    const client_entry* const client = call.daemon.clients.registry().find_app(app_id);
    if (client == nullptr || !client->complete()) {
        return call.reply(nobody(app_id));
    }
    call.daemon.probe(client->id, type, std::chrono::milliseconds(limit_ms),
                      [reply = call.reply, type, app_id](std::optional<byte_view> answer) {
                          if (!answer) {
                              json failure =
                                  control_failure(fmt::format("application {} has not answered", app_id));
                              failure["unreachable"] = true;
                              return reply(failure);
                          }
                          json result = success();
                          result["app"] = devkit::u32_at(*answer, 0);
                          if (type == msg::info_collect) {
                              result["entries"] = statistics(*answer);
                          }
                          reply(result);
                      });
}

void alive(const command_call& call) {
    ask(call, msg::is_alive);
}
void stats(const command_call& call) {
    ask(call, msg::info_collect);
}

void capability(const command_call& call) {
    byte_buffer value(8, 0);
    devkit::write_at(value, 0, call.fields.number("word"));
    send_to(call, call.fields.number32("to"), 0, msg::dev_cap, value);
}

fault_rule simple_fault(fault_action action, u16 type, u32 result, u32 count) {
    fault_rule rule;
    rule.type = type;
    rule.count = count;
    rule.effect.action = action;
    rule.effect.result = result;
    return rule;
}

void fault(const command_call& call) {
    fault_rule rule;
    const std::string problem = read_fault(call.request, {"do"}, rule);
    if (!problem.empty()) {
        return call.reply(control_failure(problem));
    }
    json answer = success();
    answer["id"] = call.daemon.faults.add(rule);
    call.reply(answer);
}

void fault_list(const command_call& call) {
    json answer = success();
    answer["faults"] = call.daemon.faults.show();
    call.reply(answer);
}

void fault_clear(const command_call& call) {
    const u64 id = call.fields.number("id");
    if (!understood(call)) {
        return;
    }
    if (!call.fields.has("id")) {
        call.daemon.faults.clear();
    } else if (!call.daemon.faults.drop(id)) {
        return call.reply(control_failure(fmt::format("no fault {}", id)));
    }
    call.reply(success());
}

u32 count_of(const command_call& call) {
    return static_cast<u32>(call.fields.number_within("count", 1, 1, std::numeric_limits<u32>::max()));
}

void fail_next(const command_call& call) {
    const u16 type = call.fields.number16("type");
    const u32 result = call.fields.number32("result");
    const u32 count = count_of(call);
    if (!understood(call)) {
        return;
    }
    call.daemon.faults.replace(simple_fault(fault_action::refuse, type, result, count));
    call.reply(success());
}

void mute(const command_call& call) {
    const u16 type = call.fields.number16("type");
    const u32 count = count_of(call);
    if (!understood(call)) {
        return;
    }
    call.daemon.faults.replace(simple_fault(fault_action::mute, type, result::ok, count));
    call.reply(success());
}

void unmute(const command_call& call) {
    const u16 type = call.fields.number16("type");
    if (!understood(call)) {
        return;
    }
    call.daemon.faults.drop_all(fault_action::mute, type);
    call.reply(success());
}

word_list setting_names() {
    word_list all;
    for (const setting_row& row : setting_rows()) {
        all.push_back(row.name());
    }
    return all;
}

void dump(const command_call& call, std::string_view name, json content) {
    json answer = success();
    answer[std::string(name)] = std::move(content);
    call.reply(answer);
}

void acls(const command_call& call) {
    dump(call, "acls", dump_acls(call.daemon.acls));
}
void settings(const command_call& call) {
    const std::string name = call.fields.text("name");
    if (!understood(call)) {
        return;
    }
    if (!call.fields.has("name")) {
        return dump(call, "settings", dump_settings(call.daemon.settings));
    }
    const setting_row* const row = find_setting(std::string_view(name));
    if (row == nullptr) {
        return call.reply(control_failure(
            fmt::format("no setting '{}'; there are {}", name, fmt::join(setting_names(), ", "))));
    }
    dump(call, "settings", {{name, dump_setting(call.daemon.settings, *row)}});
}
void state(const command_call& call) {
    dump(call, "state", dump_state(call.daemon));
}

void users(const command_call& call) {
    json answer = success();
    answer["users"] = dump_users(call.daemon.users.users());
    answer["arp_entries"] = dump_users(call.daemon.users.arp_entries());
    call.reply(answer);
}

void set_counters(const command_call& call) {
    const devkit::acl_identity key{call.fields.number32("vdev"), call.fields.number32("type"),
                                   call.fields.number32("id"), 0};
    const u64 counter = call.fields.number("acl");
    const u64 filter = call.fields.number("filter");
    const u64 ace_number = call.fields.number("sn");
    const u64 ace_counter = call.fields.number("ace");
    if (!understood(call)) {
        return;
    }
    acl_entry* const acl = call.daemon.acls.find(key);
    if (acl == nullptr) {
        return call.reply(control_failure("no such ACL"));
    }
    ace_entry* const ace = call.fields.has("ace") ? acl_store::find_ace(*acl, ace_number) : nullptr;
    if (call.fields.has("ace") && ace == nullptr) {
        return call.reply(control_failure("no such ACE"));
    }
    if (call.fields.has("acl")) {
        acl->counter = counter;
    }
    if (call.fields.has("filter")) {
        acl->filter_counter = filter;
    }
    if (ace != nullptr) {
        ace->counter = ace_counter;
    }
    call.reply(success());
}

void counters(const command_call& call) {
    if (call.fields.has("id")) {
        return set_counters(call);
    }
    dump(call, "counters", dump_counters(call.daemon.acls));
}

void metrics(const command_call& call) {
    json answer = success();
    answer.update(dump_metrics(call.daemon));
    call.reply(answer);
}

// The control socket sends the stream after this reply.
void capture(const command_call& call) {
    json answer = success();
    answer["linktype"] = devkit::pcapng::link_type;
    call.reply(answer);
}

void quit(const command_call& call) {
    call.reply(success());
    call.daemon.loop.stop();
}

struct command_row {
    std::string_view name;
    void (*run)(const command_call&) = nullptr;
    word_list required{};
    word_list optional{};
    bool knows_its_fields = false;  // the command itself refuses unknown fields
};

namespace names = devkit::control;

const std::array<command_row, names::commands.size()>& rows() {
    static const std::array<command_row, names::commands.size()> table{{
        {names::clients, clients},
        {names::notify, notify, {"type"}, {"to", "hex", "sub"}},
        {names::notify_named, notify_named, {"name"}, {"to"}, true},
        {names::debug, debug, {"app", "open"}},
        {names::debug_show, debug_show, {"app"}, {"mode", "vdev", "type", "id"}},
        {names::debug_dump_service, debug_dump_service},
        {names::alive, alive, {"app"}, {"timeout_ms"}},
        {names::stats, stats, {"app"}, {"timeout_ms"}},
        {names::capability, capability, {"word"}, {"to"}},
        {names::fail_next, fail_next, {"type", "result"}, {"count"}},
        {names::mute, mute, {"type"}, {"count"}},
        {names::unmute, unmute, {}, {"type"}},
        {names::fault, fault, {"action"}, {}, true},
        {names::fault_list, fault_list},
        {names::fault_clear, fault_clear, {}, {"id"}},
        {names::acls, acls},
        {names::users, users},
        {names::settings, settings, {}, {"name"}},
        {names::state, state},
        {names::counters, counters, {}, {"vdev", "type", "id", "acl", "filter", "sn", "ace"}},
        {names::metrics, metrics},
        {names::capture, capture},
        {names::quit, quit},
    }};
    return table;
}

// What is wrong with the request's fields; empty if nothing is.
std::string problem_with_fields(const command_row& row, const json& request) {
    for (const std::string_view name : row.required) {
        if (!request.contains(name)) {
            return fmt::format("{} is missing", name);
        }
    }
    if (row.knows_its_fields) {
        return {};
    }
    word_list known = row.required;
    known.insert(known.end(), row.optional.begin(), row.optional.end());
    return unexpected_field(row.name, request, {"do"}, known);
}

}  // namespace

json control_failure(const std::string& error) {
    return {{"ok", false}, {"error", error}};
}

void run_control_command(daemon_core& daemon, const json& request, const control_reply& reply) {
    json_fields fields(request);
    const std::string name = fields.text("do");
    const auto row = std::find_if(rows().begin(), rows().end(),
                                  [&name](const command_row& each) { return each.name == name; });
    if (row == rows().end()) {
        return reply(control_failure(
            fmt::format("no command '{}'; there are {}", name, fmt::join(names::commands, ", "))));
    }
    const std::string problem = problem_with_fields(*row, request);
    if (!problem.empty()) {
        return reply(control_failure(problem));
    }
    row->run({daemon, fields, request, reply});
}

}  // namespace scc::sccd
