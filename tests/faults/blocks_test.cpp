// Memory: whatever is done again and again keeps no block.
#include "client/acl_cache.h"
#include "client/exchange.h"
#include "client/locks.h"
#include "client/pending_calls.h"
#include "client/request_channel.h"
#include "fault_support.h"
#include "ss/id_map.h"
#include "ss/service_fixture.h"

using test::bytes;
using test::side;
using test::wire;

namespace {

// The first time may make what stays. The checker frees the blocks of delivered calls a little later.
template <class Act>
void expect_none_kept(const char* what, Act act) {
    SCOPED_TRACE(what);
    constexpr int rounds = 20;
    act();
    ASSERT_TRUE(test::eventually([] { return scc::pending_calls() == 0; }));
    const long before = test::live_blocks();
    for (int round = 0; round < rounds && !::testing::Test::HasFailure(); ++round) {
        act();
    }
    EXPECT_TRUE(test::eventually([before] { return test::live_blocks() <= before; }))
        << test::live_blocks() - before << " blocks more after " << rounds << " rounds";
}

class Blocks : public test::fault_test {};

TEST_F(Blocks, AreKeptByNoRegistration) {
    expect_none_kept("registration", [this] {
        start();
        expect_working();
        stop();
    });
}

TEST_F(Blocks, AreKeptByNoRequestAndNoQuery) {
    start();
    expect_none_kept("request", [this] { expect_working(); });
    expect_none_kept("query", [this] {
        std::uint32_t count = 0;
        daemon.send_item(side::sync, 411, wire().u32(0).u32(0).u32(9));
        EXPECT_EQ(scc_arp_check_user_count_get(1, &count), 0U);
        EXPECT_EQ(count, 9U);
        EXPECT_EQ(daemon.read_item(side::sync).type, 304);
    });
    expect_none_kept("collection", [this] {
        daemon.send_item(side::async, 318, {});
        EXPECT_EQ(daemon.read_item(side::sync).value.size(), 320U);
    });
}

// The first exchange was interrupted before its reply came.
TEST_F(Blocks, AreKeptByNoReplyThatIsOwed) {
    start();
    expect_none_kept("owed reply", [this] {
        const bytes value = wire().u32(1);
        {
            scc::exchange interrupted(scc::channel::sync);
            EXPECT_EQ(interrupted.send(304, value).error, 0U);
        }
        daemon.send_item(side::sync, 411, wire().u32(1));
        daemon.send_item(side::sync, 411, wire().u32(2));
        scc::exchange next(scc::channel::sync);
        EXPECT_EQ(next.send(304, value).error, 0U);
        EXPECT_EQ(next.receive(), 0U);
        EXPECT_EQ(bytes(next.value().begin(), next.value().end()), bytes(wire().u32(2)));
        for (int request = 0; request < 2; ++request) {
            EXPECT_EQ(daemon.read_item(side::sync).type, 304);
        }
    });
}

// The blocks of delivered calls are kept for the next requests, but not for good.
TEST_F(Blocks, OfDeliveredCallsAreFreedAfterAPause) {
    start();
    expect_working();
    ASSERT_TRUE(test::eventually([] { return scc::pending_calls() == 0; }));
    const long before = test::live_blocks();
    constexpr std::uint32_t count = 200;
    std::vector<std::uint32_t> ids(count);
    for (std::uint32_t& id : ids) {
        ASSERT_EQ(scc_svi_router_acl_set(1, &id), 0U);
    }
    for (std::uint32_t request = 0; request < count; ++request) {
        ASSERT_EQ(daemon.read_item(side::async).type, 143);
    }
    // The checker stands still from here until the last request, which takes a kept block, is made.
    test::on_call(test::call::select, test::hold_here);
    ASSERT_TRUE(test::entered().wait());
    for (const std::uint32_t id : ids) {
        daemon.send_result(id, 0);
    }
    for (std::uint32_t result = 0; result < count; ++result) {
        ASSERT_EQ(test::results().wait(), 0U);
    }
    std::uint32_t last = 0;
    ASSERT_EQ(scc_svi_router_acl_set(1, &last), 0U);
    const int waits = test::calls(test::call::select);
    test::released().push(1);
    EXPECT_EQ(daemon.read_item(side::async).type, 143);
    daemon.send_result(last, 0);
    ASSERT_EQ(test::results().wait(), 0U);
    EXPECT_TRUE(test::eventually([before] { return test::live_blocks() <= before; }));
    // The request began a new pause, of 20 waits of the checker at least.
    EXPECT_GE(test::calls(test::call::select) - waits, 20);
}

// A request allocates its own block and nothing else.
TEST_F(Blocks, OfTheIndexOfCallsAreMadeByTheChecker) {
    start();
    constexpr int grown_index = 4096 * 16;
    test::fail_allocations_of(grown_index);
    for (int request = 0; request < 1100; ++request) {
        ASSERT_EQ(scc_svi_router_acl_set(1, nullptr), 0U);
    }
    (void)daemon.read_items(side::async, 1100);
    const int tried = test::calls(test::call::malloc);
    EXPECT_TRUE(test::eventually([tried] { return test::calls(test::call::malloc) >= tried + 3; }));
    EXPECT_TRUE(test::end_faults());
}

TEST_F(Blocks, OfTheIndexOfAclsAreMadeByTheChecker) {
    start();
    constexpr int grown_index = 512 * 24;
    test::fail_allocations_of(grown_index);
    for (std::uint32_t id = 1; id <= 140; ++id) {
        const scc_acl_key key = {0, 3, id, 0};
        _scc_lib_acl_add(&key);
    }
    const int tried = test::calls(test::call::calloc);
    EXPECT_TRUE(test::eventually([tried] { return test::calls(test::call::calloc) >= tried + 3; }));
    EXPECT_TRUE(test::end_faults());
}

TEST(SpareBlocks, AreKeptUpTo8192AndTheOthersFreedAtOnce) {
    constexpr std::uint32_t calls = 9000;
    scc::init_pending_calls();
    const long before = test::live_blocks();
    for (std::uint32_t id = 0; id < calls; ++id) {
        ASSERT_EQ(_scc_lib_save_call_data(id, 1, nullptr, 0), 0U);
    }
    for (std::uint32_t id = 0; id < calls; ++id) {
        scc::release_pending_call(scc::take_pending_call(id));
    }
    EXPECT_EQ(test::live_blocks(), before + 8192);
    scc::free_idle_blocks();
    EXPECT_EQ(test::live_blocks(), before);
}

constexpr scc_acl_key g_key = {1, 2, 3, 4};

TEST_F(Blocks, AreKeptByNoReadOfAListThatBreaksOff) {
    start(1);
    _scc_lib_acl_add(&g_key);
    for (std::uint32_t sn = 1; sn <= 3; ++sn) {
        scc_ace_record ace{};
        ace.sn = sn;
        _scc_lib_ace_add(&g_key, &ace);
    }
    expect_none_kept("list", [] {
        scc_list_head aces{};
        test::fail_allocation(3);
        EXPECT_EQ(scc_acl_get_ace(&g_key, &aces), 12U);
        EXPECT_TRUE(test::end_faults());
    });
}

// ---- the cache's index without memory: 255 ACLs fit

class CacheIndex : public Blocks {
  protected:
    CacheIndex() { scc::init_acl_cache(); }
    ~CacheIndex() override {
        test::end_faults();
        scc::free_acl_cache();
    }

