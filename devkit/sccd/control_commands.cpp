#include "sccd/control_commands.h"

#include <algorithm>
#include <array>

#include "common/control.h"
#include "sccd/json_fields.h"
#include "sccd/notifications.h"
#include "sccd/state_dump.h"

namespace scc::sccd {
namespace {

using devkit::Bytes;
using devkit::View;
using nlohmann::json;

constexpr u32 probe_timeout_ms = 5000;
constexpr std::size_t debug_bytes = 52;
constexpr u32 debug_switch = 1;
constexpr u32 debug_show_command = 3;
constexpr std::size_t statistics_entry_bytes = 24;

struct Call {
    Daemon& daemon;
    JsonFields& fields;
    const json& request;
    const ControlReply& reply;
};

json success() {
    return {{"ok", true}};
}

// Fails the call when a field could not be read.
bool understood(const Call& call) {
    if (call.fields.problem().empty()) return true;
    call.reply(control_failure(call.fields.problem()));
    return false;
}

// Sends to one application or the service, or (0) to every application; fails when nobody is there.
void send_to(const Call& call, u32 app_id, u16 sub_id, u16 type, View value) {
    if (!understood(call)) return;
    if (app_id == 0) {
        const std::vector<Client> applications = call.daemon.clients.registry().applications();
        for (const Client& client : applications) {
            call.daemon.clients.send_async(client.id, sub_id, type, value);
        }
        json answer = success();
        answer["sent"] = applications.size();
        return call.reply(answer);
    }
    const Client* const client = call.daemon.clients.registry().find_app(app_id);
    if (client == nullptr || client->async == 0) return call.reply(control_failure("no such client"));
    call.daemon.clients.send_async(client->id, sub_id, type, value);
    json answer = success();
    answer["sent"] = 1;
    call.reply(answer);
}

void clients(const Call& call) {
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

void notify(const Call& call) {
    const Bytes value = call.fields.hex("hex");
    if (!call.fields.has("type")) call.fields.refuse("type", "is missing");
    const u16 type = call.fields.number16("type");
    const u16 sub_id = call.fields.number16("sub");
    send_to(call, call.fields.number32("to"), sub_id, type, value);
}

void notify_named(const Call& call) {
    const std::string name = call.fields.text("name");
    const u32 to = call.fields.number32("to");
    if (!understood(call)) return;
    std::string problem;
    const std::optional<Notification> notification = named_notification(name, call.request, problem);
    if (!notification) return call.reply(control_failure(problem));
    send_to(call, to, 0, notification->type, notification->value);
}

void debug(const Call& call) {
    Bytes value(debug_bytes, 0);
    devkit::write_at(value, 24, call.fields.flag("open") ? 1u : 0u);
    devkit::write_at(value, 32, debug_switch);
    send_to(call, call.fields.number32("app"), 0, msg::debug, value);
}

void debug_show(const Call& call) {
    Bytes value(debug_bytes, 0);
    devkit::write_at(value, 32, debug_show_command);
    devkit::write_at(value, 36, call.fields.number32("mode"));
    devkit::write_at(value, 40, call.fields.number32("vdev"));
    devkit::write_at(value, 44, call.fields.number32("type"));
    devkit::write_at(value, 48, call.fields.number32("id"));
    send_to(call, call.fields.number32("app"), 0, msg::debug, value);
}

void debug_dump_service(const Call& call) {
    Bytes value(debug_bytes, 0);
    devkit::write_at(value, 32, debug_show_command);
    send_to(call, limits::service_app_id, 0, msg::debug, value);
}

json statistics(View answer) {
    json entries = json::array();
    const u32 count = devkit::u32_at(answer, 4);
    for (std::size_t offset = 8; offset + statistics_entry_bytes <= answer.size() && entries.size() < count;
         offset += statistics_entry_bytes) {
        entries.push_back({{"index", devkit::u32_at(answer, offset)},
                           {"calls", devkit::u32_at(answer, offset + 4)},
                           {"call_successes", devkit::u32_at(answer, offset + 8)},
                           {"callback_successes", devkit::u32_at(answer, offset + 12)},
                           {"call_failures", devkit::u32_at(answer, offset + 16)},
                           {"callback_failures", devkit::u32_at(answer, offset + 20)}});
    }
    return entries;
}

void ask(const Call& call, u16 type) {
    const u32 app_id = call.fields.number32("app");
    const u32 limit_ms = call.fields.number32("timeout_ms", probe_timeout_ms);
    if (!understood(call)) return;
    const Client* const client = call.daemon.clients.registry().find_app(app_id);
    if (client == nullptr || !client->complete()) return call.reply(control_failure("no such client"));
    call.daemon.probe(client->id, type, std::chrono::milliseconds(limit_ms),
                      [reply = call.reply, type](std::optional<View> answer) {
                          if (!answer) return reply(control_failure("no answer"));
                          json result = success();
                          result["app"] = devkit::u32_at(*answer, 0);
                          if (type == msg::info_collect) result["entries"] = statistics(*answer);
                          reply(result);
                      });
}

void alive(const Call& call) {
    ask(call, msg::is_alive);
}
void stats(const Call& call) {
    ask(call, msg::info_collect);
}

void capability(const Call& call) {
    Bytes value(8, 0);
    devkit::write_at(value, 0, call.fields.number("word"));
    send_to(call, call.fields.number32("to"), 0, msg::dev_cap, value);
}

void fail_next(const Call& call) {
    const u16 type = call.fields.number16("type");
    const u32 result = call.fields.number32("result");
    const u32 count = call.fields.number32("count", 1);
    if (count == 0) call.fields.refuse("count", "must not be 0");
    if (!understood(call)) return;
    call.daemon.faults.fail_next(type, result, count);
    call.reply(success());
}

void mute(const Call& call) {
    const u16 type = call.fields.number16("type");
    const u32 count = call.fields.number32("count", 1);
    if (count == 0) call.fields.refuse("count", "must not be 0");
    if (!understood(call)) return;
    call.daemon.faults.mute(type, count);
    call.reply(success());
}

void unmute(const Call& call) {
    const u16 type = call.fields.number16("type");
    if (!understood(call)) return;
    if (call.fields.has("type")) {
        call.daemon.faults.unmute(type);
    } else {
        call.daemon.faults.unmute_all();
    }
    call.reply(success());
}

void dump(const Call& call, std::string_view name, json content) {
    json answer = success();
    answer[std::string(name)] = std::move(content);
    call.reply(answer);
}

void acls(const Call& call) {
    dump(call, "acls", dump_acls(call.daemon.acls));
}
void settings(const Call& call) {
    dump(call, "settings", dump_settings(call.daemon.settings));
}

void users(const Call& call) {
    json answer = success();
    answer["users"] = dump_users(call.daemon.users.users());
    answer["arp_entries"] = dump_users(call.daemon.users.arp_entries());
    call.reply(answer);
}

void set_counters(const Call& call) {
    const devkit::AclKey key{call.fields.number32("vdev"), call.fields.number32("type"),
                             call.fields.number32("id"), 0};
    const u64 counter = call.fields.number("acl");
    const u64 filter = call.fields.number("filter");
    const u64 ace_number = call.fields.number("sn");
    const u64 ace_counter = call.fields.number("ace");
    if (!understood(call)) return;
    Acl* const acl = call.daemon.acls.find(key);
    if (acl == nullptr) return call.reply(control_failure("no such ACL"));
    Ace* const ace = call.fields.has("ace") ? AclStore::find_ace(*acl, ace_number) : nullptr;
    if (call.fields.has("ace") && ace == nullptr) return call.reply(control_failure("no such ACE"));
    if (call.fields.has("acl")) acl->counter = counter;
    if (call.fields.has("filter")) acl->filter_counter = filter;
    if (ace != nullptr) ace->counter = ace_counter;
    call.reply(success());
}

void counters(const Call& call) {
    if (call.fields.has("id")) return set_counters(call);
    dump(call, "counters", dump_counters(call.daemon.acls));
}

void quit(const Call& call) {
    call.reply(success());
    call.daemon.loop.stop();
}

struct Row {
    std::string_view name;
    void (*run)(const Call&) = nullptr;
};

namespace names = devkit::control;

constexpr std::array commands{
    Row{names::clients, clients},
    Row{names::notify, notify},
    Row{names::notify_named, notify_named},
    Row{names::debug, debug},
    Row{names::debug_show, debug_show},
    Row{names::debug_dump_service, debug_dump_service},
    Row{names::alive, alive},
    Row{names::stats, stats},
    Row{names::capability, capability},
    Row{names::fail_next, fail_next},
    Row{names::mute, mute},
    Row{names::unmute, unmute},
    Row{names::acls, acls},
    Row{names::users, users},
    Row{names::settings, settings},
    Row{names::counters, counters},
    Row{names::quit, quit},
};

}  // namespace

json control_failure(const std::string& error) {
    return {{"ok", false}, {"error", error}};
}

void run_control_command(Daemon& daemon, const json& request, const ControlReply& reply) {
    JsonFields fields(request);
    const std::string name = fields.text("do");
    const auto row = std::find_if(commands.begin(), commands.end(),
                                  [&name](const Row& command) { return command.name == name; });
    if (row == commands.end()) return reply(control_failure("no such command"));
    row->run({daemon, fields, request, reply});
}

}  // namespace scc::sccd
