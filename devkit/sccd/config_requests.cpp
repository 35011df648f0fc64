// Requests about users, ports and interface settings, and the queries that read them.
#include <algorithm>
#include <utility>

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

byte_view config_of(const client_request& request) {
    return devkit::slice(request.value, 8, record::config);
}

std::vector<service_operation> one(service_operation operation) {
    std::vector<service_operation> operations;
    operations.push_back(std::move(operation));
    return operations;
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

byte_buffer user_reply(byte_view record, u32 outcome) {
    byte_buffer value(10 + record::config, 0);
    devkit::write_at(value, 4, outcome);
    devkit::copy_at(value, 10, record);
    return value;
}

}  // namespace

void http_dport(daemon_core& daemon, const client_request& request) {
    const u32 port = devkit::read_at<u16>(request.value, 4);
    const bool add = devkit::u32_at(request.value, 8) != 0;
    std::set<u32>& ports = daemon.settings.http_ports;
    const bool known = ports.contains(port);
    if (!add && !known) {
        return daemon.answer(request.ticket, result::no_such_http_port);
    }
    if (add) {
        ports.insert(port);
    } else {
        ports.erase(port);
    }
    state_change change = state_change::made([&ports, port, known] {
        if (known) {
            ports.insert(port);
        } else {
            ports.erase(port);
        }
    });
    daemon.carry_out(request.ticket, std::move(change), one(http_port_operation(port, add)));
}

void arpcheck(daemon_core& daemon, const client_request& request) {
    const byte_view record = config_of(request);
    const u32 ifx = devkit::u32_at(record, config::ifx);
    if (devkit::u32_at(record, config::operation) == devkit::user_operation::add) {
        daemon.settings.arp_check_ifxs.insert(ifx);
    } else {
        daemon.settings.arp_check_ifxs.erase(ifx);
    }
    daemon.answer(request.ticket, result::ok);
}

void nac_app(daemon_core& daemon, const client_request& request) {
    const byte_view record = config_of(request);
    const nac_application app{devkit::u32_at(record, config::ifx), devkit::u32_at(record, config::app_type),
                              devkit::u32_at(record, config::vid)};
    const u32 word = devkit::u32_at(record, config::operation);
    // The service silently drops such types, so there is no answer to wait for.
    if (app.type >= limits::nacm_types) {
        return daemon.answer(request.ticket, result::invalid_argument);
    }
    const bool removes = word == devkit::user_operation::remove;
    state_change change =
        set_entry(daemon.settings.nac_apps, app, removes ? std::nullopt : std::optional<u32>(word));
    daemon.carry_out(request.ticket, std::move(change), one(nac_app_operation(app, word)));
}

void nac_user(daemon_core& daemon, const client_request& request) {
    const byte_view record = config_of(request);
    const bool add = devkit::u32_at(record, config::operation) == devkit::user_operation::add;
    const byte_buffer* const known = daemon.users.find_user(devkit::mac_at(record, config::mac));
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

void global_eport(daemon_core& daemon, const client_request& request) {
    const u32 ifx = devkit::u32_at(request.value, 4);
    const u32 value = devkit::u32_at(request.value, 8);
    if (ifx == 0 || ifx > limits::ifx_max) {
        return daemon.answer(request.ticket, result::invalid_argument);
    }
    state_change change =
        set_entry(daemon.settings.egress_ports, ifx, value == 0 ? std::nullopt : std::optional<u32>(value));
    daemon.carry_out(request.ticket, std::move(change),
                     one(operation_of(msg::global_eport, msg::global_eport, request.value, 16)));
}

void svi_router_acl(daemon_core& daemon, const client_request& request) {
    state_change change = set_value(daemon.settings.router_acl, devkit::u32_at(request.value, 4));
    daemon.carry_out(request.ticket, std::move(change),
                     one(operation_of(msg::svi_router_acl, msg::svi_router_acl, request.value, 8)));
}

void efacl_ctrl(daemon_core& daemon, const client_request& request) {
    const u32 len = devkit::u32_at(request.value, 4);
    const bool fits = len != 0 && devkit::holds(request.value, 8, len);
    daemon.answer(request.ticket, fits ? result::ok : result::invalid_argument);
}

void cpp(daemon_core& daemon, const client_request& request) {
    state_change change = set_entry(daemon.settings.cpu_protection, devkit::u32_at(request.value, 8),
                                    std::optional<u32>(devkit::u32_at(request.value, 4)));
    daemon.carry_out(request.ticket, std::move(change),
                     one(operation_of(msg::cpp, msg::cpp, request.value, 12)));
}

void offline_detect_cfg(daemon_core& daemon, const client_request& request) {
    service_operation operation =
        operation_of(msg::offline_detect_notify, msg::offline_detect_cfg, request.value, 16);
    // Applications send a word, of which the service reads one byte.
    devkit::write_at(operation.value, 4, devkit::u32_at(request.value, 4) != 0 ? 1u : 0u);
    state_change change = set_value(daemon.settings.offline_detection, operation.value);
    daemon.carry_out(request.ticket, std::move(change), one(std::move(operation)));
}

void direct_vlan(daemon_core& daemon, const client_request& request) {
    service_operation told = operation_of(msg::direct_vlan_notify, msg::direct_vlan, request.value, 520);
    devkit::write_at(told.value, 0, 0u);
    daemon.bridge.post(told);
    daemon.settings.direct_vlan = std::move(told.value);
    daemon.answer(request.ticket, result::ok);
}

void data_recover(daemon_core& daemon, const client_request& request) {
    if (!daemon.bridge.present()) {
        return;
    }
    daemon.bridge.submit(one(operation_of(msg::data_recover, msg::data_recover, request.value, 16)), {});
}

void test_cmd(daemon_core& daemon, const client_request& request) {
    daemon.bridge.post(operation_of(msg::test_cmd, msg::test_cmd, request.value, 4));
}

void water_line(daemon_core& daemon, const client_request& request) {
    daemon.notify_applications(msg::water_line, devkit::slice(request.value, 0, 4), request.client.id);
}

void arp_check_status(daemon_core& daemon, const client_request& request) {
    byte_buffer value(4, 0);
    devkit::write_at(value, 0, daemon.settings.arp_check_ifxs.empty() ? 0u : 1u);
    daemon.reply(request.ticket, value);
}

void arp_check_user_count(daemon_core& daemon, const client_request& request) {
    byte_buffer value(12, 0);
    const auto users = daemon.users.arp_check_users(devkit::u32_at(request.value, 4));
    devkit::write_at(value, 8, static_cast<u32>(users.size()));
    daemon.reply(request.ticket, value);
}

void arp_check_user_data(daemon_core& daemon, const client_request& request) {
    const auto users = daemon.users.arp_check_users(devkit::u32_at(request.value, 4));
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
    const u32 address = daemon.users.ipv4_of(devkit::mac_at(request.value, 4));
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
