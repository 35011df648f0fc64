// Registering on both sockets: the daemon's replies, refusals, and what the result of an attempt is.
#include "client/client_data.h"
#include "client/connection.h"
#include "client/connection_support.h"
#include "client/descriptors.h"
#include "client/pending_calls.h"
#include "support/hidden_variable.h"

using test::bytes;
using test::Connection;
using test::lines_with;
using test::side;
using test::times_logged;
using test::wire;

namespace {

TEST_F(Connection, TheStateIs3WhileRegisteringAnd4Afterwards) {
    begin();
    daemon.accept_both();
    (void)daemon.read_item(side::sync);
    EXPECT_EQ(g_scc_client_cb.state.load(), 3U);
    daemon.send_item(side::sync, 301, wire().u32(0).u32(0).u32(0));
    (void)daemon.answer_registration(side::async);
    expect_first_status_is_one();
    EXPECT_EQ(g_scc_client_cb.state.load(), 4U);
}

TEST_F(Connection, ARefusalNamesTheHolderAndIsRetriedWithoutAnAsyncRegistration) {
    const test::debugging on;
    begin();
    daemon.accept_both();
    daemon.answer_registration(side::sync, 2002, 4711);
    EXPECT_TRUE(closes_silently(side::async));
    EXPECT_TRUE(test::logged(who() + "reg action rejected by sccd!"));
    EXPECT_TRUE(test::logged("app id:7 already registered by pid:4711!"));
    daemon.accept_registration();
    expect_first_status_is_one();
}

// The pid is unsigned on the wire; the line prints it like all others.
TEST_F(Connection, ARefusalNamesAHolderOfAnyNumber) {
    const test::debugging on;
    begin();
    for (const std::uint32_t holder : {0x80000001U, 0x80000000U, 0xFFFFFFFFU, 1U}) {
        daemon.accept_both();
        daemon.answer_registration(side::sync, 2002, holder);
        EXPECT_TRUE(closes_silently(side::async));
        EXPECT_TRUE(test::logged(
            "app id:7 already registered by pid:" + std::to_string(static_cast<std::int32_t>(holder)) + "!"))
            << holder;
    }
    daemon.accept_registration();
    expect_first_status_is_one();
}

TEST_F(Connection, ARefusalWithoutAHolderNamesNobody) {
    const test::debugging on;
    begin();
    daemon.accept_both();
    daemon.answer_registration(side::sync, 1, 0);
    EXPECT_TRUE(closes_silently(side::async));
    daemon.accept_registration();
    expect_first_status_is_one();
    EXPECT_EQ(times_logged(who() + "reg action rejected by sccd!"), 1U);
    EXPECT_TRUE(std::ranges::none_of(test::log_texts(), [](const std::string& text) {
        return text.find("already registered by") != std::string::npos;
    }));
}

TEST_F(Connection, ARefusalMayLeaveTheHolderOut) {
    const test::debugging on;
    begin();
    daemon.accept_both();
    (void)daemon.read_item(side::sync);
    daemon.send_item(side::sync, 301, wire().u32(0).u32(2002));
    EXPECT_TRUE(closes_silently(side::async));
    daemon.accept_registration();
    expect_first_status_is_one();
    EXPECT_EQ(times_logged(who() + "reg action rejected by sccd!"), 1U);
    EXPECT_EQ(lines_with("already registered by"), 0U);
}

// What follows the items of a message is not the holder.
TEST_F(Connection, ARefusalWithoutAHolderEndsWithItsItem) {
    const test::debugging on;
    begin();
    daemon.accept_both();
    (void)daemon.read_item(side::sync);
    daemon.send(
        side::sync,
        wire().u32(28).u8(1).u16(1).u8(0).add(test::item_bytes(301, wire().u32(0).u32(2002))).u32(4711));
    EXPECT_TRUE(closes_silently(side::async));
    EXPECT_EQ(lines_with("already registered by"), 0U);
    daemon.accept_registration();
    expect_first_status_is_one();
}

TEST_F(Connection, ARefusalOnTheAsyncSocketClosesBothAndRemovesTheFiles) {
    begin();
    daemon.accept_both();
    EXPECT_TRUE(std::filesystem::exists(socket_file(".sccl_sd1_")));
    EXPECT_TRUE(std::filesystem::exists(socket_file(".sccl_sd2_")));
    daemon.answer_registration(side::sync);
    daemon.answer_registration(side::async, 2000);
    EXPECT_TRUE(daemon.wait_for_close(side::sync));
    EXPECT_TRUE(daemon.wait_for_close(side::async));
    EXPECT_TRUE(test::eventually([&] { return g_scc_client_cb.state == 5U && has_no_socket_files(); }));
    daemon.accept_registration();
    expect_first_status_is_one();
}

struct broken_reply {
    const char* what;
    bytes raw;
    bool then_close;
};

TEST_F(Connection, AMalformedOrBrokenOffRegistrationReplyIsRetried) {
    const broken_reply replies[] = {
        {"no items", wire().u32(28).u8(1).u16(0).u8(0), false},
        {"nothing but a header", wire().u32(8).u8(1).u16(1).u8(0), false},
        {"a value without a result", wire().u32(20).u8(1).u16(1).u8(0).u32(4).u16(0).u16(301).u32(0), false},
        {"an item past its message", wire().u32(20).u8(1).u16(1).u8(0).u32(5).u16(0).u16(301).u32(0), false},
        {"half a header", wire().u32(28), true},
        {"half a body", wire().u32(28).u8(1).u16(1).u8(0).u32(12), true},
    };
    begin();
    for (const broken_reply& reply : replies) {
        SCOPED_TRACE(reply.what);
        daemon.accept_both();
        EXPECT_EQ(daemon.read_item(side::sync).type, 301);
        daemon.send(side::sync, reply.raw);
        if (reply.then_close) {
            shutdown(daemon.fd(side::sync), SHUT_WR);
        }
        EXPECT_TRUE(closes_silently(side::async));
        EXPECT_EQ(test::statuses().size(), 0U);
    }
    daemon.accept_registration();
    expect_first_status_is_one();
}

TEST_F(Connection, AnAcceptingReplyMayLeaveTheHolderOut) {
    begin();
    daemon.accept_both();
    for (const side where : {side::sync, side::async}) {
        EXPECT_EQ(daemon.read_item(where).type, 301);
        daemon.send_item(where, 301, wire().u32(0xFFFFFFFF).u32(0));
    }
    expect_first_status_is_one();
}

TEST_F(Connection, OnlyTheResultInTheFirstItemOfAReplyIsLookedAt) {
    begin();
    daemon.accept_both();
    for (const side where : {side::sync, side::async}) {
        EXPECT_EQ(daemon.read_item(where).type, 301);
        daemon.send_items(where, {test::item_bytes(999, wire().u32(0xFFFFFFFF).u32(0).u32(4711), 0xABCD),
                                  test::item_bytes(301, wire().u32(0).u32(2000).u32(0))});
    }
    expect_first_status_is_one();
}

// An attempt, made without a thread of the library.
class RegistrationResult : public Connection {
  protected:
    RegistrationResult() {
        _scc_lib_data_init();
        g_scc_client_cb.app_id = 7;
        g_scc_client_cb.pid = static_cast<std::uint32_t>(getpid());
        generation_ = scc::begin_generation();
    }

