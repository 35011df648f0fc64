// The daemon's questions to the library itself, and the answers, on the synchronous socket.
#include "client/replies.h"

#include "client/acl_cache.h"
#include "client/client_data.h"
#include "client/control_block.h"
#include "client/diagnostics.h"
#include "client/request_channel.h"
#include "support/registered_client.h"

using test::bytes;
using test::side;
using test::wire;

namespace {

using Replies = test::registered_client;

TEST_F(Replies, ALivenessProbeIsAnsweredWithTheAppIdInRealTimeOnTheSynchronousSocket) {
    start();
    const test::debugging on;
    daemon.send_item(side::async, 319, {});
    const test::received_message reply = daemon.read(side::sync);
    EXPECT_EQ(reply.raw, bytes(wire().u32(20).u8(1).u16(1).u8(0).u32(4).u16(0).u16(319).u32(7)));
    EXPECT_TRUE(test::wait_for_log("send alive back. rv:0."));
    stop();
}

TEST_F(Replies, AProbesOwnValueIsNotRead) {
    start();
    daemon.send_item(side::async, 319, bytes(100, 0xFF));
    EXPECT_EQ(daemon.read_item(side::sync).value, bytes(wire().u32(7)));
    stop();
}

TEST_F(Replies, TheStatisticsGoOutAs320BytesInTheWiresOrderOfColumns) {
    start();
    for (std::uint32_t i = 0; i < 13; ++i) {
        // In memory: calls, callback successes, call successes, callback failures, call failures.
        g_scclib_stat[i] = {100 + i, 200 + i, 300 + i, 400 + i, 0xFFFFFF00U + i};
    }
    const test::debugging on;
    daemon.send_item(side::async, 318, {});
    const test::received_message reply = daemon.read(side::sync);
    wire expected;
    expected.u32(336).u8(1).u16(1).u8(0).u32(320).u16(0).u16(318).u32(7).u32(13);
    for (std::uint32_t i = 0; i < 13; ++i) {
        expected.u32(i).u32(100 + i).u32(300 + i).u32(200 + i).u32(0xFFFFFF00U + i).u32(400 + i);
    }
    EXPECT_EQ(reply.raw, expected.get());
    EXPECT_TRUE(test::wait_for_log("send libinfo collect(func_cnt:13) back. rv:0."));
    stop();
}

TEST_F(Replies, TheStatisticsBeginAtZeroWithEachRegistration) {
    for (std::uint32_t i = 0; i < 13; ++i) {
        g_scclib_stat[i] = {1, 2, 3, 4, 5};
    }
    start();
    daemon.send_item(side::async, 318, {});
    wire expected;
    expected.u32(7).u32(13);
    for (std::uint32_t i = 0; i < 13; ++i) {
        expected.u32(i).zeros(20);
    }
    EXPECT_EQ(daemon.read_item(side::sync).value, expected.get());
    stop();
}

TEST_F(Replies, CollectedStatisticsAreNotReset) {
    start();
    g_scclib_stat[12] = {9, 0, 0, 0, 0};
    for (int round = 0; round < 2; ++round) {
        daemon.send_item(side::async, 318, {});
        EXPECT_EQ(test::u32_at(daemon.read_item(side::sync).value, 8 + 24 * 12 + 4), 9U);
    }
    stop();
}

TEST_F(Replies, TheCapabilityWordIsTheFirstEightBytesAndIsForgottenWithTheConnection) {
    start();
    daemon.send_item(side::async, 406, wire().u64(0x8877665544332211).u64(0xFFFFFFFFFFFFFFFF));
    daemon.send_item(side::async, 319, {});
    EXPECT_EQ(daemon.read_item(side::sync).type, 319) << "the capability word is answered";
    EXPECT_EQ(scc::capability_word(), 0x8877665544332211U);
    stop();
    EXPECT_EQ(scc::capability_word(), 0U);
}

TEST(RepliesDirect, TheCapabilityWordNeedsNoAlignment) {
    const bytes shifted = wire().u8(0).u64(0x0102030405060708);
    _scc_lib_dev_cap_proc(shifted.data() + 1);
    EXPECT_EQ(scc::capability_word(), 0x0102030405060708U);
    _scc_lib_data_init();
    EXPECT_EQ(scc::capability_word(), 0U);
}

}  // namespace
