// Allocations of the ACL cache fail: what is not cached is logged, and what is cached stays as it was.
#include <cstdlib>

#include "client/acl_cache.h"
#include "fault_support.h"
#include "msg/message.h"

using test::side;
using test::wire;

namespace {

const scc_acl_key g_key = {1, 2, 3, 4};
std::uint32_t g_call_id = 0;

test::event_queue<std::uint32_t>& acl_results() {
    static auto* queue = new test::event_queue<std::uint32_t>;
    return *queue;
}

class CacheAllocation : public test::fault_test {
  protected:
    CacheAllocation() {
        info.handlers.acl_create = [](std::uint32_t result, std::uint32_t, const scc_acl_key*) {
            acl_results().push(result);
        };
        info.handlers.acl_add_ace = [](std::uint32_t result, std::uint32_t, const scc_acl_key*,
                                       const scc_ace_record*) { acl_results().push(result); };
    }

    // The daemon confirms the request that was just made; another round trip sees its cache update done.
    void confirm(std::uint32_t call_id) {
        (void)daemon.read_item(side::async);
        daemon.send_result(call_id, 0);
        EXPECT_EQ(acl_results().wait(), 0U);
        expect_working();
    }

    static void create() { ASSERT_EQ(scc_acl_create(&g_key, &g_call_id), 0U); }
};

TEST_F(CacheAllocation, FailsAConfirmedAclWhichIsThenNotCached) {
    start(1);
    const test::debugging on;
    create();
    (void)daemon.read_item(side::async);
    test::fail_call(test::call::malloc, 2, 12);
    daemon.send_result(g_call_id, 0);
    EXPECT_EQ(acl_results().wait(), 0U);
    EXPECT_TRUE(test::wait_for_log("alloc memory failed!!!"));
    EXPECT_TRUE(test::end_faults());
    expect_working();
    scc_acl_key key = g_key;
    EXPECT_EQ(scc_acl_cls_get(&key), 2005U);
    create();
    confirm(g_call_id);
    EXPECT_EQ(scc_acl_cls_get(&key), 0U);
}

TEST_F(CacheAllocation, NeedsNoMemoryForAConfirmedAceWhichIsKeptInTheBlockOfItsCall) {
    start(1);
    const test::debugging on;
    create();
    confirm(g_call_id);
    scc_ace_record ace{};
    ace.sn = 5;
    ASSERT_EQ(scc_acl_add_ace(&g_key, &ace, &g_call_id), 0U);
    (void)daemon.read_item(side::async);
    test::fail_calls_from(test::call::malloc, 2, 12);  // the first is the received message
    daemon.send(side::async, wire()
                                 .u32(40)
                                 .u8(1)
                                 .u16(2)
                                 .u8(0)
                                 .u32(8)
                                 .u16(0)
                                 .u16(401)
                                 .u32(g_call_id)
                                 .u32(0)
                                 .u32(8)
                                 .u16(0)
                                 .u16(401)
                                 .u32(0x7FFFFFFF)
                                 .u32(0));
    EXPECT_TRUE(test::wait_for_log("no such call id:2147483647 in scc lib"));
    (void)test::end_faults();
    EXPECT_EQ(acl_results().wait(), 0U);
    EXPECT_EQ(scc_acl_get_ace_by_sn(&g_key, 5, &ace), 0U);
}

TEST_F(CacheAllocation, FailsACopiedAceWhichIsThenNotCached) {
    start(1);
    const test::debugging on;
    create();
    confirm(g_call_id);
    expect_working();
    scc_ace_record ace{};
    ace.sn = 5;
    test::fail_allocation(1);
    _scc_lib_ace_add(&g_key, &ace);
    EXPECT_TRUE(test::end_faults());
    EXPECT_TRUE(test::wait_for_log("alloc memory failed!!!"));
    EXPECT_EQ(scc_acl_get_ace_by_sn(&g_key, 5, &ace), 2006U);
}

// Without memory for a larger index the cache takes ACLs until the current one is full.
TEST_F(CacheAllocation, FailsTheGrowthOfTheAclIndexWhichFillsUpAndThenRefuses) {
    start(1);
    const test::debugging on;
    scc_acl_key key{0, 3, 0, 0};
    test::fail_calls_from(test::call::calloc, 1, 12);
    for (key.acl_id = 1; key.acl_id <= 300; ++key.acl_id) {
        _scc_lib_acl_add(&key);
    }
    EXPECT_TRUE(test::end_faults());
    EXPECT_TRUE(test::wait_for_log("alloc memory failed!!!"));
    for (key.acl_id = 1; key.acl_id <= 300; ++key.acl_id) {
        EXPECT_EQ(scc_acl_cls_get(&key), key.acl_id <= 255 ? 0U : 2005U) << key.acl_id;
    }
    key.acl_id = 300;
    _scc_lib_acl_add(&key);
    EXPECT_EQ(scc_acl_cls_get(&key), 0U);
}

TEST_F(CacheAllocation, FailsTheCheckersGrowthOfTheAclIndexAndEveryAclIsStillFound) {
    start(1);
    scc_acl_key key{0, 3, 0, 0};
    test::fail_calls_from(test::call::calloc, 1, 12);
    for (key.acl_id = 1; key.acl_id <= 150; ++key.acl_id) {
        _scc_lib_acl_add(&key);
    }
    scc::grow_acl_index();
    EXPECT_TRUE(test::end_faults());
    for (key.acl_id = 1; key.acl_id <= 150; ++key.acl_id) {
        EXPECT_EQ(scc_acl_cls_get(&key), 0U) << key.acl_id;
    }
    scc::grow_acl_index();
    for (key.acl_id = 1; key.acl_id <= 150; ++key.acl_id) {
        EXPECT_EQ(scc_acl_cls_get(&key), 0U) << key.acl_id;
    }
}

TEST_F(CacheAllocation, FailsAnyCopyOfAReadAndTheListIsEmpty) {
    start(1);
    create();
    confirm(g_call_id);
    for (std::uint32_t sn = 1; sn <= 3; ++sn) {
        scc_ace_record ace{};
        ace.sn = sn;
        ASSERT_EQ(scc_acl_add_ace(&g_key, &ace, &g_call_id), 0U);
        confirm(g_call_id);
    }
    scc_list_head aces{};
    for (int nth = 1; nth <= 3; ++nth) {
        const test::debugging on;
        test::fail_allocation(nth);
        EXPECT_EQ(scc_acl_get_ace(&g_key, &aces), 12U);
        EXPECT_TRUE(test::end_faults());
        EXPECT_TRUE(test::logged("scclib alloc memroy error."));
        EXPECT_EQ(aces.prev, &aces);
        EXPECT_EQ(aces.next, &aces);
    }
    EXPECT_EQ(scc_acl_get_ace(&g_key, &aces), 0U);
    for (std::uint32_t sn = 1; sn <= 3; ++sn) {
        ASSERT_NE(aces.next, &aces);
        auto* copy = reinterpret_cast<scc_ace_record*>(aces.next);
        EXPECT_EQ(copy->sn, sn);
        aces.next = copy->link.next;
        free(copy);
    }
    EXPECT_EQ(aces.next, &aces);
}

}  // namespace
