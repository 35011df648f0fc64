// The rows of the configuration requests.
//
// The library passes most records on unread. The field offsets are the convention shared with the daemon
// and the software service; --field and --hex reach every other byte.
#include <initializer_list>

#include "command.h"
#include "common/records.h"
#include "common/value_names.h"
#include "msg/protocol.h"

namespace scc::ctl {
namespace {

namespace at = devkit::config_record;
namespace names = devkit::names;

using arguments = std::vector<argument>;

arguments joined(arguments first, const arguments& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

arguments places() {
    return {field("ifx", at::ifx, 4, "interface index"), field("vid", at::vid, 4, "VLAN id, 0 for none"),
            field("mac", at::mac, 6, "MAC address").as(value_type::mac)};
}

arguments details() {
    return {field("value", at::value, 4, "the setting itself"),
            field("flags", at::flags, 4, "flag word; unless given, it names the addresses that are"),
            field("ip", at::ipv4, 4, "IPv4 address").as(value_type::ipv4).flagging(at::flag_ipv4),
            field("ipv6", at::ipv6, 16, "IPv6 address").as(value_type::ipv6).flagging(at::flag_ipv6),
            field("mask", at::mask, 16, "address mask, IPv4 in the first 4 bytes")
                .as(value_type::address16)
                .flagging(at::flag_mask)};
}

argument operation_field() {
    return field("operation", at::operation, 4, "what to do").named(names::operation);
}

arguments record_fields() {
    return joined(
        joined(places(), {field("app-type", at::app_type, 4, "application type"), operation_field()}),
        details());
}

arguments nac_application_fields() {
    arguments all = record_fields();
    for (argument& each : all) {
        if (each.name == "app-type") {
            each = each.named(names::nac_application);
        }
    }
    return all;
}

arguments dhcp_fields() {
    return joined(
        joined(places(), {field("form", offsetof(scc_config_record, form), 4, "which of its two forms")
                              .within(9, 10)
                              .named(names::dhcp_form)
                              .as(presence::required_option),
                          operation_field()}),
        details());
}

arguments user_fields(std::uint32_t operation) {
    return joined(
        joined(places(), {field("entry-type", offsetof(scc_user_record, entry_type), 4, "kind of the entry"),
                          constant("operation", offsetof(scc_user_record, operation), operation)}),
        details());
}

argument flag(std::string_view name, std::string_view help, devkit::value_names values) {
    return number(name, 1, help).named(values);
}
argument address(std::string_view name, std::string_view help) {
    return number(name, 4, help).as(value_type::ipv4);
}
argument integer(std::string_view name, std::string_view help) {
    return number(name, 4, help).within(0, INT32_MAX);
}
argument hex_option(int record, std::string_view help) {
    return number("data", 0, help).as(value_type::bytes).as(presence::required_option).at(record, 0);
}

std::uint32_t efacl_ctrl(const byte_buffer* data, std::uint32_t* call_id_out) {
    return scc_efacl_ctrl(data->data(), static_cast<std::uint32_t>(data->size()), call_id_out);
}

template <auto Function, auto... Slots>
command config(std::string_view name, std::string_view function, std::string_view help) {
    return request<Function, Slots...>(name, function, help, "--ifx 3 --operation add --value 1",
                                       record_fields());
}

template <auto Function, auto Slot>
void add_user_set(std::vector<command>& rows, std::string_view add, std::string_view remove,
                  std::string_view function, std::string_view add_help, std::string_view remove_help) {
    constexpr std::string_view example = "--ifx 3 --mac 00:11:22:33:44:55 --ip 10.0.0.7";
    rows.push_back(
        request<Function, Slot>(add, function, add_help, example, user_fields(SCC_USER_OPERATION_ADD)));
    rows.push_back(request<Function, Slot>(remove, function, remove_help, example,
                                           user_fields(SCC_USER_OPERATION_DELETE)));
}

using h = scc_handlers;

std::vector<command> record_commands() {
    return {
        config<scc_d1x_authen_method, &h::d1x_authen_method>("d1x-authen-method", "scc_d1x_authen_method",
                                                             "set the 802.1X authentication method"),
        config<scc_d1x_author_mode_set, &h::d1x_author_mode>("d1x-author-mode-set", "scc_d1x_author_mode_set",
                                                             "set the 802.1X authorisation mode"),
        config<scc_d1x_port_addr_num, &h::d1x_port_addr_num>("d1x-port-addr-num", "scc_d1x_port_addr_num",
                                                             "limit the 802.1X addresses of a port"),
        config<scc_d1x_port_open, &h::d1x_port_open>("d1x-port-open", "scc_d1x_port_open",
                                                     "open or close a port for 802.1X"),
        config<scc_d1x_set_pt_ctrl, &h::d1x_pt_ctrl>("d1x-set-pt-ctrl", "scc_d1x_set_pt_ctrl",
                                                     "set the 802.1X port control"),
        config<scc_d1x_set_cos, &h::d1x_cos>("d1x-set-cos", "scc_d1x_set_cos",
                                             "set the class of service of 802.1X users"),
        config<scc_d1x_set_dscp, &h::d1x_dscp>("d1x-set-dscp", "scc_d1x_set_dscp",
                                               "set the DSCP of 802.1X users"),
        config<scc_webauth_set, &h::webauth>("webauth-set", "scc_webauth_set",
                                             "configure web authentication"),
        config<scc_sp_port_secuity, &h::port_security>("sp-port-security", "scc_sp_port_secuity",
                                                       "configure port security"),
        config<scc_sp_port_violate, &h::port_violate>("sp-port-violate", "scc_sp_port_violate",
                                                      "configure the reaction to violations"),
        config<scc_global_ip_mac, &h::global_ip_mac>("global-ip-mac", "scc_global_ip_mac",
                                                     "bind IP and MAC addresses for the whole switch"),
        config<scc_ip_source_guard_status, &h::ip_source_guard>(
            "ip-source-guard-status", "scc_ip_source_guard_status", "switch IP source guard"),
        config<scc_bind_except_port, &h::bind_except_port>("bind-except-port", "scc_bind_except_port",
                                                           "exempt a port from address binding"),
        config<scc_dhcp_trust_port, &h::dhcp_trust_port>("dhcp-trust-port", "scc_dhcp_trust_port",
                                                         "trust a port for DHCP"),
        request<scc_dhcp_snooping_set, &h::dhcp_snooping, &h::dhcp_snooping_second>(
            "dhcp-snooping-set", "scc_dhcp_snooping_set", "configure DHCP snooping",
            "--form first --ifx 3 --value 1", dhcp_fields()),
        config<scc_nd_snooping_set, &h::nd_snooping>("nd-snooping-set", "scc_nd_snooping_set",
                                                     "configure ND snooping"),
        config<scc_arpcheck, &h::arpcheck>("arpcheck", "scc_arpcheck", "configure the ARP check"),
        config<scc_arpcheck_trust, &h::arpcheck_trust>("arpcheck-trust", "scc_arpcheck_trust",
                                                       "trust a port in the ARP check"),
        config<scc_nac_esc_eport_set, &h::nac_esc_eport>("nac-esc-eport-set", "scc_nac_esc_eport_set",
                                                         "configure the NAC escape egress port"),
        request<scc_nac_app_set, &h::nac_app>("nac-app-set", "scc_nac_app_set", "configure a NAC application",
                                              "--ifx 3 --app-type dot1x-mac --operation add",
                                              nac_application_fields()),
    };
}

std::vector<command> user_commands() {
    std::vector<command> rows;
    add_user_set<scc_nac_user_set, &h::nac_user>(rows, "nac-user add", "nac-user delete", "scc_nac_user_set",
                                                 "add a NAC user", "delete a NAC user");
    add_user_set<scc_arp_entry_set, &h::arp_entry>(rows, "arp-entry add", "arp-entry delete",
                                                   "scc_arp_entry_set", "add an ARP entry",
                                                   "delete an ARP entry");
    add_user_set<scc_arp_dyn_entry_set, &h::arp_dyn_entry>(rows, "arp-dyn-entry add", "arp-dyn-entry delete",
                                                           "scc_arp_dyn_entry_set", "add a dynamic ARP entry",
                                                           "delete a dynamic ARP entry");
    return rows;
}

std::vector<command> switch_commands() {
    return {
        request<scc_dot1x_redirect_enable, &h::d1x_redirect>(
            "dot1x-redirect-enable", "scc_dot1x_redirect_enable", "switch the 802.1X redirection", "on",
            {integer("value", "the redirection; the low byte comes back").named(names::on_off)}),
        request<scc_d1x_mac_move, &h::d1x_mac_move>(
            "d1x-mac-move", "scc_d1x_mac_move", "switch 802.1X MAC moves", "on",
            {integer("value", "the moves; the low byte comes back").named(names::on_off)}),
        request<scc_http_dport_set, &h::http_dport>(
            "http-dport-set", "scc_http_dport_set", "add or delete an HTTP port that is intercepted",
            "8080 add", {number("port", 2, "TCP port"), flag("flag", "what to do", names::add_delete)}),
        request<scc_addr_learning, &h::addr_learning>(
            "addr-learning", "scc_addr_learning", "switch address learning of an interface", "3 on",
            {number("ifx", 4, "interface index"), flag("enable", "the learning", names::on_off)}),
        request<scc_svi_router_acl_set, &h::svi_router_acl>("svi-router-acl-set", "scc_svi_router_acl_set",
                                                            "switch the ACLs of routed VLAN interfaces", "on",
                                                            {flag("value", "the ACLs", names::on_off)}),
        request<scc_acl_global_eport_set, &h::global_eport>(
            "acl-global-eport-set", "scc_acl_global_eport_set", "set the egress port of the whole switch",
            "3 set",
            {number("ifx", 4, "interface index").within(1, limits::ifx_max),
             flag("value", "what to do", names::set_clear)}),
        request<scc_cpp_set, &h::cpp>(
            "cpp-set", "scc_cpp_set", "switch CPU protection", "0 on",
            {integer("type", "only 0 is known"), flag("enable", "the protection", names::on_off)}),
        request<scc_offline_detect_cfg, &h::offline_detect_cfg>(
            "offline-detect-cfg", "scc_offline_detect_cfg", "configure the detection of silent users",
            "on 60 100",
            {integer("open", "the detection; the low byte comes back").named(names::on_off),
             number("interval", 4, "interval"), number("threshold", 4, "threshold")}),
    };
}

arguments direct_vlan_fields() {
    return {integer("value", "the low byte comes back"),
            field("vlans", 0, record::direct_vlan, "VLAN ids, as in 10,20-30").as(value_type::vlans)};
}

std::vector<command> channel_commands() {
    return {
        request<scc_dirchn_host_set, &h::dirchn_host>(
            "dirchn-host-set", "scc_dirchn_host_set", "configure a direct-channel host",
            "10.0.0.7 255.255.255.255 off 3 add",
            {address("ip", "IPv4 address"), address("mask", "its mask"), flag("arp", "ARP", names::on_off),
             number("ifx", 4, "interface index"), flag("flag", "what to do", names::add_delete)}),
        request<scc_dirchn_server_set, &h::dirchn_server>(
            "dirchn-server-set", "scc_dirchn_server_set", "configure a direct-channel server", "10.0.0.1 add",
            {address("ip", "IPv4 address"), flag("flag", "what to do", names::add_delete)}),
        request<scc_dirchn_site_set, &h::dirchn_site>(
            "dirchn-site-set", "scc_dirchn_site_set", "configure a direct-channel site",
            "10.1.0.0 255.255.0.0 off add",
            {address("ip", "IPv4 address"), address("mask", "its mask"), flag("arp", "ARP", names::on_off),
             flag("flag", "what to do", names::add_delete)}),
        request<scc_dirchn_arp_set, &h::dirchn_arp>(
            "dirchn-arp-set", "scc_dirchn_arp_set", "configure ARP in the direct channel",
            "10.2.0.0 255.255.0.0 add",
            {address("ip", "IPv4 address"), address("mask", "its mask"),
             flag("flag", "what to do", names::add_delete)}),
        request<scc_ndsnp_default_bind_set, &h::ndsnp_default_bind>(
            "ndsnp-default-bind-set", "scc_ndsnp_default_bind_set", "configure ND snooping's default binding",
            "3 10 on",
            {number("ifx", 4, "interface index"), number("vid", 4, "VLAN id, 0 for none"),
             flag("enable", "the binding", names::on_off)}),
        request<scc_nac_nbr_set, &h::nac_neighbour>(
            "nac-nbr-set", "scc_nac_nbr_set", "configure a NAC neighbour",
            "add --ifx 3 --mac 00:11:22:33:44:55",
            joined({flag("flag", "what to do", names::add_delete)}, places())),
        request<scc_direct_vlan_set, &h::direct_vlan>("direct-vlan-set", "scc_direct_vlan_set",
                                                      "set the direct VLANs", "1 --vlans 100,200-299",
                                                      direct_vlan_fields()),
        request<efacl_ctrl, &h::efacl_ctrl>(
            "efacl-ctrl", "scc_efacl_ctrl", "hand over an event-filter control block", "--data block.hex",
            {hex_option(0, "file of hexadecimal pairs, - for standard input")}),
    };
}

std::vector<command> one_way_commands() {
    return {
        one_way<scc_warterline_notify>("warterline-notify", "scc_warterline_notify",
                                       "say that the water line was passed or left", "start",
                                       {integer("start", "passed, or left").named(names::start_end)}),
        one_way<scc_test_cmd_set>("test-cmd-set", "scc_test_cmd_set", "send a test command", "7",
                                  {number("test-command", 4, "the command's number")}),
        one_way<scc_data_recover>("data-recover", "scc_data_recover",
                                  "ask the daemon to recover the service's data", "1",
                                  {integer("argument", "any number; sccd-dev recovers everything")}),
    };
}

}  // namespace

std::vector<command> config_commands() {
    std::vector<command> all;
    for (auto part :
         {record_commands(), user_commands(), switch_commands(), channel_commands(), one_way_commands()}) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

}  // namespace scc::ctl
