// The service's handler table and counters, and the parts of the service side that call one another.
//
// Handlers are installed by scc_ss_reg under scc_lib_lock and read by the processing thread.
#pragma once

#include <cstddef>

#include "client/service_statistics.h"
#include "msg/protocol.h"
#include "scclib.h"

namespace scc {

// The handlers in the order that the dispatcher's slots have; the registration record has another. The
// application handler with a VLAN stands beside the other application handler here.
struct service_handlers {
#define SCC_SLOT(member) decltype(scc_ss_reg_info::member) member
    SCC_SLOT(acl_create);          // 0
    SCC_SLOT(acl_delete);          // 1
    SCC_SLOT(add_ace);             // 2
    SCC_SLOT(delete_ace);          // 3
    SCC_SLOT(apply);               // 4
    SCC_SLOT(unapply);             // 5
    SCC_SLOT(resequence);          // 6
    SCC_SLOT(svi_router_acl);      // 7
    SCC_SLOT(acl_counter);         // 8
    SCC_SLOT(ace_counter);         // 9
    SCC_SLOT(uplink);              // 10
    SCC_SLOT(cpp);                 // 11
    SCC_SLOT(app_set);             // 12
    SCC_SLOT(app_set_with_vid);    // 13
    SCC_SLOT(def_read);            // 14
    SCC_SLOT(http_l4port_set);     // 15
    SCC_SLOT(user_op);             // 16
    SCC_SLOT(user_read);           // 17
    SCC_SLOT(user_reinstall);      // 18
    SCC_SLOT(app_user_recover);    // 19
    SCC_SLOT(l4port_recover);      // 20
    SCC_SLOT(data_recover);        // 21
    SCC_SLOT(offline_detect_cfg);  // 22
#undef SCC_SLOT
};

static_assert(sizeof(service_handlers) == 23 * sizeof(void*));
static_assert(sizeof(scc_ss_reg_info) == 26 * sizeof(void*));
static_assert(offsetof(service_handlers, app_set_with_vid) == 13 * sizeof(void*));
static_assert(offsetof(service_handlers, offline_detect_cfg) == 22 * sizeof(void*));
static_assert(offsetof(scc_ss_reg_info, app_set_with_vid) == 23 * sizeof(void*));
static_assert(offsetof(scc_ss_reg_info, direct_vlan_notify) == 13 * sizeof(void*));

// The counters' places, which are also the order of their names.
enum counter_pair : u32 {
    pair_total = 0,
    pair_recover = 1,
    pair_debug = 2,
    pair_acl = 3,
    pair_ace = 4,
    pair_apply = 5,
    pair_reseq = 6,
    pair_svi = 7,
    pair_acl_stat = 8,
    pair_ace_stat = 9,
    pair_direct_vlan = 10,
    pair_authmode = 11,
    pair_global_eport = 12,
    pair_cpp = 13,
    pair_offline_cfg = 14,
    pair_app = 15,
    pair_def_read = 16,
    pair_l4port = 17,
    pair_user = 18,
    pair_user_read = 19,
    pair_user_reinstall = 20,
    pair_app_recover = 21,
    pair_l4port_recover = 22,
    pair_app_with = 23,
    pair_test_cmd = 24,
};

void count_received(u32 pair, u32 number = 1);
void count_answered(u32 pair);
// The pair's and the total's.
void count_result(u32 pair);
[[nodiscard]] operation_count read_count(u32 pair);

}  // namespace scc

extern "C" {
extern scc::service_handlers g_scc_ss_cb;

void _scc_ss_handler_set(const scc_ss_reg_info* info);
void _scc_ss_handler_clear();
void _scc_ss_async_msg_proc(scc::u32 count, const void* first);
void* _scc_ss_lib_thread(void* generation);
void* _scc_lib_msgq_proc_thread(void* argument);
}
