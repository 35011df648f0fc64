// What arrives on the asynchronous socket: whole, cut, one byte at a time, malformed.
#include "client/receive.h"

#include <sys/socket.h>
#include <sys/syscall.h>

#include <algorithm>

#include "client/acl_cache.h"
#include "client/connection.h"
#include "client/descriptors.h"
#include "client/diagnostics.h"
#include "client/locks.h"
#include "client/message_reader.h"
#include "client/receive_support.h"
#include "client/request_channel.h"
#include "support/hidden_variable.h"

using test::bytes;
using test::item_bytes;
using test::message_bytes;
using test::Receive;
using test::results;
using test::side;
using test::wire;

namespace {

TEST_F(Receive, AMessageOfManyItemsIsDeliveredInOrder) {
    start();
    request(2);
    daemon.send(side::async, two_results(2, 1));
    EXPECT_EQ(results().wait(), 2003U);
    EXPECT_EQ(results().wait(), 1004U);
}

TEST_F(Receive, AMessageOfManyResultsIsDeliveredToTheLastOne) {
    constexpr std::uint32_t count = 100;
    start();
    request(count);
    std::vector<bytes> items;
    for (std::uint32_t call_id = 1; call_id <= count; ++call_id) {
        items.push_back(item_bytes(401, wire().u32(call_id).u32(call_id % 7)));
    }
    daemon.send_items(side::async, items);
    for (std::uint32_t call_id = 1; call_id <= count; ++call_id) {
        ASSERT_EQ(results().wait(), call_id * 1000 + call_id % 7);
    }
}

TEST_F(Receive, AResultIsAFailureWhicheverOfItsBytesIsSet) {
    start();
    scc_acl_key key = {1, 2, 3, 4};
    std::uint32_t call_id = 0;
    for (const std::uint32_t result : {1U, 0x100U, 0x10000U, 0x80000000U}) {
        SCOPED_TRACE(result);
        ASSERT_EQ(scc_acl_create(&key, &call_id), 0U);
        daemon.send_result(call_id, result);
        request(1);
        daemon.send_result(++call_id, result);
        EXPECT_EQ(results().wait(), call_id * 1000 + result);
        EXPECT_EQ(scc_acl_cls_get(&key), 2005U);
    }
    EXPECT_EQ(scc::read_statistics(0).callback_failures, 4U);
    EXPECT_EQ(scc::read_statistics(0).callback_successes, 0U);
}

TEST_F(Receive, TwoMessagesInOnePieceAreTwoMessages) {
    start();
    request(4);
    daemon.send(side::async, wire().add(two_results(1, 2)).add(two_results(4, 3)));
    for (const std::uint32_t expected : {1003U, 2004U, 4003U, 3004U}) {
        EXPECT_EQ(results().wait(), expected);
    }
}

TEST_F(Receive, AMessageMayArriveOneByteAtATime) {
    start();
    request(2);
    for (const std::uint8_t one : two_results(1, 2)) {
        EXPECT_EQ(results().size(), 0U);
        daemon.send(side::async, {one});
        ASSERT_TRUE(test::all_taken(daemon.fd(side::async)));
    }
    EXPECT_EQ(results().wait(), 1003U);
    EXPECT_EQ(results().wait(), 2004U);
}

TEST_F(Receive, AMessageMayBeCutAtEveryOffset) {
    start();
    const std::size_t whole = two_results(1, 2).size();
    ASSERT_EQ(whole, 40U);
    for (std::uint32_t cut = 1; cut < whole; ++cut) {
        request(2);
        const bytes message = two_results(2 * cut - 1, 2 * cut);
        daemon.send(side::async, test::slice(message, 0, cut));
        ASSERT_TRUE(test::all_taken(daemon.fd(side::async)));
        daemon.send(side::async, test::slice(message, cut, whole - cut));
        EXPECT_EQ(results().wait(), (2 * cut - 1) * 1000 + 3);
        EXPECT_EQ(results().wait(), 2 * cut * 1000 + 4);
    }
}

TEST_F(Receive, APeerThatClosesAtAnyOffsetLosesTheMessageAndTheConnection) {
    start();
    for (const std::size_t cut : {1U, 7U, 8U, 9U, 39U}) {
        SCOPED_TRACE(cut);
        request(2);
        daemon.send(side::async, test::slice(two_results(1, 2), 0, cut));
        daemon.close_both();
        EXPECT_EQ(test::statuses().wait(), 0U);
        daemon.accept_registration();
        EXPECT_EQ(test::statuses().wait(), 1U);
        EXPECT_EQ(results().size(), 0U);
        request(1);
        const std::uint32_t call_id = g_scc_client_cb.last_call_id;
        daemon.send_result(call_id, 5);
        EXPECT_EQ(results().wait(), call_id * 1000 + 5) << "the next connection's first message";
    }
}

TEST_F(Receive, AHeaderWithoutItemsIsRefusedAndTheNextMessageIsDelivered) {
    const bytes headers[] = {
        wire().u32(40).u8(1).u16(0).u8(0), wire().u32(8).u8(1).u16(1).u8(0),
        wire().u32(7).u8(1).u16(1).u8(0),  wire().u32(0).u8(1).u16(1).u8(0),
        wire().u32(0).u8(0).u16(0).u8(0),  wire().u32(0xFFFFFFFF).u8(1).u16(0).u8(0),
    };
    start();
    const test::debugging on;
    std::uint32_t call_id = 0;
    for (const bytes& header : headers) {
        SCOPED_TRACE(call_id);
        test::clear_log();
        request(1);
        ++call_id;
        daemon.send(side::async, header);
        daemon.send_result(call_id, 5);
        EXPECT_EQ(results().wait(), call_id * 1000 + 5);
        EXPECT_TRUE(test::logged("msg format error,no tlv."));
    }
    EXPECT_EQ(test::statuses().size(), 0U);
}

TEST_F(Receive, AMessageWhoseItemsDoNotFitIsRefusedWholeAndTheNextIsDelivered) {
    const bytes good = item_bytes(401, wire().u32(1).u32(9));
    const bytes bodies[] = {
        // a value one byte longer than what is left
        wire().add(good).u32(9).u16(0).u16(401).u32(1).u32(9),
        // a length that wraps an offset
        wire().add(good).u32(0xFFFFFFFF).u16(0).u16(401).u32(1).u32(9),
        wire().add(good).u32(0xFFFFFFF8).u16(0).u16(401).u32(1).u32(9),
        // half of a second item header
        wire().add(good).u32(8).u16(0),
        // nothing where the second item should be
        good,
    };
    start();
    const test::debugging on;
    request(1);
    for (const bytes& body : bodies) {
        test::clear_log();
        const auto length = static_cast<std::uint32_t>(8 + body.size());
        daemon.send(side::async, wire().u32(length).u8(1).u16(2).u8(0).add(body));
        EXPECT_TRUE(
            test::wait_for_log("msg format error,items exceed msg. len:" + std::to_string(length) + "."));
    }
    daemon.send_result(1, 6);
    EXPECT_EQ(results().wait(), 1006U);
    EXPECT_EQ(results().size(), 0U);
    EXPECT_EQ(test::statuses().size(), 0U);
}

TEST_F(Receive, BytesAfterTheLastItemAreIgnored) {
    start();
    request(2);
    daemon.send(side::async,
                wire().u32(34).u8(1).u16(1).u8(0).add(item_bytes(401, wire().u32(1).u32(9))).fill(10, 0xEE));
    daemon.send_result(2, 0);
    EXPECT_EQ(results().wait(), 1009U);
    EXPECT_EQ(results().wait(), 2000U);
}

TEST_F(Receive, AMessageOfManyMegabytesIsRead) {
    start();
    request(1);
    bytes huge = message_bytes(
        {item_bytes(999, test::distinct_bytes(3000000)), item_bytes(401, wire().u32(1).u32(2))});
    daemon.send(side::async, huge);
    EXPECT_EQ(results().wait(), 1002U);
}

TEST_F(Receive, AResultWithoutACallIsLogged) {
    start();
    const test::debugging on;
    daemon.send_result(4000000000U, 0);
    EXPECT_TRUE(test::wait_for_log("no such call id:-294967296 in scc lib"));
}

TEST_F(Receive, ResultsOfALostConnectionAreUnknownOnTheNext) {
    start();
    request(2);
    reconnect();
    const test::debugging on;
    daemon.send_result(1, 0);
    daemon.send_result(2, 0);
    EXPECT_TRUE(test::wait_for_log("no such call id:1 in scc lib"));
    EXPECT_TRUE(test::wait_for_log("no such call id:2 in scc lib"));
    request(1);
    daemon.send_result(3, 1);
    EXPECT_EQ(results().wait(), 3001U);
}

TEST_F(Receive, ASecondResultOfOneCallIsUnknown) {
    start();
    request(1);
    const test::debugging on;
    daemon.send_result(1, 0);
    daemon.send_result(1, 0);
    EXPECT_EQ(results().wait(), 1000U);
    EXPECT_TRUE(test::wait_for_log("no such call id:1 in scc lib"));
    EXPECT_EQ(results().size(), 0U);
}

TEST_F(Receive, ARaisedFlagMakesTheThreadRegisterAgain) {
    start_with_holding_handler();
    hold();
    const test::debugging on;
    EXPECT_EQ(_scc_lib_client_close(), 0);
    EXPECT_EQ(scc_lib_rereg.load(), 1);
    release();
    EXPECT_EQ(test::statuses().wait(), 0U);
    EXPECT_TRUE(test::wait_for_log("appid 7 ready to rereg."));
    daemon.accept_registration();
    EXPECT_EQ(test::statuses().wait(), 1U);
    EXPECT_EQ(scc_lib_rereg.load(), 0);
}

TEST_F(Receive, ANumberThatIsNoDescriptorIsABrokenConnection) {
    status_handler = [](std::uint32_t status) {
        if (status == 0) {
            g_scc_client_cb.async_fd = -1;  // what cannot be closed would stay
        }
        test::statuses().push(status);
    };
    start_with_holding_handler();
    hold();
    const test::debugging on;
    const int real = g_scc_client_cb.async_fd.exchange(999);
    release();
    EXPECT_TRUE(test::wait_for_log("select error! errno:9."));
    EXPECT_EQ(test::statuses().wait(), 0U);
    EXPECT_TRUE(test::logged("close async socket failed!!!"));
    EXPECT_TRUE(test::logged("reason:Bad file descriptor"));
    daemon.accept_registration();
    EXPECT_EQ(test::statuses().wait(), 1U);
    close(real);
}

class ReceiveWithoutAPlace : public Receive {
  protected:
    // The receive thread pauses between two attempts, neither of which found a directory for the sockets.
    static bool pauses() {
        return g_scc_client_cb.async_fd == -1 &&
               test::sleeps_in(test::receive_thread(), {SYS_nanosleep, SYS_clock_nanosleep});
    }

