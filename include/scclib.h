/*
 * scclib: the client library of the security-control daemon (sccd).
 *
 * Two kinds of process use it: security applications (app ids 1 to 19), which configure the daemon,
 * manage ACLs, query state and receive notifications; and the security service (always app id 16),
 * which carries out the daemon's operations in the forwarding hardware.
 *
 * Conventions
 * - Every function that can fail returns 0 or a result code: an errno number, 32 when the daemon
 *   closed the connection, or one of SCC_E_*. scc_strerror() turns any of them into text.
 * - Integers are in host byte order; IPv4 addresses and masks, IPv6 addresses and MAC addresses are
 *   in network byte order, as they travel.
 * - Records are copied; no pointer of the caller is kept. Records handed to handlers are valid until
 *   the handler returns and belong to the library.
 * - Handlers run on the library's receive thread (or on the event loop after scc_agent_init), one at a
 *   time, also across registrations, and without a library lock: they may call every function of this
 *   header.
 * - While a handler runs, nothing is read from the daemon. A handler that sends many requests can therefore
 *   stall: the daemon waits until its results are read, and the handler waits until the daemon reads its
 *   requests. Each call then blocks until sending has timed out: 3 seconds, or about 67 while the library's
 *   own thread is trying to send the waiting requests (21 times 3 seconds, with pauses of 0.2 seconds), and
 *   those requests are lost. Send long series of requests from another thread, and bound the number of requests
 *   whose results are outstanding.
 * - An asynchronous request returns 0 when it was accepted. A send that fails is not reported: the
 *   request is lost. If the connection is lost as well, the server_status handler gets 0, and 1 once the
 *   application is registered again.
 * - The pointers that handlers of notifications get lead into the received message. Those of d1x_addr_move,
 *   flow, noflow_offline, port_violate_notify, user_roll and ace_counters may be unaligned if an item whose
 *   length is not a multiple of 8 precedes theirs: copy what they point to with memcpy().
 * - A child of fork() has no registration of its own and must not use the parent's.
 *
 * Arguments that mean the same in every function
 * - call_id_out: gets the request's call id, which the handler is called with; may be null. Written once the
 *   request was handed to the connection, also when that failed.
 * - key: the ACL's key. Null, an acl_id outside 1 to 32768 or an app_type outside 1 to 58 is 22,
 *   before anything else.
 * - ifx: an interface index, host byte order.
 * - enable: not 0 switches on, 0 off; the whole byte is sent and handed back.
 * - flag: one byte whose meaning is the daemon's; sent and handed back unchanged.
 * - call_id: the call id that the operation came with.
 * - result: 0 for success, or the result code for the daemon.
 *
 * Result codes of every asynchronous request: 0 when it was accepted; 22 for an argument out of range or
 * a null record (checked before any lock, also when not registered); SCC_E_UNAVAILABLE when not
 * registered; 12 out of memory.
 *
 * Result codes of every synchronous query: 0; 22 for an argument out of range or a null pointer;
 * SCC_E_UNAVAILABLE when not registered; SCC_E_FORMAT for a reply of another type or one that is too
 * short; 12 out of memory; 32 when the daemon closed the connection; 4 when a signal handler installed
 * without SA_RESTART interrupted the wait (the reply is discarded by the next query, which still gets its
 * own); 11 when the request could not be sent for 3 seconds because the daemon does not read; another error
 * of sending or receiving; any code that the daemon puts into its reply.
 *
 * Threads
 * - local: may be called from any thread and from every handler. It takes no lock of the library and needs no
 *   registration.
 * - request: may be called from any thread and from every handler of an application. It takes the library's
 *   lock, so it waits for a synchronous query of another thread. The security service must not call it from a
 *   handler that runs with the library's lock held; struct scc_ss_reg_info names them.
 * - query: may be called from any thread and from every handler of an application; a handler that waits for
 *   an answer delays the handlers after it. It holds the library's lock until the answer has arrived. The
 *   security service must not call it from a handler that runs with the library's lock held; struct
 *   scc_ss_reg_info names them.
 * - cache: may be called from any thread and from every handler of an application. It takes the library's
 *   lock, so it waits for a synchronous query of another thread. The cache is updated after the handler of the
 *   result has returned, so that handler does not see the change yet. The security service must not call it
 *   from a handler that runs with the library's lock held; struct scc_ss_reg_info names them.
 * - service: may be called from any thread, and from those handlers of the service that run without the
 *   library's lock; struct scc_ss_reg_info names them. It takes that lock.
 * - loop: must be called on the event loop's thread; handlers may call it. All handlers run on that thread, one
 *   at a time and without a lock of the library.
 * - buffer: not thread-safe: the text is in a static buffer that the next call of the same function
 *   overwrites, on whatever thread. It may be called from a handler while no other thread calls it.
 * - variable: plain memory, read and written without a lock; the host may do so at any time.
 *
 * Environment
 * - TMPDIR: the base of the runtime directory $TMPDIR/security/scc, which contains the daemon's socket and two
 *   sockets of each registered process. Its last component is the instance number.
 * - DATA_QXOS_DIR: the base of the debug switch file $DATA_QXOS_DIR/security/scc/scclib_dbg.txt, read at
 *   registration: a line with the process's first command-line argument (at most 31 characters, compared
 *   without regard to case) and 1 enables its log; any other number disables it.
 */
#ifndef SCCLIB_H
#define SCCLIB_H

#include <netinet/in.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

/* ---- result codes ----------------------------------------------------------------------------- */

#define SCC_E_REGISTER_REJECTED 2000u    /* the daemon refused the registration */
#define SCC_E_UNREGISTER_REJECTED 2001u  /* the daemon refused the unregistration */
#define SCC_E_REGISTERED_ALREADY 2002u   /* the process is registered already */
#define SCC_E_UNREGISTERED_ALREADY 2003u /* the process is no longer registered */
#define SCC_E_UNAVAILABLE 2004u          /* not registered, or the daemon is not there */
#define SCC_E_NO_ACL 2005u               /* no such ACL */
#define SCC_E_NO_ACE 2006u               /* no such ACE */
#define SCC_E_FORMAT 2007u               /* a malformed message or reply */
#define SCC_E_NOT_APPLIED 2008u          /* the ACL is not applied there */
#define SCC_E_APPLIED_ALREADY 2009u      /* the ACL is already applied there */
#define SCC_E_ACL_EXISTS 2010u           /* the ACL exists already */
#define SCC_E_ACE_EXISTS 2011u           /* the ACE exists already */
#define SCC_E_STILL_APPLIED 2012u        /* the ACL is still applied */
#define SCC_E_NO_DATA_QUERY 2013u        /* the registration option is not 1 */
#define SCC_E_NO_HTTP_PORT 2014u         /* no such HTTP port */
#define SCC_E_NO_DIRECT_HOST 2015u       /* no such direct-channel host */
#define SCC_E_NO_DIRECT_SITE 2016u       /* no such direct-channel site */
#define SCC_E_NO_SEQUENCE_NUMBER 2017u   /* no sequence number is free for the ACE */
#define SCC_E_NO_VACL 2018u              /* no such VLAN ACL */
#define SCC_E_NO_LIST_NODE 2019u         /* no such node of the black or white list */
#define SCC_E_SERVICE_TIMEOUT 2020u      /* the security service did not answer */

/* ---- records ---------------------------------------------------------------------------------- */

/* Two pointers of a circular list; an empty head points to itself. */
struct scc_list_head {
    struct scc_list_head *next;
    struct scc_list_head *prev;
};

/* Names an ACL. The class is carried and returned, but takes no part in finding the ACL. 16 bytes. */
struct scc_acl_key {
    uint32_t vdev_id;
    uint32_t app_type;  /* 1 to 58 */
    uint32_t acl_id;    /* 1 to 32768 */
    uint32_t acl_class;
};

/* The configuration record of most requests, passed on unchanged. 736 bytes. */
struct scc_config_record {
    uint8_t head[16];
    uint32_t form; /* read by scc_dhcp_snooping_set alone: 9 or 10 */
    uint8_t body[716];
};

/* The record of NAC users and ARP entries. 736 bytes. */
struct scc_user_record {
    uint8_t head[16];
    uint32_t entry_type; /* with SCC_USER_MASK_FIRST_WORD: 1 and 5 keep the mask as it is */
    uint8_t gap_20[4];
    uint32_t operation; /* 1 and 3 for the set calls, 2 for scc_nac_user_get */
    uint8_t gap_28[4];
    uint32_t flags; /* SCC_USER_MASK_* */
    uint8_t body[612];
    uint32_t mask[4]; /* offset 648 */
    uint8_t tail[72];
};

