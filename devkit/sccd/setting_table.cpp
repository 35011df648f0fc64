#include "sccd/setting_table.h"

#include <algorithm>
#include <initializer_list>

#include "common/layouts.h"
#include "common/messages.h"
#include "common/records.h"
#include "sccd/change.h"

namespace scc::sccd {
namespace {

using enum devkit::field_kind;
using enum setting_removal;

constexpr u64 any32 = std::numeric_limits<u32>::max();
constexpr u64 vid_max = 4094;
constexpr u32 config_bytes = 8 + record::config;
constexpr u64 dhcp_first_form = 9;
constexpr u64 dhcp_second_form = 10;

struct number_range {
    std::string_view field;
    u64 min = 0;
    u64 max = any32;
};

// The fields of a value, without the call id where it begins with one.
template <std::size_t First, std::size_t Count>
constexpr auto fields_from(const devkit::layouts::fields<Count>& layout,
                           std::initializer_list<number_range> ranges) {
    std::array<record_field, Count - First> made{};
    for (std::size_t i = First; i < Count; ++i) {
        made[i - First] = {layout[i].name, layout[i].offset, layout[i].kind};
    }
    for (const number_range& range : ranges) {
        const auto limited = std::find_if(made.begin(), made.end(), [&range](const record_field& field) {
            return field.name == range.field;
        });
        limited->min = range.min;  // not a constant if there is no such field
        limited->max = range.max;
    }
    return made;
}

template <std::size_t Count>
constexpr auto after_call_id(const devkit::layouts::fields<Count>& layout,
                             std::initializer_list<number_range> ranges = {}) {
    return fields_from<1>(layout, ranges);
}

namespace layouts = devkit::layouts;
constexpr number_range vids{"vid", 0, vid_max};

constexpr auto config_fields = after_call_id(layouts::config_fields, {vids});
constexpr auto cos_fields = after_call_id(layouts::config_fields, {vids, {"value", 0, 7}});
constexpr auto dscp_fields = after_call_id(layouts::config_fields, {vids, {"value", 0, 63}});
constexpr auto dhcp_fields =
    after_call_id(layouts::config_fields, {vids, {"app_type", dhcp_first_form, dhcp_first_form}});
constexpr auto dhcp_second_fields =
    after_call_id(layouts::config_fields, {vids, {"app_type", dhcp_second_form, dhcp_second_form}});
// The service silently drops other types.
constexpr auto nac_app_fields =
    after_call_id(layouts::config_fields, {vids, {"app_type", 0, limits::nacm_types - 1}});
constexpr auto value_fields = after_call_id(layouts::switch_fields);
constexpr auto http_port_fields = after_call_id(layouts::http_port_fields);
constexpr auto host_fields = after_call_id(layouts::host_fields);
constexpr auto server_fields = after_call_id(layouts::server_fields);
constexpr auto site_fields = after_call_id(layouts::site_fields);
constexpr auto learning_fields = after_call_id(layouts::learning_fields, {{"ifx", 1}});
constexpr auto escape_fields = after_call_id(layouts::escape_fields);
constexpr auto default_bind_fields = after_call_id(layouts::default_bind_fields, {vids});
// The daemon takes the beginning of the record for the neighbour's place, as in a configuration record.
constexpr record_field neighbour_fields[] = {
    {"ifx", 8}, {"vid", 12, number32, 0, vid_max}, {"mac", 16, mac}, {"add", 920}};
constexpr auto egress_port_fields = after_call_id(layouts::eport_fields, {{"ifx", 1, limits::ifx_max}});
constexpr auto cpp_fields = after_call_id(layouts::cpp_fields, {{"type", 0, 0}});
// The request carries a word, of which others read one byte.
constexpr record_field offline_fields[] = {{"open", 4}, {"interval", 8}, {"threshold", 12}};
constexpr auto direct_vlan_fields = after_call_id(layouts::direct_vlan_fields);
// Not "bytes", which is the whole record.
constexpr record_field control_block_fields[] = {{"length", 4}, {"data", 8, bytes}};
constexpr auto command_fields = fields_from<0>(layouts::command_fields, {});
constexpr auto water_line_fields = fields_from<0>(layouts::water_line_fields, {});

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