    void expect_it_comes_back_with(test::hidden_variable& directory) {
        EXPECT_TRUE(test::eventually(pauses));
        EXPECT_EQ(g_scc_client_cb.app_id.load(), 7U);
        EXPECT_EQ(test::library_threads(), 2U);
        directory.show();
        ASSERT_EQ(test::statuses().wait(), 0U);
        daemon.accept_registration();
        EXPECT_EQ(test::statuses().wait(), 1U);
        EXPECT_EQ(test::statuses().size(), 0U);
        request(1);
        EXPECT_EQ(daemon.read_item(side::async).type, 123);
    }
};

TEST_F(ReceiveWithoutAPlace, ForTheSocketsComesBackWhenThereIsOneAgain) {
    test::hidden_variable directory("TMPDIR");
    start();
    request(1);
    // The batch has gone out, so the checker has nothing on which it could notice the loss first.
    EXPECT_EQ(daemon.read_item(side::async).type, 123);
    directory.hide();
    daemon.close_both();
    EXPECT_TRUE(test::eventually(pauses));
    EXPECT_EQ(g_scc_client_cb.state.load(), 5U);
    EXPECT_EQ(scc_addr_learning(1, 1, nullptr), 2004U);
    expect_it_comes_back_with(directory);
}

TEST_F(ReceiveWithoutAPlace, ForTheSocketsComesBackAlsoWhenTheCheckerEndedTheConnection) {
    test::hidden_variable directory("TMPDIR");
    info.handlers.station_move = test::hold_receive_thread;
    start();
    hold();
    const test::debugging on;
    directory.hide();
    daemon.close_both();
    request(1);
    EXPECT_TRUE(test::wait_for_log("(app id:7, pid:" + test::own_pid() + ")send  message error,ret:32!"));
    EXPECT_TRUE(test::eventually([] { return g_scc_client_cb.async_fd == -1; }));
    release();
    expect_it_comes_back_with(directory);
}

TEST_F(Receive, AMissingSocketIsLookedForOnceASecond) {
    start_with_holding_handler();
    hold();
    const test::debugging on;
    const std::string missing = "scc client async socket not created.";
    const int real = g_scc_client_cb.async_fd.exchange(-1);
    const auto before = std::chrono::steady_clock::now();
    release();
    EXPECT_TRUE(test::eventually([&] {
        const auto texts = test::log_texts();
        return std::ranges::count(texts, missing) >= 2;
    }));
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(990));
    g_scc_client_cb.async_fd = real;
    hold();  // it continues reading
    release();
    EXPECT_EQ(test::statuses().size(), 0U);
}

