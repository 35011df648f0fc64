// A table of the notifications: name, type, length of the value, and offset of each field.
#include "sccd/named_notifications.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <vector>

#include "common/control.h"
#include "common/records.h"

namespace scc::sccd {
namespace {

using devkit::byte_buffer;
namespace control = devkit::control;

enum class value_kind : u8 {
    none,      // after the last field
    one,       // always the word 1, the number of entries that follow
    flag8,     // 0 or 1 in a byte
    flag32,    // 0 or 1 in a word
    number16,  // in host byte order, like the others
    number32,
    number64,
    mac,
    ipv4,
    user,     // the fields of a user, as a 56-byte record
    tail,     // bytes after the value; the u64 at the offset is their number
    vlans,    // a list of VLAN ids, as bits
    entries,  // a list of ACE counters after the value; the u32 at the offset is their number
};

struct notification_field {
    std::string_view name;
    u16 offset = 0;
    value_kind kind = value_kind::none;
};

constexpr std::size_t fields_max = 6;

struct notification_row {
    std::string_view name;
    u16 type = 0;
    u16 value_bytes = 0;
    std::array<notification_field, fields_max> fields{};
};

using enum value_kind;

constexpr std::array table{
    notification_row{"d1x-addr-move",
                     msg::d1x_addr_move,
                     24,
                     {{{{}, 4, one},
                       {"ifx", 8, number32},
                       {"vid", 12, number16},
                       {"vid_before", 14, number16},
                       {"vid_after", 16, number16},
                       {"mac", 18, mac}}}},
    notification_row{"user-change",
                     msg::nac_user,
                     80 + record::config,
                     {{{"mac", 4, mac}, {"add", 16, flag8}, {"user", 24, user}}}},
    notification_row{"offline-detect",
                     msg::offline_detect_notify,
                     16,
                     {{{"first", 0, number32},
                       {"open", 4, flag8},
                       {"interval", 8, number32},
                       {"threshold", 12, number32}}}},
    notification_row{"station-move", msg::station_move, 8, {{{"permit", 4, flag8}}}},
    notification_row{
        "flow", msg::flow, 80, {{{"user", 8, user}, {"first", 64, number64}, {"second", 72, number64}}}},
    notification_row{
        "noflow-offline",
        msg::noflow_offline,
        88,
        {{{"user", 8, user}, {"flow", 64, number64}, {"time", 72, number64}, {"extra", 80, tail}}}},
    notification_row{"direct-vlan",
                     msg::direct_vlan_notify,
                     8 + record::direct_vlan,
                     {{{"value", 4, number32}, {"vlans", 8, vlans}}}},
    notification_row{"authmode", msg::authmode, 8, {{{"mode", 4, number32}}}},
    notification_row{"dirchn", msg::dirchn, 12, {{{"ip", 4, ipv4}, {"add", 8, flag32}}}},
    notification_row{"port-violate",
                     msg::port_violate_notify,
                     64,
                     {{{"ifx", 4, number32}, {"vid", 8, number16}, {"mac", 10, mac}, {"add", 60, flag8}}}},
    notification_row{
        "user-roll",
        msg::user_roll,
        24,
        {{{"ifx", 8, number32}, {"vid", 12, number16}, {"mac", 14, mac}, {"roll_type", 20, number32}}}},
    notification_row{"water-line", msg::water_line, 4, {{{"start", 0, flag32}}}},
    notification_row{"ace-counter",
                     msg::ace_counter,
                     24,
                     {{{"vdev", 4, number32},
                       {"type", 8, number32},
                       {"id", 12, number32},
                       {"class", 16, number32},
                       {"entries", 20, entries}}}},
};
static_assert(std::equal(table.begin(), table.end(), control::notifications.begin(),
                         control::notifications.end(),
                         [](const notification_row& row, std::string_view name) { return row.name == name; }),
              "the names that others complete and document are those of the table, in its order");

constexpr std::array<std::string_view, 5> user_fields = {"mac", "ip", "mask", "ifx", "vid"};

// An IPv4 address in the first 4 bytes, or an IPv6 address. Returns whether it is IPv6.
bool put_address(byte_buffer& value, std::size_t offset, std::string_view name, json_fields& fields) {
    const ip_address address = fields.address(name);
    devkit::copy_at(value, offset, devkit::slice(address.bytes, 0, address.is_ipv6 ? 16 : 4));
    return address.is_ipv6;
}

void put_user(byte_buffer& value, std::size_t offset, json_fields& fields) {
    namespace record = devkit::flow_user;
    const bool is_ipv6 = put_address(value, offset + record::ipv4, "ip", fields);
    put_address(value, offset + record::mask, "mask", fields);
    devkit::write_at(value, offset + record::ifx, fields.number32("ifx"));
    devkit::write_at(value, offset + record::vid, fields.number16("vid"));
    devkit::copy_at(value, offset + record::mac, fields.mac("mac"));
    devkit::write_at(value, offset + record::family, is_ipv6 ? record::family_ipv6 : record::family_ipv4);
}

void put_tail(byte_buffer& value, const notification_field& field, json_fields& fields) {
    const byte_buffer tail = fields.hex(field.name);
    devkit::write_at(value, field.offset, u64{tail.size()});
    value.insert(value.end(), tail.begin(), tail.end());
}

void put_vlans(byte_buffer& value, const notification_field& field, json_fields& fields) {
    for (const json& element : fields.list(field.name)) {
        const std::optional<u64> vlan = json_fields::as_number(element);
        if (!vlan || !devkit::set_vlan(value, field.offset, *vlan)) {
            const std::string written = element.is_string() ? element.get<std::string>() : element.dump();
            fields.refuse(field.name,
                          fmt::format("'{}' is not a number from 0 to {}", written, devkit::vlan_count - 1));
        }
    }
}

void put_entries(byte_buffer& value, const notification_field& field, json_fields& fields) {
    const std::vector<json> list = fields.list(field.name);
    devkit::write_at(value, field.offset, static_cast<u32>(list.size()));
    for (const json& element : list) {
        if (!element.is_object()) {
            return fields.refuse(field.name, "not a list of objects");
        }
        json_fields entry(element);
        byte_buffer counter(record::ace_counter, 0);
        devkit::write_at(counter, 0, entry.number("id"));
        devkit::write_at(counter, 8, entry.number("value"));
        if (!entry.problem().empty()) {
            fields.refuse(field.name, entry.problem());
        }
        value.insert(value.end(), counter.begin(), counter.end());
    }
}

void put(byte_buffer& value, const notification_field& field, json_fields& fields) {
    switch (field.kind) {
        case none:
            return;
        case one:
            return devkit::write_at(value, field.offset, 1u);
        case flag8:
            return devkit::write_at(value, field.offset, fields.flag(field.name) ? u8{1} : u8{0});
        case flag32:
            return devkit::write_at(value, field.offset, fields.flag(field.name) ? 1u : 0u);
        case number16:
            return devkit::write_at(value, field.offset, fields.number16(field.name));
        case number32:
            return devkit::write_at(value, field.offset, fields.number32(field.name));
        case number64:
            return devkit::write_at(value, field.offset, fields.number(field.name));
        case mac:
            return devkit::copy_at(value, field.offset, fields.mac(field.name));
        case ipv4:
            return devkit::write_at(value, field.offset, fields.ipv4(field.name));
        case user:
            return put_user(value, field.offset, fields);
        case tail:
            return put_tail(value, field, fields);
        case vlans:
            return put_vlans(value, field, fields);
        case entries:
            return put_entries(value, field, fields);
    }
}

void add_once(std::vector<std::string_view>& names, std::string_view name) {
    if (!name.empty() && std::find(names.begin(), names.end(), name) == names.end()) {
        names.push_back(name);
    }
}

std::vector<std::string_view> field_names(const notification_row& row) {
    std::vector<std::string_view> names;
    for (const notification_field& field : row.fields) {
        if (field.kind == user) {
            for (const std::string_view each : user_fields) {
                add_once(names, each);
            }
        } else {
            add_once(names, field.name);
        }
    }
    return names;
}

}  // namespace

std::optional<notification_item> named_notification(std::string_view name, const json& request,
                                                    std::string& problem) {
    const auto row = std::find_if(table.begin(), table.end(),
                                  [name](const notification_row& entry) { return entry.name == name; });
    if (row == table.end()) {
        problem =
            fmt::format("no notification '{}'; there are {}", name, fmt::join(control::notifications, ", "));
        return std::nullopt;
    }
    problem = unexpected_field(name, request, {"do", "name", "to"}, field_names(*row));
    if (!problem.empty()) {
        return std::nullopt;
    }
    json_fields fields(request);
    notification_item notification{row->type, byte_buffer(row->value_bytes, 0)};
    for (const notification_field& field : row->fields) {
        put(notification.value, field, fields);
    }
    problem = fields.problem();
    if (!problem.empty()) {
        return std::nullopt;
    }
    return notification;
}

}  // namespace scc::sccd
