// Decodes notifications on the library's receive thread. A table lists the handler's slot, the
// notification's name, type and field names; the types of the fields follow from the handler's type.
#include "notifications.h"

#include <arpa/inet.h>
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <string_view>
#include <type_traits>

#include "common/bytes.h"
#include "common/records.h"
#include "inbox.h"
#include "msg/protocol.h"

namespace scc::ctl {
namespace {

// Lists longer than a message can hold are truncated.
constexpr std::uint32_t entries_max = wire::batch_capacity_bytes / record::ace_counter;

std::string mac_of(const std::uint8_t* mac) {
    return fmt::format("{:02x}:{:02x}:{:02x}:{:02x}:{:02x}:{:02x}", mac[0], mac[1], mac[2], mac[3], mac[4],
                       mac[5]);
}

std::string address_of(const std::uint8_t* bytes, bool is_ipv6) {
    char text[INET6_ADDRSTRLEN] = "";
    inet_ntop(is_ipv6 ? AF_INET6 : AF_INET, bytes, text, sizeof text);
    return text;
}

json shown(const scc_flow_user& user) {
    const bool is_ipv6 = user.family == 3 || user.family == 4;
    return {{"ip", address_of(user.address, is_ipv6)},
            {"mask", address_of(user.mask, is_ipv6)},
            {"ifx", user.ifx},
            {"vid", user.vid},
            {"mac", mac_of(user.mac)},
            {"family", user.family}};
}

json shown(const scc_port_violation& violation) {
    return {{"ifx", violation.ifx}, {"vid", violation.vid}, {"mac", mac_of(violation.mac)}};
}

json shown(const scc_user_roll& roll) {
    return {{"ifx", roll.ifx}, {"vid", roll.vid}, {"mac", mac_of(roll.mac)}, {"roll_type", roll.roll_type}};
}

json shown(const scc_vlan_record& vlans) {
    return devkit::vlans_of({vlans.bytes, sizeof vlans.bytes});
}

json shown(const scc_acl_key& key) {
    return {{"vdev", key.vdev_id}, {"type", key.app_type}, {"acl", key.acl_id}, {"class", key.acl_class}};
}

template <typename Number>
requires std::is_integral_v<Number> json shown(Number number) {
    return number;
}

// Records in a message may be unaligned, so each is copied before it is read.
template <typename Record>
Record entry_of(const Record* list, std::size_t index) {
    Record copy;
    std::memcpy(&copy, reinterpret_cast<const std::uint8_t*>(list) + index * sizeof copy, sizeof copy);
    return copy;
}

template <typename Record>
json shown(const Record* record) {
    return shown(entry_of(record, 0));
}

json named(std::string_view name, unsigned type) {
    return {{"notification", name}, {"type", type}};
}

void put(json notification) {
    inbox::shared().put_notification(std::move(notification));
}

// The handler's type, passed as a value, gives the fields' types.
template <const auto& Row, typename... Fields>
void install_plain(scc_handlers& handlers, void (*scc_handlers::*slot)(Fields...)) {
    static_assert(sizeof...(Fields) == Row.fields.size());
    handlers.*slot = [](Fields... fields) {
        json notification = named(Row.name, Row.type);
        std::size_t next = 0;
        ((notification[Row.fields[next++]] = shown(fields)), ...);
        put(std::move(notification));
    };
}

template <std::size_t Count>
struct plain_row {
    const char* name;
    unsigned type;
    std::array<const char*, Count> fields;
};

constexpr plain_row<1> direct_vlan_row{"direct-vlan", msg::direct_vlan_notify, {"vlans"}};
constexpr plain_row<1> authmode_row{"authmode", msg::authmode, {"mode"}};
constexpr plain_row<1> station_move_row{"station-move", msg::station_move, {"permit"}};
constexpr plain_row<3> flow_row{"flow", msg::flow, {"user", "first", "second"}};
constexpr plain_row<4> offline_detect_row{
    "offline-detect", msg::offline_detect_notify, {"first", "open", "interval", "threshold"}};
constexpr plain_row<2> port_violate_row{"port-violate", msg::port_violate_notify, {"add", "violation"}};
constexpr plain_row<1> user_roll_row{"user-roll", msg::user_roll, {"user"}};
constexpr plain_row<1> water_line_row{"water-line", msg::water_line, {"start"}};

json addr_move(std::uint32_t count, const scc_address_move* moves) {
    json notification = named("d1x-addr-move", msg::d1x_addr_move);
    notification["count"] = count;
    json& list = notification["moves"] = json::array();
    for (std::uint32_t i = 0; i < std::min(count, entries_max); ++i) {
        const scc_address_move move = entry_of(moves, i);
        list.push_back({{"ifx", move.ifx},
                        {"vid", move.vid},
                        {"vid_before", move.vid_before},
                        {"vid_after", move.vid_after},
                        {"mac", mac_of(move.mac)}});
    }
    return notification;
}

json ace_counters(const scc_acl_key* key, std::uint32_t count, const scc_ace_counter* counters) {
    json notification = named("ace-counter", msg::ace_counter);
    notification["key"] = shown(key);
    notification["count"] = count;
    json& list = notification["counters"] = json::array();
    for (std::uint32_t i = 0; i < std::min(count, entries_max); ++i) {
        const scc_ace_counter counter = entry_of(counters, i);
        list.push_back({{"ace", counter.ace}, {"packets", counter.packets}});
    }
    return notification;
}

json noflow(const scc_flow_user* user, std::uint64_t flow, std::uint64_t time, const void* extra,
            std::uint32_t extra_bytes) {
    json notification = named("noflow-offline", msg::noflow_offline);
    notification["user"] = shown(user);
    notification["flow"] = flow;
    notification["time"] = time;
    notification["extra"] = devkit::hex_text({static_cast<const std::uint8_t*>(extra), extra_bytes});
    return notification;
}

// The user is a 56-byte record with the layout of flow reports.
json user_change(std::uint8_t add, const void* user) {
    json notification = named("user-change", msg::nac_user);
    notification["add"] = add;
    notification["user"] = shown(static_cast<const scc_flow_user*>(user));
    return notification;
}

json dirchn(std::uint8_t add, std::uint32_t ip) {
    json notification = named("dirchn", msg::dirchn);
    notification["add"] = add;
    notification["ip"] = ipv4_of(ip);
    return notification;
}

// Each notification of a row once, with fields that are zero.
template <const auto& Row, typename... Fields>
json plain_sample(void (*scc_handlers::*)(Fields...)) {
    json notification = named(Row.name, Row.type);
    std::size_t next = 0;
    ((notification[Row.fields[next++]] = shown(std::remove_const_t<std::remove_pointer_t<Fields>>{})), ...);
    return notification;
}

void add_field_names(std::vector<std::string>& into, const json& value) {
    if (!value.is_structured()) {
        return;
    }
    for (const auto& [name, content] : value.items()) {
        if (value.is_object()) {
            into.push_back(name);
        }
        add_field_names(into, content);
    }
}

std::string value_text(const json& value) {
    if (value.is_string()) {
        return value.get<std::string>();
    }
    if (!value.is_structured()) {
        return value.dump();
    }
    std::vector<std::string> parts;
    for (const auto& [name, field] : value.items()) {
        parts.push_back(value.is_array() ? value_text(field) : fmt::format("{}={}", name, value_text(field)));
    }
    return value.is_array() ? fmt::format("[{}]", fmt::join(parts, ","))
                            : fmt::format("{{{}}}", fmt::join(parts, ","));
}

}  // namespace

void install_notifications(scc_handlers& handlers) {
    install_plain<direct_vlan_row>(handlers, &scc_handlers::direct_vlan_notify);
    install_plain<authmode_row>(handlers, &scc_handlers::authmode);
    install_plain<station_move_row>(handlers, &scc_handlers::station_move);
    install_plain<flow_row>(handlers, &scc_handlers::flow);
    install_plain<offline_detect_row>(handlers, &scc_handlers::offline_detect_notify);
    install_plain<port_violate_row>(handlers, &scc_handlers::port_violate_notify);
    install_plain<user_roll_row>(handlers, &scc_handlers::user_roll);
    install_plain<water_line_row>(handlers, &scc_handlers::water_line);
    handlers.d1x_addr_move = [](auto... fields) { put(addr_move(fields...)); };
    handlers.ace_counters = [](auto... fields) { put(ace_counters(fields...)); };
    handlers.noflow_offline = [](auto... fields) { put(noflow(fields...)); };
    handlers.user_change = [](std::uint8_t add, const void* user, const void*) {
        put(user_change(add, user));
        return 0;
    };
    handlers.dirchn = [](auto... fields) { put(dirchn(fields...)); };
}

std::vector<std::string> notification_fields(const std::vector<std::string>& notifications) {
    const scc_flow_user user{};
    const scc_address_move move{};
    const scc_acl_key key{};
    const scc_ace_counter counter{};
    const json samples[] = {plain_sample<direct_vlan_row>(&scc_handlers::direct_vlan_notify),
                            plain_sample<authmode_row>(&scc_handlers::authmode),
                            plain_sample<station_move_row>(&scc_handlers::station_move),
                            plain_sample<flow_row>(&scc_handlers::flow),
                            plain_sample<offline_detect_row>(&scc_handlers::offline_detect_notify),
                            plain_sample<port_violate_row>(&scc_handlers::port_violate_notify),
                            plain_sample<user_roll_row>(&scc_handlers::user_roll),
                            plain_sample<water_line_row>(&scc_handlers::water_line),
                            addr_move(1, &move),
                            ace_counters(&key, 1, &counter),
                            noflow(&user, 0, 0, nullptr, 0),
                            user_change(0, &user),
                            dirchn(0, 0)};
    std::vector<std::string> names;
    for (const json& each : samples) {
        const auto asked = std::find(notifications.begin(), notifications.end(), each.at("notification"));
        if (notifications.empty() || asked != notifications.end()) {
            add_field_names(names, each);
        }
    }
    std::sort(names.begin(), names.end());
    names.erase(std::unique(names.begin(), names.end()), names.end());
    return names;
}

std::string notification_line(const json& notification) {
    std::string line = notification.value("notification", "");
    for (const auto& [name, value] : notification.items()) {
        if (name != "notification" && name != "type") {
            line += fmt::format(" {}={}", name, value_text(value));
        }
    }
    return line;
}

}  // namespace scc::ctl