#define SCC_USER_OPERATION_ADD 1u
#define SCC_USER_OPERATION_GET 2u
#define SCC_USER_OPERATION_DELETE 3u
#define SCC_USER_MASK_FIRST_WORD 0x2u /* send the mask with its first word all ones */
#define SCC_USER_MASK_WHOLE 0x4u      /* send the mask all ones; wins over SCC_USER_MASK_FIRST_WORD */
#define SCC_USER_MASK_KEEP 0x200u     /* SCC_USER_MASK_FIRST_WORD leaves the mask as it is */

/* One access-control entry. The library reads the two numbers only; the first 16 bytes are the link
 * of the lists that scc_acl_get_ace makes. 912 bytes. */
struct scc_ace_record {
    struct scc_list_head link;
    uint8_t match[204];
    uint32_t sn;     /* sequence number, offset 220 */
    uint32_t ace_id; /* offset 224 */
    uint8_t action[684];
};

/* Where an ACL is applied. 232 bytes. */
struct scc_acl_apply_record {
    struct scc_acl_key key;
    uint8_t target[192];
    uint32_t apply_type; /* offset 208; 0 is replaced by the key's app type, in this record */
    uint8_t tail[20];
};

/* An ACL bound to one user. 208 bytes. */
struct scc_user_acl_record {
    uint32_t ifx;
    uint8_t gap_4[4];
    uint64_t phyid;
    uint32_t apptype;
    uint32_t direction;
    uint8_t mac[6];
    uint16_t vid;
    struct scc_acl_key key;
    uint8_t tail[160];
};

/* A NAC neighbour, passed on unchanged. 912 bytes. */
struct scc_neighbour_record {
    uint8_t bytes[912];
};

/* The direct VLANs, passed on unchanged. 512 bytes. */
struct scc_vlan_record {
    uint8_t bytes[512];
};

/* An entry of scc_arp_check_user_data_get. 48 bytes. */
struct scc_arp_check_entry {
    uint8_t bytes[48];
};

/* A user in flow reports. 56 bytes. */
struct scc_flow_user {
    uint8_t head[8];
    uint8_t address[16]; /* IPv4 in the first 4 bytes, or IPv6 */
    uint8_t mask[16];
    uint32_t ifx;
    uint16_t vid;
    uint8_t mac[6];
    uint32_t family; /* 3 and 4: IPv6; anything else: IPv4 */
};

/* The counter of one ACE, passed on unchanged. 16 bytes. */
struct scc_ace_counter {
    uint64_t ace;
    uint64_t packets;
};

/* An address that moved. 16 bytes. */
struct scc_address_move {
    uint32_t ifx;
    uint16_t vid;
    uint16_t vid_before;
    uint16_t vid_after;
    uint8_t mac[6];
};

/* A port-security violation, as its notification carries it. 56 bytes. */
struct scc_port_violation {
    uint32_t ifx;
    uint16_t vid;
    uint8_t mac[6];
    uint8_t tail[44];
};

/* A user that roams, as its notification carries it. 16 bytes. */
struct scc_user_roll {
    uint32_t ifx;
    uint16_t vid;
    uint8_t mac[6];
    uint32_t roll_type;
};

/* ---- an application's handlers ---------------------------------------------------------------- */

/* 70 handlers; a null pointer means that the call is not wanted. Results get the operation's result
 * code and the request's call id first, then the fields of the request. "result of" names the request,
 * "item" the notification's message type. Only user_change's return value is used.
 *
 * Handlers run on the library's receive thread, or on the event loop's thread after scc_agent_init, one at a
 * time and without a library lock: they may call every function of this header, scc_svr_unreg included. Records
 * and pointers are valid until the handler returns. */