TEST_F(Receive, AHandlerMayMakeRequests) {
    info.handlers.addr_learning = [](std::uint32_t result, std::uint32_t call_id, std::uint32_t,
                                     std::uint8_t) {
        results().push(call_id * 1000 + result);
        if (result == 0) {
            results().push(scc_addr_learning(call_id, 1, nullptr));
        }
    };
    runtime_test::start();
    request(1);
    daemon.send_result(1, 0);
    EXPECT_EQ(results().wait(), 1000U);
    EXPECT_EQ(results().wait(), 0U);
    EXPECT_EQ(daemon.read_items(side::async, 2).back().value, bytes(wire().u32(2).u32(1).u32(1)));
    daemon.send_result(2, 1);
    EXPECT_EQ(results().wait(), 2001U);
}

TEST_F(Receive, AHeaderWithAnItemButNoRoomForItIsRefusedOnBothSockets) {
    start();
    const bytes header = wire().u32(8).u8(1).u16(1).u8(0);
    const test::debugging on;
    void* message = nullptr;
    daemon.send(side::sync, header);
    EXPECT_EQ(_scc_lib_msg_recv(&message, 1), 2007U);
    EXPECT_EQ(message, nullptr);
    EXPECT_EQ(test::log_texts(), std::vector<std::string>{"msg format error,no tlv."});
    daemon.send_item(side::sync, 77, {});
    ASSERT_EQ(_scc_lib_msg_recv(&message, 1), 0U);
    free(message);
    test::clear_log();
    request(1);
    daemon.send(side::async, header);
    daemon.send_result(1, 5);
    EXPECT_EQ(results().wait(), 1005U);
    EXPECT_TRUE(test::logged("msg format error,no tlv."));
    EXPECT_FALSE(test::logged("msg format error,items exceed msg. len:8."));
}

