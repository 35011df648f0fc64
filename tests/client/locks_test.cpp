// Which locks are held when, and by which thread: the receive thread needs no lock that a request holds while
// it sends, and handlers find none held.
#include "client/locks.h"

#include "client/acl_cache.h"
#include "client/channel_support.h"
#include "client/client_data.h"
#include "client/pending_calls.h"
#include "client/request_channel.h"
#include "support/lock_waits.h"

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

// How many of the four locks the calling thread could take.
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
    const scc::write_guard request(scc::lib_lock);
    const scc::write_guard sending(scc::batch_lock);
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

TEST_F(Locks, AreAllFreeAfterARegistrationHoweverItEnded) {
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

constexpr scc_acl_key key{1, 2, 3, 4};

struct waiting_row {
    const char* what;
    void (*act)();
};

TEST_F(Locks, OfTheLibraryIsTakenByEveryCallThatNeedsTheConnection) {
    const waiting_row rows[] = {
        {"a request", [] { EXPECT_EQ(scc_addr_learning(1, 1, nullptr), 0U); }},
        {"a request with a key", [] { EXPECT_EQ(scc_acl_create(&key, nullptr), 0U); }},
        {"a request with data of its own length", [] { EXPECT_EQ(scc_efacl_ctrl("abcd", 4, nullptr), 0U); }},
        {"a message on the synchronous socket", [] { EXPECT_EQ(scc_warterline_notify(1), 0U); }},
        {"a message without a call id", [] { EXPECT_EQ(scc_test_cmd_set(1), 0U); }},
        {"a data recovery", [] { EXPECT_EQ(scc_data_recover(1), 0U); }},
        {"a second registration",
         [] {
             scc_reg_info again{};
             again.app_id = 7;
             EXPECT_EQ(scc_svr_reg(&again), 0U);
         }},
        {"a read of the cache",
         [] {
             scc_acl_key asked = key;
             EXPECT_EQ(scc_acl_cls_get(&asked), 2005U);
         }},
    };
    start();
    for (const waiting_row& row : rows) {
        SCOPED_TRACE(row.what);
        test::expect_waits_for(scc_lib_lock, row.act);
    }
}

TEST_F(Locks, OfTheLibraryIsTakenByQueriesAndByTheUnregistration) {
    start();
    test::expect_waits_for(
        scc_lib_lock,
        [] {
            std::uint32_t count = 0;
            EXPECT_EQ(scc_arp_check_user_count_get(1, &count), 2007U);
        },
        [this] {
            EXPECT_EQ(daemon.read_item(side::sync).type, 304);
            daemon.send_item(side::sync, 1, wire().u32(0));
        });
    test::expect_waits_for(
        scc_lib_lock,
        [] {
            const std::uint8_t mac[6] = {};
            std::uint32_t address = 0;
            EXPECT_EQ(scc_mac_query(mac, &address), 2007U);
        },
        [this] {
            EXPECT_EQ(daemon.read_item(side::sync).type, 315);
            daemon.send_item(side::sync, 1, wire().u32(0));
        });
    test::expect_waits_for(
        scc_lib_lock, [] { EXPECT_EQ(scc_svr_unreg(), 0U); }, [this] { daemon.answer_unregistration(); });
    test::expect_waits_for(scc_lib_lock, [] { EXPECT_EQ(scc_svr_unreg(), 0U); });
}

TEST_F(Locks, OfTheLibraryIsKeptByARequestUntilItsValueIsInTheBatch) {
    start();
    std::optional<scc::write_guard> sending(std::in_place, scc::batch_lock);
    std::thread aside([] { EXPECT_EQ(scc_addr_learning(1, 1, nullptr), 0U); });
    EXPECT_TRUE(test::eventually([] { return test::is_waited_for(scc_send_buf_lock); }));
    EXPECT_FALSE(is_free(scc_lib_lock));
    sending.reset();
    aside.join();
    EXPECT_TRUE(is_free(scc_lib_lock));
}

TEST_F(Locks, OfTheCallsIsTakenByResultsAndByWhateverDropsCalls) {
    info.handlers.addr_learning = [](std::uint32_t result, std::uint32_t, std::uint32_t, std::uint8_t) {
        results().push(result);
    };
    start();
    ASSERT_EQ(scc_addr_learning(1, 1, nullptr), 0U);
    std::optional<scc::write_guard> calls(std::in_place, scc::calls_lock);
    daemon.send_result(1, 2014);
    EXPECT_TRUE(test::eventually([] { return test::is_waited_for(scc_call_data_lock); }));
    EXPECT_EQ(results().size(), 0U) << "the call was found without the lock";
    calls.reset();
    EXPECT_EQ(results().wait(), 2014U);
    test::expect_waits_for(scc_call_data_lock, [] { _scc_lib_del_call_data(4000); });
    test::expect_waits_for(scc_call_data_lock, [] { _scc_lib_data_free(); });
    test::expect_waits_for(scc_call_data_lock, [] { EXPECT_EQ(scc::take_pending_call(4000), nullptr); });
    // A few calls are passed without the lock; many have to wait for it.
    test::expect_waits_for(scc_call_data_lock, [] {
        for (std::uint32_t call_id = 1; call_id <= 5000; ++call_id) {
            EXPECT_EQ(_scc_lib_save_call_data(call_id, 45, nullptr, 0), 0U);
        }
    });
    EXPECT_EQ(scc::pending_calls(), 5000U);
}

TEST_F(Locks, OfTheBatchIsTakenByRequestsBigOnesAndTheChecker) {
    const waiting_row rows[] = {
        {"a value for the batch", [] { EXPECT_EQ(_scc_lib_msg_send_bt(0, 900, "a", 1, 0), 0U); }},
        {"a value too large for the batch",
         [] {
             const bytes large(8176);
             EXPECT_EQ(_scc_lib_msg_send_bt(0, 900, large.data(), 8176, 0), 22U);
         }},
        {"the checker's flush", scc::flush_waiting_batch},
    };
    start();
    for (const waiting_row& row : rows) {
        SCOPED_TRACE(row.what);
        test::expect_waits_for(scc_send_buf_lock, row.act);
    }
    EXPECT_EQ(daemon.read_item(side::async).value.size(), 8176U);
    EXPECT_EQ(daemon.read_item(side::async).value, bytes{'a'});
}

TEST_F(Locks, OfTheCacheIsTakenByEveryChangeEveryReadAndTheDisplay) {
    static scc_ace_record ace{};
    ace.sn = 5;
    const waiting_row rows[] = {
        {"an added ACL", [] { _scc_lib_acl_add(&key); }},
        {"an added ACE", [] { _scc_lib_ace_add(&key, &ace); }},
        {"new numbers", [] { _scc_lib_acl_reseq(&key, 10, 10); }},
        {"a read of the class",
         [] {
             scc_acl_key asked = key;
             EXPECT_EQ(scc_acl_cls_get(&asked), 0U);
         }},
        {"a read of one ACE",
         [] {
             scc_ace_record read{};
             EXPECT_EQ(scc_acl_get_ace_by_sn(&key, 10, &read), 0U);
         }},
        {"the display", [] { _scc_lib_dbg_acl_show(wire().u32(1).get().data()); }},
        {"a deleted ACE",
         [] {
             ace.sn = 10;
             _scc_lib_ace_del(&key, &ace);
         }},
        {"a deleted ACL", [] { _scc_lib_acl_del(&key); }},
        {"the end of the data", [] { _scc_lib_data_free(); }},
    };
    start();
    for (const waiting_row& row : rows) {
        SCOPED_TRACE(row.what);
        test::expect_waits_for(scc_acl_lock, row.act);
    }
}

TEST_F(Locks, OfTheCacheIsTakenByAConfirmedAceThatStaysInTheBlockOfItsCall) {
    static const scc_ace_record ace{};
    info.handlers.authmode = [](std::uint32_t mode) { results().push(mode); };
    start();
    _scc_lib_acl_add(&key);
    ASSERT_EQ(scc_acl_add_ace(&key, &ace, nullptr), 0U);
    test::expect_waits_for(scc_acl_lock, [this] {
        daemon.send_result(1, 0);
        daemon.send_item(side::async, 214, wire().u32(0).u32(33));
        EXPECT_EQ(results().wait(), 33U);
    });
}

}  // namespace