struct scc_handlers {
    /*  0: 0 when the daemon is lost, 1 when the application is registered (again) */
    void (*server_status)(uint32_t status);
    /*  1: result of scc_d1x_authen_method */
    void (*d1x_authen_method)(uint32_t result, uint32_t call_id, const struct scc_config_record *record);
    /*  2: result of scc_d1x_author_mode_set */
    void (*d1x_author_mode)(uint32_t result, uint32_t call_id, const struct scc_config_record *record);
    /*  3: result of scc_d1x_port_addr_num */
    void (*d1x_port_addr_num)(uint32_t result, uint32_t call_id, const struct scc_config_record *record);
    /*  4: result of scc_d1x_port_open */
    void (*d1x_port_open)(uint32_t result, uint32_t call_id, const struct scc_config_record *record);
    /*  5: result of scc_d1x_set_pt_ctrl */
    void (*d1x_pt_ctrl)(uint32_t result, uint32_t call_id, const struct scc_config_record *record);
    /*  6: result of scc_d1x_set_cos */
    void (*d1x_cos)(uint32_t result, uint32_t call_id, const struct scc_config_record *record);
    /*  7: result of scc_d1x_set_dscp */
    void (*d1x_dscp)(uint32_t result, uint32_t call_id, const struct scc_config_record *record);
    /*  8: result of scc_dot1x_redirect_enable */
    void (*d1x_redirect)(uint32_t result, uint32_t call_id, uint8_t value);
    /*  9: result of scc_d1x_mac_move */
    void (*d1x_mac_move)(uint32_t result, uint32_t call_id, uint8_t value);
    /* 10: item 110, 802.1X addresses moved; moves has count entries */
    void (*d1x_addr_move)(uint32_t count, const struct scc_address_move *moves);
    /* 11: result of scc_webauth_set */
    void (*webauth)(uint32_t result, uint32_t call_id, const struct scc_config_record *record);
    /* 12: result of scc_http_dport_set */
    void (*http_dport)(uint32_t result, uint32_t call_id, uint16_t port, uint8_t flag);
    /* 13: result of scc_dirchn_host_set */
    void (*dirchn_host)(uint32_t result, uint32_t call_id, uint32_t first, uint32_t second, uint8_t third,
                        uint32_t fourth, uint8_t fifth);
    /* 14: result of scc_dirchn_server_set */
    void (*dirchn_server)(uint32_t result, uint32_t call_id, uint32_t first, uint8_t second);
    /* 15: result of scc_dirchn_site_set */
    void (*dirchn_site)(uint32_t result, uint32_t call_id, uint32_t first, uint32_t second, uint8_t third,
                        uint8_t fourth);
    /* 16: result of scc_dirchn_arp_set */
    void (*dirchn_arp)(uint32_t result, uint32_t call_id, uint32_t first, uint32_t second, uint8_t third);
    /* 17: result of scc_sp_port_secuity */
    void (*port_security)(uint32_t result, uint32_t call_id, const struct scc_config_record *record);
    /* 18: never called: no request has kind 17; keeps its position */
    void (*reserved_kind_17)(uint32_t result, uint32_t call_id, const struct scc_config_record *record);
    /* 19: result of scc_global_ip_mac */
    void (*global_ip_mac)(uint32_t result, uint32_t call_id, const struct scc_config_record *record);
    /* 20: result of scc_ip_source_guard_status */
    void (*ip_source_guard)(uint32_t result, uint32_t call_id, const struct scc_config_record *record);
    /* 21: result of scc_bind_except_port */
    void (*bind_except_port)(uint32_t result, uint32_t call_id, const struct scc_config_record *record);
    /* 22: result of scc_dhcp_trust_port */
    void (*dhcp_trust_port)(uint32_t result, uint32_t call_id, const struct scc_config_record *record);
    /* 23: result of scc_arpcheck */
    void (*arpcheck)(uint32_t result, uint32_t call_id, const struct scc_config_record *record);
    /* 24: result of scc_addr_learning */
    void (*addr_learning)(uint32_t result, uint32_t call_id, uint32_t ifx, uint8_t enable);
    /* 25: result of scc_nac_esc_set */
    void (*nac_esc)(uint32_t result, uint32_t call_id, uint32_t value, const struct scc_acl_key *key,
                    uint8_t flag);
    /* 26: result of scc_nac_esc_eport_set */
    void (*nac_esc_eport)(uint32_t result, uint32_t call_id, const struct scc_config_record *record);
    /* 27: result of scc_nac_app_set */
    void (*nac_app)(uint32_t result, uint32_t call_id, const struct scc_config_record *record);
    /* 28: result of scc_nac_user_set */
    void (*nac_user)(uint32_t result, uint32_t call_id, const struct scc_user_record *record);
    /* 29: result of scc_ndsnp_default_bind_set */
    void (*ndsnp_default_bind)(uint32_t result, uint32_t call_id, uint32_t first, uint32_t second,
                               uint8_t third);
    /* 30: never called: no request has kind 29; keeps its position */
    void (*reserved_kind_29)(uint32_t result, uint32_t call_id, const struct scc_config_record *record);
    /* 31: result of scc_nac_nbr_set */
    void (*nac_neighbour)(uint32_t result, uint32_t call_id, const struct scc_neighbour_record *record,
                          uint8_t flag);
    /* 32: result of scc_acl_create */
    void (*acl_create)(uint32_t result, uint32_t call_id, const struct scc_acl_key *key);
    /* 33: result of scc_acl_delete */
    void (*acl_delete)(uint32_t result, uint32_t call_id, const struct scc_acl_key *key);
    /* 34: result of scc_acl_add_ace */
    void (*acl_add_ace)(uint32_t result, uint32_t call_id, const struct scc_acl_key *key,
                        const struct scc_ace_record *ace);
    /* 35: result of scc_acl_delete_ace */
    void (*acl_delete_ace)(uint32_t result, uint32_t call_id, const struct scc_acl_key *key,
                           const struct scc_ace_record *ace);
    /* 36: result of scc_acl_apply */
    void (*acl_apply)(uint32_t result, uint32_t call_id, const struct scc_acl_apply_record *record);
    /* 37: result of scc_acl_unapply */
    void (*acl_unapply)(uint32_t result, uint32_t call_id, const struct scc_acl_apply_record *record);
    /* 38: result of scc_user_acl_apply */
    void (*user_acl_apply)(uint32_t result, uint32_t call_id, const struct scc_user_acl_record *record);
    /* 39: result of scc_user_acl_unapply */
    void (*user_acl_unapply)(uint32_t result, uint32_t call_id, const struct scc_user_acl_record *record);
    /* 40: result of scc_user_acl_delete_vmsup */
    void (*user_acl_delete_vmsup)(uint32_t result, uint32_t call_id, const struct scc_acl_key *key);
    /* 41: result of scc_acl_reseqence */
    void (*acl_resequence)(uint32_t result, uint32_t call_id, const struct scc_acl_key *key,
                           uint32_t sn_start, uint32_t sn_inc);
    /* 42: result of scc_acl_reset_filter_counter; survives an unregistration until the next registration */
    void (*filter_counter_reset)(uint32_t result, uint32_t call_id, const struct scc_acl_key *key);
    /* 43: result of scc_acl_reset_counter */
    void (*acl_counter_reset)(uint32_t result, uint32_t call_id, const struct scc_acl_key *key);
    /* 44: result of scc_ace_reset_counter */
    void (*ace_counter_reset)(uint32_t result, uint32_t call_id, const struct scc_acl_key *key, uint64_t ace);
    /* 45: result of scc_acl_global_eport_set */
    void (*global_eport)(uint32_t result, uint32_t call_id, uint32_t ifx, uint8_t value);
    /* 46: result of scc_svi_router_acl_set */
    void (*svi_router_acl)(uint32_t result, uint32_t call_id, uint8_t value);
    /* 47: item 213, direct VLANs; the service has it, too */
    void (*direct_vlan_notify)(const struct scc_vlan_record *vlans);
    /* 48: item 212, a user went offline for lack of traffic; extra_bytes follow at extra */
    void (*noflow_offline)(const struct scc_flow_user *user, uint64_t flow, uint64_t time, const void *extra,
                           uint32_t extra_bytes);
    /* 49: item 214, authentication mode; the service has it, too */
    void (*authmode)(uint32_t mode);
    /* 50: result of scc_efacl_ctrl */
    void (*efacl_ctrl)(uint32_t result, uint32_t call_id, const void *data, int32_t data_bytes);
    /* 51: result of scc_dhcp_snooping_set, form 9 */
    void (*dhcp_snooping)(uint32_t result, uint32_t call_id, const struct scc_config_record *record);
    /* 52: result of scc_dhcp_snooping_set, form 10 */
    void (*dhcp_snooping_second)(uint32_t result, uint32_t call_id, const struct scc_config_record *record);
    /* 53: result of scc_nd_snooping_set */
    void (*nd_snooping)(uint32_t result, uint32_t call_id, const struct scc_config_record *record);
    /* 54: result of scc_cpp_set */
    void (*cpp)(uint32_t result, uint32_t call_id, uint32_t type, uint8_t enable);
    /* 55: item 407, ACE counters */
    void (*ace_counters)(const struct scc_acl_key *key, uint32_t count, const struct scc_ace_counter *counters);
    /* 56: item 210, station move permitted (not 0) or denied */
    void (*station_move)(uint8_t permit);
    /* 57: item 211, a user's traffic */
    void (*flow)(const struct scc_flow_user *user, uint64_t first, uint64_t second);
    /* 58: result of scc_arpcheck_trust */
    void (*arpcheck_trust)(uint32_t result, uint32_t call_id, const struct scc_config_record *record);
    /* 59: result of scc_arp_entry_set */
    void (*arp_entry)(uint32_t result, uint32_t call_id, const struct scc_user_record *record);
    /* 60: result of scc_offline_detect_cfg; open is the low byte of the first value */
    void (*offline_detect_cfg)(uint32_t result, uint32_t call_id, uint8_t open, uint32_t interval,
                               uint32_t threshold);
    /* 61: item 209, the offline detection was configured */
    void (*offline_detect_notify)(uint32_t first, uint8_t open, uint32_t interval, uint32_t threshold);
    /* 62: result of scc_direct_vlan_set; value is the low byte of the first argument */
    void (*direct_vlan)(uint32_t result, uint32_t call_id, uint8_t value, const struct scc_vlan_record *vlans);
    /* 63: item 127, a user was added (not 0) or deleted; user and detail point to the bytes at the offsets 24
     *     and 80 of the item. An item may end at offset 80: then there are no bytes at detail. A return value
     *     other than 0 is counted as a failure of the application. */
    int (*user_change)(uint8_t add, const void *user, const void *detail);
    /* 64: item 216, a direct-channel address was added (1) or deleted (0); ip in network order */
    void (*dirchn)(uint8_t add, uint32_t ip);
    /* 65: item 217, a port-security violation began (not 0) or ended */
    void (*port_violate_notify)(uint8_t add, const struct scc_port_violation *violation);
    /* 66: item 219, a user roams */
    void (*user_roll)(const struct scc_user_roll *roll);
    /* 67: item 220; never called: the library does not install it and ignores the notification */
    void (*water_line)(uint8_t start);
    /* 68: result of scc_arp_dyn_entry_set */
    void (*arp_dyn_entry)(uint32_t result, uint32_t call_id, const struct scc_user_record *record);
    /* 69: result of scc_sp_port_violate */
    void (*port_violate)(uint32_t result, uint32_t call_id, const struct scc_config_record *record);
};

/* What an application registers with. 568 bytes, read once. */
struct scc_reg_info {
    uint32_t app_id; /* 1 to 19 */
    uint8_t option;  /* sent with every registration; not 0 keeps the ACL cache, exactly 1 lets it be read */
    struct scc_handlers handlers;
};

/* ---- registration ----------------------------------------------------------------------------- */

/*
 * Start the library for this process and register with the daemon.
 *
 * Two threads are started. The receive thread registers, trying every 2 seconds until it succeeds, now and
 * after every loss of the daemon; the server_status handler gets 1 each time it has succeeded and 0 when a
 * connection was lost. Pending requests and the ACL cache are dropped at each loss; the statistics begin at 0
 * with each registration. Sets the process's umask to 0.
 *
 * Sends message 301 on both sockets. Handlers: server_status.
 * Returns 0 when started, and when already started; 22 for a null record or an app id outside 1 to 19;
 * 5 when TMPDIR is unset or too long for the directory; the error of creating the directory or a thread.
 * A TMPDIR that fits the directory but not the sockets' paths (see README) gives 0, and the receive thread
 * ends without a registration.
 * Threads: may be called from any thread and from every handler of an application. It takes the library's
 * lock, so it waits for a query of another thread. Handlers run on the library's receive thread, one at a
 * time and without a lock of the library. After an unregistration, nothing is delivered to the new
 * registration before a handler of the earlier one that is still running has returned.
 */
