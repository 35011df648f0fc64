// The handlers of the request types, listed in the table of requests.cpp. The value is at least as long as
// the table of message types demands.
#pragma once

#include "sccd/daemon_core.h"

namespace scc::sccd {

struct client_request {
    request_ticket ticket;
    devkit::byte_view value;
    const client_entry& client;
};

namespace handlers {

// acl_requests.cpp
void acl(daemon_core& daemon, const client_request& request);
void ace(daemon_core& daemon, const client_request& request);
void acl_apply(daemon_core& daemon, const client_request& request);
void acl_resequence(daemon_core& daemon, const client_request& request);
void user_acl(daemon_core& daemon, const client_request& request);
void user_acl_delete_vmsup(daemon_core& daemon, const client_request& request);
void user_vmsup_get(daemon_core& daemon, const client_request& request);
void filter_counter_reset(daemon_core& daemon, const client_request& request);
void acl_counter_reset(daemon_core& daemon, const client_request& request);
void ace_counter_reset(daemon_core& daemon, const client_request& request);
void filter_counter_get(daemon_core& daemon, const client_request& request);
void acl_counter_get(daemon_core& daemon, const client_request& request);
void ace_counter_get(daemon_core& daemon, const client_request& request);

// config_requests.cpp
void setting(daemon_core& daemon, const client_request& request);
void service_setting(daemon_core& daemon, const client_request& request);
void direct_channel(daemon_core& daemon, const client_request& request);
void nac_esc(daemon_core& daemon, const client_request& request);
void nac_user(daemon_core& daemon, const client_request& request);
void arp_entry(daemon_core& daemon, const client_request& request);
void efacl_ctrl(daemon_core& daemon, const client_request& request);
void direct_vlan(daemon_core& daemon, const client_request& request);
void data_recover(daemon_core& daemon, const client_request& request);
void test_cmd(daemon_core& daemon, const client_request& request);
void water_line(daemon_core& daemon, const client_request& request);
void arp_check_status(daemon_core& daemon, const client_request& request);
void arp_check_user_count(daemon_core& daemon, const client_request& request);
void arp_check_user_data(daemon_core& daemon, const client_request& request);
void nac_user_get(daemon_core& daemon, const client_request& request);
void mac_query(daemon_core& daemon, const client_request& request);
void port_addr_num(daemon_core& daemon, const client_request& request);

}  // namespace handlers
}  // namespace scc::sccd
