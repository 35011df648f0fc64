// The locks that the service's side must take: each operation, answer and report waits while another thread
// holds them.
#include "client/locks.h"

#include <atomic>

#include "ss/callbacks.h"
#include "ss/id_map.h"
#include "ss/operations.h"
#include "ss/service_fixture.h"
#include "support/lock_waits.h"

using test::bytes;
using test::side;
using test::wire;
using test::with_u32;

extern "C" std::atomic<std::uint8_t> g_send_buf_chk_enabled;

namespace {

// No checker thread runs: it takes a lock now and then.
class ServiceLocks : public test::registered_service {
  protected:
    ServiceLocks() { g_send_buf_chk_enabled = 1; }
};

struct operation_row {
    const char* what;
    int (*run)(std::uint16_t scc_type, const void* value);
    bytes value;
};

std::vector<operation_row> operations() {
    return {
        {"an ACL", _scc_ss_acl_op, bytes(140)},
        {"an ACE", _scc_ss_ace_op, bytes(940)},
        {"an application of an ACL", _scc_ss_acl_apply_op, bytes(244)},
        {"new numbers", _scc_ss_acl_reseq_op, bytes(28)},
        {"an interface's routing", _scc_ss_svi_router_acl_op, bytes(8)},
        {"an ACL's counter", _scc_ss_acl_counter_op, bytes(36)},
        {"an ACE's counter", _scc_ss_ace_counter_op, bytes(36)},
        {"the global port", _scc_ss_global_eport_op, bytes(12)},
        {"the processor's protection", _scc_ss_cpp_op, bytes(12)},
        {"a recovery", _scc_ss_data_recover_op, bytes(9)},
        {"offline detection", _scc_offline_detect_cfg_op, bytes(16)},
        {"an application", _scc_nacm_app_op, bytes(16)},
        {"an application of a VLAN", _scc_nacm_app_withvid_op, bytes(24)},
        {"a default", _scc_nacm_def_read, bytes(12)},
        {"a port", _scc_nacm_l4port_op, bytes(20)},
        {"a user", _scc_nacm_user_op, bytes(96)},
        {"a read of a user", _scc_nacm_user_read, bytes(96)},
        {"a new installation", _scc_nacm_user_reinstall_op, bytes(12)},
        {"a list of users", _scc_nacm_app_user_recover, bytes(16)},
        {"a list of ports", _scc_nacm_l4port_recover, bytes(4)},
    };
}

TEST_F(ServiceLocks, OfTheLibraryIsTakenByEveryOperation) {
    start_with_all_handlers();
    for (const operation_row& row : operations()) {
        SCOPED_TRACE(row.what);
        test::expect_waits_for(scc_lib_lock, [&row] { EXPECT_EQ(row.run(5, row.value.data()), 0); });
    }
}

struct waiting_row {
    const char* what;
    std::uint32_t (*act)();
};

TEST_F(ServiceLocks, OfTheLibraryIsTakenByEveryAnswerEveryReportAndTheStart) {
    static const scc_address_move moves[1] = {};
    static const scc_flow_user user{};
    static const scc_acl_key key = {1, 2, 3, 4};
    const waiting_row rows[] = {
        {"an application's answer", [] { return scc_ssc_nacm_app_op_callback(0, 1, 0, 0, 5); }},
        {"the answer for a VLAN", [] { return scc_ssc_nacm_app_op_with_vid_callback(0, 1, 0, 0, 0, 5); }},
        {"a default's answer", [] { return scc_ssc_nacm_def_read_callback(0, 1, 0, 0); }},
        {"a port's answer", [] { return scc_ssc_nacm_http_l4port_set_callback(0, 1, 0, 0); }},
        {"a user's answer", [] { return scc_ssc_nacm_user_op_callback(0, 1, 1, nullptr); }},
        {"an installation's answer", [] { return scc_ssc_nacm_user_reinstall_callback(0, 1, 0, 0); }},
        {"offline detection's answer", [] { return scc_offline_detect_cfg_ret_callback(0, 1, 0, 0, 0); }},
        {"moved addresses", [] { return scc_ss_move_addr_notify(1, moves); }},
        {"a user without traffic", [] { return scc_noflow_offline_notify(&user, 1, 2, nullptr, 0); }},
        {"a user's traffic", [] { return scc_flow_notify(&user, 1, 2); }},
        {"counters", [] { return scc_ss_ace_counter_notify(&key, 0, nullptr); }},
        {"the fetch", scc_ss_fetch_func},
        {"a second start",
         [] {
             const scc_ss_reg_info again{};
             return scc_ss_reg(&again);
         }},
    };
    start();
    for (const waiting_row& row : rows) {
        SCOPED_TRACE(row.what);
        test::expect_waits_for(scc_lib_lock, [&row] { EXPECT_EQ(row.act(), 0U); });
    }
}

TEST_F(ServiceLocks, OfTheMapIsTakenByWhatChangesAndWhatDisplaysIt) {
    start();
    test::expect_waits_for(scc_ss_lock, [] { _scc_ss_save_idtype(7, 21); });
    test::expect_waits_for(scc_ss_lock, [] { _scc_ss_retlist_dump(); });
    test::expect_waits_for(scc_ss_lock, [] { EXPECT_EQ(_scc_ss_get_type(7), 21); });
    test::expect_waits_for(scc_ss_lock, [] { scc::empty_id_map(); });
}

}  // namespace