uint32_t scc_svr_reg(const struct scc_reg_info *info);

/*
 * Unregister and stop. Does nothing and returns 0 when not registered at the moment.
 *
 * After 0 nothing more is delivered: no handler is called for a result or notification whose delivery had not
 * begun. A handler that is running, or that the receive thread was just about to call, may still run to its
 * end; a later registration delivers nothing before it has returned. When a handler unregisters, no other
 * handler is called after it.
 *
 * Sends message 302 on the synchronous socket and waits for the reply.
 * Returns 0; SCC_E_UNREGISTER_REJECTED when the daemon refused; the error of the exchange, such as 4 when a
 * signal handler interrupted it. After an error the application is registered as before.
 * Threads: may be called from any thread and from every handler of an application. It takes the library's
 * lock, so it waits for a synchronous query of another thread.
 */
uint32_t scc_svr_unreg(void);

/*
 * Register from an event loop of the platform: connecting, reading and recovery are tasks on master,
 * and handlers run on its thread.
 *
 * master is a struct qx_thread_master and must live as long as the process. The runtime directory's mode
 * is left as it is. Reconnects by a timer of 3 (seconds on a workstation). A second call replaces the first one
 * before its first attempt to register, after that attempt has failed, and directly after a loss of the daemon;
 * otherwise it changes nothing. When the first attempt fails, server_status gets 0 although there was no 1.
 *
 * Sends message 301 on both sockets. Handlers: server_status.
 * Returns 0 when started, and when already started; 22 for a null master, a null record or an app id outside
 * 1 to 19; 5 when TMPDIR is unset or too long; 12 out of memory; the error of creating the directory or a
 * thread.
 * Threads: loop.
 */
uint32_t scc_agent_init(const struct scc_reg_info *info, void *master);

/*
 * Unregister and cancel the tasks of scc_agent_init.
 * Does nothing and returns 0 when not registered at the moment. After 0 no handler is called any more; when a
 * handler calls it, none is called after that one. Sends message 302 on the synchronous socket and waits for
 * the reply.
 * Returns 0; SCC_E_UNREGISTER_REJECTED when the daemon refused; the error of the exchange, such as 4 when a
 * signal handler interrupted it. After an error the application is registered as before.
 * Threads: loop.
 */
uint32_t scc_agent_finish(void);

/*
 * Set the function that is called after every successful registration by the event loop; null for none. It may
 * be set before scc_agent_init and changed at any time.
 * Returns 0, always.
 * Threads: may be called from any thread and from every handler. The function that was set is called on the
 * event loop's thread.
 */
uint32_t scc_agent_set_connect_callback(void (*callback)(void));

/* ---- configuration requests ------------------------------------------------------------------- */

/* A request is sent on the asynchronous socket within 5 milliseconds, or at once when 8,192 bytes are waiting.
 * Its arguments are copied before it returns and passed to the handler with the result. Arguments whose meaning
 * is not described here belong to the application and the daemon: they are sent unchanged, in host byte order
 * and 4 bytes each, and passed to the handler unchanged.
 *
 * "Message" is the message's type, "kind" the request's kind, which selects the handler of its result; the
 * bytes are those of the message's value.
 *
 * Threads: request. */

/* Set the 802.1X authentication method. Message 101, kind 1, 744 bytes. Handler: d1x_authen_method. */
uint32_t scc_d1x_authen_method(const struct scc_config_record *record, uint32_t *call_id_out);
/* Set the 802.1X authorisation mode. Message 102, kind 2, 744 bytes. Handler: d1x_author_mode. */
uint32_t scc_d1x_author_mode_set(const struct scc_config_record *record, uint32_t *call_id_out);
/* Limit the 802.1X addresses of a port. Message 103, kind 3, 744 bytes. Handler: d1x_port_addr_num. */
uint32_t scc_d1x_port_addr_num(const struct scc_config_record *record, uint32_t *call_id_out);
/* Open or close a port for 802.1X. Message 104, kind 4, 744 bytes. Handler: d1x_port_open. */
uint32_t scc_d1x_port_open(const struct scc_config_record *record, uint32_t *call_id_out);
/* Set the 802.1X port control. Message 105, kind 5, 744 bytes. Handler: d1x_pt_ctrl. */
uint32_t scc_d1x_set_pt_ctrl(const struct scc_config_record *record, uint32_t *call_id_out);
/* Set the class of service of 802.1X users. Message 106, kind 6, 744 bytes. Handler: d1x_cos. */
uint32_t scc_d1x_set_cos(const struct scc_config_record *record, uint32_t *call_id_out);
/* Set the DSCP of 802.1X users. Message 107, kind 7, 744 bytes. Handler: d1x_dscp. */
uint32_t scc_d1x_set_dscp(const struct scc_config_record *record, uint32_t *call_id_out);
/* Switch the 802.1X redirection. value 1 is on, 0 off; the handler gets the low byte. Message 108, kind 8,
 * 8 bytes. Handler: d1x_redirect. */
uint32_t scc_dot1x_redirect_enable(int value, uint32_t *call_id_out);
/* Switch 802.1X MAC moves. value 1 is on, 0 off; the handler gets the low byte. Message 109, kind 9, 8
 * bytes. Handler: d1x_mac_move. */
uint32_t scc_d1x_mac_move(int value, uint32_t *call_id_out);
/* Configure web authentication. Message 111, kind 10, 744 bytes. Handler: webauth. */
uint32_t scc_webauth_set(const struct scc_config_record *record, uint32_t *call_id_out);
/* Add or delete an HTTP port that is intercepted; host order. Message 112, kind 11, 12 bytes. Handler:
 * http_dport. */
uint32_t scc_http_dport_set(uint16_t port, uint8_t flag, uint32_t *call_id_out);
/* Configure a direct-channel host. The five numbers pass unchanged. Message 113, kind 12, 24 bytes.
 * Handler: dirchn_host. */
uint32_t scc_dirchn_host_set(uint32_t first, uint32_t second, uint8_t third, uint32_t fourth, uint8_t fifth,
                             uint32_t *call_id_out);
/* Configure a direct-channel server. Both numbers pass unchanged. Message 114, kind 13, 12 bytes. Handler:
 * dirchn_server. */
uint32_t scc_dirchn_server_set(uint32_t first, uint8_t second, uint32_t *call_id_out);
/* Configure a direct-channel site. The four numbers pass unchanged. Message 115, kind 14, 20 bytes.
 * Handler: dirchn_site. */
uint32_t scc_dirchn_site_set(uint32_t first, uint32_t second, uint8_t third, uint8_t fourth,
                             uint32_t *call_id_out);
/* Configure ARP in the direct channel. The numbers pass unchanged; the constant 1 travels before the third
 * argument. Message 159, kind 15, 20 bytes. Handler: dirchn_arp. */
uint32_t scc_dirchn_arp_set(uint32_t first, uint32_t second, uint8_t third, uint32_t *call_id_out);
/* Configure port security. Message 116, kind 16, 744 bytes. Handler: port_security. */
uint32_t scc_sp_port_secuity(const struct scc_config_record *record, uint32_t *call_id_out);
/* Configure the reaction to violations. Message 169, kind 60, 744 bytes. Handler: port_violate. */
uint32_t scc_sp_port_violate(const struct scc_config_record *record, uint32_t *call_id_out);
/* Bind IP and MAC addresses for the whole switch. Message 118, kind 18, 744 bytes. Handler: global_ip_mac. */
uint32_t scc_global_ip_mac(const struct scc_config_record *record, uint32_t *call_id_out);
/* Switch IP source guard. Message 119, kind 19, 744 bytes. Handler: ip_source_guard. */
uint32_t scc_ip_source_guard_status(const struct scc_config_record *record, uint32_t *call_id_out);
/* Exempt a port from address binding. Message 120, kind 20, 744 bytes. Handler: bind_except_port. */
uint32_t scc_bind_except_port(const struct scc_config_record *record, uint32_t *call_id_out);
/* Trust a port for DHCP. Message 121, kind 21, 744 bytes. Handler: dhcp_trust_port. */
uint32_t scc_dhcp_trust_port(const struct scc_config_record *record, uint32_t *call_id_out);
/* Configure DHCP snooping. record->form 9: message 160, kind 51, handler dhcp_snooping; form 10: message
 * 161, kind 52, handler dhcp_snooping_second; 744 bytes. Another form returns 22, but only after the
 * registered state was tested, and uses up a call id without writing it. Handler: dhcp_snooping,
 * dhcp_snooping_second. */
