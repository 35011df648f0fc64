// From the receive thread to the processing thread: order, slow handlers, and the queue's memory.
#include <malloc.h>
#include <unistd.h>

#include <fstream>

#include "client/channel_support.h"
#include "client/control_block.h"
#include "ss/service_fixture.h"
#include "support/sanitizer.h"

using test::bytes;
using test::side;
using test::wire;

namespace {

class ServiceQueue : public test::registered_service {
  protected:
    // An SVI operation whose handler waits until the gate is opened, under the library's lock.
    static test::event_queue<int>& gate() {
        static auto* queue = new test::event_queue<int>;
        return *queue;
    }

    static int waits_at_the_gate(scc_ss_svi_operation* operation) {
        test::handler_calls().push({8, wire().u32(operation->id)});
        return gate().wait().value_or(1);
    }

    static int notes_its_id(std::uint32_t call_id, std::uint32_t, std::uint32_t) {
        test::handler_calls().push({16, wire().u32(call_id)});
        return 0;
    }

    static constexpr std::size_t slack_bytes =
        test::sanitizer_allocates ? std::size_t{1} << 40U : std::size_t{2} * 1024 * 1024;

    static std::size_t resident_bytes() {
        std::ifstream file("/proc/self/statm");
        std::size_t all = 0;
        std::size_t resident = 0;
        file >> all >> resident;
        return resident * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    }

