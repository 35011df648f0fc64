// The result handlers of an application, in the order of the handler table, for those who install them all.
// That of the control block, efacl_ctrl, is apart: its argument is a pointer and a length.
#pragma once

// clang-format off
#define SCC_RESULT_HANDLERS(X) \
    X(d1x_authen_method) X(d1x_author_mode) X(d1x_port_addr_num) X(d1x_port_open) X(d1x_pt_ctrl)          \
    X(d1x_cos) X(d1x_dscp) X(d1x_redirect) X(d1x_mac_move) X(webauth) X(http_dport) X(dirchn_host)        \
    X(dirchn_server) X(dirchn_site) X(dirchn_arp) X(port_security) X(reserved_kind_17) X(global_ip_mac)   \
    X(ip_source_guard) X(bind_except_port) X(dhcp_trust_port) X(arpcheck) X(addr_learning) X(nac_esc)     \
    X(nac_esc_eport) X(nac_app) X(nac_user) X(ndsnp_default_bind) X(reserved_kind_29) X(nac_neighbour)    \
    X(acl_create) X(acl_delete) X(acl_add_ace) X(acl_delete_ace) X(acl_apply) X(acl_unapply)              \
    X(user_acl_apply) X(user_acl_unapply) X(user_acl_delete_vmsup) X(acl_resequence)                      \
    X(filter_counter_reset) X(acl_counter_reset) X(ace_counter_reset) X(global_eport) X(svi_router_acl)   \
    X(dhcp_snooping) X(dhcp_snooping_second) X(nd_snooping) X(cpp) X(arpcheck_trust) X(arp_entry)         \
    X(offline_detect_cfg) X(direct_vlan) X(arp_dyn_entry) X(port_violate)
// clang-format on