uint32_t scc_dhcp_snooping_set(const struct scc_config_record *record, uint32_t *call_id_out);
/* Configure ND snooping. Message 162, kind 53, 744 bytes. Handler: nd_snooping. */
uint32_t scc_nd_snooping_set(const struct scc_config_record *record, uint32_t *call_id_out);
/* Configure the ARP check. Message 122, kind 22, 744 bytes. Handler: arpcheck. */
uint32_t scc_arpcheck(const struct scc_config_record *record, uint32_t *call_id_out);
/* Trust a port in the ARP check. Message 164, kind 55, 744 bytes. Handler: arpcheck_trust. */
uint32_t scc_arpcheck_trust(const struct scc_config_record *record, uint32_t *call_id_out);
/* Switch address learning of an interface. Message 123, kind 23, 12 bytes. Handler: addr_learning. */
uint32_t scc_addr_learning(uint32_t ifx, uint8_t enable, uint32_t *call_id_out);
/* Configure the NAC escape ACL. value passes unchanged. Message 124, kind 24, 28 bytes. Handler: nac_esc. */
uint32_t scc_nac_esc_set(uint32_t value, const struct scc_acl_key *key, uint8_t flag, uint32_t *call_id_out);
/* Configure the NAC escape egress port. Message 125, kind 25, 744 bytes. Handler: nac_esc_eport. */
uint32_t scc_nac_esc_eport_set(const struct scc_config_record *record, uint32_t *call_id_out);
/* Configure a NAC application. Message 126, kind 26, 744 bytes. Handler: nac_app. */
uint32_t scc_nac_app_set(const struct scc_config_record *record, uint32_t *call_id_out);
/* Add (operation 1) or delete (3) a NAC user; any other operation is 22. The mask flags change what is
 * sent, neither the caller's record nor what the handler gets. Message 127, kind 27, 744 bytes. Handler:
 * nac_user. */
uint32_t scc_nac_user_set(const struct scc_user_record *record, uint32_t *call_id_out);
/* Set an ARP entry, with the rules of scc_nac_user_set. Message 165, kind 56, 744 bytes. Handler:
 * arp_entry. */
uint32_t scc_arp_entry_set(const struct scc_user_record *record, uint32_t *call_id_out);
/* Set a dynamic ARP entry, with the rules of scc_nac_user_set. Message 168, kind 59, 744 bytes. Handler:
 * arp_dyn_entry. */
uint32_t scc_arp_dyn_entry_set(const struct scc_user_record *record, uint32_t *call_id_out);
/* Configure the default binding of ND snooping. The numbers pass unchanged. Message 128, kind 28, 16 bytes.
 * Handler: ndsnp_default_bind. */
uint32_t scc_ndsnp_default_bind_set(uint32_t first, uint32_t second, uint8_t third, uint32_t *call_id_out);
/* Configure a NAC neighbour. Message 130, kind 30, 928 bytes. Handler: nac_neighbour. */
uint32_t scc_nac_nbr_set(const struct scc_neighbour_record *record, uint8_t flag, uint32_t *call_id_out);
/* Switch CPU protection; type must be 0, else 22. Message 163, kind 54, 12 bytes. Handler: cpp. */
uint32_t scc_cpp_set(int type, uint8_t enable, uint32_t *call_id_out);
/* Configure the detection of silent users: open not 0 switches it on, interval and threshold pass
 * unchanged. Message 166, kind 57, 16 bytes. Handler: offline_detect_cfg. */
uint32_t scc_offline_detect_cfg(int open, uint32_t interval, uint32_t threshold, uint32_t *call_id_out);
/* Set the direct VLANs; value passes unchanged and the handler gets its low byte. Message 167, kind 58, 520
 * bytes. Handler: direct_vlan. */
uint32_t scc_direct_vlan_set(int value, const struct scc_vlan_record *vlans, uint32_t *call_id_out);
/* Set the egress port of the whole switch; ifx 1 to 65535, else 22; value passes unchanged. Message 142,
 * kind 44, 16 bytes. Handler: global_eport. */
uint32_t scc_acl_global_eport_set(uint32_t ifx, uint8_t value, uint32_t *call_id_out);
/* Switch the ACLs of routed VLAN interfaces; value not 0 is on. Message 143, kind 45, 8 bytes. Handler:
 * svi_router_acl. */
uint32_t scc_svi_router_acl_set(uint8_t value, uint32_t *call_id_out);
/* Hand over an event-filter control block of data_bytes (at least 1, taken as signed, else 22) at data,
 * which is copied and may not be null. A block of 8,168 bytes and more is sent and yet returns 22, and no
 * result arrives for it. Message 157, kind 50, data_bytes + 8 bytes. Handler: efacl_ctrl. */
uint32_t scc_efacl_ctrl(const void *data, uint32_t data_bytes, uint32_t *call_id_out);
/* Report that the water line was passed (start not 0) or left. One-way: message 220, 4 bytes, on the
 * synchronous socket, no result. Returns 0 when it was handed to the connection; SCC_E_UNAVAILABLE; 12 out
 * of memory. */
uint32_t scc_warterline_notify(int start);
/* Send a test command. One-way: message 205, 4 bytes, on the asynchronous socket, no result; command passes
 * unchanged. Returns 0 when it was accepted; SCC_E_UNAVAILABLE; 12 out of memory. */
uint32_t scc_test_cmd_set(uint32_t command);
/* Write the names of the binding owners in mask, joined by a slash, into buf of size bytes, in this order:
 * 0x2 AAA ip-auth-mode, 0x10 address-bind, 0x80 VRB, 0x20 DHCP snooping, 0x4 port-security, 0x8 web-authen.
 * Stops at a name that does not fit with one byte to spare for its slash; a slash before that name
 * stays. The text always ends with a null byte. Does nothing when buf is null or size below 1. Local: no
 * message. Returns nothing. Threads: local. */
void scc_bind_user_name_get(int mask, char *buf, int size);

/* ---- synchronous queries ---------------------------------------------------------------------- */

/* A query blocks until the daemon has answered on the synchronous socket. It holds the library's lock for that
 * time, so queries and requests of other threads wait for it. No handler is involved. A query that a signal
 * interrupted, or that could not be sent, has no effect on the answers of later ones; one that was sent in part
 * ends the connection.
 *
 * Threads: query. */

/* Look up the IPv4 address (network order) of the MAC address at mac (6 bytes). *ip is written when the
 * result is 0. Message 315, 152 bytes, reply 413. */
uint32_t scc_mac_query(const uint8_t *mac, uint32_t *ip);
/* Ask about the number of addresses of a secured port and wait. The answer is the result code alone. The
 * call id is written once the query was sent. Message 317, 744 bytes, reply 415. */
uint32_t scc_sp_port_addr_num(const struct scc_config_record *record, uint32_t *call_id_out);
/* Read a NAC user; record->operation must be 2, else 22. The reply's record overwrites it whatever the result;
 * it is left alone when the reply has none, as a refusal may. Takes no call id. Message 307, 744 bytes, reply
 * 401. */
uint32_t scc_nac_user_get(struct scc_user_record *record);
/* Set the mirror's destination port and wait. The call id is written once the query was sent. Message 316,
 * 744 bytes, reply 414. */
uint32_t scc_nac_span_dport_set(const struct scc_config_record *record, uint32_t *call_id_out);
/* Ask whether the ARP check is on: *enabled becomes 1 or 0, and is left alone when the call fails. Message
 * 303, no value, reply 405, which carries no result code. */
uint32_t scc_is_arp_check_enabled(uint8_t *enabled);
/* Count the users of the ARP check; key passes unchanged. *count is written when the result is 0. Message
 * 304, 12 bytes, reply 411. */
uint32_t scc_arp_check_user_count_get(uint32_t key, uint32_t *count);
/* Read the users of the ARP check: up to *count entries of 48 bytes (struct scc_arp_check_entry) into buf;
 * *count, which is sent, is lowered to the number that came. Both are left alone when the result is not 0, and
 * when the reply lacks entries that would be copied (SCC_E_FORMAT); a negative *count takes none. selector
 * passes unchanged. Message 305, 12 bytes, reply 410. */