    // One message with a default read of that id.
    static bytes read_message(std::uint32_t id) {
        return test::message_bytes({test::item_bytes(149, wire().u32(id).u32(2).u32(3), 5)});
    }
};

TEST_F(ServiceQueue, ProcessesMessagesInTheOrderOfTheirArrival) {
    start_with_all_handlers();
    send(143, wire().u32(1).u32(1));
    send(163, wire().u32(2).u32(1).u32(4));
    daemon.send_items(side::async, {test::item_bytes(142, wire().u32(3).u32(1).u32(1)),
                                    test::item_bytes(143, wire().u32(4).u32(0))});
    send(149, wire().u32(5).u32(1).u32(1));
    EXPECT_EQ(test::u32_at(called(8), 0), 1U);
    EXPECT_EQ(test::u32_at(called(12), 0), 2U);
    EXPECT_EQ(test::u32_at(called(11), 0), 3U);
    EXPECT_EQ(test::u32_at(called(8), 0), 4U);
    EXPECT_EQ(test::u32_at(called(16), 0), 5U);
}

TEST_F(ServiceQueue, LogsEachMessageWithItsItemsAndLength) {
    start_with_all_handlers();
    const test::debugging on;
    daemon.send_items(side::async, {test::item_bytes(143, wire().u32(1).u32(1), 7),
                                    test::item_bytes(999, wire().u32(1), 8)});
    EXPECT_TRUE(test::wait_for_log("lib proc msg done.\n"));
    const auto texts = test::log_texts();
    ASSERT_GE(texts.size(), 4U);
    EXPECT_EQ(texts[0], "lib proc msg(num:2, len:36).");
    EXPECT_EQ(texts[1], "scc-type:7, ss-type:143");
    EXPECT_EQ(texts.back(), "lib proc msg done.\n");
}

TEST_F(ServiceQueue, GoesOnAfterLongerThanTheThreeSecondsOfOneWait) {
    start_with_all_handlers();
    send(143, wire().u32(1).u32(1));
    called(8);
    EXPECT_TRUE(daemon.stays_silent(side::async, 3500));
    send(143, wire().u32(2).u32(1));
    EXPECT_EQ(test::u32_at(called(8), 0), 2U);
}

// 5,000 messages do not fit into the socket: the daemon's sends return only if the library keeps receiving.
TEST_F(ServiceQueue, ASlowHandlerDoesNotStopReceivingAndTheOrderStays) {
    info.svi_router_acl = waits_at_the_gate;
    info.def_read = notes_its_id;
    start();
    send(143, wire().u32(77).u32(1));
    EXPECT_EQ(called(8), bytes(wire().u32(77)));
    for (std::uint32_t id = 0; id < 5000; ++id) {
        daemon.send(side::async, read_message(id));
    }
    EXPECT_EQ(test::handler_calls().size(), 0U);
    gate().push(0);
    for (std::uint32_t id = 0; id < 5000; ++id) {
        ASSERT_EQ(called(16), bytes(wire().u32(id)));
    }
}

// What the process occupies, not what it uses: a burst must not make the service larger for good.
// A sanitizer's allocator keeps freed memory on purpose, so only the messages are checked there.
TEST_F(ServiceQueue, GivesTheMemoryOf100000WaitingMessagesBack) {
    mallopt(M_TRIM_THRESHOLD, 128 * 1024);  // the default, before the test's own large blocks raise it
    info.svi_router_acl = waits_at_the_gate;
    start();
    struct burst_row {
        std::size_t value_bytes;
        int thousands;
    };
    std::uint32_t id = 0;
    for (const burst_row& row : {burst_row{64, 100}, burst_row{940, 20}, burst_row{64, 100}}) {
        SCOPED_TRACE(row.value_bytes);
        bytes thousand;
        for (int i = 0; i < 1000; ++i) {
            const bytes one = test::message_bytes({test::item_bytes(205, wire().u32(1).to(row.value_bytes))});
            thousand.insert(thousand.end(), one.begin(), one.end());
        }
        daemon.send(side::async, thousand);
        expect_nothing_more();
        const std::size_t before = resident_bytes();
        send(143, wire().u32(++id).u32(1));
        EXPECT_EQ(called(8), bytes(wire().u32(id)));
        for (int i = 0; i < row.thousands; ++i) {
            daemon.send(side::async, thousand);
        }
        gate().push(0);
        expect_nothing_more();
        EXPECT_TRUE(test::eventually([&] { return resident_bytes() < before + slack_bytes; }))
            << resident_bytes() << " bytes resident, before " << before;
    }
}

TEST_F(ServiceQueue, MessagesOfALostConnectionAreStillProcessedAndBeforeLaterOnes) {
    info.svi_router_acl = waits_at_the_gate;
    info.def_read = notes_its_id;
    start();
    send(143, wire().u32(77).u32(1));
    called(8);
    for (std::uint32_t id = 0; id < 10; ++id) {
        daemon.send(side::async, read_message(id));
    }
    daemon.close_both();
    gate().push(0);
    EXPECT_EQ(test::service_statuses().wait(), 0U);
    daemon.accept_registration();
    EXPECT_EQ(test::service_statuses().wait(), 1U);
    daemon.send(side::async, read_message(10));
    for (std::uint32_t id = 0; id <= 10; ++id) {
        EXPECT_EQ(called(16), bytes(wire().u32(id)));
    }
}

TEST_F(ServiceQueue, ARefusedMessageDoesNotKeepTheNextOneBack) {
    start_with_all_handlers();
    const test::debugging on;
    // An item that extends past its message.
    daemon.send(side::async, wire().u32(24).u8(1).u16(1).u8(0).u32(9000).u16(0).u16(143).u32(1).u32(1));
    send(143, wire().u32(2).u32(1));
    EXPECT_EQ(test::u32_at(called(8), 0), 2U);
}

// Messages that arrived in one read with a refused one must not wait for the next read, which may find the
// daemon gone.
TEST_F(ServiceQueue, MessagesBesideRefusedOnesAreProcessedThoughTheDaemonLeaves) {
    info.svi_router_acl = waits_at_the_gate;
    info.def_read = notes_its_id;
    start();
    const bytes without_items = wire().u32(8).u8(1).u16(0).u8(0);
    const bytes no_longer_than_its_header = wire().u32(8).u8(1).u16(1).u8(0);
    const bytes leads_past = wire().u32(24).u8(1).u16(1).u8(0).u32(9000).u16(0).u16(143).u32(1).u32(1);
    wire together;
    std::uint32_t id = 0;
    for (const bytes& refused : {without_items, no_longer_than_its_header, leads_past}) {
        together.add(refused).add(read_message(++id));
        together.add(refused).add(refused).add(read_message(++id));
    }
    daemon.send(side::async, together);
    daemon.close_both();
    for (std::uint32_t next = 1; next <= id; ++next) {
        ASSERT_EQ(called(16), bytes(wire().u32(next)));
    }
}

// The processing thread outlives a service whose start failed after it had begun, and then serves an
// application.
TEST_F(ServiceQueue, MessagesOfAnotherAppIdGoToTheApplicationsDispatcher) {
    start_with_all_handlers();
    send(319, wire().zeros(4));
    expect_nothing_more();
    g_scc_client_cb.app_id = 7;
    send(319, wire().zeros(4));
    // The service's dispatcher does not know the probe; the application's answers it.
    const test::received_item answer = daemon.read_item(side::sync);
    EXPECT_EQ(answer.type, 319);
    EXPECT_EQ(answer.value, bytes(wire().u32(7)));
    g_scc_client_cb.app_id = 16;
    send(143, wire().u32(2).u32(1));
    called(8);
}

}  // namespace
