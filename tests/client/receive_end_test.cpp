// Registrations that end or begin while their receive thread delivers or comes back.
#include "client/channel_support.h"
#include "client/connection.h"
#include "client/lifetime.h"
#include "client/receive_support.h"

using test::bytes;
using test::item_bytes;
using test::on_addr_learning;
using test::Receive;
using test::results;
using test::side;
using test::wire;

namespace {

void unregister_inside(std::uint32_t, std::uint32_t, std::uint32_t, std::uint8_t) {
    results().push(scc_svr_unreg());
}

TEST_F(Receive, AHandlerMayUnregister) {
    info.handlers.addr_learning = unregister_inside;
    runtime_test::start();
    request(2);
    const test::debugging on;
    daemon.send(side::async, two_results(1, 2));
    EXPECT_EQ(daemon.answer_unregistration(), bytes(wire().u32(7)));
    EXPECT_EQ(results().wait(), 0U);
    EXPECT_TRUE(test::wait_for_log("no such call id:2 in scc lib"));
    EXPECT_TRUE(daemon.wait_for_close(side::async));
    EXPECT_TRUE(test::eventually(test::only_the_checker_is_left));
    EXPECT_EQ(g_scc_client_cb.state.load(), 1U);
    EXPECT_EQ(test::statuses().size(), 0U);
    start();
    request(1);
    daemon.send_result(1, 8);
    EXPECT_EQ(results().wait(), 1008U);
    EXPECT_TRUE(test::eventually([] { return test::library_threads() == 2; }));
}

TEST_F(Receive, AStatusHandlerThatUnregistersEndsItsThread) {
    info.handlers.server_status = [](std::uint32_t) { results().push(scc_svr_unreg()); };
    info.app_id = 7;
    const test::debugging on;
    ASSERT_EQ(scc_svr_reg(&info), 0U);
    daemon.accept_registration();
    daemon.answer_unregistration();
    EXPECT_EQ(results().wait(), 0U);
    EXPECT_TRUE(test::wait_for_log("scc client not registered to sccd.exit thread."));
    EXPECT_TRUE(test::eventually(test::only_the_checker_is_left));
}

void unregister_and_register_inside(std::uint32_t, std::uint32_t, std::uint32_t, std::uint8_t) {
    results().push(scc_svr_unreg());
    static scc_reg_info again{};
    again.app_id = 8;
    again.handlers.server_status = test::on_status;
    again.handlers.addr_learning = on_addr_learning;
    results().push(scc_svr_reg(&again));
}

TEST_F(Receive, AHandlerMayUnregisterAndRegisterAnew) {
    info.handlers.addr_learning = unregister_and_register_inside;
    runtime_test::start();
    request(1);
    daemon.send_result(1, 0);
    daemon.answer_unregistration();
    const auto [sync, async] = daemon.accept_registration();
    EXPECT_EQ(test::u32_at(sync, 0), 8U);
    EXPECT_EQ(test::u32_at(async, 0), 8U);
    EXPECT_EQ(test::statuses().wait(), 1U);
    EXPECT_EQ(results().wait(), 0U);
    EXPECT_EQ(results().wait(), 0U);
    EXPECT_TRUE(test::eventually([] { return test::library_threads() == 2; }));
    request(1);
    daemon.send_result(1, 9);
    EXPECT_EQ(results().wait(), 1009U);
}

TEST_F(Receive, WhatIsLeftOfAMessageIsNotForARegistrationThatAHandlerBegan) {
    info.handlers.addr_learning = [](std::uint32_t, std::uint32_t, std::uint32_t, std::uint8_t) {
        results().push(scc_svr_unreg());
        static scc_reg_info again{};
        again.app_id = 8;
        again.handlers.server_status = test::on_status;
        again.handlers.authmode = [](std::uint32_t mode) { results().push(mode); };
        results().push(scc_svr_reg(&again));
    };
    runtime_test::start();
    request(1);
    daemon.send_items(side::async, {item_bytes(401, wire().u32(1).u32(0)),
                                    item_bytes(214, wire().u32(0).u32(5)), item_bytes(319, {})});
    daemon.answer_unregistration();
    daemon.accept_registration();
    EXPECT_EQ(test::statuses().wait(), 1U);
    EXPECT_TRUE(test::eventually([] { return test::library_threads() == 2; }));
    daemon.send_item(side::async, 214, wire().u32(0).u32(6));
    for (const std::uint32_t expected : {0U, 0U, 6U}) {
        EXPECT_EQ(results().wait(), expected);
    }
    test::expect_nothing_was_sent(daemon, side::sync);
}

void unregister_and_register_with_a_cache(std::uint32_t, std::uint32_t, const scc_acl_key*) {
    results().push(scc_svr_unreg());
    static scc_reg_info again{};
    again.app_id = 8;
    again.option = 1;
    again.handlers.server_status = test::on_status;
    results().push(scc_svr_reg(&again));
}

TEST_F(Receive, AnAclThatWasConfirmedToAnEarlierRegistrationIsNotCachedInTheNext) {
    info.handlers.acl_create = unregister_and_register_with_a_cache;
    runtime_test::start();
    scc_acl_key key = {1, 2, 3, 4};
    ASSERT_EQ(scc_acl_create(&key, nullptr), 0U);
    daemon.send_result(1, 0);
    daemon.answer_unregistration();
    daemon.accept_registration();
    EXPECT_EQ(test::statuses().wait(), 1U);
    EXPECT_EQ(results().wait(), 0U);
    EXPECT_EQ(results().wait(), 0U);
    EXPECT_TRUE(test::eventually([] { return test::library_threads() == 2; }));
    EXPECT_EQ(scc_acl_cls_get(&key), 2005U);
}

TEST_F(Receive, WhatArrivedAfterTheMessageWhoseHandlerUnregistersIsDropped) {
    static test::event_queue<std::uint8_t> moves;
    info.handlers.station_move = [](std::uint8_t permitted) {
        moves.push(permitted);
        EXPECT_EQ(scc_svr_unreg(), 0U);
    };
    start();
    bytes both = test::message_bytes({test::item_bytes(210, wire().u32(1).u8(1))});
    const bytes second = test::message_bytes({test::item_bytes(210, wire().u32(1).u8(0))});
    both.insert(both.end(), second.begin(), second.end());
    daemon.send(side::async, both);
    daemon.answer_unregistration();
    EXPECT_EQ(moves.wait(), 1);
    EXPECT_TRUE(test::eventually(test::only_the_checker_is_left));
    EXPECT_EQ(moves.size(), 0U);
}

// How often the receive thread has gone to sleep.
std::string sleeps() {
    const std::string first = std::to_string(test::receive_thread());
    for (const test::process_thread& one : test::process_threads("voluntary_ctxt_switches")) {
        if (std::to_string(one.id) == first) {
            return one.value;
        }
    }
    return "";
}

TEST_F(Receive, NotificationsAreDeliveredWhileAnUnregistrationWaitsForItsReply) {
    info.handlers.station_move = [](std::uint8_t permitted) { results().push(permitted); };
    start();
    std::thread ending([] { EXPECT_EQ(scc_svr_unreg(), 0U); });
    EXPECT_EQ(daemon.read_item(side::sync).type, 302);
    const auto deliver = [this](std::uint8_t permitted) {
        daemon.send_item(side::async, 210, wire().u32(1).u8(permitted));
        EXPECT_EQ(results().wait(), permitted);
    };
    deliver(1);
    deliver(0);
    ASSERT_TRUE(test::wait_until_it_sleeps_in(test::receive_thread(), test::waiting_for_bytes));
    const std::string before = sleeps();
    EXPECT_TRUE(test::eventually([&] { return sleeps() != before; }));  // nothing came for a second
    deliver(1);
    daemon.send_item(side::sync, 302, wire().u32(0).u32(0));
    ending.join();
    EXPECT_TRUE(test::eventually(test::only_the_checker_is_left));
}

// The registration ends, and its sockets close, between two steps of the receive thread.
TEST_F(Receive, TheThreadDoesNotLookForTheSocketOfAnEndedRegistration) {
    start_with_holding_handler();
    hold();
    const test::debugging on;
    const int real = g_scc_client_cb.async_fd.exchange(-1);
    release();
    ASSERT_TRUE(test::wait_for_log("scc client async socket not created."));
    const pid_t thread = test::receive_thread();
    {
        const scc::mutex_guard guard(scc::g_connection_mutex);
        ASSERT_TRUE(test::wait_until_it_sleeps_in(thread, test::waiting_for_a_lock));
        (void)scc::locked::begin_generation(scc::start_kind::none);
        test::clear_log();
    }
    EXPECT_TRUE(test::eventually(test::only_the_checker_is_left));
    EXPECT_EQ(test::log_texts(), std::vector<std::string>());
    g_scc_client_cb.async_fd = real;
}

// As if another thread ended it for good.
TEST_F(Receive, TheThreadLeavesWhenItsRegistrationEndsWhileItComesBack) {
    status_handler = [](std::uint32_t status) {
        test::on_status(status);
        if (status == 0) {
            scc::end_generation();
        }
    };
    start();
    const test::debugging on;
    daemon.close_both();
    EXPECT_EQ(test::statuses().wait(), 0U);
    EXPECT_TRUE(test::eventually(test::only_the_checker_is_left));
    EXPECT_EQ(test::statuses().size(), 0U);
    EXPECT_FALSE(test::logged("appid 7 ready to rereg."));
}

TEST_F(Receive, TheThreadEndsWhenTheAppIdIsTakenAwayAfterALoss) {
    start();
    daemon.stop_listening();
    daemon.close_both();
    ASSERT_EQ(test::statuses().wait(), 0U);
    g_scc_client_cb.app_id = 0;
    EXPECT_TRUE(test::eventually(test::only_the_checker_is_left));
    EXPECT_EQ(g_scc_client_cb.state.load(), 1U);
    EXPECT_EQ(test::statuses().size(), 0U);
    daemon.listen();
    start();
}

}  // namespace
