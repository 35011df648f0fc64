// The numbers of the wire format: message types, item and record sizes, limits and time-outs.
//
// This is the one header of the library that the development daemon shares: both ends of a
// connection take their numbers from here. All integers travel in host byte order, since both
// ends run on the same machine.
//
//   message := header item*
//   header  := u32 len (whole message)  u8 ver (1)  u16 num (items)  u8 zero          8 bytes
//   item    := u32 len (of the value)   u16 sub_id  u16 type         value[len]       8 + len bytes
#pragma once

#include <cstddef>
#include <cstdint>

namespace scc {

using u8 = std::uint8_t;
using u16 = std::uint16_t;
using u32 = std::uint32_t;
using u64 = std::uint64_t;
using i32 = std::int32_t;

namespace wire {

inline constexpr u32 header_bytes = 8;
inline constexpr u32 item_header_bytes = 8;
inline constexpr u8 version = 1;

// A message built item by item stays within one Ethernet payload.
inline constexpr u32 built_message_max_bytes = 1499;
inline constexpr u32 batch_capacity_bytes = 8192;  // of items
// A value of this size and above never enters a batch.
inline constexpr u32 oversized_value_bytes = batch_capacity_bytes - header_bytes - item_header_bytes;

}  // namespace wire

namespace limits {

inline constexpr u32 path_bytes = 108;
inline constexpr u32 process_name_bytes = 107;
inline constexpr u32 app_id_max = 19;
inline constexpr u32 service_app_id = 16;
inline constexpr i32 acl_id_max = 32768;
inline constexpr u32 app_type_max = 58;
inline constexpr u32 ifx_max = 65535;
inline constexpr u32 nacm_types = 39;

inline constexpr unsigned retry_seconds = 2;
inline constexpr unsigned missing_socket_seconds = 1;
inline constexpr int receive_wait_ms = 1000;
inline constexpr int send_timeout_seconds = 3;
inline constexpr long batch_interval_us = 5000;
inline constexpr u32 send_retries = 20;
inline constexpr long send_retry_us = 200000;
inline constexpr int queue_wait_seconds = 3;
inline constexpr long reconnect_timer = 3;

}  // namespace limits

namespace record {

inline constexpr u32 config = 736;
inline constexpr u32 acl_key = 16;
inline constexpr u32 ace = 912;
inline constexpr u32 acl_apply = 232;
inline constexpr u32 user_acl = 208;
inline constexpr u32 neighbour = 912;
inline constexpr u32 direct_vlan = 512;
inline constexpr u32 process_name_field = 108;
inline constexpr u32 arp_check_entry = 48;
inline constexpr u32 service_user = 88;
inline constexpr u32 flow_user = 56;
inline constexpr u32 address_move = 16;
inline constexpr u32 ace_counter = 16;

}  // namespace record

namespace msg {

// Requests of applications (asynchronous socket).
inline constexpr u16 d1x_authen_method = 101;
inline constexpr u16 d1x_author_mode = 102;
inline constexpr u16 d1x_port_addr_num = 103;
inline constexpr u16 d1x_port_open = 104;
inline constexpr u16 d1x_pt_ctrl = 105;
inline constexpr u16 d1x_cos = 106;
inline constexpr u16 d1x_dscp = 107;
inline constexpr u16 d1x_redirect = 108;
inline constexpr u16 d1x_mac_move = 109;
inline constexpr u16 d1x_addr_move = 110;  // notification
inline constexpr u16 webauth = 111;
inline constexpr u16 http_dport = 112;
inline constexpr u16 dirchn_host = 113;
inline constexpr u16 dirchn_server = 114;
inline constexpr u16 dirchn_site = 115;
inline constexpr u16 port_security = 116;
inline constexpr u16 global_ip_mac = 118;
inline constexpr u16 ip_source_guard = 119;
inline constexpr u16 bind_except_port = 120;
inline constexpr u16 dhcp_trust_port = 121;
inline constexpr u16 arpcheck = 122;
inline constexpr u16 addr_learning = 123;
inline constexpr u16 nac_esc = 124;
inline constexpr u16 nac_esc_eport = 125;
inline constexpr u16 nac_app = 126;
inline constexpr u16 nac_user = 127;  // request, and the user change notification
inline constexpr u16 ndsnp_default_bind = 128;
inline constexpr u16 nac_neighbour = 130;
inline constexpr u16 acl = 131;
inline constexpr u16 ace = 132;
inline constexpr u16 acl_apply = 133;
inline constexpr u16 user_acl = 134;
inline constexpr u16 user_vmsup_ret = 136;
inline constexpr u16 user_acl_delete_vmsup = 137;
inline constexpr u16 acl_resequence = 138;
inline constexpr u16 filter_counter_reset = 139;
inline constexpr u16 acl_counter_reset = 140;
inline constexpr u16 ace_counter_reset = 141;
inline constexpr u16 global_eport = 142;
inline constexpr u16 svi_router_acl = 143;
inline constexpr u16 efacl_ctrl = 157;
inline constexpr u16 dirchn_arp = 159;
inline constexpr u16 dhcp_snooping = 160;
inline constexpr u16 dhcp_snooping_second = 161;
inline constexpr u16 nd_snooping = 162;
inline constexpr u16 cpp = 163;
inline constexpr u16 arpcheck_trust = 164;
inline constexpr u16 arp_entry = 165;
inline constexpr u16 offline_detect_cfg = 166;
inline constexpr u16 direct_vlan = 167;
inline constexpr u16 arp_dyn_entry = 168;
inline constexpr u16 port_violate = 169;

// Operations that only the security service receives.
inline constexpr u16 nacm_app = 148;
inline constexpr u16 nacm_def_read = 149;
inline constexpr u16 nacm_l4port = 150;
inline constexpr u16 nacm_user = 151;
inline constexpr u16 nacm_user_read = 152;
inline constexpr u16 nacm_user_reinstall = 153;
inline constexpr u16 nacm_app_user_recover = 154;
inline constexpr u16 nacm_l4port_recover = 155;
inline constexpr u16 nacm_app_with_vid = 158;

inline constexpr u16 data_recover = 201;
inline constexpr u16 move_addr_up = 202;
inline constexpr u16 noflow_offline_up = 203;
inline constexpr u16 fetch = 204;
inline constexpr u16 test_cmd = 205;
inline constexpr u16 debug = 206;
inline constexpr u16 ace_counter_up = 207;
inline constexpr u16 flow_up = 208;
inline constexpr u16 offline_detect_notify = 209;
inline constexpr u16 station_move = 210;
inline constexpr u16 flow = 211;
inline constexpr u16 noflow_offline = 212;
inline constexpr u16 direct_vlan_notify = 213;
inline constexpr u16 authmode = 214;
inline constexpr u16 dirchn = 216;
inline constexpr u16 port_violate_notify = 217;
inline constexpr u16 user_roll = 219;
inline constexpr u16 water_line = 220;

// Registration and synchronous exchanges.
inline constexpr u16 registration = 301;
inline constexpr u16 unregistration = 302;
inline constexpr u16 arp_check_status = 303;
inline constexpr u16 arp_check_user_count = 304;
inline constexpr u16 arp_check_user_data = 305;
inline constexpr u16 nac_user_get = 307;
inline constexpr u16 filter_counter_get = 311;
inline constexpr u16 acl_counter_get = 312;
inline constexpr u16 ace_counter_get = 313;
inline constexpr u16 user_vmsup_get = 314;
inline constexpr u16 mac_query = 315;
inline constexpr u16 span_dest_port = 316;
inline constexpr u16 port_addr_num = 317;
inline constexpr u16 info_collect = 318;
inline constexpr u16 is_alive = 319;

// Results and replies of the daemon; 402 is the service's result.
inline constexpr u16 call_ret = 401;
inline constexpr u16 service_ret = 402;
inline constexpr u16 arp_check_status_ret = 405;
inline constexpr u16 dev_cap = 406;
inline constexpr u16 ace_counter = 407;  // the report, and the reply to ace_counter_get
inline constexpr u16 acl_counter_ret = 408;
inline constexpr u16 filter_counter_ret = 409;
inline constexpr u16 arp_check_user_data_ret = 410;
inline constexpr u16 arp_check_user_count_ret = 411;
inline constexpr u16 mac_query_ret = 413;
inline constexpr u16 span_dest_port_ret = 414;
inline constexpr u16 port_addr_num_ret = 415;

}  // namespace msg
}  // namespace scc