TEST_F(Receive, TheSynchronousSocketIsReadByTheSameRules) {
    start();
    const test::debugging on;
    void* message = nullptr;
    daemon.send(side::sync, wire().u32(99).u8(1).u16(0).u8(0));
    EXPECT_EQ(_scc_lib_msg_recv(&message, 1), 2007U);
    EXPECT_EQ(message, nullptr);
    daemon.send_item(side::sync, 77, wire().u32(5));
    ASSERT_EQ(_scc_lib_msg_recv(&message, 1), 0U);
    EXPECT_EQ(bytes(static_cast<std::uint8_t*>(message), static_cast<std::uint8_t*>(message) + 20),
              bytes(wire().u32(20).u8(1).u16(1).u8(0).u32(4).u16(0).u16(77).u32(5)));
    free(message);
    daemon.send(side::sync, wire().u32(20).u8(1).u16(1).u8(0).u32(4));
    shutdown(daemon.fd(side::sync), SHUT_WR);
    EXPECT_EQ(_scc_lib_msg_recv(&message, 1), 32U);
    EXPECT_EQ(message, nullptr);
    EXPECT_TRUE(test::logged("recv msg body error! errno:32."));
    EXPECT_EQ(_scc_lib_msg_recv(&message, 1), 32U);
    EXPECT_TRUE(test::logged("recv msg hdr error! syn:1 errno:32."));
}

