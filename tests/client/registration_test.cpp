// The start and end of an application, as the daemon sees them.
#include <sys/stat.h>
#include <unistd.h>

#include "client/control_block.h"
#include "support/registered_client.h"

using test::bytes;
using test::side;
using test::wire;

namespace {

using Registration = test::registered_client;

TEST_F(Registration, SendsAppIdPidOptionAndSocketFlagOnBothSockets) {
    info.app_id = 7;
    info.option = 3;
    info.handlers.server_status = test::on_status;
    ASSERT_EQ(scc_svr_reg(&info), 0U);
    const auto [sync, async] = daemon.accept_registration();
    const auto pid = static_cast<std::uint32_t>(getpid());
    EXPECT_EQ(sync, bytes(wire().u32(7).u32(pid).u8(3).u8(1).zeros(2)));
    EXPECT_EQ(async, bytes(wire().u32(7).u32(pid).u8(3).u8(0).zeros(2)));
    EXPECT_EQ(test::statuses().wait(), 1U);
}

TEST_F(Registration, RefusesANullRecordAndAppIdsOutsideOneToNineteen) {
    const test::debugging on;
    EXPECT_EQ(scc_svr_reg(nullptr), 22U);
    EXPECT_TRUE(test::logged("input param is null!."));
    for (const std::uint32_t app_id : {0U, 20U, 0xFFFFFFFFU}) {
        info.app_id = app_id;
        EXPECT_EQ(scc_svr_reg(&info), 22U);
    }
    EXPECT_TRUE(test::logged("app id is invalid in register param!"));
}

TEST_F(Registration, UnregistersWithTheAppIdAndStopsAllHandlers) {
    start();
    std::thread answering([this] { EXPECT_EQ(daemon.answer_unregistration(), bytes(wire().u32(7))); });
    EXPECT_EQ(scc_svr_unreg(), 0U);
    answering.join();
    EXPECT_TRUE(daemon.wait_for_close(side::sync));
    EXPECT_EQ(g_scc_client_cb.state.load(), 1U);
    EXPECT_EQ(test::statuses().size(), 0U);
}

TEST_F(Registration, ComesBackAfterALostDaemonWithOneStatusZeroAndOneStatusOne) {
    start();
    daemon.close_both();
    EXPECT_EQ(test::statuses().wait(), 0U);
    daemon.accept_registration();
    EXPECT_EQ(test::statuses().wait(), 1U);
    EXPECT_EQ(test::statuses().size(), 0U);
}

TEST_F(Registration, SurvivesARefusedUnregistration) {
    start();
    std::thread answering([this] { daemon.answer_unregistration(5); });
    EXPECT_EQ(scc_svr_unreg(), 2001U);
    answering.join();
    EXPECT_EQ(g_scc_client_cb.app_id.load(), 7U);
    EXPECT_EQ(scc_addr_learning(1, 1, nullptr), 0U);
    EXPECT_EQ(daemon.read_item(side::async).type, 123);
    stop();
}

}  // namespace
