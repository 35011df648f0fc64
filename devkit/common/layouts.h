// The layouts of the message values, as data: every field with its name, offset and kind. Included by the
// tables that are made of them: messages.cpp and the settings of sccd-dev.
#pragma once

#include <array>

#include "common/messages.h"
#include "common/records.h"

namespace scc::devkit::layouts {

template <std::size_t Count>
using fields = std::array<message_field, Count>;

using enum field_kind;

constexpr message_field named(std::string_view name, u32 offset, value_names values,
                              field_kind kind = number32) {
    return {name, offset, kind, 0, values};
}
// Shown in full traces only.
constexpr message_field detail(message_field field) {
    field.in_brief = false;
    return field;
}
constexpr message_field detail(std::string_view name, u32 offset, field_kind kind = number32, u32 bytes = 0) {
    return detail({name, offset, kind, bytes});
}
// `family_at` is the offset of the family word.
constexpr message_field address_at(std::string_view name, u32 offset, u32 family_at) {
    return {name, offset, address, 0, {}, family_at};
}

// A record's fields where the record begins at `offset`.
template <std::size_t Count>
constexpr fields<Count> at(u32 offset, fields<Count> record) {
    for (message_field& field : record) {
        field.offset += offset;
        field.family_at += field.kind == address ? offset : 0;
    }
    return record;
}

template <std::size_t... Counts>
constexpr auto joined(const fields<Counts>&... parts) {
    fields<(Counts + ...)> all{};
    std::size_t next = 0;
    const auto append = [&](const auto& part) {
        for (const message_field& field : part) {
            all[next++] = field;
        }
    };
    (append(parts), ...);
    return all;
}

constexpr fields<1> call{{{"call", 0}}};

// The records.
constexpr fields<10> config_record{{{"ifx", config_record::ifx},
                                    {"vid", config_record::vid},
                                    {"mac", config_record::mac, mac},
                                    {"app_type", config_record::app_type},
                                    detail("value", config_record::value),
                                    named("op", config_record::operation, names::operation),
                                    detail("flags", config_record::flags),
                                    detail("ip", config_record::ipv4, ipv4),
                                    detail("ip6", config_record::ipv6, ipv6),
                                    detail("mask", config_record::mask, ipv4)}};
constexpr fields<9> user_record{{{"ifx", config_record::ifx},
                                 detail("vid", config_record::vid),
                                 {"mac", config_record::mac, mac},
                                 {"app_type", config_record::app_type},
                                 named("op", config_record::operation, names::operation),
                                 detail("flags", config_record::flags),
                                 {"ip", config_record::ipv4, ipv4},
                                 detail("ip6", config_record::ipv6, ipv6),
                                 detail("mask", config_record::mask, ipv4)}};
constexpr fields<8> service_user_record{{{"ifx", service_user::ifx},
                                         detail("app_type", service_user::app_type),
                                         {"mac", service_user::mac, mac},
                                         detail("vid", service_user::vid, number16),
                                         detail("flags", service_user::flags),
                                         {"ip", service_user::ipv4, ipv4},
                                         detail("ip6", service_user::ipv6, ipv6),
                                         detail("mask", service_user::mask, ipv4)}};
constexpr fields<6> flow_user_record{{address_at("ip", flow_user::ipv4, flow_user::family),
                                      detail(address_at("mask", flow_user::mask, flow_user::family)),
                                      {"ifx", flow_user::ifx},
                                      {"vid", flow_user::vid, number16},
                                      {"mac", flow_user::mac, mac},
                                      detail(named("family", flow_user::family, names::family))}};
constexpr fields<4> ace_record{{detail("match", 16, bytes, 204),
                                {"sn", ace_record::sn},
                                {"ace", ace_record::id},
                                detail("action", 228, bytes, 684)}};
constexpr fields<8> apply_record{{{"key", 0, key},
                                  {"ifx", apply_record::ifx},
                                  named("direction", apply_record::direction, names::direction),
                                  detail("mac", apply_record::mac, mac),
                                  detail("vid", apply_record::vid, number16),
                                  detail("ip", apply_record::ipv4, ipv4),
                                  detail("ip6", apply_record::ipv6, ipv6),
                                  {"apply_type", apply_record::apply_type}}};
constexpr fields<9> user_acl_record{{{"ifx", user_acl_record::ifx},
                                     detail("phyid", user_acl_record::phyid, number64),
                                     detail("apptype", user_acl_record::app_type),
                                     detail(named("direction", user_acl_record::direction, names::direction)),
                                     {"mac", user_acl_record::mac, mac},
                                     {"vid", user_acl_record::vid, number16},
                                     {"key", user_acl_record::key, key},
                                     detail("ip", user_acl_record::ipv4, ipv4),
                                     detail("ip6", user_acl_record::ipv6, ipv6)}};

// The elements of lists.
constexpr fields<5> move_element{{{"ifx", address_move::ifx},
                                  {"vid", address_move::vid, number16},
                                  detail("vid_before", address_move::vid_before, number16),
                                  detail("vid_after", address_move::vid_after, number16),
                                  {"mac", address_move::mac, mac}}};
constexpr fields<2> counter_element{{detail("ace", 0, number64), detail("packets", 8, number64)}};
constexpr fields<6> statistics_element{{detail(named("index", 0, names::statistics)), detail("calls", 4),
                                        detail("call_successes", 8), detail("callback_successes", 12),
                                        detail("call_failures", 16), detail("callback_failures", 20)}};
constexpr fields<4> arp_check_element{
    {detail("ifx", arp_check_user::ifx), detail("vid", arp_check_user::vid, number16),
     detail("mac", arp_check_user::mac, mac), detail("ip", arp_check_user::ipv4, ipv4)}};
constexpr fields<1> port_element{{detail("port", 0)}};
constexpr auto service_user_element = [] {
    auto all = service_user_record;
    for (message_field& field : all) {
        field.in_brief = false;
    }
    return all;
}();
constexpr auto config_element = [] {
    auto all = config_record;
    for (message_field& field : all) {
        field.in_brief = false;
    }
    return all;
}();

// The values. A layout without elements is {fields}.
constexpr auto config_fields = joined(call, at(8, config_record));
constexpr value_layout config[]{{config_fields}};
constexpr auto user_fields = joined(call, at(8, user_record));
constexpr value_layout user[]{{user_fields}};
constexpr fields<6> acl_fields{{{"call", 0},
                                {"key", 4, key},
                                detail("pid", 20),
                                detail("app", 24),
                                detail("process", 28, text, record::process_name_field),
                                named("op", 136, names::create_delete)}};
constexpr value_layout acl[]{{acl_fields}};
constexpr auto ace_fields = joined(fields<2>{{{"call", 0}, {"key", 4, key}}}, at(24, ace_record),
                                   fields<1>{{named("op", 936, names::add_delete)}});
constexpr value_layout ace[]{{ace_fields}};
constexpr auto apply_fields =
    joined(call, at(8, apply_record), fields<1>{{named("op", 240, names::apply_unapply)}});
constexpr value_layout apply[]{{apply_fields}};
constexpr fields<4> resequence_fields{{{"call", 0}, {"key", 4, key}, {"start", 20}, {"increment", 24}}};
constexpr value_layout resequence[]{{resequence_fields}};
constexpr auto user_acl_fields =
    joined(call, at(8, user_acl_record), fields<1>{{named("op", 216, names::apply_unapply)}});
constexpr value_layout user_acl[]{{user_acl_fields}};
constexpr auto user_acl_query_fields = joined(call, at(8, user_acl_record));
constexpr value_layout user_acl_query[]{{user_acl_query_fields}};
constexpr fields<2> delete_vmsup_fields{{{"call", 0}, {"key", 216, key}}};
constexpr value_layout delete_vmsup[]{{delete_vmsup_fields}};
constexpr fields<3> filter_fields{{{"call", 0}, {"key", 4, key}, named("query", 20, names::read_reset)}};
constexpr value_layout filter[]{{filter_fields}};
constexpr fields<3> acl_counter_fields{{{"call", 0}, {"key", 4, key}, named("query", 32, names::read_reset)}};
constexpr value_layout acl_counter[]{{acl_counter_fields}};
constexpr fields<4> ace_counter_fields{
    {{"call", 0}, {"key", 4, key}, {"ace", 24, number64}, named("query", 32, names::read_reset)}};
constexpr value_layout ace_counter[]{{ace_counter_fields}};
constexpr fields<3> eport_fields{{{"call", 0}, {"ifx", 4}, named("value", 8, names::set_clear)}};
constexpr value_layout eport[]{{eport_fields}};
constexpr fields<2> switch_fields{{{"call", 0}, named("value", 4, names::on_off)}};
constexpr value_layout on_or_off[]{{switch_fields}};
constexpr fields<3> cpp_fields{{{"call", 0}, named("enable", 4, names::on_off), {"type", 8}}};
constexpr value_layout cpp[]{{cpp_fields}};
constexpr fields<4> offline_fields{
    {{"call", 0}, named("open", 4, names::on_off, number8), {"interval", 8}, {"threshold", 12}}};
constexpr value_layout offline[]{{offline_fields}};
constexpr fields<3> http_port_fields{
    {{"call", 0}, {"port", 4, number16}, named("add", 8, names::add_delete)}};
constexpr value_layout http_port[]{{http_port_fields}};
constexpr fields<6> host_fields{{{"call", 0},
                                 {"ip", 4, ipv4},
                                 {"mask", 8, ipv4},
                                 named("arp", 12, names::on_off),
                                 {"ifx", 16},
                                 named("add", 20, names::add_delete)}};
constexpr value_layout direct_host[]{{host_fields}};
constexpr fields<3> server_fields{{{"call", 0}, {"ip", 4, ipv4}, named("add", 8, names::add_delete)}};
constexpr value_layout direct_server[]{{server_fields}};
// The ARP entry of the direct channel is a site whose ARP word is always 1.
constexpr fields<5> site_fields{{{"call", 0},
                                 {"ip", 4, ipv4},
                                 {"mask", 8, ipv4},
                                 named("arp", 12, names::on_off),
                                 named("add", 16, names::add_delete)}};
constexpr value_layout direct_site[]{{site_fields}};
constexpr fields<3> learning_fields{{{"call", 0}, {"ifx", 4}, named("enable", 8, names::on_off)}};
constexpr value_layout learning[]{{learning_fields}};
constexpr fields<4> escape_fields{
    {{"call", 0}, {"value", 4}, {"key", 8, key}, named("enable", 24, names::on_off)}};
constexpr value_layout escape[]{{escape_fields}};
constexpr fields<4> default_bind_fields{
    {{"call", 0}, {"ifx", 4}, {"vid", 8}, named("enable", 12, names::on_off)}};
constexpr value_layout default_bind[]{{default_bind_fields}};
constexpr fields<3> neighbour_fields{
    {{"call", 0}, detail("record", 8, bytes, record::neighbour), named("flag", 920, names::add_delete)}};
constexpr value_layout neighbour[]{{neighbour_fields}};
constexpr fields<3> efacl_fields{{{"call", 0}, {"bytes", 4}, detail("data", 8, bytes)}};
constexpr value_layout efacl[]{{efacl_fields}};
constexpr fields<3> direct_vlan_fields{
    {{"call", 0}, {"value", 4}, detail("vlans", 8, vlans, record::direct_vlan)}};
constexpr value_layout direct_vlan[]{{direct_vlan_fields}};
constexpr fields<3> recover_request_fields{{{"call", 0}, {"app", 4}, {"argument", 8}}};
constexpr value_layout recover_request[]{{recover_request_fields}};
constexpr fields<3> recover_fields{{{"call", 0}, {"app", 4}, named("start", 8, names::start_end, number8)}};
constexpr value_layout recover[]{{recover_fields}};
constexpr fields<1> command_fields{{{"command", 0}}};
constexpr value_layout command[]{{command_fields}};
constexpr fields<1> water_line_fields{{named("start", 0, names::start_end)}};
constexpr value_layout water_line[]{{water_line_fields}};

constexpr fields<4> registration_fields{
    {{"app", 0}, {"pid", 4}, {"option", 8, number8}, named("sync", 9, names::socket, number8)}};
constexpr value_layout registration[]{{registration_fields}};
constexpr fields<1> app_fields{{{"app", 0}}};
constexpr value_layout app[]{{app_fields}};
constexpr fields<2> registration_reply_fields{{named("result", 4, names::results), {"owner", 8}}};
constexpr value_layout registration_reply[]{{registration_reply_fields}};
constexpr fields<1> unregistration_reply_fields{{named("result", 4, names::results)}};
constexpr value_layout unregistration_reply[]{{unregistration_reply_fields}};
constexpr fields<2> collect_fields{{{"app", 0}, {"entries", 4}}};
constexpr value_layout collect[]{{collect_fields, {"statistics", 8, 24, statistics_element}}};

constexpr fields<1> selector_fields{{{"selector", 4}}};
constexpr value_layout selector[]{{selector_fields}};
constexpr fields<2> selection_fields{{{"selector", 4}, {"capacity", 8}}};
constexpr value_layout selection[]{{selection_fields}};
constexpr fields<2> mac_query_fields{{{"call", 0}, {"mac", 4, mac}}};
constexpr value_layout mac_query[]{{mac_query_fields}};

constexpr fields<1> count_fields{{{"count", 4}}};
constexpr value_layout moves[]{{count_fields, {"moves", 8, record::address_move, move_element}}};
constexpr auto user_change_fields =
    joined(fields<2>{{{"mac", 4, mac}, named("add", 16, names::add_delete, number8)}},
           fields<5>{{address_at("ip", 24 + flow_user::ipv4, 24 + flow_user::family),
                      detail(address_at("mask", 24 + flow_user::mask, 24 + flow_user::family)),
                      {"ifx", 24 + flow_user::ifx},
                      detail("vid", 24 + flow_user::vid, number16),
                      detail(named("family", 24 + flow_user::family, names::family))}});
constexpr value_layout user_change[]{{user_change_fields, {"record", 80, record::config, config_element}}};
constexpr fields<1> reply_bytes_fields{{detail("reply", 0, bytes, 16)}};
constexpr value_layout vmsup_reply[]{{reply_bytes_fields}};
constexpr fields<6> debug_fields{{named("switch", 24, names::on_off),
                                  named("command", 32, names::debug_command),
                                  {"mode", 36},
                                  detail("vdev", 40),
                                  detail("type", 44),
                                  detail("id", 48)}};
constexpr value_layout debug[]{{debug_fields}};
constexpr fields<1> station_move_fields{{named("permit", 4, names::permit_deny, number8)}};
constexpr value_layout station_move[]{{station_move_fields}};
constexpr auto flow_fields =
    joined(call, at(8, flow_user_record), fields<2>{{{"first", 64, number64}, {"second", 72, number64}}});
constexpr value_layout flow[]{{flow_fields}};
constexpr auto noflow_fields = joined(call, at(8, flow_user_record),
                                      fields<4>{{{"flow", 64, number64},
                                                 {"time", 72, number64},
                                                 detail("extra_bytes", 80, number64),
                                                 detail("extra", 88, bytes)}});
constexpr value_layout noflow[]{{noflow_fields}};
constexpr fields<1> mode_fields{{{"mode", 4}}};
constexpr value_layout mode[]{{mode_fields}};
constexpr fields<2> dirchn_fields{{{"ip", 4, ipv4}, named("add", 8, names::add_delete)}};
constexpr value_layout dirchn[]{{dirchn_fields}};
constexpr fields<4> violation_fields{
    {{"ifx", 4}, {"vid", 8, number16}, {"mac", 10, mac}, named("add", 60, names::add_delete, number8)}};
constexpr value_layout violation[]{{violation_fields}};
constexpr fields<4> roll_fields{{{"ifx", 8}, {"vid", 12, number16}, {"mac", 14, mac}, {"roll_type", 20}}};
constexpr value_layout roll[]{{roll_fields}};

// A result; the reply to a user's query is laid out as one and carries the record.
constexpr fields<2> result_fields{{{"call", 0}, named("result", 4, names::results)}};
constexpr auto user_reply_fields = joined(result_fields, at(10, user_record));
constexpr value_layout call_result[]{{user_reply_fields, {}, 10 + record::config}, {result_fields}};
constexpr fields<1> enabled_fields{{named("enabled", 0, names::on_off)}};
constexpr value_layout enabled[]{{enabled_fields}};
constexpr fields<1> word_fields{{{"word", 0, number64}}};
constexpr value_layout word[]{{word_fields}};
constexpr fields<5> ace_counter_reply_fields{{{"key", 4, key},
                                              {"count", 20},
                                              detail("ace", 24, number64),
                                              {"counter", 32, number64},
                                              named("result", 40, names::results)}};
constexpr fields<2> ace_report_fields{{{"key", 4, key}, {"count", 20}}};
constexpr value_layout ace_report[]{
    {ace_counter_reply_fields, {}, 48},
    {ace_report_fields, {"counters", 24, record::ace_counter, counter_element}}};
constexpr fields<3> acl_counter_reply_fields{
    {{"key", 4, key}, {"counter", 32, number64}, named("result", 40, names::results)}};
constexpr value_layout acl_counter_reply[]{{acl_counter_reply_fields}};
constexpr fields<2> filter_reply_fields{{{"counter", 16, number64}, named("result", 24, names::results)}};
constexpr value_layout filter_reply[]{{filter_reply_fields}};
constexpr fields<2> counted_fields{{named("result", 0, names::results), {"count", 8}}};
constexpr value_layout counted[]{{counted_fields}};
constexpr value_layout arp_check_users[]{
    {counted_fields, {"users", 12, record::arp_check_entry, arp_check_element}}};
constexpr fields<3> mac_reply_fields{
    {{"mac", 4, mac}, named("result", 12, names::results), {"ip", 32, ipv4}}};
constexpr value_layout mac_reply[]{{mac_reply_fields}};
constexpr fields<1> result_first_fields{{named("result", 0, names::results)}};
constexpr value_layout result_first[]{{result_first_fields}};
constexpr fields<2> address_count_fields{{named("result", 0, names::results), {"count", 4}}};
constexpr value_layout address_count[]{{address_count_fields}};

// The service's operations and results.
constexpr fields<5> nac_app_fields{{{"call", 0},
                                    {"ifx", 4},
                                    named("op", 8, names::operation),
                                    named("type", 12, names::nac_application),
                                    {"vid", 20}}};
constexpr value_layout nac_app[]{{nac_app_fields}};
constexpr fields<3> default_read_fields{{{"call", 0}, {"ifx", 4}, {"type", 8}}};
constexpr value_layout default_read[]{{default_read_fields}};
constexpr fields<3> layer4_port_fields{
    {{"call", 0}, {"port", 8, number64}, named("add", 16, names::add_delete)}};
constexpr value_layout layer4_port[]{{layer4_port_fields}};
constexpr auto nac_user_fields =
    joined(fields<2>{{{"call", 0}, named("add", 4, names::add_delete, number8)}}, at(8, service_user_record));
constexpr value_layout nac_user[]{{nac_user_fields}};
constexpr auto nac_user_read_fields = at(8, service_user_record);
constexpr value_layout nac_user_read[]{{nac_user_read_fields}};
constexpr fields<3> reinstall_fields{{{"call", 0}, {"ifx", 4}, named("start", 8, names::start_end)}};
constexpr value_layout reinstall[]{{reinstall_fields}};
constexpr fields<3> user_recovery_fields{{{"application", 0}, {"ifx", 8}, {"users", 12}}};
constexpr value_layout user_recovery[]{
    {user_recovery_fields, {"user", 16, record::service_user, service_user_element}}};
constexpr fields<1> port_recovery_fields{{{"ports", 0}}};
constexpr value_layout port_recovery[]{{port_recovery_fields, {"port", 4, 4, port_element}}};
constexpr fields<3> service_result_fields{{{"call", 0}, named("result", 4, names::results), {"type", 8}}};
constexpr fields<5> counter_result_fields{{{"call", 0},
                                           {"key", 4, key},
                                           {"ace", 24, number64},
                                           {"counter", 32, number64},
                                           named("result", 40, names::results)}};
constexpr auto user_result_fields =
    joined(call, at(8, service_user_record), fields<1>{{named("result", 96, names::results)}});
constexpr value_layout service_result[]{
    {counter_result_fields, {}, 48}, {user_result_fields, {}, 104}, {service_result_fields}};
constexpr value_layout call_only[]{{call}};
constexpr value_layout no_fields[]{{}};

}  // namespace scc::devkit::layouts
