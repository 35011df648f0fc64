#include "sccd/setting_table.h"

#include <algorithm>

#include "common/messages.h"
#include "common/records.h"
#include "sccd/change.h"

namespace scc::sccd {
namespace {

namespace config = devkit::config_record;
using enum record_field_kind;
using enum setting_removal;

constexpr u64 any32 = std::numeric_limits<u32>::max();
constexpr u64 vid_max = 4094;
constexpr u32 record_at = 8;  // of the record in the value
constexpr u32 config_bytes = record_at + record::config;
constexpr u64 dhcp_first_form = 9;
constexpr u64 dhcp_second_form = 10;

struct number_range {
    u64 min = 0;
    u64 max = any32;
};

constexpr std::array<record_field, 10> config_record(number_range value = {}, number_range app_type = {}) {
    return {{{"ifx", record_at + config::ifx},
             {"vid", record_at + config::vid, number32, 0, vid_max},
             {"mac", record_at + config::mac, mac},
             {"app_type", record_at + config::app_type, number32, app_type.min, app_type.max},
             {"value", record_at + config::value, number32, value.min, value.max},
             {"op", record_at + config::operation},
             {"flags", record_at + config::flags},
             {"ip", record_at + config::ipv4, ipv4},
             {"ip6", record_at + config::ipv6, ipv6},
             {"mask", record_at + config::mask, ipv4}}};
}

constexpr auto config_fields = config_record();
constexpr auto cos_fields = config_record({0, 7});
constexpr auto dscp_fields = config_record({0, 63});
constexpr auto dhcp_fields = config_record({}, {dhcp_first_form, dhcp_first_form});
constexpr auto dhcp_second_fields = config_record({}, {dhcp_second_form, dhcp_second_form});
// The service silently drops other types.
constexpr auto nac_app_fields = config_record({}, {0, limits::nacm_types - 1});
constexpr record_field value_fields[] = {{"value", 4}};
constexpr record_field http_port_fields[] = {{"port", 4, number16}, {"add", 8}};
constexpr record_field host_fields[] = {
    {"ip", 4, ipv4}, {"mask", 8, ipv4}, {"arp", 12}, {"ifx", 16}, {"add", 20}};
constexpr record_field server_fields[] = {{"ip", 4, ipv4}, {"add", 8}};
constexpr record_field site_fields[] = {{"ip", 4, ipv4}, {"mask", 8, ipv4}, {"arp", 12}, {"add", 16}};
constexpr record_field learning_fields[] = {{"ifx", 4, number32, 1}, {"enable", 8}};
constexpr record_field escape_fields[] = {{"value", 4}, {"key", 8, key}, {"enable", 24}};
constexpr record_field default_bind_fields[] = {{"ifx", 4}, {"vid", 8, number32, 0, vid_max}, {"enable", 12}};
// The desk takes the beginning of the record for the neighbour's place, as in a configuration record.
constexpr record_field neighbour_fields[] = {
    {"ifx", 8}, {"vid", 12, number32, 0, vid_max}, {"mac", 16, mac}, {"add", 920}};
constexpr record_field egress_port_fields[] = {{"ifx", 4, number32, 1, limits::ifx_max}, {"value", 8}};
constexpr record_field cpp_fields[] = {{"enable", 4}, {"type", 8, number32, 0, 0}};
constexpr record_field offline_fields[] = {{"open", 4}, {"interval", 8}, {"threshold", 12}};
constexpr record_field direct_vlan_fields[] = {{"value", 4}, {"vlans", 8, vlans}};
constexpr record_field control_block_fields[] = {{"length", 4}, {"data", 8, rest}};
constexpr record_field command_fields[] = {{"command", 0}};
constexpr record_field water_line_fields[] = {{"start", 0}};

constexpr setting_key by(std::string_view first = "", std::string_view second = "",
                         std::string_view third = "") {
    return {first, second, third};
}

template <std::size_t Count>
constexpr setting_row config_row(u16 type, const std::array<record_field, Count>& fields, setting_key key,
                                 u32 missing = result::ok) {
    return {type, config_bytes, fields, key, operation, "op", missing};
}

constexpr std::array table{
    config_row(msg::d1x_authen_method, config_fields, by("ifx")),
    config_row(msg::d1x_author_mode, config_fields, by("ifx")),
    config_row(msg::d1x_port_addr_num, config_fields, by("ifx")),
    config_row(msg::d1x_port_open, config_fields, by("ifx")),
    config_row(msg::d1x_pt_ctrl, config_fields, by("ifx")),
    config_row(msg::d1x_cos, cos_fields, by("ifx")),
    config_row(msg::d1x_dscp, dscp_fields, by("ifx")),
    setting_row{msg::d1x_redirect, 8, value_fields, by()},
    setting_row{msg::d1x_mac_move, 8, value_fields, by()},
    config_row(msg::webauth, config_fields, by("ifx", "vid")),
    setting_row{msg::http_dport, 12, http_port_fields, by("port"), zero, "add", result::no_such_http_port},
    setting_row{msg::dirchn_host, 24, host_fields, by("ip", "mask", "ifx"), zero, "add",
                result::no_such_direct_host},
    setting_row{msg::dirchn_server, 12, server_fields, by("ip"), zero, "add", result::not_found},
    setting_row{msg::dirchn_site, 20, site_fields, by("ip", "mask"), zero, "add",
                result::no_such_direct_site},
    config_row(msg::port_security, config_fields, by("ifx")),
    config_row(msg::global_ip_mac, config_fields, by("vid", "mac"), result::not_found),
    config_row(msg::ip_source_guard, config_fields, by("ifx", "vid")),
    config_row(msg::bind_except_port, config_fields, by("ifx")),
    config_row(msg::dhcp_trust_port, config_fields, by("ifx")),
    config_row(msg::arpcheck, config_fields, by("ifx", "vid")),
    setting_row{msg::addr_learning, 12, learning_fields, by("ifx")},
    setting_row{msg::nac_esc, 28, escape_fields, by("value"), zero, "enable"},
    config_row(msg::nac_esc_eport, config_fields, by("ifx")),
    config_row(msg::nac_app, nac_app_fields, by("ifx", "app_type", "vid")),
    setting_row{msg::ndsnp_default_bind, 16, default_bind_fields, by("ifx", "vid"), zero, "enable"},
    setting_row{msg::nac_neighbour, 928, neighbour_fields, by("ifx", "vid", "mac"), zero, "add",
                result::not_found},
    setting_row{msg::global_eport, 16, egress_port_fields, by("ifx"), zero, "value"},
    setting_row{msg::svi_router_acl, 8, value_fields, by()},
    setting_row{msg::efacl_ctrl, 8, control_block_fields, by()},
    setting_row{msg::dirchn_arp, 20, site_fields, by("ip", "mask"), zero, "add", result::no_such_direct_site},
    config_row(msg::dhcp_snooping, dhcp_fields, by("ifx", "vid")),
    config_row(msg::dhcp_snooping_second, dhcp_second_fields, by("ifx", "vid")),
    config_row(msg::nd_snooping, config_fields, by("ifx", "vid")),
    setting_row{msg::cpp, 12, cpp_fields, by("type")},
    config_row(msg::arpcheck_trust, config_fields, by("ifx")),
    setting_row{msg::offline_detect_cfg, 16, offline_fields, by()},
    setting_row{msg::direct_vlan, 520, direct_vlan_fields, by()},
    config_row(msg::port_violate, config_fields, by("ifx")),
    setting_row{msg::test_cmd, 4, command_fields, by(), never, "", result::ok, false},
    setting_row{msg::water_line, 4, water_line_fields, by(), never, "", result::ok, false},
    config_row(msg::span_dest_port, config_fields, by()),
};

constexpr bool has_field(const setting_row& row, std::string_view name) {
    bool found = name.empty();
    for (const record_field& field : row.fields) {
        found = found || field.name == name;
    }
    return found;
}

constexpr bool names_its_fields() {
    bool all = true;
    for (const setting_row& row : table) {
        all = all && has_field(row, row.removal_field);
        for (const std::string_view name : row.key) {
            all = all && has_field(row, name);
        }
    }
    return all;
}
static_assert(names_its_fields());
static_assert(std::adjacent_find(table.begin(), table.end(), [](const setting_row& a, const setting_row& b) {
                  return a.type >= b.type;
              }) == table.end());

}  // namespace

std::string_view setting_row::name() const {
    const devkit::message_type* const message = devkit::find_message(devkit::message_route::request, type);
    return message == nullptr ? std::string_view() : message->name;
}

const record_field* setting_row::field(std::string_view wanted) const {
    const auto found = std::find_if(fields.begin(), fields.end(),
                                    [wanted](const record_field& each) { return each.name == wanted; });
    return found == fields.end() ? nullptr : &*found;
}

std::span<const setting_row> setting_rows() {
    return table;
}

const setting_row* find_setting(u16 type) {
    const auto row = std::lower_bound(table.begin(), table.end(), type,
                                      [](const setting_row& a, u16 wanted) { return a.type < wanted; });
    return row != table.end() && row->type == type ? &*row : nullptr;
}

const setting_row* find_setting(std::string_view name) {
    const auto row = std::find_if(table.begin(), table.end(),
                                  [name](const setting_row& each) { return each.name() == name; });
    return row == table.end() ? nullptr : &*row;
}

}  // namespace scc::sccd
