// Which locks are held when, and by whom: what runs on the receive thread needs none that a request holds
// while it sends, and finds none held.
#include "client/locks.h"

#include "client/channel_support.h"
#include "client/request_channel.h"

using test::bytes;
using test::side;
using test::wire;

namespace {

test::event_queue<std::uint32_t>& results() {
    static auto* queue = new test::event_queue<std::uint32_t>;
    return *queue;
}

bool is_free(pthread_rwlock_t& lock) {
    if (pthread_rwlock_trywrlock(&lock) != 0) {
        return false;
    }
    pthread_rwlock_unlock(&lock);
    return true;
}

// How many of the four are free, for whoever asks.
std::uint32_t free_locks() {
    return static_cast<std::uint32_t>(is_free(scc_lib_lock)) + is_free(scc_call_data_lock) +
           is_free(scc_send_buf_lock) + is_free(scc_acl_lock);
}

void report_free_locks(std::uint32_t) {
    results().push(free_locks());
}

// Without the checker, which takes a lock now and then.
class Locks : public test::unflushed_batch {};

TEST_F(Locks, NoneIsHeldWhileAHandlerRuns) {
    info.app_id = 7;
    info.option = 1;
    info.handlers.server_status = report_free_locks;
    info.handlers.authmode = report_free_locks;
    info.handlers.acl_create = [](std::uint32_t, std::uint32_t, const scc_acl_key*) { report_free_locks(0); };
    ASSERT_EQ(scc_svr_reg(&info), 0U);
    daemon.accept_registration();
    EXPECT_EQ(results().wait(), 4U) << "registered";
    daemon.send_item(side::async, 214, wire().u32(0).u32(1));
    EXPECT_EQ(results().wait(), 4U) << "a notification";
    const scc_acl_key key = {1, 2, 3, 4};
    ASSERT_EQ(scc_acl_create(&key, nullptr), 0U);
    daemon.send_result(1, 0);
    EXPECT_EQ(results().wait(), 4U) << "a result";
    daemon.close_both();
    EXPECT_EQ(results().wait(), 4U) << "lost";
}

TEST_F(Locks, OfASenderThatWaitsHoldUpNeitherResultsNorAReconnection) {
    info.handlers.addr_learning = [](std::uint32_t result, std::uint32_t, std::uint32_t, std::uint8_t) {
        results().push(result);
    };
    info.handlers.authmode = [](std::uint32_t mode) { results().push(mode); };
    start();
    ASSERT_EQ(scc_addr_learning(1, 1, nullptr), 0U);
    const scc::write_guard request(scc_lib_lock);
    const scc::write_guard sending(scc_send_buf_lock);
    daemon.send_result(1, 2014);
    EXPECT_EQ(results().wait(), 2014U);
    reconnect();
    daemon.send_item(side::async, 214, wire().u32(0).u32(77));
    EXPECT_EQ(results().wait(), 77U);
}

TEST_F(Locks, TheLibrarysIsHeldFromTheBeginningToTheEndOfAnUnregistration) {
    start();
    std::thread aside([] { results().push(scc_svr_unreg()); });
    EXPECT_EQ(daemon.read_item(side::sync).type, 302);
    EXPECT_FALSE(is_free(scc_lib_lock));
    EXPECT_TRUE(is_free(scc_send_buf_lock));
    daemon.send_item(side::sync, 302, wire().u32(0).u32(0));
    EXPECT_EQ(results().wait(), 0U);
    aside.join();
    EXPECT_EQ(free_locks(), 4U);
}

TEST_F(Locks, AreAllFreeBehindARegistrationHoweverItEnded) {
    EXPECT_EQ(scc_svr_reg(nullptr), 22U);
    EXPECT_EQ(free_locks(), 4U);
    info.app_id = 7;
    setenv("TMPDIR", "relative", 1);
    EXPECT_EQ(scc_svr_reg(&info), 20U);
    EXPECT_EQ(free_locks(), 4U);
    unsetenv("TMPDIR");
    EXPECT_EQ(scc_svr_reg(&info), 5U);
    EXPECT_EQ(free_locks(), 4U);
    setenv("TMPDIR", daemon.directory().path().c_str(), 1);
    start();
    EXPECT_EQ(free_locks(), 4U);
    EXPECT_EQ(scc_svr_reg(&info), 0U);
    EXPECT_EQ(free_locks(), 4U);
}

}  // namespace