    // The result of connecting and registering, while the daemon does its part.
    template <class Act>
    std::uint32_t result_while(const Act& act) {
        std::uint32_t result = 0;
        std::thread registering([&] {
            result = scc::connect_and_register(scc::identity_of_control_block(), generation_, "test");
        });
        act();
        registering.join();
        return result;
    }

    std::uint32_t generation_ = 0;
};

TEST_F(RegistrationResult, IsThatOfTheStepThatFailed) {
    EXPECT_EQ(result_while([&] {
                  daemon.accept_both();
                  (void)daemon.read_item(side::sync);
                  daemon.close_both();
              }),
              32U);
    EXPECT_EQ(_scc_lib_client_close(), 0);
    EXPECT_EQ(result_while([&] {
                  daemon.accept_both();
                  (void)daemon.read_item(side::sync);
                  daemon.send_item(side::sync, 301, wire().u32(0));
              }),
              2007U);
    EXPECT_EQ(_scc_lib_client_close(), 0);
    EXPECT_EQ(result_while([&] {
                  daemon.accept_both();
                  daemon.answer_registration(side::sync);
                  daemon.answer_registration(side::async, 2000);
              }),
              2000U);
    EXPECT_EQ(_scc_lib_client_close(), 0);
    daemon.stop_listening();
    const test::debugging on;
    EXPECT_EQ(result_while([] {}), 2U);
    EXPECT_FALSE(test::logged(who() + "connect to sccd success!"));
    test::hidden_variable directory("TMPDIR");
    directory.hide();
    EXPECT_EQ(result_while([] {}), 5U);
}

TEST_F(RegistrationResult, IsABadDescriptorOnceTheRegistrationHasEnded) {
    scc::end_generation();
    EXPECT_EQ(result_while([] {}), 9U);
}

TEST_F(RegistrationResult, OfARequestOnAnEndedConnectionIsItsError) {
    EXPECT_EQ(result_while([&] { daemon.accept_registration(); }), 0U);
    daemon.close_both();
    const scc::registration_identity identity = scc::identity_of_control_block();
    EXPECT_EQ(_scc_lib_client_reg(1, &identity), 32U);
    EXPECT_EQ(_scc_lib_client_reg(0, &identity), 32U);
    EXPECT_EQ(_scc_lib_client_close(), 0);
    EXPECT_EQ(_scc_lib_client_reg(1, &identity), 9U);
}

TEST_F(RegistrationResult, AnUnregistrationOnAnEndedConnectionDropsTheCallsAtOnce) {
    EXPECT_EQ(result_while([&] { daemon.accept_registration(); }), 0U);
    ASSERT_EQ(_scc_lib_save_call_data(1, 45, nullptr, 0), 0U);
    daemon.close_both();
    EXPECT_EQ(_scc_client_unreg(g_scc_client_cb.sync_fd, 7, 1), 0U);
    EXPECT_EQ(scc::pending_calls(), 0U);
}

// It is ended while the last reply is in flight.
TEST_F(Connection, ARegistrationThatEndsBeforeItIsConfirmedSetsNoState) {
    (void)scc::begin_generation();
    g_scc_client_cb.app_id = 7;
    g_scc_client_cb.pid = static_cast<std::uint32_t>(getpid());
    const test::debugging on;
    std::thread registering([] { EXPECT_FALSE(_scc_lib_svr_rereg()); });
    daemon.accept_both();
    daemon.answer_registration(side::sync);
    EXPECT_EQ(daemon.read_item(side::async).type, 301);
    scc::end_generation();
    daemon.send_item(side::async, 301, wire().u32(0).u32(0).u32(0));
    registering.join();
    EXPECT_EQ(g_scc_client_cb.state.load(), 3U);
    EXPECT_EQ(times_logged(who() + "register to sccd success!"), 0U);
    EXPECT_EQ(_scc_lib_client_close(), 0);
}

TEST_F(Connection, RegistrationsCarryTheOptionUnchangedOverAReconnection) {
    start(0xA5);
    daemon.close_both();
    EXPECT_EQ(test::statuses().wait(), 0U);
    const auto [sync, async] = daemon.accept_registration();
    const auto pid = static_cast<std::uint32_t>(getpid());
    EXPECT_EQ(sync, bytes(wire().u32(7).u32(pid).u8(0xA5).u8(1).zeros(2)));
    EXPECT_EQ(async, bytes(wire().u32(7).u32(pid).u8(0xA5).u8(0).zeros(2)));
}

}  // namespace
