// Requests about users, ports and interface settings, and the queries that read them.
#include <algorithm>
#include <utility>

#include "sccd/notifications.h"
#include "sccd/recovery.h"
#include "sccd/request_handlers.h"

namespace scc::sccd::handlers {
namespace {

using devkit::byte_buffer;
using devkit::byte_view;
using devkit::mac_address;
namespace config = devkit::config_record;

constexpr u16 second_step = 1000;  // added to the scc-type of the second operation with a call id
constexpr u32 user_notification_bytes = 80 + record::config;
constexpr std::size_t channel_address = 4;
constexpr std::size_t channel_notification_bytes = 12;

byte_view config_of(const client_request& request) {
    return devkit::slice(request.value, 8, record::config);
}

service_operation operation_of(u16 type, u16 scc_type, byte_view value, std::size_t len) {
    service_operation operation{type, scc_type, devkit::to_bytes(devkit::slice(value, 0, len))};
    operation.value.resize(len);
    return operation;
}

// A user that has moved to another interface is removed from the old one first.
std::vector<service_operation> user_operations(byte_view record, bool add, const byte_buffer* before) {
    std::vector<service_operation> operations;
    const bool moved = add && before != nullptr &&
                       devkit::u32_at(*before, config::ifx) != devkit::u32_at(record, config::ifx);
    if (moved) {
        operations.push_back(nac_user_operation(*before, false));
    }
    operations.push_back(nac_user_operation(add || before == nullptr ? record : byte_view(*before), add));
    if (moved) {
        operations.back().scc_type = static_cast<u16>(operations.back().scc_type + second_step);
    }
    return operations;
}

byte_buffer user_notification(byte_view record, bool add) {
    byte_buffer value(user_notification_bytes, 0);
    devkit::copy_at(value, 4, devkit::slice(record, config::mac, 6));
    devkit::write_at(value, 16, add ? u8{1} : u8{0});
    devkit::copy_at(value, 24, flow_user_record(record));
    devkit::copy_at(value, 80, record);
    return value;
}

void copy_user_entry(byte_buffer& record, byte_view entry) {
    namespace user = devkit::service_user;
    devkit::write_at(record, config::ifx, devkit::u32_at(entry, user::ifx));
    devkit::copy_at(record, config::mac, devkit::slice(entry, user::mac, 6));
    devkit::write_at(record, config::ipv4, devkit::u32_at(entry, user::ipv4));
}

// The value of an interface's setting; 0 if there is none.
u32 value_on(const daemon_core& daemon, u16 type, u32 ifx) {
    const byte_buffer* const record = daemon.settings.on_interface(type, ifx);
    return record == nullptr ? 0 : devkit::u32_at(*record, 8 + config::value);
}

// Whether the port takes one more user. A port beyond the limit of port security reports a violation, if a
// reaction to violations is set.
bool has_room(daemon_core& daemon, byte_view record, const byte_buffer* before) {
    const u32 ifx = devkit::u32_at(record, config::ifx);
    if (before != nullptr && devkit::u32_at(*before, config::ifx) == ifx) {
        return true;
    }
    const u32 users = daemon.users.users_on(ifx);
    const auto full = [users](u32 limit) { return limit != 0 && users >= limit; };
    const bool violation = full(value_on(daemon, msg::port_security, ifx));
    if (violation && daemon.settings.on_interface(msg::port_violate, ifx) != nullptr) {
        notify_violation(daemon, {ifx, static_cast<u16>(devkit::u32_at(record, config::vid)),
                                  devkit::mac_at(record, config::mac)});
    }
    return !violation && !full(value_on(daemon, msg::d1x_port_addr_num, ifx));
}

// The ARP check leaves the users of trusted ports alone.
std::vector<byte_view> arp_check_users(const daemon_core& daemon, u32 ifx) {
    std::vector<byte_view> users = daemon.users.arp_check_users(ifx);
    const auto& trusted = daemon.settings.records(msg::arpcheck_trust);
    if (!trusted.empty()) {
        std::erase_if(users, [&daemon](byte_view user) {
            return daemon.settings.on_interface(msg::arpcheck_trust, devkit::u32_at(user, config::ifx)) !=
                   nullptr;
        });
    }
    return users;
}

// The address of a binding of IP and MAC address; 0 if the MAC address has none.
u32 bound_address(const daemon_core& daemon, const mac_address& mac) {
    for (const auto& [key, record] : daemon.settings.records(msg::global_ip_mac)) {
        if (devkit::mac_at(record, 8 + config::mac) == mac) {
            return devkit::u32_at(record, 8 + config::ipv4);
        }
    }
    return 0;
}

byte_buffer user_reply(byte_view record, u32 outcome) {
    byte_buffer value(10 + record::config, 0);
    devkit::write_at(value, 4, outcome);
    devkit::copy_at(value, 10, record);
    return value;
}

}  // namespace

void setting(daemon_core& daemon, const client_request& request) {
    daemon.answer(request.ticket, daemon.settings.change(request.ticket.type->number, request.value).result);
}

// Settings that the security service carries out.
void service_setting(daemon_core& daemon, const client_request& request) {
    const u16 type = request.ticket.type->number;
    daemon.carry_out(request.ticket, daemon.settings.change(type, request.value),
                     one(setting_operation(type, request.value)));
}

// The other applications learn of hosts and sites that come and go.
void direct_channel(daemon_core& daemon, const client_request& request) {
    const setting_row& row = *find_setting(request.ticket.type->number);
    if (devkit::u32_at(request.value, channel_address) == 0 && !removes(row, request.value)) {
        return daemon.answer(request.ticket, result::invalid_argument);
    }
    const u32 outcome = daemon.settings.change(row, request.value).result;
    daemon.answer(request.ticket, outcome);
    if (outcome != result::ok) {
        return;
    }
    byte_buffer notification(channel_notification_bytes, 0);
    devkit::copy_at(notification, 4, devkit::slice(request.value, channel_address, 4));
    devkit::write_at(notification, 8, removes(row, request.value) ? 0u : 1u);
    daemon.notify_applications(msg::dirchn, notification, request.client.id);
}

void nac_esc(daemon_core& daemon, const client_request& request) {
    const setting_row& row = *find_setting(msg::nac_esc);
    const bool known = daemon.acls.find(devkit::key_at(request.value, 8)) != nullptr;
    if (!known && !removes(row, request.value)) {
        return daemon.answer(request.ticket, result::no_such_acl);
    }
    setting(daemon, request);
}

void nac_user(daemon_core& daemon, const client_request& request) {
    const byte_view record = config_of(request);
    const bool add = devkit::u32_at(record, config::operation) == devkit::user_operation::add;
    const byte_buffer* const known = daemon.users.find_user(devkit::mac_at(record, config::mac));
    if (add && !has_room(daemon, record, known)) {
        return daemon.answer(request.ticket, result::no_space);
    }
    std::vector<service_operation> operations = user_operations(record, add, known);
    byte_buffer notification = user_notification(add || known == nullptr ? record : byte_view(*known), add);
    state_change change = daemon.users.set_user(record);
    daemon.carry_out(request.ticket, std::move(change), std::move(operations),
                     [&daemon, sender = request.client.id, notification = std::move(notification)] {
                         daemon.notify_applications(msg::nac_user, notification, sender);
                     });
}

void arp_entry(daemon_core& daemon, const client_request& request) {
    daemon.answer(request.ticket, daemon.users.set_arp_entry(config_of(request)).result);
}

void efacl_ctrl(daemon_core& daemon, const client_request& request) {
    const u32 len = devkit::u32_at(request.value, 4);
    if (len == 0 || !devkit::holds(request.value, 8, len)) {
        return daemon.answer(request.ticket, result::invalid_argument);
    }
    daemon.answer(request.ticket,
                  daemon.settings.change(msg::efacl_ctrl, request.value.first(8 + len)).result);
}

void direct_vlan(daemon_core& daemon, const client_request& request) {
    daemon.bridge.post(setting_operation(msg::direct_vlan, request.value));
    setting(daemon, request);
}

// A start or an end alone would leave the service without what the daemon holds, so the argument does not
// choose between them.
void data_recover(daemon_core& daemon, const client_request&) {
    if (daemon.bridge.present()) {
        daemon.fetch();
    }
}

void test_cmd(daemon_core& daemon, const client_request& request) {
    (void)daemon.settings.change(msg::test_cmd, request.value);
    daemon.bridge.post(operation_of(msg::test_cmd, msg::test_cmd, request.value, 4));
}

void water_line(daemon_core& daemon, const client_request& request) {
    (void)daemon.settings.change(msg::water_line, request.value);
    daemon.notify_applications(msg::water_line, devkit::slice(request.value, 0, 4), request.client.id);
}

void arp_check_status(daemon_core& daemon, const client_request& request) {
    const auto& checks = daemon.settings.records(msg::arpcheck);
    const bool enabled = std::any_of(checks.begin(), checks.end(), [](const auto& entry) {
        const byte_view record = devkit::slice(entry.second, 8, record::config);
        return devkit::u32_at(record, config::operation) == devkit::user_operation::add ||
               devkit::u32_at(record, config::value) != 0;
    });
    byte_buffer value(4, 0);
    devkit::write_at(value, 0, enabled ? 1u : 0u);
    daemon.reply(request.ticket, value);
}

void arp_check_user_count(daemon_core& daemon, const client_request& request) {
    byte_buffer value(12, 0);
    const auto users = arp_check_users(daemon, devkit::u32_at(request.value, 4));
    devkit::write_at(value, 8, static_cast<u32>(users.size()));
    daemon.reply(request.ticket, value);
}

void arp_check_user_data(daemon_core& daemon, const client_request& request) {
    const auto users = arp_check_users(daemon, devkit::u32_at(request.value, 4));
    const std::size_t capacity = devkit::u32_at(request.value, 8);
    const std::size_t count = std::min(users.size(), capacity);
    byte_buffer value(12 + count * record::arp_check_entry, 0);
    devkit::write_at(value, 8, static_cast<u32>(count));
    for (std::size_t index = 0; index < count; ++index) {
        devkit::copy_at(value, 12 + index * record::arp_check_entry, arp_check_entry(users[index]));
    }
    daemon.reply(request.ticket, value);
}

void nac_user_get(daemon_core& daemon, const client_request& request) {
    const byte_view asked = config_of(request);
    const byte_buffer* const user = daemon.users.find_user(devkit::mac_at(asked, config::mac));
    if (user == nullptr) {
        return daemon.reply(request.ticket, user_reply(asked, result::not_found));
    }
    // The reply carries the caller's operation word, not that of the addition.
    byte_buffer found = *user;
    devkit::write_at(found, config::operation, devkit::user_operation::get);
    if (!daemon.bridge.present()) {
        return daemon.reply(request.ticket, user_reply(found, result::ok));
    }

    service_operation read{msg::nacm_user_read, msg::nac_user_get, byte_buffer(96, 0)};
    devkit::copy_at(read.value, 8, service_user_entry(found));
    daemon.bridge.submit(one(std::move(read)), [&daemon, ticket = request.ticket,
                                                found = std::move(found)](const service_outcome& outcome) {
        byte_buffer record = found;
        if (outcome.result == result::ok) {
            copy_user_entry(record, devkit::slice(outcome.value, 8, record::service_user));
        }
        daemon.reply(ticket, user_reply(record, outcome.result));
    });
}

void mac_query(daemon_core& daemon, const client_request& request) {
    const mac_address mac = devkit::mac_at(request.value, 4);
    const u32 known = daemon.users.ipv4_of(mac);
    const u32 address = known != 0 ? known : bound_address(daemon, mac);
    byte_buffer value = devkit::to_bytes(devkit::slice(request.value, 0, 10));
    value.resize(request.ticket.type->reply_bytes);
    devkit::write_at(value, 12, address == 0 ? result::not_found : result::ok);
    devkit::write_at(value, 32, address);
    daemon.reply(request.ticket, value);
}

void port_addr_num(daemon_core& daemon, const client_request& request) {
    byte_buffer value(request.ticket.type->reply_bytes, 0);
    devkit::write_at(value, 4, daemon.users.users_on(devkit::u32_at(config_of(request), config::ifx)));
    daemon.reply(request.ticket, value);
}

}  // namespace scc::sccd::handlers
