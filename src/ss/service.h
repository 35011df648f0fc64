// The service's handler table and counters, for the files of this folder.
//
// Handlers are written with scc_lib_lock held and read by the processing thread without it, each through
// store_handler and load_handler. Any thread may count.
#pragma once

#include <cstddef>

#include "client/service_statistics.h"
#include "msg/protocol.h"
#include "scclib.h"

namespace scc {

// The handlers that the dispatcher calls, in the order of their slots. The registration record has another
// order: its app_set_with_vid is slot 23.
// clang-format off
#define SCC_FOR_EACH_SLOT(action)                                                                                    \
    /*  0 */ action(acl_create);     action(acl_delete);       action(add_ace);            action(delete_ace);       \
    /*  4 */ action(apply);          action(unapply);          action(resequence);         action(svi_router_acl);   \
    /*  8 */ action(acl_counter);    action(ace_counter);      action(uplink);             action(cpp);              \
    /* 12 */ action(app_set);        action(app_set_with_vid); action(def_read);           action(http_l4port_set);  \
    /* 16 */ action(user_op);        action(user_read);        action(user_reinstall);     action(app_user_recover); \
    /* 20 */ action(l4port_recover); action(data_recover);     action(offline_detect_cfg);
// clang-format on

struct service_handlers {
#define SCC_DECLARE_SLOT(slot) decltype(scc_ss_reg_info::slot) slot
    SCC_FOR_EACH_SLOT(SCC_DECLARE_SLOT)
#undef SCC_DECLARE_SLOT
};

static_assert(sizeof(service_handlers) == 23 * sizeof(void*));
static_assert(sizeof(scc_ss_reg_info) == 26 * sizeof(void*));
static_assert(offsetof(service_handlers, app_set_with_vid) == 13 * sizeof(void*));
static_assert(offsetof(service_handlers, offline_detect_cfg) == 22 * sizeof(void*));
static_assert(offsetof(scc_ss_reg_info, app_set_with_vid) == 23 * sizeof(void*));
static_assert(offsetof(scc_ss_reg_info, direct_vlan_notify) == 13 * sizeof(void*));

// The counters' positions in service_statistics.
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
// An answer, of the pair and of the total.
void count_result(u32 pair);
[[nodiscard]] operation_count read_count(u32 pair);
[[nodiscard]] const char* counter_name(u32 pair);

}  // namespace scc

extern "C" {
extern scc::service_handlers g_scc_ss_cb;

void _scc_ss_handler_set(const scc_ss_reg_info* info);
void _scc_ss_handler_clear();
void _scc_ss_async_msg_proc(scc::u32 count, const void* first);
void* _scc_ss_lib_thread(void* generation);
void* _scc_lib_msgq_proc_thread(void* argument);
}