TEST_F(Receive, AReceiveThatBelongsToALostConnectionReadsNothingOfTheNext) {
    start();
    const std::uint32_t lost = scc::connection_epoch();
    reconnect();
    daemon.send_item(side::sync, 77, wire().u32(5));
    void* message = nullptr;
    {
        const scc::connection_scope scope(lost);
        EXPECT_EQ(_scc_lib_msg_recv(&message, 1), 9U);
        EXPECT_EQ(_scc_lib_msg_send(900, "x", 1, 1), 0U);
    }
    test::expect_nothing_was_sent(daemon, side::sync);
    ASSERT_EQ(_scc_lib_msg_recv(&message, 1), 0U);
    free(message);
    EXPECT_EQ(test::statuses().size(), 0U);
}

TEST_F(Receive, WithoutASocketTheReceiveIsABadDescriptor) {
    void* message = nullptr;
    EXPECT_EQ(_scc_lib_msg_recv(&message, 0), 9U);
    EXPECT_EQ(_scc_lib_msg_recv(&message, 1), 9U);
}

// ---- results that arrived together

bytes result_item(std::uint32_t call_id) {
    return item_bytes(401, wire().u32(call_id).u32(0));
}

// How the results of calls 1 to 3 arrive, always in one read.
struct together_row {
    const char* name;
    bytes bytes_;
};

const together_row together_rows[] = {
    {"OneMessage", message_bytes({result_item(1), result_item(2), result_item(3)})},
    {"WithAnotherItemBetween",
     message_bytes({result_item(1), item_bytes(999, wire().u32(0)), result_item(2), result_item(3)})},
    {"OneAMessage", wire()
                        .add(message_bytes({result_item(1)}))
                        .add(message_bytes({result_item(2)}))
                        .add(message_bytes({result_item(3)}))},
};

class ReceiveTogether : public test::runtime_test, public ::testing::WithParamInterface<together_row> {
  protected:
    void start(void (*handler)(std::uint32_t, std::uint32_t, std::uint32_t, std::uint8_t)) {
        info.handlers.addr_learning = handler;
        runtime_test::start();
        for (int call = 1; call <= 3; ++call) {
            ASSERT_EQ(scc_addr_learning(1, 1, nullptr), 0U);
        }
        daemon.read_items(side::async, 3);
    }

    void send_results() { daemon.send(side::async, GetParam().bytes_); }

    // The connection was lost meanwhile, so nothing of it is delivered.
    void expect_reconnection() {
        EXPECT_EQ(test::statuses().wait(), 0U);
        daemon.accept_registration();
        EXPECT_EQ(test::statuses().wait(), 1U);
    }
};

TEST_P(ReceiveTogether, AreDeliveredThoughTheCheckerClosesTheirConnectionMeanwhile) {
    const test::debugging on;
    start([](std::uint32_t, std::uint32_t call_id, std::uint32_t, std::uint8_t) {
        if (call_id == 1) {
            test::hold_here();
        }
        results().push(call_id);
    });
    send_results();
    ASSERT_TRUE(test::entered().wait());
    ASSERT_EQ(shutdown(daemon.fd(side::async), SHUT_RD), 0);  // what the checker sends now fails
    ASSERT_EQ(scc_addr_learning(1, 1, nullptr), 0U);
    ASSERT_TRUE(test::eventually([] { return !_scc_lib_client_is_connected(); }));
    test::released().push(1);
    expect_reconnection();
    EXPECT_EQ(results().size(), 3U);
    for (const std::uint32_t call_id : {1U, 2U, 3U}) {
        ASSERT_FALSE(test::logged("no such call id:" + std::to_string(call_id) + " in scc lib"));
        EXPECT_EQ(results().wait(), call_id);
    }
}

