// What all requests share: the order of checks, lock and state, the call ids, and the batch.
#include <cerrno>
#include <future>

#include "api/request_rows.h"
#include "client/locks.h"

using test::bytes;
using test::patterned;
using test::side;
using test::wire;

namespace {

class Request : public test::recording_client {
  protected:
    // A query that holds the library's lock until the daemon answers it.
    std::future<std::uint32_t> hold_the_lock() {
        auto holding = std::async(std::launch::async, [] {
            std::uint32_t count = 0;
            return scc_arp_check_user_count_get(1, &count);
        });
        EXPECT_EQ(daemon.read_item(side::sync).type, 304);
        return holding;
    }

    void release_the_lock(std::future<std::uint32_t>& holding) {
        daemon.send_item(side::sync, 411, wire().u32(0).u32(0).u32(0));
        EXPECT_EQ(holding.get(), 0U);
    }
};

TEST_F(Request, WithAWrongArgumentReturnsWhileAnotherThreadHoldsTheLock) {
    start(1);
    auto holding = hold_the_lock();
    const scc_acl_key wrong{1, 1, 0, 1};
    scc_acl_apply_record application{};
    scc_user_acl_record bound{};
    scc_user_record user{};
    std::uint64_t counter = 0;
    int count = 0;
    EXPECT_EQ(scc_d1x_authen_method(nullptr, nullptr), 22U);
    EXPECT_EQ(scc_dhcp_snooping_set(nullptr, nullptr), 22U);
    EXPECT_EQ(scc_nac_user_set(&user, nullptr), 22U);
    EXPECT_EQ(scc_arp_entry_set(nullptr, nullptr), 22U);
    EXPECT_EQ(scc_nac_nbr_set(nullptr, 1, nullptr), 22U);
    EXPECT_EQ(scc_direct_vlan_set(1, nullptr, nullptr), 22U);
    EXPECT_EQ(scc_cpp_set(1, 1, nullptr), 22U);
    EXPECT_EQ(scc_efacl_ctrl(nullptr, 1, nullptr), 22U);
    EXPECT_EQ(scc_acl_global_eport_set(0, 1, nullptr), 22U);
    EXPECT_EQ(scc_nac_esc_set(1, &wrong, 1, nullptr), 22U);
    EXPECT_EQ(scc_acl_create(&wrong, nullptr), 22U);
    EXPECT_EQ(scc_acl_add_ace(&wrong, nullptr, nullptr), 22U);
    EXPECT_EQ(scc_acl_apply(&application, nullptr), 22U);
    EXPECT_EQ(scc_acl_reseqence(&wrong, 0, 0, nullptr), 22U);
    EXPECT_EQ(scc_acl_cls_get(nullptr), 22U);
    EXPECT_EQ(scc_acl_get_ace(&wrong, nullptr), 22U);
    EXPECT_EQ(scc_acl_get_ace_by_sn(&wrong, 1, nullptr), 22U);
    EXPECT_EQ(scc_user_acl_apply(&bound, nullptr), 22U);
    EXPECT_EQ(scc_user_acl_unapply(&bound, nullptr), 22U);
    EXPECT_EQ(scc_user_acl_delete_vmsup(&wrong, nullptr), 22U);
    EXPECT_EQ(scc_user_acl_change_vmsup(&bound, nullptr), 22U);
    EXPECT_EQ(scc_acl_get_filter_counter(&wrong, &counter), 22U);
    EXPECT_EQ(scc_acl_get_counter(&wrong, nullptr), 22U);
    EXPECT_EQ(scc_ace_get_counter(nullptr, 1, &counter), 22U);
    EXPECT_EQ(scc_acl_reset_counter(&wrong, nullptr), 22U);
    EXPECT_EQ(scc_mac_query(nullptr, nullptr), 22U);
    EXPECT_EQ(scc_sp_port_addr_num(nullptr, nullptr), 22U);
    EXPECT_EQ(scc_nac_span_dport_set(nullptr, nullptr), 22U);
    EXPECT_EQ(scc_nac_user_get(&user), 22U);
    EXPECT_EQ(scc_is_arp_check_enabled(nullptr), 22U);
    EXPECT_EQ(scc_arp_check_user_count_get(1, nullptr), 22U);
    EXPECT_EQ(scc_arp_check_user_data_get(1, nullptr, &count), 22U);
    EXPECT_EQ(scc_nac_user_counter_support(nullptr), 22U);
    release_the_lock(holding);
}

TEST_F(Request, WaitsForTheLockThatAQueryHolds) {
    start();
    auto holding = hold_the_lock();
    EXPECT_EQ(pthread_rwlock_tryrdlock(&scc_lib_lock), EBUSY);
    auto waiting = std::async(std::launch::async, [] { return scc_addr_learning(9, 1, nullptr); });
    release_the_lock(holding);
    EXPECT_EQ(waiting.get(), 0U);
    EXPECT_EQ(daemon.read_item(side::async).type, 123);
}

TEST_F(Request, GivesTheLockBackOnEveryWayOut) {
    const auto record = patterned<scc_config_record>();
    const auto expect_free = [] {
        EXPECT_EQ(pthread_rwlock_trywrlock(&scc_lib_lock), 0);
        pthread_rwlock_unlock(&scc_lib_lock);
    };
    EXPECT_EQ(scc_arpcheck(&record, nullptr), 2004U);
    expect_free();
    start(0);
    EXPECT_EQ(scc_dhcp_snooping_set(&record, nullptr), 22U);
    expect_free();
    EXPECT_EQ(scc_arpcheck(&record, nullptr), 0U);
    expect_free();
    const bytes large(8168, 1);
    EXPECT_EQ(scc_efacl_ctrl(large.data(), 8168, nullptr), 22U);
    expect_free();
}

TEST_F(Request, TakesTheNextCallIdEachTime) {
    start();
    for (std::uint32_t expected = 1; expected <= 5; ++expected) {
        std::uint32_t id = 0;
        ASSERT_EQ(scc_svi_router_acl_set(1, &id), 0U);
        EXPECT_EQ(id, expected);
        EXPECT_EQ(test::u32_at(daemon.read_item(side::async).value, 0), expected);
    }
}

TEST_F(Request, TakesCallIdZeroAfterTheHighest) {
    start();
    g_scc_client_cb.last_call_id.store(0xFFFFFFFE);
    for (const std::uint32_t expected : {0xFFFFFFFFU, 0U, 1U}) {
        std::uint32_t id = 77;
        ASSERT_EQ(scc_svi_router_acl_set(1, &id), 0U);
        EXPECT_EQ(id, expected);
        daemon.read_item(side::async);
        daemon.send_result(expected, 0);
        EXPECT_EQ(test::results().wait()->call_id, expected);
    }
}

TEST_F(Request, KeepsCountingCallIdsAfterALossAndRestartsAfterUnregistering) {
    start();
    ASSERT_EQ(scc_svi_router_acl_set(1, nullptr), 0U);
    daemon.read_item(side::async);
    daemon.close_both();
    EXPECT_EQ(test::statuses().wait(), 0U);
    EXPECT_EQ(scc::pending_calls(), 0U);
    daemon.accept_registration();
    EXPECT_EQ(test::statuses().wait(), 1U);
    std::uint32_t id = 0;
    ASSERT_EQ(scc_svi_router_acl_set(1, &id), 0U);
    EXPECT_EQ(id, 2U);
    daemon.read_item(side::async);
    stop();
    start();
    ASSERT_EQ(scc_svi_router_acl_set(1, &id), 0U);
    EXPECT_EQ(id, 1U);
}

TEST_F(Request, IsUnavailableWhileTheConnectionIsLostAndAfterAnUnregistration) {
    start();
    daemon.stop_listening();
    daemon.close_both();
    EXPECT_EQ(test::statuses().wait(), 0U);
    std::uint32_t id = 0xAAAAAAAA;
    EXPECT_EQ(scc_svi_router_acl_set(1, &id), 2004U);
    daemon.listen();
    daemon.accept_registration();
    EXPECT_EQ(test::statuses().wait(), 1U);
    stop();
    EXPECT_EQ(scc_svi_router_acl_set(1, &id), 2004U);
    EXPECT_EQ(id, 0xAAAAAAAAU);
}

TEST_F(Request, IsUnavailableInEveryStateButTheRegisteredOne) {
    scc_acl_key key{1, 1, 1, 1};
    std::uint32_t id = 0xAAAAAAAA;
    std::uint32_t count = 0xAAAAAAAA;
    std::uint8_t supported = 0xAA;
    for (const std::uint32_t state : {0U, 1U, 2U, 3U, 5U, 0xFFFFFFFFU}) {
        g_scc_client_cb.state.store(state);
        EXPECT_EQ(scc_svi_router_acl_set(1, &id), 2004U) << state;
        EXPECT_EQ(scc_acl_create(&key, &id), 2004U) << state;
        EXPECT_EQ(scc_acl_cls_get(&key), 2004U) << state;
        EXPECT_EQ(scc_arp_check_user_count_get(1, &count), 2004U) << state;
        EXPECT_EQ(scc_nac_user_counter_support(&supported), 2004U) << state;
        EXPECT_EQ(scc_warterline_notify(1), 2004U) << state;
    }
    g_scc_client_cb.state.store(1);
    EXPECT_EQ(id, 0xAAAAAAAAU);
    EXPECT_EQ(count, 0xAAAAAAAAU);
    EXPECT_EQ(supported, 0xAA);
    EXPECT_EQ(g_scc_client_cb.last_call_id.load(), 0U);
    EXPECT_EQ(scc::pending_calls(), 0U);
}

TEST_F(Request, GivesResultsInAnyOrderToTheirOwnCalls) {
    start();
    for (const std::uint32_t ifx : {10U, 20U, 30U}) {
        ASSERT_EQ(scc_addr_learning(ifx, 1, nullptr), 0U);
    }
    daemon.read_items(side::async, 3);
    for (const std::uint32_t id : {3U, 1U, 2U}) {
        daemon.send_result(id, 100 + id);
        const auto event = test::results().wait();
        ASSERT_TRUE(event.has_value());
        EXPECT_EQ(event->call_id, id);
        EXPECT_EQ(event->result, 100 + id);
        EXPECT_EQ(event->arguments, bytes(wire().u32(id * 10).u8(1)));
    }
}

TEST_F(Request, IsSentInTheOrderOfTheCalls) {
    start();
    const auto record = patterned<scc_config_record>();
    for (int i = 0; i < 50; ++i) {
        ASSERT_EQ(scc_addr_learning(1, 1, nullptr), 0U);
        ASSERT_EQ(scc_arpcheck(&record, nullptr), 0U);
    }
    std::uint32_t expected = 0;
    for (const test::received_item& item : daemon.read_items(side::async, 100)) {
        EXPECT_EQ(test::u32_at(item.value, 0), ++expected);
        EXPECT_EQ(item.type, expected % 2 == 1 ? 123 : 122);
    }
    EXPECT_EQ(expected, 100U);
}

TEST_F(Request, OfManyThreadsGetsACallIdOfItsOwn) {
    constexpr std::size_t threads = 4;
    constexpr std::size_t calls = 250;
    start();
    std::vector<std::vector<std::uint32_t>> ids(threads);
    std::vector<std::thread> callers;
    for (auto& own : ids) {
        callers.emplace_back([&own] {
            for (std::size_t i = 0; i < calls; ++i) {
                std::uint32_t id = 0;
                EXPECT_EQ(scc_svi_router_acl_set(1, &id), 0U);
                own.push_back(id);
            }
        });
    }
    const auto items = daemon.read_items(side::async, threads * calls);
    for (std::thread& caller : callers) {
        caller.join();
    }
    ASSERT_EQ(items.size(), threads * calls);
    for (std::size_t i = 0; i < items.size(); ++i) {
        EXPECT_EQ(test::u32_at(items[i].value, 0), i + 1);
    }
    std::vector<std::uint32_t> all;
    for (const auto& own : ids) {
        EXPECT_TRUE(std::is_sorted(own.begin(), own.end()));
        all.insert(all.end(), own.begin(), own.end());
    }
    std::sort(all.begin(), all.end());
    for (std::size_t i = 0; i < all.size(); ++i) {
        EXPECT_EQ(all[i], i + 1);
    }
}

TEST_F(Request, MayBeMadeFromAHandlerOfAResult) {
    static auto* ids = new test::event_queue<std::uint32_t>;
    test::record_all_results(info.handlers);
    info.handlers.svi_router_acl = [](std::uint32_t, std::uint32_t, std::uint8_t) {
        std::uint32_t id = 0;
        EXPECT_EQ(scc_addr_learning(1, 1, &id), 0U);
        ids->push(id);
    };
    registered_client::start(0);
    ASSERT_EQ(scc_svi_router_acl_set(1, nullptr), 0U);
    daemon.read_item(side::async);
    daemon.send_result(1, 0);
    EXPECT_EQ(ids->wait(), 2U);
    EXPECT_EQ(daemon.read_item(side::async).type, 123);
}

TEST_F(Request, WithoutAHandlerIsForgottenWithItsResult) {
    registered_client::start(0);
    const test::debugging on;
    ASSERT_EQ(scc_svi_router_acl_set(1, nullptr), 0U);
    daemon.read_item(side::async);
    daemon.send_result(1, 0);
    daemon.send_result(1, 0);
    EXPECT_TRUE(test::wait_for_log("no such call id:1 in scc lib"));
    EXPECT_EQ(scc::pending_calls(), 0U);
}

}  // namespace
