/* The public header as a C11 program sees it: sizes and offsets, every function through a pointer of its
 * prototype, and one harmless call of each in a process that is not registered. */
#define _GNU_SOURCE /* setenv, in6_addr */
#include "header_promises.h"

#include <scclib.h>
#include <stdlib.h>
#include <string.h>

#define SIZE_IS(type, bytes) _Static_assert(sizeof(struct type) == (bytes), #type)
#define FIELD_AT(type, field, offset) \
    _Static_assert(offsetof(struct type, field) == (offset), #type "." #field)
#define HANDLER_AT(field, position) FIELD_AT(scc_handlers, field, (position) * sizeof(void*))

SIZE_IS(scc_list_head, 16);
SIZE_IS(scc_acl_key, 16);
FIELD_AT(scc_acl_key, vdev_id, 0);
FIELD_AT(scc_acl_key, app_type, 4);
FIELD_AT(scc_acl_key, acl_id, 8);
FIELD_AT(scc_acl_key, acl_class, 12);
SIZE_IS(scc_config_record, 736);
FIELD_AT(scc_config_record, form, 16);
SIZE_IS(scc_user_record, 736);
FIELD_AT(scc_user_record, entry_type, 16);
FIELD_AT(scc_user_record, operation, 24);
FIELD_AT(scc_user_record, flags, 32);
FIELD_AT(scc_user_record, mask, 648);
SIZE_IS(scc_ace_record, 912);
FIELD_AT(scc_ace_record, link, 0);
FIELD_AT(scc_ace_record, sn, 220);
FIELD_AT(scc_ace_record, ace_id, 224);
SIZE_IS(scc_acl_apply_record, 232);
FIELD_AT(scc_acl_apply_record, key, 0);
FIELD_AT(scc_acl_apply_record, apply_type, 208);
SIZE_IS(scc_user_acl_record, 208);
FIELD_AT(scc_user_acl_record, ifx, 0);
FIELD_AT(scc_user_acl_record, phyid, 8);
FIELD_AT(scc_user_acl_record, apptype, 16);
FIELD_AT(scc_user_acl_record, direction, 20);
FIELD_AT(scc_user_acl_record, mac, 24);
FIELD_AT(scc_user_acl_record, vid, 30);
FIELD_AT(scc_user_acl_record, key, 32);
SIZE_IS(scc_neighbour_record, 912);
SIZE_IS(scc_vlan_record, 512);
SIZE_IS(scc_arp_check_entry, 48);
SIZE_IS(scc_flow_user, 56);
SIZE_IS(scc_ace_counter, 16);
SIZE_IS(scc_address_move, 16);
SIZE_IS(scc_port_violation, 56);
SIZE_IS(scc_user_roll, 16);

SIZE_IS(scc_handlers, 560);
SIZE_IS(scc_reg_info, 568);
FIELD_AT(scc_reg_info, app_id, 0);
FIELD_AT(scc_reg_info, option, 4);
FIELD_AT(scc_reg_info, handlers, 8);
HANDLER_AT(server_status, 0);
HANDLER_AT(d1x_authen_method, 1);
HANDLER_AT(d1x_mac_move, 9);
HANDLER_AT(d1x_addr_move, 10);
HANDLER_AT(webauth, 11);
HANDLER_AT(dirchn_arp, 16);
HANDLER_AT(reserved_kind_17, 18);
HANDLER_AT(nac_user, 28);
HANDLER_AT(reserved_kind_29, 30);
HANDLER_AT(acl_create, 32);
HANDLER_AT(filter_counter_reset, 42);
HANDLER_AT(svi_router_acl, 46);
HANDLER_AT(direct_vlan_notify, 47);
HANDLER_AT(noflow_offline, 48);
HANDLER_AT(authmode, 49);
HANDLER_AT(efacl_ctrl, 50);
HANDLER_AT(cpp, 54);
HANDLER_AT(ace_counters, 55);
HANDLER_AT(station_move, 56);
HANDLER_AT(flow, 57);
HANDLER_AT(arpcheck_trust, 58);
HANDLER_AT(arp_entry, 59);
HANDLER_AT(offline_detect_cfg, 60);
HANDLER_AT(offline_detect_notify, 61);
HANDLER_AT(direct_vlan, 62);
HANDLER_AT(user_change, 63);
HANDLER_AT(dirchn, 64);
HANDLER_AT(port_violate_notify, 65);
HANDLER_AT(user_roll, 66);
HANDLER_AT(water_line, 67);
HANDLER_AT(arp_dyn_entry, 68);
HANDLER_AT(port_violate, 69);

SIZE_IS(scc_ss_acl_operation, 48);
SIZE_IS(scc_ss_ace_operation, 960);
SIZE_IS(scc_ss_apply_operation, 280);
SIZE_IS(scc_ss_resequence_operation, 56);
SIZE_IS(scc_ss_svi_operation, 40);
SIZE_IS(scc_ss_counter_operation, 72);
SIZE_IS(scc_ss_eport_operation, 48);
SIZE_IS(scc_ss_cpp_operation, 40);
SIZE_IS(scc_ss_user, 88);
SIZE_IS(scc_ss_reg_info, 26 * sizeof(void*));
FIELD_AT(scc_ss_acl_operation, callback, 8);
FIELD_AT(scc_ss_acl_operation, ret, 16);
FIELD_AT(scc_ss_acl_operation, op, 20);
FIELD_AT(scc_ss_acl_operation, flag, 24);
FIELD_AT(scc_ss_acl_operation, key, 28);
FIELD_AT(scc_ss_apply_operation, apply, 48);
FIELD_AT(scc_ss_counter_operation, ace, 48);
FIELD_AT(scc_ss_counter_operation, counter, 56);
FIELD_AT(scc_ss_counter_operation, sync, 64);
SIZE_IS(scc_perf_entry, 24);
_Static_assert(sizeof g_scc_perf == 53 * 24, "g_scc_perf");
_Static_assert(sizeof g_scc_perf_debug == 1, "g_scc_perf_debug");

_Static_assert(SCC_E_REGISTER_REJECTED == 2000 && SCC_E_UNREGISTER_REJECTED == 2001 &&
                   SCC_E_REGISTERED_ALREADY == 2002 && SCC_E_UNREGISTERED_ALREADY == 2003 &&
                   SCC_E_UNAVAILABLE == 2004 && SCC_E_NO_ACL == 2005 && SCC_E_NO_ACE == 2006 &&
                   SCC_E_FORMAT == 2007 && SCC_E_NOT_APPLIED == 2008 && SCC_E_APPLIED_ALREADY == 2009 &&
                   SCC_E_ACL_EXISTS == 2010 && SCC_E_ACE_EXISTS == 2011 && SCC_E_STILL_APPLIED == 2012 &&
                   SCC_E_NO_DATA_QUERY == 2013 && SCC_E_NO_HTTP_PORT == 2014 &&
                   SCC_E_NO_DIRECT_HOST == 2015 && SCC_E_NO_DIRECT_SITE == 2016 &&
                   SCC_E_NO_SEQUENCE_NUMBER == 2017 && SCC_E_NO_VACL == 2018 && SCC_E_NO_LIST_NODE == 2019 &&
                   SCC_E_SERVICE_TIMEOUT == 2020,
               "result codes");

/* ---- prototypes -------------------------------------------------------------------------------- */

typedef uint32_t record_request(const struct scc_config_record*, uint32_t*);
typedef uint32_t user_request(const struct scc_user_record*, uint32_t*);
typedef uint32_t key_request(const struct scc_acl_key*, uint32_t*);
typedef uint32_t ace_request(const struct scc_acl_key*, const struct scc_ace_record*, uint32_t*);
typedef uint32_t apply_request(struct scc_acl_apply_record*, uint32_t*);
typedef uint32_t user_acl_request(const struct scc_user_acl_record*, uint32_t*);
typedef uint32_t counter_read(const struct scc_acl_key*, uint64_t*);

static record_request* const record_requests[] = {
    scc_d1x_authen_method, scc_d1x_author_mode_set, scc_d1x_port_addr_num, scc_d1x_port_open,
    scc_d1x_set_pt_ctrl,   scc_d1x_set_cos,         scc_d1x_set_dscp,      scc_webauth_set,
    scc_sp_port_secuity,   scc_sp_port_violate,     scc_global_ip_mac,     scc_ip_source_guard_status,
    scc_bind_except_port,  scc_dhcp_trust_port,     scc_dhcp_snooping_set, scc_nd_snooping_set,
    scc_arpcheck,          scc_arpcheck_trust,      scc_nac_esc_eport_set, scc_nac_app_set,
    scc_sp_port_addr_num,  scc_nac_span_dport_set,
};
static user_request* const user_requests[] = {scc_nac_user_set, scc_arp_entry_set, scc_arp_dyn_entry_set};
static key_request* const key_requests[] = {scc_acl_create, scc_acl_delete, scc_user_acl_delete_vmsup,
                                            scc_acl_reset_filter_counter, scc_acl_reset_counter};
static ace_request* const ace_requests[] = {scc_acl_add_ace, scc_acl_delete_ace};
static apply_request* const apply_requests[] = {scc_acl_apply, scc_acl_unapply};
static user_acl_request* const user_acl_requests[] = {scc_user_acl_apply, scc_user_acl_unapply};
static counter_read* const counter_reads[] = {scc_acl_get_filter_counter, scc_acl_get_counter};

#define COUNT(array) (sizeof(array) / sizeof((array)[0]))
#define EXPECT(condition)      \
    do {                       \
        if (!(condition)) {    \
            return #condition; \
        }                      \
    } while (0)
/* Every request refuses to work without a registration. */
#define UNAVAILABLE(call) EXPECT((call) == SCC_E_UNAVAILABLE)

static const struct scc_acl_key key = {1, 2, 3, 4};

static const char* call_families(void) {
    static struct scc_config_record record;
    static struct scc_user_record user;
    static struct scc_ace_record ace;
    static struct scc_acl_apply_record apply;
    static struct scc_user_acl_record user_acl;
    uint32_t id = 0;
    uint64_t counter = 0;
    user.operation = SCC_USER_OPERATION_ADD;
    apply.key = key;
    user_acl.key = key;
    for (size_t i = 0; i < COUNT(record_requests); ++i) {
        UNAVAILABLE(record_requests[i](&record, &id));
    }
    for (size_t i = 0; i < COUNT(user_requests); ++i) {
        UNAVAILABLE(user_requests[i](&user, &id));
    }
    for (size_t i = 0; i < COUNT(key_requests); ++i) {
        UNAVAILABLE(key_requests[i](&key, &id));
    }
    for (size_t i = 0; i < COUNT(ace_requests); ++i) {
        UNAVAILABLE(ace_requests[i](&key, &ace, &id));
    }
    for (size_t i = 0; i < COUNT(apply_requests); ++i) {
        UNAVAILABLE(apply_requests[i](&apply, &id));
    }
    for (size_t i = 0; i < COUNT(user_acl_requests); ++i) {
        UNAVAILABLE(user_acl_requests[i](&user_acl, &id));
    }
    for (size_t i = 0; i < COUNT(counter_reads); ++i) {
        UNAVAILABLE(counter_reads[i](&key, &counter));
    }
    EXPECT(id == 0);
    return NULL;
}

static const char* call_scalars(void) {
    static struct scc_neighbour_record neighbour;
    static struct scc_vlan_record vlans;
    UNAVAILABLE(scc_dot1x_redirect_enable(1, NULL));
    UNAVAILABLE(scc_d1x_mac_move(1, NULL));
    UNAVAILABLE(scc_http_dport_set(80, 1, NULL));
    UNAVAILABLE(scc_dirchn_host_set(1, 2, 3, 4, 5, NULL));
    UNAVAILABLE(scc_dirchn_server_set(1, 2, NULL));
    UNAVAILABLE(scc_dirchn_site_set(1, 2, 3, 4, NULL));
    UNAVAILABLE(scc_dirchn_arp_set(1, 2, 3, NULL));
    UNAVAILABLE(scc_addr_learning(1, 2, NULL));
    UNAVAILABLE(scc_nac_esc_set(1, &key, 2, NULL));
    UNAVAILABLE(scc_ndsnp_default_bind_set(1, 2, 3, NULL));
    UNAVAILABLE(scc_nac_nbr_set(&neighbour, 1, NULL));
    UNAVAILABLE(scc_cpp_set(0, 1, NULL));
    UNAVAILABLE(scc_offline_detect_cfg(1, 2, 3, NULL));
    UNAVAILABLE(scc_direct_vlan_set(1, &vlans, NULL));
    UNAVAILABLE(scc_acl_global_eport_set(1, 2, NULL));
    UNAVAILABLE(scc_svi_router_acl_set(1, NULL));
    UNAVAILABLE(scc_efacl_ctrl("data", 4, NULL));
    UNAVAILABLE(scc_warterline_notify(1));
    UNAVAILABLE(scc_test_cmd_set(1));
    UNAVAILABLE(scc_data_recover(1));
    UNAVAILABLE(scc_acl_reseqence(&key, 1, 2, NULL));
    UNAVAILABLE(scc_ace_reset_counter(&key, 1, NULL));
    return NULL;
}

static const char* call_queries(void) {
    static struct scc_user_record user;
    static struct scc_user_acl_record user_acl;
    static struct scc_ace_record ace;
    const uint8_t mac[6] = {0, 1, 2, 3, 4, 5};
    struct scc_acl_key asked = key;
    struct scc_list_head aces;
    uint8_t bytes[48];
    uint8_t flag = 0;
    uint32_t word = 0;
    uint64_t counter = 0;
    int count = 1;
    char names[64];
    user.operation = SCC_USER_OPERATION_GET;
    UNAVAILABLE(scc_mac_query(mac, &word));
    UNAVAILABLE(scc_nac_user_get(&user));
    UNAVAILABLE(scc_is_arp_check_enabled(&flag));
    UNAVAILABLE(scc_arp_check_user_count_get(1, &word));
    UNAVAILABLE(scc_arp_check_user_data_get(1, bytes, &count));
    UNAVAILABLE(scc_nac_user_counter_support(&flag));
    UNAVAILABLE(scc_user_acl_change_vmsup(&user_acl, bytes));
    UNAVAILABLE(scc_ace_get_counter(&key, 1, &counter));
    UNAVAILABLE(scc_acl_cls_get(&asked));
    UNAVAILABLE(scc_acl_get_ace(&key, &aces));
    UNAVAILABLE(scc_acl_get_ace_by_sn(&key, 1, &ace));
    EXPECT(scc_get_nac_max_user(1, &counter, NULL, NULL) == 0 && counter == 4096);
    scc_bind_user_name_get(0x8, names, sizeof names);
    EXPECT(strcmp(names, "web-authen") == 0);
    return NULL;
}

static const char* call_service(void) {
    static struct scc_flow_user flow;
    static struct scc_ss_user user;
    static struct scc_address_move move;
    static struct scc_ace_counter counter;
    UNAVAILABLE(scc_ss_fetch_func());
    UNAVAILABLE(scc_ss_move_addr_notify(1, &move));
    UNAVAILABLE(scc_noflow_offline_notify(&flow, 1, 2, NULL, 0));
    UNAVAILABLE(scc_flow_notify(&flow, 1, 2));
    UNAVAILABLE(scc_ss_ace_counter_notify(&key, 1, &counter));
    /* Nothing was started that could send a reply, so each is refused for lack of a buffer. */
    EXPECT(scc_ssc_nacm_app_op_callback(0, 1, 2, 3, 4) == 12);
    EXPECT(scc_ssc_nacm_app_op_with_vid_callback(0, 1, 2, 3, 4, 5) == 12);
    EXPECT(scc_ssc_nacm_def_read_callback(0, 1, 2, 3) == 12);
    EXPECT(scc_ssc_nacm_http_l4port_set_callback(0, 1, 2, 3) == 12);
    EXPECT(scc_ssc_nacm_user_op_callback(0, 1, 1, &user) == 12);
    EXPECT(scc_ssc_nacm_user_reinstall_callback(0, 1, 2, 3) == 12);
    EXPECT(scc_offline_detect_cfg_ret_callback(0, 1, 2, 3, 4) == 12);
    const scc_ss_ret_callback none = scc_ssc_appmng_get_callback(8);
    EXPECT(none == NULL);
    return NULL;
}

static const char* call_lifecycle(void) {
    EXPECT(scc_svr_reg(NULL) == 22);
    EXPECT(scc_svr_unreg() == 0);
    EXPECT(scc_ss_reg(NULL) == 22);
#ifndef SCC_NO_AGENT
    EXPECT(scc_agent_init(NULL, NULL) == 22);
    EXPECT(scc_agent_finish() == 0);
    scc_agent_set_connect_callback(NULL);
#endif
    return NULL;
}

static const char* call_texts_and_paths(void) {
    char text[128];
    const uint8_t mac[6] = {0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e};
    struct in6_addr loopback = IN6ADDR_LOOPBACK_INIT;
    EXPECT(strcmp(scc_strerror(2005), "specific acl not exist") == 0);
    EXPECT(setenv("TMPDIR", "/tmp/instance/4", 1) == 0);
    EXPECT(scc_make_path(text, "/x", sizeof text, 1) == 1 && strcmp(text, "/tmp/instance/4/x") == 0);
    EXPECT(_scc_dir_create(NULL) == 22);
    EXPECT(_scc_vsd_id_get() == 4 && _scc_lib_vsd_id_get() == 4);
    EXPECT(_scc_process_name_get(0, NULL, 0) == 22);
    const uint32_t before = _get_get_avail_svrid();
    _scc_svrid_inc();
    EXPECT(_scc_get_cur_svrid() == before + 1);
    EXPECT(ip_set(10, 0, 0, 1) == 0x0A000001);
    EXPECT(strcmp(ip_show(htonl(0x0A000001)), "10.0.0.1") == 0);
    EXPECT(strcmp(mask_show(htonl(0xFFFF0000)), "255.255.0.0") == 0);
    EXPECT(mask_count(htonl(0xFFFF0000)) == 16);
    EXPECT(strcmp(ipv6_show(loopback), "::1") == 0 && strcmp(ipv6_mask_show(loopback), "::1") == 0);
    EXPECT(strcmp(mac_show(mac), "001a.2b3c.4d5e") == 0);
    g_scc_perf_debug = 0;
    scc_time_elapse_start(52);
    scc_time_elapse_end(52);
    EXPECT(g_scc_perf[52].count == 0);
    return NULL;
}

const char* header_promise_that_is_broken(void) {
    const char* (*const parts[])(void) = {call_families, call_scalars,   call_queries,
                                          call_service,  call_lifecycle, call_texts_and_paths};
    for (size_t i = 0; i < COUNT(parts); ++i) {
        const char* broken = parts[i]();
        if (broken != NULL) {
            return broken;
        }
    }
    return NULL;
}