uint32_t scc_arp_check_user_data_get(uint32_t selector, void *buf, int *count);
/* Get the greatest number of users of a NAC kind: for kinds 1 and 4 to 7 *a becomes 4096, *b and *c 3000; for
 * every other kind all three become 128. Null pointers are skipped. Local: no message. Returns 0, always.
 * Threads: local. */
uint32_t scc_get_nac_max_user(int kind, uint64_t *a, uint64_t *b, uint64_t *c);
/* Get whether the device counts per NAC user: 1 yes, 0 no. Local: no message, from the device's capability
 * word. Returns 0; 22 for a null pointer; SCC_E_UNAVAILABLE. Threads: request. */
uint32_t scc_nac_user_counter_support(uint8_t *supported);

/* ---- ACL management --------------------------------------------------------------------------- */

/* Changes that the daemon has confirmed enter the process's ACL cache after the result's handler has returned,
 * provided that the registration option is not 0. Calls that read the cache send nothing and need the option 1;
 * the cache is emptied when the daemon is lost.
 *
 * Threads: request. */

/* Create an ACL. Message 131, kind 31, 140 bytes. Handler: acl_create. */
uint32_t scc_acl_create(const struct scc_acl_key *key, uint32_t *call_id_out);
/* Delete an ACL with its ACEs. Message 131, kind 32, 140 bytes. Handler: acl_delete. */
uint32_t scc_acl_delete(const struct scc_acl_key *key, uint32_t *call_id_out);
/* Add an ACE. Message 132, kind 33, 944 bytes. 22 for a null ACE. Handler: acl_add_ace. */
uint32_t scc_acl_add_ace(const struct scc_acl_key *key, const struct scc_ace_record *ace,
                         uint32_t *call_id_out);
/* Delete the ACE with this sequence number and id. Message 132, kind 34, 944 bytes. Handler:
 * acl_delete_ace. */
uint32_t scc_acl_delete_ace(const struct scc_acl_key *key, const struct scc_ace_record *ace,
                            uint32_t *call_id_out);
/* Apply an ACL. An apply type of 0 becomes the key's app type, in the caller's record and even when the call
 * then fails; outside 1 to 58 it is 22. Message 133, kind 35, 248 bytes. Handler: acl_apply. */
uint32_t scc_acl_apply(struct scc_acl_apply_record *record, uint32_t *call_id_out);
/* Unapply an ACL, with the rules of scc_acl_apply. Message 133, kind 36, 248 bytes. Handler:
 * acl_unapply. */
uint32_t scc_acl_unapply(struct scc_acl_apply_record *record, uint32_t *call_id_out);
/* Renumber the ACEs; both numbers at least 1 as signed, else 22. Message 138, kind 40, 28 bytes. Handler:
 * acl_resequence. */
uint32_t scc_acl_reseqence(const struct scc_acl_key *key, uint32_t sn_start, uint32_t sn_inc,
                           uint32_t *call_id_out);
/* Ask the daemon to recover this application's data; argument passes unchanged. One-way: message 201, 16
 * bytes, no result. Returns 0 when it was accepted; SCC_E_UNAVAILABLE; 12 out of memory. */
uint32_t scc_data_recover(int argument);
/* Read an ACL's class from the cache into key->acl_class. The key's class takes no part in finding the ACL.
 * Returns 0; 22 for an invalid key; SCC_E_UNAVAILABLE; SCC_E_NO_DATA_QUERY; SCC_E_NO_ACL.
 * Threads: cache. */
uint32_t scc_acl_cls_get(struct scc_acl_key *key);
/* Copy an ACL's ACEs from the cache, in sequence order, to a list: each a struct scc_ace_record of its own,
 * linked through its link, which the caller frees with free(). The head is initialised here. Returns 0; 22
 * for an invalid key or a null head; SCC_E_UNAVAILABLE; SCC_E_NO_DATA_QUERY; SCC_E_NO_ACL; 12 out of
 * memory, with an empty list. Threads: cache. */
uint32_t scc_acl_get_ace(const struct scc_acl_key *key, struct scc_list_head *aces);
/* Copy the first cached ACE with the sequence number sn into *ace, whose link must not be used.
 * Returns 0; 22 for an invalid key or a null ace; SCC_E_UNAVAILABLE; SCC_E_NO_DATA_QUERY; SCC_E_NO_ACL;
 * SCC_E_NO_ACE. Threads: cache. */
uint32_t scc_acl_get_ace_by_sn(const struct scc_acl_key *key, uint32_t sn, struct scc_ace_record *ace);

/* ---- user ACLs and counters ------------------------------------------------------------------- */

/* Threads: request. */

/* Bind the ACL of record->key to a user; 22 for an invalid key. Message 134, kind 37, 224 bytes. Handler:
 * user_acl_apply. */
uint32_t scc_user_acl_apply(const struct scc_user_acl_record *record, uint32_t *call_id_out);
/* Undo a binding, with the rules of scc_user_acl_apply. Message 134, kind 38, 224 bytes. Handler:
 * user_acl_unapply. */
uint32_t scc_user_acl_unapply(const struct scc_user_acl_record *record, uint32_t *call_id_out);
/* Delete a VLAN binding. The acl id has no upper bound here: 22 when it is below 1 as signed, or the app type
 * outside 1 to 58. Message 137, kind 39, 232 bytes. Handler: user_acl_delete_vmsup. */
uint32_t scc_user_acl_delete_vmsup(const struct scc_acl_key *key, uint32_t *call_id_out);
/* Change a VLAN binding and wait: 16 bytes of the reply are copied to out, which is left alone otherwise. The
 * key is not checked. Message 314, 232 bytes, reply 136, which carries no result code. Returns 0; 22 for a
 * null pointer; SCC_E_UNAVAILABLE; SCC_E_FORMAT; 12 out of memory; 32 when the daemon closed the connection;
 * 4 when a signal handler interrupted the wait; 11 when the request could not be sent for 3 seconds; another
 * error of sending or receiving. Threads: query. */
uint32_t scc_user_acl_change_vmsup(const struct scc_user_acl_record *record, uint8_t *out);
/* Read an ACL's filter counter; *counter is set to 0 first (not for 22) and written when the result is 0.
 * Message 311, 24 bytes, reply 409. Threads: query. */
uint32_t scc_acl_get_filter_counter(const struct scc_acl_key *key, uint64_t *counter);
/* Read an ACL's counter; *counter is written when the result is 0. Message 312, 40 bytes, reply 408.
 * Threads: query. */
uint32_t scc_acl_get_counter(const struct scc_acl_key *key, uint64_t *counter);
/* Read the counter of the ACE with the number ace; *counter is written when the result is 0. Message 313,
 * 40 bytes, reply 407. Threads: query. */
uint32_t scc_ace_get_counter(const struct scc_acl_key *key, uint64_t ace, uint64_t *counter);
/* Reset an ACL's filter counter. Message 139, kind 41, 24 bytes. Handler: filter_counter_reset. */
uint32_t scc_acl_reset_filter_counter(const struct scc_acl_key *key, uint32_t *call_id_out);
/* Reset an ACL's counter. Message 140, kind 42, 40 bytes. Handler: acl_counter_reset. */
uint32_t scc_acl_reset_counter(const struct scc_acl_key *key, uint32_t *call_id_out);
/* Reset the counter of the ACE with the number ace. Message 141, kind 43, 40 bytes. Handler:
 * ace_counter_reset. */
uint32_t scc_ace_reset_counter(const struct scc_acl_key *key, uint64_t ace, uint32_t *call_id_out);

/* ---- the security service --------------------------------------------------------------------- */

/* An operation record is valid until its handler returns. A service that answers later keeps a copy and
 * calls callback with it, once, from any thread. The service fills in ret, and op as SCC_SS_OP_*, which
 * selects the counter of the outcome. The library itself sends nothing when the handler returns. */

#define SCC_SS_OP_CREATE 0u
#define SCC_SS_OP_DELETE 1u
#define SCC_SS_OP_ADD_ACE 2u
#define SCC_SS_OP_DELETE_ACE 3u
#define SCC_SS_OP_APPLY 4u
#define SCC_SS_OP_UNAPPLY 5u
#define SCC_SS_OP_RESEQUENCE 6u
#define SCC_SS_OP_SVI_ROUTER_ACL 7u
#define SCC_SS_OP_GLOBAL_EPORT 8u
#define SCC_SS_OP_COUNTER 9u
#define SCC_SS_OP_CPP 11u