TEST_P(ReceiveTogether, AreUnknownOnceARequestOfAHandlerFindsTheConnectionDead) {
    const test::debugging on;
    start([](std::uint32_t, std::uint32_t call_id, std::uint32_t, std::uint8_t) {
        EXPECT_EQ(scc_warterline_notify(1), 0U);
        results().push(call_id);
    });
    ASSERT_EQ(shutdown(daemon.fd(side::sync), SHUT_RD), 0);
    send_results();
    EXPECT_EQ(results().wait(), 1U);
    expect_reconnection();
    EXPECT_EQ(results().size(), 0U);
    EXPECT_TRUE(test::logged("no such call id:2 in scc lib"));
    EXPECT_TRUE(test::logged("no such call id:3 in scc lib"));
}

TEST_P(ReceiveTogether, FindTheCallsThatTheirHandlersMakeMeanwhile) {
    info.handlers.addr_learning = [](std::uint32_t, std::uint32_t call_id, std::uint32_t, std::uint8_t) {
        std::uint32_t next = 0;
        EXPECT_EQ(scc_addr_learning(1, 1, &next), 0U);
        EXPECT_EQ(next, call_id + 1);
        results().push(call_id);
    };
    runtime_test::start();
    ASSERT_EQ(scc_addr_learning(1, 1, nullptr), 0U);
    EXPECT_EQ(daemon.read_item(side::async).type, 123);
    send_results();
    for (const std::uint32_t call_id : {1U, 2U, 3U}) {
        EXPECT_EQ(results().wait(), call_id);
    }
    EXPECT_EQ(daemon.read_items(side::async, 3).size(), 3U);
}

INSTANTIATE_TEST_SUITE_P(Results, ReceiveTogether, ::testing::ValuesIn(together_rows),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(Receive, ManyResultsOneAMessageAreDeliveredInOrder) {
    start();
    std::uint32_t last = 0;
    for (const std::uint32_t count : {31U, 32U, 33U, 64U, 65U}) {
        request(count);
        wire messages;
        for (std::uint32_t i = 1; i <= count; ++i) {
            messages.add(message_bytes({result_item(last + i)}));
        }
        daemon.send(side::async, messages);
        for (std::uint32_t i = 1; i <= count; ++i) {
            ASSERT_EQ(results().wait(), (last + i) * 1000);
        }
        last += count;
    }
}

// A cache that was emptied while the handler ran does not take the result.
TEST_F(Receive, AnAclWhoseHandlerFindsTheConnectionDeadIsNotCached) {
    info.handlers.acl_create = [](std::uint32_t, std::uint32_t, const scc_acl_key*) {
        EXPECT_EQ(scc_warterline_notify(1), 0U);
    };
    info.handlers.station_move = [](std::uint8_t) {
        const scc::write_guard guard(scc::acl_lock);
        results().push(static_cast<std::uint32_t>(scc::cached_acl_count()));
    };
    start();
    const scc_acl_key key{1, 2, 3, 4};
    ASSERT_EQ(scc_acl_create(&key, nullptr), 0U);
    EXPECT_NE(daemon.read_item(side::async).type, 0);
    ASSERT_EQ(shutdown(daemon.fd(side::sync), SHUT_RD), 0);
    daemon.send_items(side::async, {result_item(1), item_bytes(210, wire().u32(1).u8(1))});
    EXPECT_EQ(results().wait(), 0U);
    EXPECT_EQ(test::statuses().wait(), 0U);
}

}  // namespace
