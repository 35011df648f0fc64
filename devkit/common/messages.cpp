#include "common/messages.h"

#include <algorithm>
#include <utility>

#include "common/layouts.h"

namespace scc::devkit {
namespace {

using layout_list = std::span<const value_layout>;

constexpr u32 config_bytes = record::config + 8;

constexpr message_type request(u16 number, std::string_view name, u32 least, layout_list layouts) {
    return {message_route::request, number, name, least, answer_kind::result, msg::call_ret, 8, 4, layouts};
}

constexpr message_type config(u16 number, std::string_view name) {
    return request(number, name, config_bytes, layouts::config);
}

constexpr message_type query(u16 number, std::string_view name, u32 least, u16 reply, u32 reply_bytes,
                             u32 result_offset, layout_list layouts) {
    return {message_route::request, number, name, least, answer_kind::reply, reply, reply_bytes,
            result_offset,          layouts};
}

constexpr message_type one_way(message_route route, u16 number, std::string_view name, u32 least,
                               layout_list layouts) {
    return {route, number, name, least, answer_kind::none, 0, 0, no_result_offset, layouts};
}

constexpr message_type to_client(u16 number, std::string_view name, u32 least, layout_list layouts) {
    return one_way(message_route::to_client, number, name, least, layouts);
}

constexpr message_type operation(u16 number, std::string_view name, u32 least, answer_kind answer,
                                 layout_list layouts) {
    return {message_route::operation, number, name, least, answer, 0, 0, no_result_offset, layouts};
}

constexpr std::array table{
    config(msg::d1x_authen_method, "d1x-authen-method"),
    config(msg::d1x_author_mode, "d1x-author-mode-set"),
    config(msg::d1x_port_addr_num, "d1x-port-addr-num"),
    config(msg::d1x_port_open, "d1x-port-open"),
    config(msg::d1x_pt_ctrl, "d1x-set-pt-ctrl"),
    config(msg::d1x_cos, "d1x-set-cos"),
    config(msg::d1x_dscp, "d1x-set-dscp"),
    request(msg::d1x_redirect, "dot1x-redirect-enable", 8, layouts::on_or_off),
    request(msg::d1x_mac_move, "d1x-mac-move", 8, layouts::on_or_off),
    config(msg::webauth, "webauth-set"),
    request(msg::http_dport, "http-dport-set", 12, layouts::http_port),
    request(msg::dirchn_host, "dirchn-host-set", 24, layouts::direct_host),
    request(msg::dirchn_server, "dirchn-server-set", 12, layouts::direct_server),
    request(msg::dirchn_site, "dirchn-site-set", 20, layouts::direct_site),
    config(msg::port_security, "sp-port-security"),
    config(msg::global_ip_mac, "global-ip-mac"),
    config(msg::ip_source_guard, "ip-source-guard-status"),
    config(msg::bind_except_port, "bind-except-port"),
    config(msg::dhcp_trust_port, "dhcp-trust-port"),
    config(msg::arpcheck, "arpcheck"),
    request(msg::addr_learning, "addr-learning", 12, layouts::learning),
    request(msg::nac_esc, "nac-esc-set", 28, layouts::escape),
    config(msg::nac_esc_eport, "nac-esc-eport-set"),
    config(msg::nac_app, "nac-app-set"),
    request(msg::nac_user, "nac-user", config_bytes, layouts::user),
    request(msg::ndsnp_default_bind, "ndsnp-default-bind-set", 16, layouts::default_bind),
    request(msg::nac_neighbour, "nac-nbr-set", 924, layouts::neighbour),
    request(msg::acl, "acl", 140, layouts::acl),
    request(msg::ace, "ace", 940, layouts::ace),
    request(msg::acl_apply, "acl-apply", 244, layouts::apply),
    request(msg::user_acl, "user-acl", 220, layouts::user_acl),
    request(msg::user_acl_delete_vmsup, "user-acl-delete-vmsup", 232, layouts::delete_vmsup),
    request(msg::acl_resequence, "acl-resequence", 28, layouts::resequence),
    request(msg::filter_counter_reset, "filter-counter-reset", 24, layouts::filter),
    request(msg::acl_counter_reset, "acl-counter-reset", 36, layouts::acl_counter),
    request(msg::ace_counter_reset, "ace-counter-reset", 36, layouts::ace_counter),
    request(msg::global_eport, "acl-global-eport-set", 12, layouts::eport),
    request(msg::svi_router_acl, "svi-router-acl-set", 8, layouts::on_or_off),
    request(msg::efacl_ctrl, "efacl-ctrl", 8, layouts::efacl),
    request(msg::dirchn_arp, "dirchn-arp-set", 20, layouts::direct_site),
    config(msg::dhcp_snooping, "dhcp-snooping-set"),
    config(msg::dhcp_snooping_second, "dhcp-snooping-set-second"),
    config(msg::nd_snooping, "nd-snooping-set"),
    request(msg::cpp, "cpp-set", 12, layouts::cpp),
    config(msg::arpcheck_trust, "arpcheck-trust"),
    request(msg::arp_entry, "arp-entry", config_bytes, layouts::user),
    request(msg::offline_detect_cfg, "offline-detect-cfg", 16, layouts::offline),
    request(msg::direct_vlan, "direct-vlan-set", 520, layouts::direct_vlan),
    request(msg::arp_dyn_entry, "arp-dyn-entry", config_bytes, layouts::user),
    config(msg::port_violate, "sp-port-violate"),
    one_way(message_route::request, msg::data_recover, "data-recover", 16, layouts::recover_request),
    one_way(message_route::request, msg::test_cmd, "test-cmd-set", 4, layouts::command),
    one_way(message_route::request, msg::water_line, "warterline-notify", 4, layouts::water_line),
    query(msg::registration, "registration", 12, msg::registration, 12, 4, layouts::registration),
    query(msg::unregistration, "unregistration", 4, msg::unregistration, 8, 4, layouts::app),
    query(msg::arp_check_status, "is-arp-check-enabled", 0, msg::arp_check_status_ret, 4, no_result_offset,
          layouts::no_fields),
    query(msg::arp_check_user_count, "arp-check-user-count-get", 8, msg::arp_check_user_count_ret, 12, 0,
          layouts::selector),
    query(msg::arp_check_user_data, "arp-check-user-data-get", 12, msg::arp_check_user_data_ret, 12, 0,
          layouts::selection),
    query(msg::nac_user_get, "nac-user-get", config_bytes, msg::call_ret, 10 + record::config, 4,
          layouts::user),
    query(msg::filter_counter_get, "filter-counter-get", 24, msg::filter_counter_ret, 32, 24,
          layouts::filter),
    query(msg::acl_counter_get, "acl-counter-get", 36, msg::acl_counter_ret, 48, 40, layouts::acl_counter),
    query(msg::ace_counter_get, "ace-counter-get", 36, msg::ace_counter, 48, 40, layouts::ace_counter),
    query(msg::user_vmsup_get, "user-vmsup-get", 216, msg::user_vmsup_ret, 16, no_result_offset,
          layouts::user_acl_query),
    query(msg::mac_query, "mac-query", 10, msg::mac_query_ret, 152, 12, layouts::mac_query),
    query(msg::span_dest_port, "nac-span-dport-set", config_bytes, msg::span_dest_port_ret, 8, 0,
          layouts::config),
    query(msg::port_addr_num, "sp-port-addr-num", config_bytes, msg::port_addr_num_ret, 8, 0,
          layouts::config),
    one_way(message_route::request, msg::info_collect, "info-collect", 8, layouts::collect),
    one_way(message_route::request, msg::is_alive, "is-alive", 4, layouts::app),

    to_client(msg::d1x_addr_move, "d1x-addr-move", 24, layouts::moves),
    to_client(msg::nac_user, "user-change", 80, layouts::user_change),
    to_client(msg::user_vmsup_ret, "user-vmsup-ret", 16, layouts::vmsup_reply),
    to_client(msg::debug, "debug", 36, layouts::debug),
    to_client(msg::offline_detect_notify, "offline-detect", 16, layouts::offline),
    to_client(msg::station_move, "station-move", 5, layouts::station_move),
    to_client(msg::flow, "flow", 80, layouts::flow),
    to_client(msg::noflow_offline, "noflow-offline", 88, layouts::noflow),
    to_client(msg::direct_vlan_notify, "direct-vlan", 520, layouts::direct_vlan),
    to_client(msg::authmode, "authmode", 8, layouts::mode),
    to_client(msg::dirchn, "dirchn", 12, layouts::dirchn),
    to_client(msg::port_violate_notify, "port-violate", 61, layouts::violation),
    to_client(msg::user_roll, "user-roll", 24, layouts::roll),
    to_client(msg::water_line, "water-line", 4, layouts::water_line),
    to_client(msg::registration, "registration-reply", 12, layouts::registration_reply),
    to_client(msg::unregistration, "unregistration-reply", 8, layouts::unregistration_reply),
    to_client(msg::info_collect, "info-collect", 0, layouts::no_fields),
    to_client(msg::is_alive, "is-alive", 0, layouts::no_fields),
    to_client(msg::call_ret, "call-ret", 8, layouts::call_result),
    to_client(msg::arp_check_status_ret, "arp-check-status-ret", 4, layouts::enabled),
    to_client(msg::dev_cap, "dev-cap", 8, layouts::word),
    to_client(msg::ace_counter, "ace-counter", 24, layouts::ace_report),
    to_client(msg::acl_counter_ret, "acl-counter-ret", 44, layouts::acl_counter_reply),
    to_client(msg::filter_counter_ret, "filter-counter-ret", 28, layouts::filter_reply),
    to_client(msg::arp_check_user_data_ret, "arp-check-user-data-ret", 12, layouts::arp_check_users),
    to_client(msg::arp_check_user_count_ret, "arp-check-user-count-ret", 12, layouts::counted),
    to_client(msg::mac_query_ret, "mac-query-ret", 36, layouts::mac_reply),
    to_client(msg::span_dest_port_ret, "span-dest-port-ret", 4, layouts::result_first),
    to_client(msg::port_addr_num_ret, "port-addr-num-ret", 4, layouts::address_count),

    operation(msg::acl, "ss-acl", 140, answer_kind::result, layouts::acl),
    operation(msg::ace, "ss-ace", 944, answer_kind::result, layouts::ace),
    operation(msg::acl_apply, "ss-acl-apply", 248, answer_kind::result, layouts::apply),
    operation(msg::acl_resequence, "ss-acl-resequence", 28, answer_kind::result, layouts::resequence),
    operation(msg::acl_counter_reset, "ss-acl-counter-reset", 40, answer_kind::counter, layouts::acl_counter),
    operation(msg::ace_counter_reset, "ss-ace-counter-reset", 40, answer_kind::counter, layouts::ace_counter),
    operation(msg::global_eport, "ss-global-eport", 16, answer_kind::result, layouts::eport),
    operation(msg::svi_router_acl, "ss-svi-router-acl", 8, answer_kind::result, layouts::on_or_off),
    operation(msg::nacm_app, "nacm-app", 16, answer_kind::result, layouts::nac_app),
    operation(msg::nacm_def_read, "nacm-def-read", 12, answer_kind::result, layouts::default_read),
    operation(msg::nacm_l4port, "nacm-l4port", 24, answer_kind::result, layouts::layer4_port),
    operation(msg::nacm_user, "nacm-user", 96, answer_kind::result, layouts::nac_user),
    operation(msg::nacm_user_read, "nacm-user-read", 96, answer_kind::user_read, layouts::nac_user_read),
    operation(msg::nacm_user_reinstall, "nacm-user-reinstall", 12, answer_kind::result, layouts::reinstall),
    operation(msg::nacm_app_user_recover, "nacm-app-user-recover", 16, answer_kind::none,
              layouts::user_recovery),
    operation(msg::nacm_l4port_recover, "nacm-l4port-recover", 4, answer_kind::none, layouts::port_recovery),
    operation(msg::nacm_app_with_vid, "nacm-app-with-vid", 24, answer_kind::result, layouts::nac_app),
    operation(msg::cpp, "ss-cpp", 12, answer_kind::result, layouts::cpp),
    operation(msg::data_recover, "ss-data-recover", 16, answer_kind::untyped, layouts::recover),
    operation(msg::test_cmd, "ss-test-cmd", 4, answer_kind::none, layouts::command),
    operation(msg::debug, "ss-debug", 36, answer_kind::none, layouts::debug),
    operation(msg::offline_detect_notify, "ss-offline-detect", 16, answer_kind::result, layouts::offline),
    operation(msg::direct_vlan_notify, "ss-direct-vlan", 520, answer_kind::none, layouts::direct_vlan),
    operation(msg::authmode, "ss-authmode", 8, answer_kind::none, layouts::mode),
    operation(msg::acl_counter_get, "ss-acl-counter-get", 40, answer_kind::counter, layouts::acl_counter),
    operation(msg::ace_counter_get, "ss-ace-counter-get", 40, answer_kind::counter, layouts::ace_counter),

    one_way(message_route::report, msg::move_addr_up, "move-addr-up", 8, layouts::moves),
    one_way(message_route::report, msg::noflow_offline_up, "noflow-offline-up", 88, layouts::noflow),
    one_way(message_route::report, msg::fetch, "fetch", 8, layouts::call_only),
    one_way(message_route::report, msg::ace_counter_up, "ace-counter-up", 24, layouts::ace_report),
    one_way(message_route::report, msg::flow_up, "flow-up", 80, layouts::flow),
    one_way(message_route::report, msg::service_ret, "service-ret", 8, layouts::service_result),
};

constexpr auto place(const message_type& row) {
    return std::pair{row.route, row.number};
}

constexpr bool ordered() {
    return std::adjacent_find(table.begin(), table.end(), [](const message_type& a, const message_type& b) {
               return !(place(a) < place(b));
           }) == table.end();
}
static_assert(ordered(), "rows are sorted by route and number, each once");

// Every type has layouts, the last of which is for any length.
constexpr bool laid_out() {
    return std::all_of(table.begin(), table.end(), [](const message_type& row) {
        return !row.layouts.empty() && row.layouts.back().only_bytes == 0;
    });
}
static_assert(laid_out());

// What a field takes; `left` is what there is from its offset on.
std::size_t field_bytes(const message_field& field, std::size_t left) {
    switch (field.kind) {
        case field_kind::number8:
            return 1;
        case field_kind::number16:
            return 2;
        case field_kind::number32:
        case field_kind::ipv4:
            return 4;
        case field_kind::mac:
            return 6;
        case field_kind::number64:
            return 8;
        case field_kind::ipv6:
        case field_kind::address:
            return 16;
        case field_kind::key:
            return record::acl_key;
        case field_kind::text:
        case field_kind::bytes:
        case field_kind::vlans:
            return field.bytes == 0 ? left : field.bytes;
    }
    return 0;
}

const message_type* exact(message_route route, u16 number) {
    const std::pair wanted{route, number};
    const auto row = std::lower_bound(table.begin(), table.end(), wanted,
                                      [](const message_type& a, const auto& b) { return place(a) < b; });
    return row != table.end() && place(*row) == wanted ? &*row : nullptr;
}

}  // namespace

const message_type* find_message(message_route route, u16 number) {
    if (const message_type* row = exact(route, number)) {
        return row;
    }
    if (route == message_route::operation) {
        return exact(message_route::to_client, number);
    }
    if (route == message_route::report) {
        return exact(message_route::request, number);
    }
    return nullptr;
}

const message_type* find_message(message_route route, std::string_view name) {
    const auto row = std::find_if(table.begin(), table.end(), [&](const message_type& each) {
        return each.route == route && each.name == name;
    });
    return row == table.end() ? nullptr : &*row;
}

std::span<const message_type> message_types() {
    return table;
}

const value_layout& layout_of(const message_type& type, std::size_t value_bytes) {
    const auto exact = std::find_if(type.layouts.begin(), type.layouts.end(),
                                    [&](const value_layout& each) { return each.only_bytes == value_bytes; });
    return exact != type.layouts.end() ? *exact : type.layouts.back();
}

std::size_t bytes_of(const message_field& field, std::size_t value_bytes) {
    const std::size_t left = value_bytes > field.offset ? value_bytes - field.offset : 0;
    const std::size_t wanted = field_bytes(field, left);
    return wanted <= left ? wanted : 0;
}

bool holds_ipv6(byte_view value, const message_field& field) {
    const u32 family = u32_at(value, field.family_at);
    return field.kind == field_kind::address && name_of(names::family, family) == "ipv6";
}

std::size_t element_count(const element_list& elements, std::size_t value_bytes) {
    if (elements.name.empty() || value_bytes < elements.offset) {
        return 0;
    }
    return (value_bytes - elements.offset) / elements.element_bytes;
}

std::string_view name_of(value_names names, u64 value) {
    const auto found = std::find_if(names.begin(), names.end(),
                                    [value](const value_name& each) { return each.value == value; });
    return found == names.end() ? std::string_view() : found->name;
}

std::optional<u64> value_of(value_names names, std::string_view name) {
    const auto found = std::find_if(names.begin(), names.end(),
                                    [name](const value_name& each) { return each.name == name; });
    return found == names.end() ? std::nullopt : std::optional<u64>(found->value);
}

}  // namespace scc::devkit
