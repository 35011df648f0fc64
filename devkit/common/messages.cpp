#include "common/messages.h"

#include <algorithm>
#include <utility>

namespace scc::devkit {
namespace {

using field_list = std::array<message_field, fields_max>;
using enum field_kind;

constexpr u32 config_bytes = record::config + 8;

constexpr field_list config_fields{
    {{"call", 0}, {"ifx", 8}, {"vid", 12}, {"mac", 16, mac}, {"app_type", 24}, {"op", 32}}};
constexpr field_list user_fields{
    {{"call", 0}, {"ifx", 8}, {"mac", 16, mac}, {"app_type", 24}, {"op", 32}, {"ip", 44, ipv4}}};
constexpr field_list acl_fields{{{"call", 0}, {"key", 4, key}, {"op", 136}}};
constexpr field_list ace_fields{{{"call", 0}, {"key", 4, key}, {"sn", 244}, {"ace", 248}, {"op", 936}}};
constexpr field_list apply_fields{
    {{"call", 0}, {"key", 8, key}, {"ifx", 24}, {"direction", 28}, {"apply_type", 216}, {"op", 240}}};
constexpr field_list resequence_fields{{{"call", 0}, {"key", 4, key}, {"start", 20}, {"increment", 24}}};
constexpr field_list user_acl_fields{
    {{"call", 0}, {"ifx", 8}, {"mac", 32, mac}, {"vid", 38, number16}, {"key", 40, key}, {"op", 216}}};
constexpr field_list filter_fields{{{"call", 0}, {"key", 4, key}, {"query", 20}}};
constexpr field_list acl_counter_fields{{{"call", 0}, {"key", 4, key}, {"query", 32}}};
constexpr field_list ace_counter_fields{{{"call", 0}, {"key", 4, key}, {"ace", 24, number64}, {"query", 32}}};
constexpr field_list eport_fields{{{"call", 0}, {"ifx", 4}, {"value", 8}}};
constexpr field_list value_fields{{{"call", 0}, {"value", 4}}};
constexpr field_list cpp_fields{{{"call", 0}, {"enable", 4}, {"type", 8}}};
constexpr field_list offline_fields{{{"call", 0}, {"open", 4, number8}, {"interval", 8}, {"threshold", 12}}};
constexpr field_list three_words{{{"call", 0}, {"first", 4}, {"second", 8}}};
constexpr field_list call_only{{{"call", 0}}};
constexpr field_list flow_fields{{{"ip", 16, ipv4},
                                  {"ifx", 48},
                                  {"vid", 52, number16},
                                  {"mac", 54, mac},
                                  {"first", 64, number64},
                                  {"second", 72, number64}}};
constexpr field_list direct_vlan_fields{{{"call", 0}, {"value", 4}}};
constexpr field_list move_fields{{{"count", 4}, {"ifx", 8}, {"vid", 12, number16}, {"mac", 18, mac}}};
constexpr field_list report_fields{{{"key", 4, key}, {"count", 20}}};
constexpr field_list recover_fields{{{"call", 0}, {"app", 4}, {"start", 8, number8}}};
constexpr field_list debug_fields{{{"switch", 24}, {"command", 32}, {"mode", 36}}};
constexpr field_list collect_fields{{{"app", 0}, {"entries", 4}}};
constexpr field_list result_fields{{{"call", 0}, {"result", 4}}};

constexpr message_type request(u16 number, std::string_view name, u32 least, const field_list& fields) {
    return {message_route::request, number, name, least, answer_kind::result, msg::call_ret, 8, 4, fields};
}

constexpr message_type config(u16 number, std::string_view name) {
    return request(number, name, config_bytes, config_fields);
}

constexpr message_type query(u16 number, std::string_view name, u32 least, u16 reply, u32 reply_bytes,
                             u32 result_offset, const field_list& fields) {
    return {message_route::request, number, name, least, answer_kind::reply, reply, reply_bytes,
            result_offset,          fields};
}

constexpr message_type one_way(message_route route, u16 number, std::string_view name, u32 least,
                               const field_list& fields) {
    return {route, number, name, least, answer_kind::none, 0, 0, no_result_offset, fields};
}

constexpr message_type to_client(u16 number, std::string_view name, u32 least, const field_list& fields) {
    return one_way(message_route::to_client, number, name, least, fields);
}

constexpr message_type operation(u16 number, std::string_view name, u32 least, answer_kind answer,
                                 const field_list& fields) {
    return {message_route::operation, number, name, least, answer, 0, 0, no_result_offset, fields};
}

constexpr std::array table{
    config(msg::d1x_authen_method, "d1x-authen-method"),
    config(msg::d1x_author_mode, "d1x-author-mode"),
    config(msg::d1x_port_addr_num, "d1x-port-addr-num"),
    config(msg::d1x_port_open, "d1x-port-open"),
    config(msg::d1x_pt_ctrl, "d1x-pt-ctrl"),
    config(msg::d1x_cos, "d1x-cos"),
    config(msg::d1x_dscp, "d1x-dscp"),
    request(msg::d1x_redirect, "d1x-redirect", 8, value_fields),
    request(msg::d1x_mac_move, "d1x-mac-move", 8, value_fields),
    config(msg::webauth, "webauth"),
    request(msg::http_dport, "http-dport", 12, {{{"call", 0}, {"port", 4, number16}, {"add", 8}}}),
    request(msg::dirchn_host, "dirchn-host", 24, {{{"call", 0}, {"ip", 4, ipv4}, {"mask", 8, ipv4}}}),
    request(msg::dirchn_server, "dirchn-server", 12, {{{"call", 0}, {"ip", 4, ipv4}, {"flag", 8}}}),
    request(msg::dirchn_site, "dirchn-site", 20, {{{"call", 0}, {"ip", 4, ipv4}, {"mask", 8, ipv4}}}),
    config(msg::port_security, "port-security"),
    config(msg::global_ip_mac, "global-ip-mac"),
    config(msg::ip_source_guard, "ip-source-guard"),
    config(msg::bind_except_port, "bind-except-port"),
    config(msg::dhcp_trust_port, "dhcp-trust-port"),
    config(msg::arpcheck, "arpcheck"),
    request(msg::addr_learning, "addr-learning", 12, {{{"call", 0}, {"ifx", 4}, {"enable", 8}}}),
    request(msg::nac_esc, "nac-esc", 28, {{{"call", 0}, {"first", 4}, {"key", 8, key}, {"enable", 24}}}),
    config(msg::nac_esc_eport, "nac-esc-eport"),
    config(msg::nac_app, "nac-app"),
    request(msg::nac_user, "nac-user", config_bytes, user_fields),
    request(msg::ndsnp_default_bind, "ndsnp-default-bind", 16, three_words),
    request(msg::nac_neighbour, "nac-neighbour", 924, {{{"call", 0}, {"flag", 920}}}),
    request(msg::acl, "acl", 140, acl_fields),
    request(msg::ace, "ace", 940, ace_fields),
    request(msg::acl_apply, "acl-apply", 244, apply_fields),
    request(msg::user_acl, "user-acl", 220, user_acl_fields),
    request(msg::user_acl_delete_vmsup, "user-acl-delete-vmsup", 232, {{{"call", 0}, {"key", 216, key}}}),
    request(msg::acl_resequence, "acl-resequence", 28, resequence_fields),
    request(msg::filter_counter_reset, "filter-counter-reset", 24, filter_fields),
    request(msg::acl_counter_reset, "acl-counter-reset", 36, acl_counter_fields),
    request(msg::ace_counter_reset, "ace-counter-reset", 36, ace_counter_fields),
    request(msg::global_eport, "global-eport", 12, eport_fields),
    request(msg::svi_router_acl, "svi-router-acl", 8, value_fields),
    request(msg::efacl_ctrl, "efacl-ctrl", 8, {{{"call", 0}, {"bytes", 4}}}),
    request(msg::dirchn_arp, "dirchn-arp", 20, {{{"call", 0}, {"ip", 4, ipv4}, {"second", 8}}}),
    config(msg::dhcp_snooping, "dhcp-snooping"),
    config(msg::dhcp_snooping_second, "dhcp-snooping-second"),
    config(msg::nd_snooping, "nd-snooping"),
    request(msg::cpp, "cpp", 12, cpp_fields),
    config(msg::arpcheck_trust, "arpcheck-trust"),
    request(msg::arp_entry, "arp-entry", config_bytes, user_fields),
    request(msg::offline_detect_cfg, "offline-detect-cfg", 16, offline_fields),
    request(msg::direct_vlan, "direct-vlan-set", 520, direct_vlan_fields),
    request(msg::arp_dyn_entry, "arp-dyn-entry", config_bytes, user_fields),
    config(msg::port_violate, "port-violate-set"),
    one_way(message_route::request, msg::data_recover, "data-recover", 16, recover_fields),
    one_way(message_route::request, msg::test_cmd, "test-cmd", 4, {{{"command", 0}}}),
    one_way(message_route::request, msg::water_line, "water-line", 4, {{{"start", 0}}}),
    query(msg::registration, "registration", 12, msg::registration, 12, 4,
          {{{"app", 0}, {"pid", 4}, {"option", 8, number8}, {"sync", 9, number8}}}),
    query(msg::unregistration, "unregistration", 4, msg::unregistration, 8, 4, {{{"app", 0}}}),
    query(msg::arp_check_status, "arp-check-status", 0, msg::arp_check_status_ret, 4, no_result_offset, {}),
    query(msg::arp_check_user_count, "arp-check-user-count", 8, msg::arp_check_user_count_ret, 12, 0,
          {{{"selector", 4}}}),
    query(msg::arp_check_user_data, "arp-check-user-data", 12, msg::arp_check_user_data_ret, 12, 0,
          {{{"selector", 4}, {"capacity", 8}}}),
    query(msg::nac_user_get, "nac-user-get", config_bytes, msg::call_ret, 10 + record::config, 4,
          user_fields),
    query(msg::filter_counter_get, "filter-counter-get", 24, msg::filter_counter_ret, 32, 24, filter_fields),
    query(msg::acl_counter_get, "acl-counter-get", 36, msg::acl_counter_ret, 48, 40, acl_counter_fields),
    query(msg::ace_counter_get, "ace-counter-get", 36, msg::ace_counter, 48, 40, ace_counter_fields),
    query(msg::user_vmsup_get, "user-vmsup-get", 216, msg::user_vmsup_ret, 16, no_result_offset,
          user_acl_fields),
    query(msg::mac_query, "mac-query", 10, msg::mac_query_ret, 152, 12, {{{"call", 0}, {"mac", 4, mac}}}),
    query(msg::span_dest_port, "span-dest-port", config_bytes, msg::span_dest_port_ret, 8, 0, config_fields),
    query(msg::port_addr_num, "port-addr-num", config_bytes, msg::port_addr_num_ret, 8, 0, config_fields),
    one_way(message_route::request, msg::info_collect, "info-collect", 8, collect_fields),
    one_way(message_route::request, msg::is_alive, "is-alive", 4, {{{"app", 0}}}),

    to_client(msg::d1x_addr_move, "d1x-addr-move", 24, move_fields),
    to_client(msg::nac_user, "user-change", 80,
              {{{"mac", 4, mac}, {"add", 16, number8}, {"ip", 32, ipv4}, {"ifx", 64}}}),
    to_client(msg::user_vmsup_ret, "user-vmsup-ret", 16, {{{"key", 0, key}}}),
    to_client(msg::debug, "debug", 36, debug_fields),
    to_client(msg::offline_detect_notify, "offline-detect", 16, offline_fields),
    to_client(msg::station_move, "station-move", 5, {{{"permit", 4, number8}}}),
    to_client(msg::flow, "flow", 80, flow_fields),
    to_client(msg::noflow_offline, "noflow-offline", 88, flow_fields),
    to_client(msg::direct_vlan_notify, "direct-vlan", 520, direct_vlan_fields),
    to_client(msg::authmode, "authmode", 8, {{{"mode", 4}}}),
    to_client(msg::dirchn, "dirchn", 12, {{{"ip", 4, ipv4}, {"add", 8}}}),
    to_client(msg::port_violate_notify, "port-violate", 61,
              {{{"ifx", 4}, {"vid", 8, number16}, {"mac", 10, mac}, {"add", 60, number8}}}),
    to_client(msg::user_roll, "user-roll", 24,
              {{{"ifx", 8}, {"vid", 12, number16}, {"mac", 14, mac}, {"roll_type", 20}}}),
    to_client(msg::water_line, "water-line", 4, {{{"start", 0}}}),
    to_client(msg::registration, "registration-reply", 12, {{{"result", 4}, {"owner", 8}}}),
    to_client(msg::unregistration, "unregistration-reply", 8, {{{"result", 4}}}),
    to_client(msg::info_collect, "info-collect", 0, {}),
    to_client(msg::is_alive, "is-alive", 0, {}),
    to_client(msg::call_ret, "call-ret", 8, result_fields),
    to_client(msg::arp_check_status_ret, "arp-check-status-ret", 4, {{{"enabled", 0}}}),
    to_client(msg::dev_cap, "dev-cap", 8, {{{"word", 0, number64}}}),
    to_client(msg::ace_counter, "ace-counter", 24, report_fields),
    to_client(msg::acl_counter_ret, "acl-counter-ret", 44,
              {{{"key", 4, key}, {"counter", 32, number64}, {"result", 40}}}),
    to_client(msg::filter_counter_ret, "filter-counter-ret", 28,
              {{{"counter", 16, number64}, {"result", 24}}}),
    to_client(msg::arp_check_user_data_ret, "arp-check-user-data-ret", 12, {{{"result", 0}, {"count", 8}}}),
    to_client(msg::arp_check_user_count_ret, "arp-check-user-count-ret", 12, {{{"result", 0}, {"count", 8}}}),
    to_client(msg::mac_query_ret, "mac-query-ret", 36, {{{"mac", 4, mac}, {"result", 12}, {"ip", 32, ipv4}}}),
    to_client(msg::span_dest_port_ret, "span-dest-port-ret", 4, {{{"result", 0}}}),
    to_client(msg::port_addr_num_ret, "port-addr-num-ret", 4, {{{"result", 0}, {"count", 4}}}),

    operation(msg::acl, "ss-acl", 140, answer_kind::result, acl_fields),
    operation(msg::ace, "ss-ace", 944, answer_kind::result, ace_fields),
    operation(msg::acl_apply, "ss-acl-apply", 248, answer_kind::result, apply_fields),
    operation(msg::acl_resequence, "ss-acl-resequence", 28, answer_kind::result, resequence_fields),
    operation(msg::acl_counter_reset, "ss-acl-counter-reset", 40, answer_kind::counter, acl_counter_fields),
    operation(msg::ace_counter_reset, "ss-ace-counter-reset", 40, answer_kind::counter, ace_counter_fields),
    operation(msg::global_eport, "ss-global-eport", 16, answer_kind::result, eport_fields),
    operation(msg::svi_router_acl, "ss-svi-router-acl", 8, answer_kind::result, value_fields),
    operation(msg::nacm_app, "nacm-app", 16, answer_kind::result,
              {{{"call", 0}, {"ifx", 4}, {"op", 8}, {"type", 12}}}),
    operation(msg::nacm_def_read, "nacm-def-read", 12, answer_kind::result,
              {{{"call", 0}, {"ifx", 4}, {"type", 8}}}),
    operation(msg::nacm_l4port, "nacm-l4port", 24, answer_kind::result,
              {{{"call", 0}, {"port", 8, number64}, {"add", 16}}}),
    operation(msg::nacm_user, "nacm-user", 96, answer_kind::result,
              {{{"call", 0}, {"add", 4, number8}, {"ifx", 8}, {"mac", 16, mac}, {"ip", 32, ipv4}}}),
    operation(msg::nacm_user_read, "nacm-user-read", 96, answer_kind::user_read,
              {{{"ifx", 8}, {"mac", 16, mac}, {"ip", 32, ipv4}}}),
    operation(msg::nacm_user_reinstall, "nacm-user-reinstall", 12, answer_kind::result,
              {{{"call", 0}, {"ifx", 4}, {"start", 8}}}),
    operation(msg::nacm_app_user_recover, "nacm-app-user-recover", 16, answer_kind::none,
              {{{"application", 0}, {"ifx", 8}, {"users", 12}}}),
    operation(msg::nacm_l4port_recover, "nacm-l4port-recover", 4, answer_kind::none, {{{"ports", 0}}}),
    operation(msg::nacm_app_with_vid, "nacm-app-with-vid", 24, answer_kind::result,
              {{{"call", 0}, {"ifx", 4}, {"op", 8}, {"type", 12}, {"vid", 20}}}),
    operation(msg::cpp, "ss-cpp", 12, answer_kind::result, cpp_fields),
    operation(msg::data_recover, "ss-data-recover", 16, answer_kind::untyped, recover_fields),
    operation(msg::test_cmd, "ss-test-cmd", 4, answer_kind::none, {{{"command", 0}}}),
    operation(msg::debug, "ss-debug", 36, answer_kind::none, debug_fields),
    operation(msg::offline_detect_notify, "ss-offline-detect", 16, answer_kind::result, offline_fields),
    operation(msg::direct_vlan_notify, "ss-direct-vlan", 520, answer_kind::none, direct_vlan_fields),
    operation(msg::authmode, "ss-authmode", 8, answer_kind::none, {{{"mode", 4}}}),
    operation(msg::acl_counter_get, "ss-acl-counter-get", 40, answer_kind::counter, acl_counter_fields),
    operation(msg::ace_counter_get, "ss-ace-counter-get", 40, answer_kind::counter, ace_counter_fields),

    one_way(message_route::report, msg::move_addr_up, "move-addr-up", 8, move_fields),
    one_way(message_route::report, msg::noflow_offline_up, "noflow-offline-up", 88, flow_fields),
    one_way(message_route::report, msg::fetch, "fetch", 8, call_only),
    one_way(message_route::report, msg::ace_counter_up, "ace-counter-up", 24, report_fields),
    one_way(message_route::report, msg::flow_up, "flow-up", 80, flow_fields),
    one_way(message_route::report, msg::service_ret, "service-ret", 8,
            {{{"call", 0}, {"result", 4}, {"type", 8}}}),
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

std::span<const message_type> message_types() {
    return table;
}

}  // namespace scc::devkit