typedef void (*scc_ss_ret_callback)(const void *record, uint32_t size);

#define SCC_SS_OPERATION_HEAD                                                         \
    uint32_t id;                  /* the daemon's call id */                          \
    scc_ss_ret_callback callback; /* sends the result; offset 8 */                    \
    uint32_t ret;                 /* result, filled in by the service; offset 16 */   \
    uint32_t op;                  /* SCC_SS_OP_*, filled in by the service */         \
    uint8_t flag                  /* always 1 */

/* Message 131: create or delete an ACL. 48 bytes. */
struct scc_ss_acl_operation {
    SCC_SS_OPERATION_HEAD;
    struct scc_acl_key key;
};

/* Message 132: add or delete an ACE. 960 bytes. */
struct scc_ss_ace_operation {
    SCC_SS_OPERATION_HEAD;
    struct scc_acl_key key;
    struct scc_ace_record ace;
};

/* Message 133: apply or unapply an ACL. 280 bytes. key has the 16 bytes at offset 4 of the message's
 * value, which do not begin with the ACL's key: read apply.key. */
struct scc_ss_apply_operation {
    SCC_SS_OPERATION_HEAD;
    struct scc_acl_key key;
    uint8_t gap_44[4];
    struct scc_acl_apply_record apply;
};

/* Message 138: renumber an ACL. 56 bytes. */
struct scc_ss_resequence_operation {
    SCC_SS_OPERATION_HEAD;
    struct scc_acl_key key;
    uint32_t sn_start;
    uint32_t sn_inc;
};

/* Message 143: the ACLs of routed VLAN interfaces. 40 bytes. */
struct scc_ss_svi_operation {
    SCC_SS_OPERATION_HEAD;
    uint32_t open;
    uint32_t reserved[2];
};

/* Messages 140, 141 (reset) and 312, 313 (query): counters. 72 bytes. */
struct scc_ss_counter_operation {
    SCC_SS_OPERATION_HEAD;
    struct scc_acl_key key;
    uint64_t ace;     /* ACE counters alone; offset 48 */
    uint64_t counter; /* filled in by the service */
    uint32_t sync;    /* 1: a query, answered on the synchronous socket */
};

/* Message 142: the egress port of the whole switch. 48 bytes. */
struct scc_ss_eport_operation {
    SCC_SS_OPERATION_HEAD;
    uint32_t ifx;
    uint32_t set;
    uint32_t reserved[3];
};

/* Message 163: CPU protection. 40 bytes. */
struct scc_ss_cpp_operation {
    SCC_SS_OPERATION_HEAD;
    uint32_t set;
    uint32_t type;
    uint32_t reserved;
};

/* A user entry of the NAC operations. 88 bytes. */
struct scc_ss_user {
    uint32_t ifx;
    uint8_t gap_4[4];
    uint8_t mac[6];
    uint8_t gap_14[10];
    uint32_t ip; /* network order; offset 24 of the entry */
    uint8_t tail[60];
};

/* What the service registers with: 26 handlers. A handler that is missing is answered with success.
 * Handlers return 0 when they accepted the operation. server_status runs on the receive thread, all others
 * on the processing thread, one at a time. Those that take a record, data_recover and user_read run with the
 * library's lock held: of this header they may call the record's callback and the functions that take no
 * lock, nothing else. Pointers are valid until the handler returns. */
struct scc_ss_reg_info {
    void (*server_status)(uint32_t status);                                    /*  0 */
    int (*acl_create)(struct scc_ss_acl_operation *operation);                 /*  1: message 131 */
    int (*acl_delete)(struct scc_ss_acl_operation *operation);                 /*  2: message 131 */
    int (*add_ace)(struct scc_ss_ace_operation *operation);                    /*  3: message 132 */
    int (*delete_ace)(struct scc_ss_ace_operation *operation);                 /*  4: message 132 */
    int (*apply)(struct scc_ss_apply_operation *operation);                    /*  5: message 133 */
    int (*unapply)(struct scc_ss_apply_operation *operation);                  /*  6: message 133 */
    int (*resequence)(struct scc_ss_resequence_operation *operation);          /*  7: message 138 */
    int (*svi_router_acl)(struct scc_ss_svi_operation *operation);             /*  8: message 143 */
    int (*acl_counter)(struct scc_ss_counter_operation *operation);            /*  9: messages 140, 312 */
    int (*ace_counter)(struct scc_ss_counter_operation *operation);            /* 10: messages 141, 313 */
    int (*uplink)(struct scc_ss_eport_operation *operation);                   /* 11: message 142 */
    int (*cpp)(struct scc_ss_cpp_operation *operation);                        /* 12: message 163 */
    void (*direct_vlan_notify)(const struct scc_vlan_record *vlans);           /* 13: item 213 */
    void (*authmode)(uint32_t mode);                                           /* 14: item 214 */
    /* 15: message 148; answered by scc_ssc_nacm_app_op_callback */
    int (*app_set)(uint32_t call_id, uint32_t op, uint32_t ifx, uint32_t type);
    /* 16: message 149; answered by scc_ssc_nacm_def_read_callback */
    int (*def_read)(uint32_t call_id, uint32_t ifx, uint32_t type);
    /* 17: message 150; answered by scc_ssc_nacm_http_l4port_set_callback */
    int (*http_l4port_set)(uint32_t call_id, uint32_t add, uint32_t port);
    /* 18: message 151; answered by scc_ssc_nacm_user_op_callback */
    int (*user_op)(uint32_t call_id, uint8_t add, const struct scc_ss_user *user);
    /* 19: message 152; the user is completed in place and answered when the handler returns */
    int (*user_read)(uint32_t call_id, struct scc_ss_user *user);
    /* 20: message 153; answered by scc_ssc_nacm_user_reinstall_callback */
    int (*user_reinstall)(uint32_t call_id, uint32_t start, uint32_t ifx);
    /* 21: message 154; no answer. users: count entries of struct scc_ss_user, which need not be aligned */
    int (*app_user_recover)(uint32_t ifx, uint32_t app, uint32_t count, const void *users);
    /* 22: message 155; no answer. ports: count words of uint32_t, which need not be aligned */
    int (*l4port_recover)(uint32_t count, const void *ports);
    /* 23: message 158; answered by scc_ssc_nacm_app_op_with_vid_callback */
    int (*app_set_with_vid)(uint32_t call_id, uint32_t op, uint32_t ifx, uint32_t vid, uint32_t type);
    /* 24: message 201; 1 recovery starts, 0 it ends; answered when the handler returns */
    int (*data_recover)(uint8_t start);
    /* 25: message 209; answered by scc_offline_detect_cfg_ret_callback */
    int (*offline_detect_cfg)(uint32_t call_id, uint8_t open, uint32_t interval, uint32_t threshold);
};

/*
 * Start the library as the security service, app id 16, for the life of the process.
 *
 * Three threads are started; one of them connects and registers, now and after every loss of the daemon.
 * Sends message 301 on both sockets. Handlers: server_status.
 * Returns 0 when started, and when already started; 22 for a null record; 5 when TMPDIR is unset or too
 * long; 12 out of memory; the error of creating the directory or a thread.
 * Threads: may be called from any thread. server_status runs on the receive thread, the other handlers on the
 * processing thread, one at a time.
 */
uint32_t scc_ss_reg(const struct scc_ss_reg_info *info);
/* Ask the daemon to send everything that the hardware must hold. Message 204, 8 bytes, no reply. Returns 0
 * when it was handed to the connection; SCC_E_UNAVAILABLE; 12 out of memory. Threads: service. */
uint32_t scc_ss_fetch_func(void);

/* An answer may be given from the operation's handler or later, on any thread. Each sends message 402 with the
 * operation's type, the call id and the result. Arguments called "unused" are not sent. An answer that is given
 * while the daemon is lost is dropped, or reaches the new connection before its registration is complete.
 *
 * Threads: service. */

/* Answer message 148, the app_set handler; type is the application's type. Returns 0 when it was handed to
 * the connection; 12 out of memory. */
uint32_t scc_ssc_nacm_app_op_callback(uint32_t result, uint32_t call_id, uint32_t unused_op,
                                      uint32_t unused_ifx, uint32_t type);
/* Answer message 158, the app_set_with_vid handler; type is the application's type. Returns 0 when it was
 * handed to the connection; 12 out of memory. */
