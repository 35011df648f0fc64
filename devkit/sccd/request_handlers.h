// The handlers of single request types, named by the table in requests.cpp. A handler is only called
// with a value of at least the length that the message list demands.
#pragma once

#include "sccd/daemon.h"

namespace scc::sccd {

struct Request {
    Ticket ticket;
    devkit::View value;
    const Client& client;
};

namespace handlers {

// acl_requests.cpp
void acl(Daemon& daemon, const Request& request);
void ace(Daemon& daemon, const Request& request);
void acl_apply(Daemon& daemon, const Request& request);
void acl_resequence(Daemon& daemon, const Request& request);
void user_acl(Daemon& daemon, const Request& request);
void user_acl_delete_vmsup(Daemon& daemon, const Request& request);
void user_vmsup_get(Daemon& daemon, const Request& request);
void filter_counter_reset(Daemon& daemon, const Request& request);
void acl_counter_reset(Daemon& daemon, const Request& request);
void ace_counter_reset(Daemon& daemon, const Request& request);
void filter_counter_get(Daemon& daemon, const Request& request);
void acl_counter_get(Daemon& daemon, const Request& request);
void ace_counter_get(Daemon& daemon, const Request& request);

// config_requests.cpp
void http_dport(Daemon& daemon, const Request& request);
void arpcheck(Daemon& daemon, const Request& request);
void nac_app(Daemon& daemon, const Request& request);
void nac_user(Daemon& daemon, const Request& request);
void arp_entry(Daemon& daemon, const Request& request);
void global_eport(Daemon& daemon, const Request& request);
void svi_router_acl(Daemon& daemon, const Request& request);
void efacl_ctrl(Daemon& daemon, const Request& request);
void cpp(Daemon& daemon, const Request& request);
void offline_detect_cfg(Daemon& daemon, const Request& request);
void direct_vlan(Daemon& daemon, const Request& request);
void data_recover(Daemon& daemon, const Request& request);
void test_cmd(Daemon& daemon, const Request& request);
void water_line(Daemon& daemon, const Request& request);
void arp_check_status(Daemon& daemon, const Request& request);
void arp_check_user_count(Daemon& daemon, const Request& request);
void arp_check_user_data(Daemon& daemon, const Request& request);
void nac_user_get(Daemon& daemon, const Request& request);
void mac_query(Daemon& daemon, const Request& request);
void port_addr_num(Daemon& daemon, const Request& request);

}  // namespace handlers
}  // namespace scc::sccd
