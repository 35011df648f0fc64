#include "sccd/notifications.h"

#include <algorithm>
#include <array>

#include "sccd/json_fields.h"

namespace scc::sccd {
namespace {

using devkit::Bytes;
using devkit::Item;
using devkit::View;
using nlohmann::json;

constexpr std::size_t moved_first = 8;
constexpr u32 vlan_count = record::direct_vlan * 8;

// The report's layout is also the notification's; only the service's call id goes.
void pass_on(Daemon& daemon, u16 type, View value) {
    Bytes notification = devkit::to_bytes(value);
    devkit::write_at(notification, 0, 0u);
    daemon.notify_applications(type, notification);
}

void pass_on_moves(Daemon& daemon, View value) {
    const std::size_t room = (value.size() - moved_first) / record::address_move;
    const std::size_t count = std::min<std::size_t>(devkit::u32_at(value, 4), room);
    for (std::size_t index = 0; index < count; ++index) {
        Bytes notification(moved_first, 0);
        devkit::write_at(notification, 4, 1u);
        const View entry =
            devkit::slice(value, moved_first + index * record::address_move, record::address_move);
        notification.insert(notification.end(), entry.begin(), entry.end());
        daemon.notify_applications(msg::d1x_addr_move, notification);
    }
}

bool counts_fit(const Item& item) {
    if (item.type == msg::ace_counter_up) {
        return u64{devkit::u32_at(item.value, 20)} * record::ace_counter <= item.value.size() - 24;
    }
    if (item.type == msg::noflow_offline_up) return devkit::u64_at(item.value, 80) <= item.value.size() - 88;
    return true;
}

void put_user(Bytes& value, std::size_t offset, JsonFields& fields) {
    namespace user = devkit::flow_user;
    devkit::write_at(value, offset + user::ipv4, fields.ipv4("ip"));
    devkit::write_at(value, offset + user::mask, fields.ipv4("mask"));
    devkit::write_at(value, offset + user::ifx, fields.number32("ifx"));
    devkit::write_at(value, offset + user::vid, fields.number16("vid"));
    devkit::copy_at(value, offset + user::mac, fields.mac("mac"));
    devkit::write_at(value, offset + user::family, user::family_ipv4);
}

u8 byte_flag(JsonFields& fields, std::string_view name) {
    return fields.flag(name) ? u8{1} : u8{0};
}

Bytes d1x_addr_move(JsonFields& fields) {
    namespace entry = devkit::address_move;
    Bytes value(moved_first + record::address_move, 0);
    devkit::write_at(value, 4, 1u);
    devkit::write_at(value, moved_first + entry::ifx, fields.number32("ifx"));
    devkit::write_at(value, moved_first + entry::vid, fields.number16("vid"));
    devkit::write_at(value, moved_first + entry::vid_before, fields.number16("vid_before"));
    devkit::write_at(value, moved_first + entry::vid_after, fields.number16("vid_after"));
    devkit::copy_at(value, moved_first + entry::mac, fields.mac("mac"));
    return value;
}

Bytes user_change(JsonFields& fields) {
    Bytes value(80 + record::config, 0);
    devkit::copy_at(value, 4, fields.mac("mac"));
    devkit::write_at(value, 16, byte_flag(fields, "add"));
    put_user(value, 24, fields);
    return value;
}

Bytes offline_detect(JsonFields& fields) {
    Bytes value(16, 0);
    devkit::write_at(value, 4, byte_flag(fields, "open"));
    devkit::write_at(value, 8, fields.number32("interval"));
    devkit::write_at(value, 12, fields.number32("threshold"));
    return value;
}

Bytes station_move(JsonFields& fields) {
    Bytes value(8, 0);
    devkit::write_at(value, 4, byte_flag(fields, "permit"));
    return value;
}

Bytes flow(JsonFields& fields) {
    Bytes value(80, 0);
    put_user(value, 8, fields);
    devkit::write_at(value, 64, fields.number("first"));
    devkit::write_at(value, 72, fields.number("second"));
    return value;
}

Bytes noflow_offline(JsonFields& fields) {
    Bytes value(88, 0);
    put_user(value, 8, fields);
    devkit::write_at(value, 64, fields.number("flow"));
    devkit::write_at(value, 72, fields.number("time"));
    const Bytes extra = fields.hex("extra");
    devkit::write_at(value, 80, u64{extra.size()});
    value.insert(value.end(), extra.begin(), extra.end());
    return value;
}

Bytes direct_vlan(JsonFields& fields) {
    Bytes value(8 + record::direct_vlan, 0);
    devkit::write_at(value, 4, fields.number32("value"));
    for (const json& element : fields.list("vlans")) {
        const std::optional<u64> vlan = JsonFields::as_number(element);
        if (!vlan || *vlan >= vlan_count) {
            fields.refuse("vlans", "not a VLAN");
            break;
        }
        value[8 + *vlan / 8] = static_cast<u8>(value[8 + *vlan / 8] | 1u << (*vlan % 8));
    }
    return value;
}

Bytes authmode(JsonFields& fields) {
    Bytes value(8, 0);
    devkit::write_at(value, 4, fields.number32("mode"));
    return value;
}

Bytes dirchn(JsonFields& fields) {
    Bytes value(12, 0);
    devkit::write_at(value, 4, fields.ipv4("ip"));
    devkit::write_at(value, 8, fields.flag("add") ? 1u : 0u);
    return value;
}

Bytes port_violate(JsonFields& fields) {
    Bytes value(64, 0);
    put_user(value, 4, fields);
    devkit::write_at(value, 60, byte_flag(fields, "add"));
    return value;
}

Bytes user_roll(JsonFields& fields) {
    Bytes value(72, 0);
    put_user(value, 8, fields);
    devkit::write_at(value, 64, fields.number32("roll_type"));
    return value;
}

Bytes water_line(JsonFields& fields) {
    Bytes value(4, 0);
    devkit::write_at(value, 0, fields.flag("start") ? 1u : 0u);
    return value;
}

Bytes ace_counter(JsonFields& fields) {
    Bytes value(24, 0);
    devkit::write_key(
        value, 4,
        {fields.number32("vdev"), fields.number32("type"), fields.number32("id"), fields.number32("class")});
    const std::vector<json> entries = fields.list("entries");
    devkit::write_at(value, 20, static_cast<u32>(entries.size()));
    for (const json& element : entries) {
        if (!element.is_object()) {
            fields.refuse("entries", "not a list of objects");
            break;
        }
        JsonFields entry(element);
        Bytes counter(record::ace_counter, 0);
        devkit::write_at(counter, 0, entry.number("id"));
        devkit::write_at(counter, 8, entry.number("value"));
        if (!entry.problem().empty()) fields.refuse("entries", entry.problem());
        value.insert(value.end(), counter.begin(), counter.end());
    }
    return value;
}

struct Row {
    std::string_view name;
    u16 type = 0;
    Bytes (*make)(JsonFields&) = nullptr;
};

constexpr std::array named{
    Row{"d1x-addr-move", msg::d1x_addr_move, d1x_addr_move},
    Row{"user-change", msg::nac_user, user_change},
    Row{"offline-detect", msg::offline_detect_notify, offline_detect},
    Row{"station-move", msg::station_move, station_move},
    Row{"flow", msg::flow, flow},
    Row{"noflow-offline", msg::noflow_offline, noflow_offline},
    Row{"direct-vlan", msg::direct_vlan_notify, direct_vlan},
    Row{"authmode", msg::authmode, authmode},
    Row{"dirchn", msg::dirchn, dirchn},
    Row{"port-violate", msg::port_violate_notify, port_violate},
    Row{"user-roll", msg::user_roll, user_roll},
    Row{"water-line", msg::water_line, water_line},
    Row{"ace-counter", msg::ace_counter, ace_counter},
};

}  // namespace

bool take_report(Daemon& daemon, const Client& service, const Item& item) {
    const devkit::MessageType* const row = devkit::find_message(devkit::Route::report, item.type);
    if (row == nullptr || row->route != devkit::Route::report) return false;
    if (item.value.size() < row->least_bytes || !counts_fit(item)) {
        daemon.trace.note("a report of the service is too short and ignored");
        return true;
    }
    switch (item.type) {
        case msg::service_ret:
            daemon.bridge.take_result(item);
            break;
        case msg::fetch:
            if (service.complete()) daemon.fetch();
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

std::optional<Notification> named_notification(std::string_view name, const json& fields,
                                               std::string& problem) {
    const auto row =
        std::find_if(named.begin(), named.end(), [name](const Row& entry) { return entry.name == name; });
    if (row == named.end()) {
        problem = "no notification of this name";
        return std::nullopt;
    }
    JsonFields reader(fields);
    Notification notification{row->type, row->make(reader)};
    problem = reader.problem();
    if (!problem.empty()) return std::nullopt;
    return notification;
}

}  // namespace scc::sccd
