// The memory of received messages.
#include "client/receive_support.h"
#include "support/large_blocks.h"

using test::bytes;
using test::item_bytes;
using test::message_bytes;
using test::Receive;
using test::results;
using test::side;
using test::wire;

namespace {

class ReceivedMemory : public Receive {
  protected:
    // A message of a large block, unknown to the library.
    static bytes large_message() {
        return message_bytes({item_bytes(999, bytes(test::large_blocks::size - 16))});
    }

    static bool none_left(const test::large_blocks& blocks) {
        return test::eventually([&blocks] { return blocks.more() == 0; });
    }
};

TEST_F(ReceivedMemory, IsFreedOnceAMessageWasDelivered) {
    start();
    request(1);
    const test::large_blocks blocks;
    daemon.send(side::async, large_message());
    daemon.send_result(1, 0);
    EXPECT_EQ(results().wait(), 1000U);
    EXPECT_TRUE(none_left(blocks));
}

TEST_F(ReceivedMemory, OfAMessageThatIsNotDeliveredAnyMoreIsFreed) {
    info.handlers.station_move = [](std::uint8_t) {
        test::hold_here();
        results().push(scc_svr_unreg());
    };
    start();
    const test::large_blocks blocks;
    daemon.send(side::async,
                wire().add(message_bytes({item_bytes(210, wire().u32(1).u8(1))})).add(large_message()));
    ASSERT_TRUE(test::entered().wait());
    EXPECT_EQ(blocks.more(), 0);
    test::released().push(1);
    daemon.answer_unregistration();
    EXPECT_EQ(results().wait(), 0U);
    EXPECT_TRUE(test::eventually(test::only_the_checker_is_left));
    EXPECT_TRUE(none_left(blocks));
}

TEST_F(ReceivedMemory, OfAMessageThatIsCutByTheEndOfItsConnectionIsFreed) {
    start();
    const test::large_blocks blocks;
    daemon.send(side::async, test::slice(large_message(), 0, 100));
    ASSERT_TRUE(test::all_taken(daemon.fd(side::async)));
    daemon.close_both();
    ASSERT_EQ(test::statuses().wait(), 0U);
    daemon.accept_registration();
    ASSERT_EQ(test::statuses().wait(), 1U);
    request(1);
    daemon.send_result(g_scc_client_cb.last_call_id, 0);
    ASSERT_TRUE(results().wait());
    EXPECT_TRUE(none_left(blocks));
}

TEST_F(ReceivedMemory, OfAMessageThatIsCutByTheEndOfItsRegistrationIsFreed) {
    start();
    const test::large_blocks blocks;
    daemon.send(side::async, test::slice(large_message(), 0, 100));
    ASSERT_TRUE(test::all_taken(daemon.fd(side::async)));
    ASSERT_TRUE(test::others_are_waiting());
    stop();
    EXPECT_TRUE(test::eventually(test::only_the_checker_is_left));
    EXPECT_TRUE(none_left(blocks));
}

}  // namespace