    static scc_acl_key key(std::uint32_t id) { return {0, 3, id, 0}; }

    static bool has(std::uint32_t id) {
        const scc_acl_key wanted = key(id);
        const scc::write_guard guard(scc::acl_lock);
        return _scc_acl_get(&wanted) != nullptr;
    }

    static void add(std::uint32_t first, std::uint32_t count) {
        for (std::uint32_t id = first; id < first + count; ++id) {
            const scc_acl_key added = key(id);
            _scc_lib_acl_add(&added);
        }
    }

    static void remove(std::uint32_t id) {
        const scc_acl_key removed = key(id);
        _scc_lib_acl_del(&removed);
    }

    static void expect_255() {
        test::fail_calls_from(test::call::calloc, 1, 12);
        add(1, 300);
        EXPECT_TRUE(test::end_faults());
        for (std::uint32_t id = 1; id <= 300; ++id) {
            EXPECT_EQ(has(id), id <= 255) << id;
        }
    }
};

TEST_F(CacheIndex, KeepsNoBlockOfAnAclThatItRefuses) {
    expect_255();
    const long before = test::live_blocks();
    test::fail_calls_from(test::call::calloc, 1, 12);
    add(300, 100);
    EXPECT_EQ(test::live_blocks(), before);
}

TEST_F(CacheIndex, TakesAnotherAclForEachThatGoes) {
    expect_255();
    test::fail_calls_from(test::call::calloc, 1, 12);
    for (std::uint32_t id = 1; id <= 1000; ++id) {
        remove(id);
        add(255 + id, 2);
        ASSERT_TRUE(has(255 + id)) << id;
        ASSERT_FALSE(has(256 + id)) << id;
    }
}

TEST_F(CacheIndex, IsEmptyAgainAfterTheCacheIsEmptied) {
    for (int round = 0; round < 3; ++round) {
        expect_255();
        scc::free_acl_cache();
        EXPECT_FALSE(has(1));
    }
}

TEST_F(CacheIndex, KeepsNoBlockOfItsGrownTable) {
    scc::free_acl_cache();
    const long before = test::live_blocks();
    for (int round = 0; round < 3; ++round) {
        add(1, 2000);
        EXPECT_TRUE(has(2000));
        scc::free_acl_cache();
        EXPECT_EQ(test::live_blocks(), before);
    }
}

// ---- the service

class ServiceBlocks : public test::registered_service {
  protected:
    ServiceBlocks() {
        info = test::all_handlers();
        test::script().answers = 1;
    }
    ~ServiceBlocks() override { test::end_faults(); }