uint32_t scc_ssc_nacm_app_op_with_vid_callback(uint32_t result, uint32_t call_id, uint32_t unused_op,
                                               uint32_t unused_ifx, uint32_t unused_vid, uint32_t type);
/* Answer message 149, the def_read handler. Returns 0 when it was handed to the connection; 12 out of
 * memory. */
uint32_t scc_ssc_nacm_def_read_callback(uint32_t result, uint32_t call_id, uint32_t unused_ifx,
                                        uint32_t unused_type);
/* Answer message 150, the http_l4port_set handler. Returns 0 when it was handed to the connection; 12 out
 * of memory. */
uint32_t scc_ssc_nacm_http_l4port_set_callback(uint32_t result, uint32_t call_id, uint32_t unused_add,
                                               uint32_t unused_port);
/* Answer message 151, the user_op handler; add is the operation's own. The call is counted by whether it
 * could be sent, not by its result. Returns 0 when it was handed to the connection; 12 out of memory. */
uint32_t scc_ssc_nacm_user_op_callback(uint32_t result, uint32_t call_id, uint8_t add,
                                       const struct scc_ss_user *unused_user);
/* Answer message 153, the user_reinstall handler. Returns 0 when it was handed to the connection; 12 out of
 * memory. */
uint32_t scc_ssc_nacm_user_reinstall_callback(uint32_t result, uint32_t call_id, uint32_t unused_start,
                                              uint32_t unused_ifx);
/* Answer message 209, the offline_detect_cfg handler. Returns 0 when it was handed to the connection; 12
 * out of memory. */
uint32_t scc_offline_detect_cfg_ret_callback(uint32_t result, uint32_t call_id, uint32_t unused_open,
                                             uint32_t unused_interval, uint32_t unused_threshold);
/* Get the callback of an operation code (SCC_SS_OP_*), for a service that did not keep the record's own.
 * Code 10 has the callback of the ACL counter, as 9 has; those of the egress port and of the ACE counter
 * are reached through the record alone. Local: no message. Returns the function for 0 to 7 and 9 to 11;
 * null for every other code. Threads: local. */
scc_ss_ret_callback scc_ssc_appmng_get_callback(uint32_t op);

/* A report is sent at once on the synchronous socket under a call id of its own and is not answered. Nothing
 * is queued or retried: a report is lost when the connection is down. Records are copied.
 *
 * Threads: service. */

/* Report addresses that moved: count (at least 1) entries at moves. Message 202, 8 + 16 * count bytes.
 * Returns 0 when it was handed to the connection; 22 for null or a count below 1; SCC_E_UNAVAILABLE; 12 out
 * of memory. */
uint32_t scc_ss_move_addr_notify(int count, const struct scc_address_move *moves);
/* Report a user that went offline for lack of traffic, with extra_bytes more bytes (none: null and 0). flow
 * and time pass unchanged. Message 203, 88 + extra_bytes bytes. Returns 0 when it was handed to the
 * connection; 22 for a null user, or null with extra_bytes not 0; SCC_E_UNAVAILABLE; 12 out of memory. A
 * negative extra_bytes counts as 0. */
uint32_t scc_noflow_offline_notify(const struct scc_flow_user *user, uint64_t flow, uint64_t time,
                                   const void *extra, int extra_bytes);
/* Report a user's traffic; first and second pass unchanged. Message 208, 80 bytes. Returns 0 when it was
 * handed to the connection; 22 for a null user; SCC_E_UNAVAILABLE; 12 out of memory. */
uint32_t scc_flow_notify(const struct scc_flow_user *user, uint64_t first, uint64_t second);
/* Report ACE counters of one ACL: count entries at counters, 0 allowed. Message 207, 24 + 16 * count bytes.
 * Returns 0 when it was handed to the connection; 22 for an invalid key, or null with a count;
 * SCC_E_UNAVAILABLE; 12 out of memory. */
uint32_t scc_ss_ace_counter_notify(const struct scc_acl_key *key, uint32_t count,
                                   const struct scc_ace_counter *counters);

/* ---- texts, paths, identity ------------------------------------------------------------------- */

/* Threads: local. */

/* Get the text of any result code: the system's for an errno number, the library's own for 2000 to 2020,
 * "unknown errno" for every other number. Returns the text, which must not be freed; never null. */
const char *scc_strerror(int32_t errnum);
/* Join the value of TMPDIR (base 1) or DATA_QXOS_DIR (base 2) and suffix in dst of size bytes, ending null
 * byte included. Returns 1; 0, with dst untouched, for a null pointer, another base, a variable that is not
 * set or a path that does not fit. */
int scc_make_path(char *dst, const char *suffix, int size, int base);
/* Create every directory of an absolute path, or of one that begins with "./", with mode 0777 less the
 * umask; those that exist are left. At most 107 characters are used. Directories made before a failure
 * stay. Returns 0; 22 for null; 20 for another path; 2 when the working directory cannot be determined; 28 for
 * a relative path that is too long; the error of mkdir. */
uint32_t _scc_dir_create(const char *path);
/* Get the instance number, the last component of TMPDIR, which must contain a slash when it is set. Returns
 * the number that the component begins with; 0 when TMPDIR is unset or there is none. */
uint32_t _scc_vsd_id_get(void);
/* Get the instance number, the last component of TMPDIR. Returns the number that the component begins
 * with; 0 when TMPDIR is unset, contains no slash or there is none. */
uint32_t _scc_lib_vsd_id_get(void);
/* Read the first argument of the command line of process pid into buf of size bytes, cut to fit; the rest
 * of buf is set to 0. Returns 0; 22 for null or a size below 1; the error of opening it. */
uint32_t _scc_process_name_get(int pid, char *buf, int size);
/* Add one to the process's service id counter, which begins at 0. Returns nothing. */
void _scc_svrid_inc(void);
/* Read the service id counter. Returns its value. */
uint32_t _get_get_avail_svrid(void);
/* Read the service id counter, as _get_get_avail_svrid does. Returns its value. */
uint32_t _scc_get_cur_svrid(void);

/* Each function that shows an address has one static buffer, shared by all threads: its text is valid until
 * its next call, on whatever thread. Two threads must not call the same one at a time.
 *
 * Threads: buffer. */

/* Show the IPv4 address ip (network order) as four decimal numbers. Returns the text, which must not be
 * freed. */
const char *ip_show(uint32_t ip);
/* Show the IPv4 mask (network order) as four decimal numbers. Returns the text, which must not be freed. */
const char *mask_show(uint32_t mask);
/* Show the IPv6 address (network order). Returns the text, which must not be freed. */
const char *ipv6_show(struct in6_addr address);
/* Show the IPv6 mask (network order) as an address. Returns the text, which must not be freed. */
const char *ipv6_mask_show(struct in6_addr mask);
/* Show the MAC address of 6 bytes at mac as three dotted groups of four hexadecimal digits. Returns the
 * text, which must not be freed. */
const char *mac_show(const uint8_t *mac);
/* Make an IPv4 address in host order from four numbers, the most significant first. Returns the address; 0
 * when a number is outside 0 to 255. Threads: local. */
uint32_t ip_set(int a, int b, int c, int d);
/* Count the leading one bits of the IPv4 mask (network order); one bits after a 0 are not counted. Returns
 * 0 to 32. Threads: local. */
int mask_count(uint32_t mask);

/* ---- timing probes ---------------------------------------------------------------------------- */

/* Threads: local. Two threads should not measure under one index at a time. */

#define SCC_PERF_ENTRIES 53

/* One probe; times in microseconds, wrapping at 32 bits. Its fields are counted without a lock: threads
 * that measure under one index at a time may lose counts. */
struct scc_perf_entry {
    uint32_t count;
    uint32_t start;
    uint32_t end;
    uint32_t last;
    uint32_t max;
    uint32_t total;
};

extern uint8_t g_scc_perf_debug;                          /* switches the probes on; set by the host */
extern struct scc_perf_entry g_scc_perf[SCC_PERF_ENTRIES]; /* the timing probes; read by the host */

/* Begin a measurement: keep the time in the entry index, 0 to 52. Does nothing for another index, or while
 * g_scc_perf_debug is 0. Returns nothing. */
void scc_time_elapse_start(uint32_t index);
/* End a measurement: add the time since it began to the entry index, 0 to 52. Does nothing for another index,
 * or while g_scc_perf_debug is 0. Returns nothing. */
void scc_time_elapse_end(uint32_t index);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
