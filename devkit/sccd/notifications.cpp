#include "sccd/notifications.h"

#include <algorithm>

namespace scc::sccd {
namespace {

using devkit::byte_buffer;
using devkit::byte_view;
using devkit::wire_item;
namespace config = devkit::config_record;

constexpr u32 port_security = 6;  // the NAC application
constexpr std::size_t violation_notification_bytes = 64;
constexpr std::size_t moved_first = 8;
constexpr std::size_t learning_enable = 8;

// A report and its notification have the same layout; only the service's call id is cleared.
void pass_on(daemon_core& daemon, u16 type, byte_view value) {
    byte_buffer notification = devkit::to_bytes(value);
    devkit::write_at(notification, 0, 0u);
    daemon.notify_applications(type, notification);
}

// Interfaces learn unless an application has switched it off.
bool learns(const daemon_core& daemon, u32 ifx) {
    const byte_buffer* const learning = daemon.settings.on_interface(msg::addr_learning, ifx);
    return learning == nullptr || devkit::u32_at(*learning, learning_enable) != 0;
}

// Whether port security closes the interface to frames of this VLAN.
bool is_secured(const daemon_core& daemon, u32 ifx, u16 vid) {
    const auto& apps = daemon.settings.records(msg::nac_app);
    return std::any_of(apps.begin(), apps.end(), [ifx, vid](const auto& entry) {
        const byte_view app = devkit::slice(entry.second, 8, record::config);
        const u32 of_vlan = devkit::u32_at(app, config::vid);
        return devkit::u32_at(app, config::ifx) == ifx && (of_vlan == 0 || of_vlan == vid) &&
               devkit::u32_at(app, config::app_type) == port_security &&
               devkit::u32_at(app, config::operation) == devkit::user_operation::add;
    });
}

bool is_admitted(const daemon_core& daemon, const port_violation& station) {
    const byte_buffer* const user = daemon.users.find_user(station.mac);
    if (user == nullptr || devkit::u32_at(*user, config::ifx) != station.ifx) {
        return false;
    }
    const u32 vid = devkit::u32_at(*user, config::vid);
    return vid == 0 || vid == station.vid;
}

// A station that comes to an interface that port security closes to it.
void notify_if_violation(daemon_core& daemon, byte_view move) {
    namespace at = devkit::address_move;
    const port_violation station{devkit::u32_at(move, at::ifx), devkit::read_at<u16>(move, at::vid),
                                 devkit::mac_at(move, at::mac)};
    if (is_secured(daemon, station.ifx, station.vid) && !is_admitted(daemon, station)) {
        notify_violation(daemon, station);
    }
}

void pass_on_moves(daemon_core& daemon, byte_view value) {
    const std::size_t fitting = (value.size() - moved_first) / record::address_move;
    const std::size_t count = std::min<std::size_t>(devkit::u32_at(value, 4), fitting);
    for (std::size_t index = 0; index < count; ++index) {
        byte_buffer notification(moved_first, 0);
        devkit::write_at(notification, 4, 1u);
        const byte_view entry =
            devkit::slice(value, moved_first + index * record::address_move, record::address_move);
        notification.insert(notification.end(), entry.begin(), entry.end());
        if (learns(daemon, devkit::u32_at(entry, devkit::address_move::ifx))) {
            daemon.notify_applications(msg::d1x_addr_move, notification);
        }
        notify_if_violation(daemon, entry);
    }
}

bool counts_fit(const wire_item& item) {
    if (item.type == msg::ace_counter_up) {
        return u64{devkit::u32_at(item.value, 20)} * record::ace_counter <= item.value.size() - 24;
    }
    if (item.type == msg::noflow_offline_up) {
        return devkit::u64_at(item.value, 80) <= item.value.size() - 88;
    }
    return true;
}

}  // namespace

void notify_violation(daemon_core& daemon, const port_violation& violation) {
    byte_buffer value(violation_notification_bytes, 0);
    devkit::write_at(value, 4, violation.ifx);
    devkit::write_at(value, 8, violation.vid);
    devkit::copy_at(value, 10, violation.mac);
    devkit::write_at(value, 60, u8{1});
    daemon.notify_applications(msg::port_violate_notify, value);
}

bool take_report(daemon_core& daemon, const client_entry& service, const wire_item& item) {
    const devkit::message_type* const row = devkit::find_message(devkit::message_route::report, item.type);
    if (row == nullptr || row->route != devkit::message_route::report) {
        return false;
    }
    if (item.value.size() < row->least_bytes || !counts_fit(item)) {
        daemon.trace.note("a report of the service is too short and ignored");
        return true;
    }
    switch (item.type) {
        case msg::service_ret:
            daemon.bridge.take_result(item);
            break;
        case msg::fetch:
            if (service.complete()) {
                daemon.fetch();
            }
            break;
        case msg::move_addr_up:
            pass_on_moves(daemon, item.value);
            break;
        case msg::noflow_offline_up:
            pass_on(daemon, msg::noflow_offline, item.value);
            break;
        case msg::flow_up:
            pass_on(daemon, msg::flow, item.value);
            break;
        case msg::ace_counter_up:
            pass_on(daemon, msg::ace_counter, item.value);
            break;
        default:
            break;
    }
    return true;
}

}  // namespace scc::sccd
