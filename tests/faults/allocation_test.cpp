// Every allocation of every call of applications fails once: the call returns 12, sends, keeps and leaks
// nothing, and the next one works.
#include <algorithm>
#include <cstdlib>

#include "client/client_data.h"
#include "client/diagnostics.h"
#include "client/message_queue.h"
#include "client/pending_calls.h"
#include "client/request_channel.h"
#include "fault_support.h"
#include "msg/message.h"

using test::bytes;
using test::side;
using test::wire;

namespace {

scc_user_record user(std::uint32_t operation) {
    scc_user_record record{};
    record.operation = operation;
    return record;
}

template <class Record>
Record keyed() {
    Record record{};
    record.key = {1, 2, 3, 4};
    return record;
}

scc_config_record form_9() {
    scc_config_record record{};
    record.form = 9;
    return record;
}

const scc_config_record g_config = form_9();
const scc_user_record g_user = user(1);
const scc_acl_key g_key = {1, 2, 3, 4};
const scc_ace_record g_ace{};
const scc_neighbour_record g_neighbour{};
const scc_vlan_record g_vlans{};
scc_acl_apply_record g_apply = keyed<scc_acl_apply_record>();
const scc_user_acl_record g_user_acl = keyed<scc_user_acl_record>();
std::uint32_t g_call_id = 0;

struct request_row {
    const char* name;
    std::uint16_t type;
    std::uint32_t (*call)();
    int allocations;
};

#define RECORD_CALL(type, function)                                        \
    {                                                                      \
#function, type, [] { return function(&g_config, &g_call_id); }, 1 \
    }
#define CALL(type, expression)                                             \
    {                                                                      \
#expression, type, []() -> std::uint32_t { return expression; }, 1 \
    }

// clang-format off
const request_row g_requests[] = {
    RECORD_CALL(101, scc_d1x_authen_method),
    RECORD_CALL(102, scc_d1x_author_mode_set),
    RECORD_CALL(103, scc_d1x_port_addr_num),
    RECORD_CALL(104, scc_d1x_port_open),
    RECORD_CALL(105, scc_d1x_set_pt_ctrl),
    RECORD_CALL(106, scc_d1x_set_cos),
    RECORD_CALL(107, scc_d1x_set_dscp),
    CALL(108, scc_dot1x_redirect_enable(1, &g_call_id)),
    CALL(109, scc_d1x_mac_move(1, &g_call_id)),
    RECORD_CALL(111, scc_webauth_set),
    CALL(112, scc_http_dport_set(80, 1, &g_call_id)),
    CALL(113, scc_dirchn_host_set(1, 2, 3, 4, 5, &g_call_id)),
    CALL(114, scc_dirchn_server_set(1, 2, &g_call_id)),
    CALL(115, scc_dirchn_site_set(1, 2, 3, 4, &g_call_id)),
    CALL(159, scc_dirchn_arp_set(1, 2, 3, &g_call_id)),
    RECORD_CALL(116, scc_sp_port_secuity),
    RECORD_CALL(169, scc_sp_port_violate),
    RECORD_CALL(118, scc_global_ip_mac),
    RECORD_CALL(119, scc_ip_source_guard_status),
    RECORD_CALL(120, scc_bind_except_port),
    RECORD_CALL(121, scc_dhcp_trust_port),
    RECORD_CALL(160, scc_dhcp_snooping_set),
    RECORD_CALL(162, scc_nd_snooping_set),
    RECORD_CALL(122, scc_arpcheck),
    RECORD_CALL(164, scc_arpcheck_trust),
    CALL(123, scc_addr_learning(1, 1, &g_call_id)),
    CALL(124, scc_nac_esc_set(1, &g_key, 1, &g_call_id)),
    RECORD_CALL(125, scc_nac_esc_eport_set),
    RECORD_CALL(126, scc_nac_app_set),
    CALL(127, scc_nac_user_set(&g_user, &g_call_id)),
    CALL(165, scc_arp_entry_set(&g_user, &g_call_id)),
    CALL(168, scc_arp_dyn_entry_set(&g_user, &g_call_id)),
    CALL(128, scc_ndsnp_default_bind_set(1, 2, 3, &g_call_id)),
    CALL(130, scc_nac_nbr_set(&g_neighbour, 1, &g_call_id)),
    CALL(163, scc_cpp_set(0, 1, &g_call_id)),
    CALL(166, scc_offline_detect_cfg(1, 2, 3, &g_call_id)),
    CALL(167, scc_direct_vlan_set(1, &g_vlans, &g_call_id)),
    CALL(142, scc_acl_global_eport_set(1, 2, &g_call_id)),
    CALL(143, scc_svi_router_acl_set(1, &g_call_id)),
    {"scc_efacl_ctrl", 157, [] { return scc_efacl_ctrl("data", 4, &g_call_id); }, 1},
    CALL(131, scc_acl_create(&g_key, &g_call_id)),
    CALL(131, scc_acl_delete(&g_key, &g_call_id)),
    CALL(132, scc_acl_add_ace(&g_key, &g_ace, &g_call_id)),
    CALL(132, scc_acl_delete_ace(&g_key, &g_ace, &g_call_id)),
    CALL(133, scc_acl_apply(&g_apply, &g_call_id)),
    CALL(133, scc_acl_unapply(&g_apply, &g_call_id)),
    CALL(138, scc_acl_reseqence(&g_key, 1, 1, &g_call_id)),
    CALL(134, scc_user_acl_apply(&g_user_acl, &g_call_id)),
    CALL(134, scc_user_acl_unapply(&g_user_acl, &g_call_id)),
    CALL(137, scc_user_acl_delete_vmsup(&g_key, &g_call_id)),
    CALL(139, scc_acl_reset_filter_counter(&g_key, &g_call_id)),
    CALL(140, scc_acl_reset_counter(&g_key, &g_call_id)),
    CALL(141, scc_ace_reset_counter(&g_key, 1, &g_call_id)),
    // These two need no memory at all.
    {"scc_test_cmd_set", 205, [] { return scc_test_cmd_set(1); }, 0},
    {"scc_data_recover", 201, [] { return scc_data_recover(1); }, 0},
};

struct query_row {
    const char* name;
    std::uint16_t request_type;
    std::uint16_t reply_type;
    std::uint32_t (*call)();
};

std::uint8_t g_room[1000];
std::uint32_t g_number = 0;
std::uint64_t g_counter = 0;

const query_row g_queries[] = {
    {"scc_mac_query", 315, 413, [] { return scc_mac_query(g_room, &g_number); }},
    {"scc_sp_port_addr_num", 317, 415, [] { return scc_sp_port_addr_num(&g_config, &g_call_id); }},
    {"scc_nac_user_get", 307, 401, [] {
         static scc_user_record wanted = user(2);
         wanted.operation = 2;
         return scc_nac_user_get(&wanted);
     }},
    {"scc_nac_span_dport_set", 316, 414, [] { return scc_nac_span_dport_set(&g_config, &g_call_id); }},
    {"scc_is_arp_check_enabled", 303, 405, [] { return scc_is_arp_check_enabled(g_room); }},
    {"scc_arp_check_user_count_get", 304, 411, [] { return scc_arp_check_user_count_get(1, &g_number); }},
    {"scc_arp_check_user_data_get", 305, 410, [] {
         int count = 1;
         return scc_arp_check_user_data_get(1, g_room, &count);
     }},
    {"scc_user_acl_change_vmsup", 314, 136, [] { return scc_user_acl_change_vmsup(&g_user_acl, g_room); }},
    {"scc_acl_get_filter_counter", 311, 409, [] { return scc_acl_get_filter_counter(&g_key, &g_counter); }},
    {"scc_acl_get_counter", 312, 408, [] { return scc_acl_get_counter(&g_key, &g_counter); }},
    {"scc_ace_get_counter", 313, 407, [] { return scc_ace_get_counter(&g_key, 1, &g_counter); }},
};
// clang-format on

constexpr std::uint32_t not_written = 0xAAAAAAAA;

// How often each of the 13 entries of the statistics counted a call, and a call that failed.
struct counted_calls {
    std::array<std::uint32_t, 13> all{};
    std::array<std::uint32_t, 13> failed{};
};

counted_calls counted() {
    counted_calls out;
    for (std::uint32_t i = 0; i < 13; ++i) {
        const scc::call_statistics entry = scc::read_statistics(i);
        EXPECT_EQ(entry.calls, entry.call_successes + entry.call_failures) << i;
        out.all[i] = entry.calls;
        out.failed[i] = entry.call_failures;
    }
    return out;
}

class Allocation : public test::fault_test {
  protected:
    // Each allocation fails in its turn; then the call goes through.
    void expect_12_for_each_allocation(const request_row& row) {
        SCOPED_TRACE(row.name);
        const std::size_t pending = scc::pending_calls();
        for (int nth = 1; nth <= row.allocations; ++nth) {
            const test::debugging on;
            const counted_calls before = counted();
            g_call_id = not_written;
            test::fail_allocation(nth);
            EXPECT_EQ(row.call(), 12U);
            EXPECT_TRUE(test::end_faults());
            EXPECT_TRUE(test::logged("scclib alloc memory failed."));
            EXPECT_EQ(scc::pending_calls(), pending);
            EXPECT_EQ(g_call_id, not_written);
            EXPECT_EQ(counted().all, before.all);
        }
        test::fail_allocation(row.allocations + 1);
        EXPECT_EQ(row.call(), 0U);
        EXPECT_FALSE(test::end_faults()) << "more allocations than expected";
    }
};

TEST_F(Allocation, FailsAMessageWhichIsThenNull) {
    int some = 0;
    void* message = &some;
    test::fail_allocation(1);
    EXPECT_EQ(_scc_msg_alloc(&message, 16), 12U);
    EXPECT_TRUE(test::end_faults());
    EXPECT_EQ(message, nullptr);
}

TEST_F(Allocation, FailsASavedCallWhichIsLoggedAndNotKept) {
    scc::init_pending_calls();
    const test::debugging on;
    test::fail_allocation(1);
    EXPECT_EQ(_scc_lib_save_call_data(5, 4, "data", 4), 12U);
    EXPECT_TRUE(test::end_faults());
    EXPECT_EQ(test::log_texts(), std::vector<std::string>{"scclib alloc memory failed."});
    EXPECT_EQ(scc::pending_calls(), 0U);
}

TEST_F(Allocation, FailsTheBatchAndWhatIsMadeAfterItStaysAsItWas) {
    const test::debugging on;
    _scc_lib_func_call_succ(3);
    test::fail_allocation(1);
    _scc_lib_data_init();
    EXPECT_TRUE(test::end_faults());
    EXPECT_EQ(test::log_texts(), std::vector<std::string>{"(app id:0, pid:0)alloc memory error!"});
    EXPECT_EQ(scc::read_statistics(3).calls, 1U);
    EXPECT_EQ(g_scc_lib_msg_q.next, nullptr);
    _scc_lib_data_init();
    EXPECT_EQ(scc::read_statistics(3).calls, 0U);
    EXPECT_EQ(g_scc_lib_msg_q.next, &g_scc_lib_msg_q);
}

TEST_F(Allocation, FailsEachRequest) {
    start(0);
    for (const request_row& row : g_requests) {
        expect_12_for_each_allocation(row);
        EXPECT_EQ(daemon.read_item(side::async).type, row.type);
    }
    expect_working();
}

TEST_F(Allocation, FailsEachQueryAndTheReplyIsNotMistakenForTheNextOne) {
    start(0);
    const bytes reply = bytes(wire().zeros(1000));
    for (const query_row& row : g_queries) {
        SCOPED_TRACE(row.name);
        const bool zeroes_its_counter = row.request_type == 311;
        const bool tells_its_call_id = row.request_type == 316 || row.request_type == 317;
        const auto expect_untouched = [&](std::uint32_t call_id) {
            EXPECT_EQ(g_call_id, call_id);
            EXPECT_EQ(g_number, not_written);
            EXPECT_EQ(g_counter, zeroes_its_counter ? 0U : not_written);
            EXPECT_EQ(bytes(std::begin(g_room), std::end(g_room)), bytes(sizeof g_room, 0xA5));
        };
        g_call_id = not_written;
        g_number = not_written;
        g_counter = not_written;
        std::fill(std::begin(g_room), std::end(g_room), std::uint8_t{0xA5});
        test::fail_allocation(1);
        EXPECT_EQ(row.call(), 12U);
        EXPECT_TRUE(test::end_faults());
        expect_untouched(not_written);
        test::expect_nothing_was_sent(daemon, side::sync);
        // The reply for which there is no memory is read and discarded.
        daemon.send_item(side::sync, row.reply_type, reply);
        test::fail_allocation(2);
        EXPECT_EQ(row.call(), 12U);
        EXPECT_TRUE(test::end_faults());
        expect_untouched(tells_its_call_id ? g_scc_client_cb.last_call_id.load() : not_written);
        EXPECT_EQ(daemon.read_item(side::sync).type, row.request_type);
        daemon.send_item(side::sync, row.reply_type, reply);
        test::fail_allocation(3);
        EXPECT_EQ(row.call(), 0U);
        EXPECT_FALSE(test::end_faults()) << "more allocations than expected";
        EXPECT_EQ(daemon.read_item(side::sync).type, row.request_type);
    }
    expect_working();
}

TEST_F(Allocation, FailsTheChangeOfABindingWhichLogsItsSendOrItsReply) {
    start(0);
    const test::debugging on;
    test::fail_allocation(1);
    EXPECT_EQ(scc_user_acl_change_vmsup(&g_user_acl, g_room), 12U);
    EXPECT_TRUE(test::end_faults());
    EXPECT_TRUE(test::logged("SCC_LMSG_ACL_USER_VMSUP_GET send msg failed. errno:12."));
    EXPECT_FALSE(test::logged("SCC_LMSG_ACL_USER_VMSUP_RET recv msg failed. errno:12."));
    daemon.send_item(side::sync, 136, wire().zeros(16));
    test::fail_allocation(2);
    EXPECT_EQ(scc_user_acl_change_vmsup(&g_user_acl, g_room), 12U);
    EXPECT_TRUE(test::end_faults());
    EXPECT_TRUE(test::logged("SCC_LMSG_ACL_USER_VMSUP_RET recv msg failed. errno:12."));
    EXPECT_EQ(daemon.read_item(side::sync).type, 314);
    expect_working();
}

TEST_F(Allocation, FailsTheOneWayMessageOnTheSyncSocket) {
    start(0);
    const test::debugging on;
    test::fail_allocation(1);
    EXPECT_EQ(scc_warterline_notify(1), 12U);
    EXPECT_TRUE(test::end_faults());
    EXPECT_TRUE(test::logged("call _scc_lib_msg_send failed. rv:12."));
    EXPECT_EQ(scc_warterline_notify(1), 0U);
    EXPECT_EQ(daemon.read(side::sync).items.size(), 1U);
    expect_working();
}

TEST_F(Allocation, FailsAnOversizedRequestWhichIs22WithoutBeingSent) {
    start(0);
    const bytes data(8168, 1);
    test::fail_allocation(2);
    EXPECT_EQ(scc_efacl_ctrl(data.data(), 8168, &g_call_id), 22U);
    EXPECT_TRUE(test::end_faults());
    EXPECT_EQ(scc::pending_calls(), 0U);
    expect_working();
}

// The unregistration fails for lack of memory, and the registration stays.
TEST_F(Allocation, FailsTheUnregistrationOnItsWayOut) {
    start(0);
    test::fail_allocation(1);
    EXPECT_EQ(scc_svr_unreg(), 12U);
    EXPECT_TRUE(test::end_faults());
    EXPECT_EQ(g_scc_client_cb.app_id.load(), 7U);
    expect_working();
    stop();
}

TEST_F(Allocation, FailsTheReplyToAnUnregistration) {
    start(0);
    daemon.send_item(side::sync, 302, wire().u32(0).u32(0));
    test::fail_allocation(2);
    EXPECT_EQ(scc_svr_unreg(), 12U);
    EXPECT_TRUE(test::end_faults());
    EXPECT_EQ(daemon.read_item(side::sync).type, 302);
    EXPECT_EQ(g_scc_client_cb.app_id.load(), 7U);
    expect_working();
    stop();
}

TEST_F(Allocation, FailsTheBatchAndTheNextRequestWithMemoryMakesIt) {
    const test::debugging on;
    test::fail_allocation(1);
    start(0);
    EXPECT_TRUE(test::end_faults());
    EXPECT_TRUE(test::logged("(app id:7, pid:" + test::own_pid() + ")alloc memory error!"));
    test::fail_calls_from(test::call::calloc, 1, 12);
    EXPECT_EQ(scc_svi_router_acl_set(1, nullptr), 12U);
    EXPECT_TRUE(test::end_faults());
    EXPECT_EQ(scc::pending_calls(), 0U);
    expect_working();
}

// A call that cannot be sent is forgotten and counted as failed, but still returns its call id.
TEST_F(Allocation, FailsTheBatchAndEachRequestIsForgottenAndCountedThoughItTellsItsCallId) {
    test::fail_allocation(1);
    start(0);
    EXPECT_TRUE(test::end_faults());
    test::fail_calls_from(test::call::calloc, 1, 12);
    std::uint32_t last = 0;
    for (const request_row& row : g_requests) {
        SCOPED_TRACE(row.name);
        g_call_id = not_written;
        EXPECT_EQ(row.call(), 12U);
        EXPECT_EQ(g_call_id, row.allocations == 0 ? not_written : ++last);
        EXPECT_EQ(scc::pending_calls(), 0U);
    }
    const scc_user_record deleted = user(3);
    EXPECT_EQ(scc_nac_user_set(&deleted, nullptr), 12U);
    const std::array<std::uint32_t, 13> expected = {1, 1, 1, 1, 1, 1, 1, 1, 0, 0, 0, 0, 1};
    EXPECT_EQ(counted().all, expected);
    EXPECT_EQ(counted().failed, expected);
}

// The registration's own messages: each attempt without memory is abandoned and retried.
class RegistrationAllocation : public test::fault_test, public ::testing::WithParamInterface<int> {};

TEST_P(RegistrationAllocation, FailsAndTheNextAttemptSucceeds) {
    info.app_id = 7;
    info.handlers.server_status = test::on_status;
    test::fail_allocation(GetParam());
    ASSERT_EQ(scc_svr_reg(&info), 0U);
    daemon.accept_both();
    if (GetParam() >= 3) {
        daemon.answer_registration(side::sync);
    }
    if (GetParam() >= 5) {
        daemon.answer_registration(side::async);
    }
    EXPECT_TRUE(daemon.wait_for_close(side::async));
    EXPECT_TRUE(test::end_faults());
    EXPECT_EQ(test::statuses().size(), 0U);
    daemon.accept_registration();
    ASSERT_EQ(test::statuses().wait(), 1U);
    expect_working();
}

// 1 is the batch's; 2 and 4 the two registrations', 3 and 5 their replies'.
INSTANTIATE_TEST_SUITE_P(EachMessage, RegistrationAllocation, ::testing::Values(2, 3, 4, 5));

TEST_F(Allocation, FailsAReceivedMessageAndTheNextIsDelivered) {
    start(0);
    const test::debugging on;
    ASSERT_EQ(scc_svi_router_acl_set(1, nullptr), 0U);
    ASSERT_EQ(scc_svi_router_acl_set(1, nullptr), 0U);
    (void)daemon.read_items(side::async, 2);
    test::fail_call(test::call::malloc, 1, 12);
    daemon.send_items(side::async,
                      {test::item_bytes(401, wire().u32(1).u32(7)), test::item_bytes(999, bytes(100000, 1))});
    EXPECT_TRUE(test::wait_for_log("alloc memory failed."));
    EXPECT_TRUE(test::end_faults());
    daemon.send_result(2, 8);
    EXPECT_EQ(test::results().wait(), 8U);
    EXPECT_EQ(test::results().size(), 0U);
    EXPECT_EQ(test::statuses().size(), 0U);
    expect_working();
}

TEST_F(Allocation, FailsAMessageThatBreaksOffAndTheNextConnectionBeginsAfresh) {
    start(0);
    const test::debugging on;
    const bytes message = test::message_bytes({test::item_bytes(999, bytes(600, 1))});
    for (const std::size_t sent : {8U, 9U, 300U, 615U}) {
        test::clear_log();
        test::fail_call(test::call::malloc, 1, 12);
        daemon.send(side::async, test::slice(message, 0, sent));
        EXPECT_TRUE(test::wait_for_log("alloc memory failed."));
        EXPECT_TRUE(test::end_faults());
        daemon.close_both();
        expect_reconnection();
        expect_working();
    }
}

TEST_F(Allocation, FailsTheGrowthOfTheIndexAndEveryCallIsStillFound) {
    scc::init_pending_calls();
    for (std::uint32_t id = 0; id < 3000; ++id) {
        ASSERT_EQ(_scc_lib_save_call_data(id, 1, nullptr, 0), 0U);
    }
    test::fail_call(test::call::malloc, 1, 12);
    scc::grow_pending_index();
    EXPECT_TRUE(test::end_faults());
    scc::pending_call* call = nullptr;
    for (std::uint32_t id = 0; id < 3000; ++id) {
        call = scc::take_pending_call(id);
        ASSERT_NE(call, nullptr);
        EXPECT_EQ(call->call_id, id);
        scc::release_pending_call(call);
    }
    scc::free_pending_calls();
}

TEST_F(Allocation, FailsTheStatisticsReplyWhichIsThenTheShortOne) {
    start(0);
    test::fail_call(test::call::calloc, 1, 12);
    daemon.send_item(side::async, 318, {});
    EXPECT_EQ(daemon.read(side::sync).raw,
              bytes(wire().u32(24).u8(1).u16(1).u8(0).u32(8).u16(0).u16(318).u32(7).u32(0)));
    EXPECT_TRUE(test::end_faults());
    // Without any memory there is no reply, and the next one is complete.
    const test::debugging on;
    test::fail_calls_from(test::call::calloc, 1, 12);
    daemon.send_item(side::async, 318, {});
    EXPECT_TRUE(test::wait_for_log("send libinfo basic collect back. rv:12."));
    EXPECT_TRUE(test::end_faults());
    daemon.send_item(side::async, 318, {});
    EXPECT_EQ(daemon.read_item(side::sync).value.size(), 320U);
}

// Allocations of any other size succeed.
TEST_F(Allocation, FailsASavedCallOfWhichTheDataHasAnyLength) {
    const std::uint8_t data[5] = {};
    for (const int length : {-1, 0, 1, 2, 5}) {
        SCOPED_TRACE(length);
        test::fail_allocations_of(32 + std::max(length, 0));
        EXPECT_EQ(_scc_lib_save_call_data(1, 45, data, length), 12U);
        EXPECT_TRUE(test::end_faults());
    }
}

}  // namespace