    void send_create(std::uint32_t call_id) {
        send(131, test::with_u32(test::with_u32(bytes(140), 0, call_id), 136, 1));
    }
};

TEST_F(ServiceBlocks, AreKeptByNoOperationThatIsAnswered) {
    start();
    expect_none_kept("operation", [this] {
        send_create(5);
        (void)called(1);
        expect_result(0x0102, wire().u32(5).u32(0).u32(131));
    });
}

TEST_F(ServiceBlocks, AreKeptByNoReport) {
    start();
    expect_none_kept("report", [this] {
        const scc_address_move move{};
        EXPECT_EQ(scc_ss_move_addr_notify(1, &move), 0U);
        EXPECT_EQ(daemon.read_item(side::sync).type, 202);
    });
}

TEST_F(ServiceBlocks, AreKeptByNoMapThatIsEmptied) {
    expect_none_kept("map", [] {
        for (std::uint32_t id = 1; id <= 10; ++id) {
            _scc_ss_save_idtype(id, 5);
            _scc_ss_save_idtype(id, 6);
        }
        scc::empty_id_map();
        EXPECT_EQ(g_ss_id_map_root.node, nullptr);
    });
}

// The message is there, but not its entry of the queue.
TEST_F(ServiceBlocks, AreKeptByNoMessageThatIsDropped) {
    start();
    const test::debugging on;
    expect_none_kept("message", [this] {
        test::clear_log();
        test::fail_call(test::call::malloc, 2, 12);
        send_create(2);
        EXPECT_TRUE(test::wait_for_log("malloc data buffer error. ignore this proc msg."));
        EXPECT_TRUE(test::end_faults());
    });
}

// The type cannot be kept, so the id is not either.
TEST_F(ServiceBlocks, AreKeptByNoIdWithoutItsType) {
    expect_none_kept("id", [] {
        test::fail_call(test::call::malloc, 2, 12);
        _scc_ss_save_idtype(5, 258);
        EXPECT_TRUE(test::end_faults());
        EXPECT_EQ(g_ss_id_map_root.node, nullptr);
    });
}

}  // namespace
