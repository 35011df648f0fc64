// The agent's four tasks: how they are put on the loop, what happens when the loop takes none, and the write
// task, which only tests schedule.
#include "agent/agent_tasks.h"

#include <array>
#include <cstdlib>
#include <cstring>

#include "client/descriptors.h"
#include "support/loop_application.h"

using test::adding;
using test::bytes;
using test::side;
using test::wire;

namespace {

using AgentTasks = test::loop_application;

// A write task's argument: u32 type, u32 length, value.
void* write_argument(const bytes& record) {
    void* block = std::malloc(record.size());
    std::memcpy(block, record.data(), record.size());
    return block;
}

TEST_F(AgentTasks, CannotBeScheduledBeforeThereIsAMaster) {
    for (const std::uint32_t kind : {0U, 1U, 2U, 3U, 4U, 99U}) {
        EXPECT_EQ(_scc_lib_thread_event(kind, nullptr, 0), -1) << kind;
    }
    EXPECT_TRUE(test::added_tasks().empty());
}

TEST_F(AgentTasks, OfAnUnknownKindAreLoggedAndTakenForDone) {
    start();
    const test::debugging on;
    test::forget_added_tasks();
    EXPECT_EQ(_scc_lib_thread_event(4, nullptr, 0), 0);
    EXPECT_EQ(_scc_lib_thread_event(77, nullptr, 0), 0);
    EXPECT_EQ(test::log_texts(),
              (std::vector<std::string>{"unknown lib thread event(4).", "unknown lib thread event(77)."}));
    EXPECT_TRUE(test::added_tasks().empty());
}

struct task_kind_row {
    std::uint32_t kind;
    adding call;
    const char* name;
    qx_thread_handler handler;
    bool takes_argument;
    const char* failure;
};

const std::array task_kind_rows = {
    task_kind_row{0, adding::event, "scc-connect", _scc_lib_agent_connect, true,
                  "Failed to add qx_thread for scc_lib_connect"},
    task_kind_row{1, adding::timer, "scc-reconnect", _scc_lib_agent_reconnect, false,
                  "Failed to add qx_thread for scc_lib_reconnect"},
    task_kind_row{2, adding::read_high, "scc-read", _scc_lib_agent_read, false,
                  "Failed to add qx_thread for scc_lib_read"},
    task_kind_row{3, adding::write, "scc-write", _scc_lib_agent_write, true,
                  "Failed to add qx_thread for scc_lib_write"},
};

TEST_F(AgentTasks, AreScheduledUnderTheirNamesByTheCallOfTheirKind) {
    start();
    in_loop([] {
        test::set_timer_seconds(1000);
        scc::cancel_all_tasks();
        test::forget_added_tasks();
        const int fd = g_scc_client_cb.async_fd.load();
        for (const task_kind_row& row : task_kind_rows) {
            static int ignored;
            void* const arg = row.takes_argument ? std::calloc(1, 568) : &ignored;
            EXPECT_EQ(_scc_lib_thread_event(row.kind, arg, fd), 0) << row.name;
            ASSERT_EQ(test::added_tasks(row.name).size(), 1U) << row.name;
            const test::added_task added = test::added_tasks(row.name).front();
            EXPECT_EQ(added.call, row.call) << row.name;
            EXPECT_EQ(added.handler, row.handler) << row.name;
            EXPECT_EQ(added.arg, row.takes_argument ? arg : nullptr) << row.name;
            EXPECT_EQ(added.number, std::vector<long>({0, 3, fd, fd})[row.kind]) << row.name;
            EXPECT_TRUE(scc::is_pending(static_cast<scc::task_kind>(row.kind))) << row.name;
            if (row.kind == 3) std::free(added.arg);
        }
        scc::cancel_all_tasks();
    });
}

TEST_F(AgentTasks, ThatTheLoopRefusesAreLoggedWithTheirOwnText) {
    start();
    for (const task_kind_row& row : task_kind_rows) {
        on_loop([&row] {
            scc::cancel_all_tasks();
            const test::debugging on;
            test::refuse_to_add(row.call, 1);
            EXPECT_EQ(_scc_lib_thread_event(row.kind, nullptr, 0), -1) << row.name;
            EXPECT_EQ(test::log_texts(), std::vector<std::string>{row.failure});
            EXPECT_FALSE(scc::is_pending(static_cast<scc::task_kind>(row.kind))) << row.name;
            return 0U;
        });
    }
}

TEST_F(AgentTasks, ToConnectAreScheduledAgainUntilTheLoopTakesThem) {
    EXPECT_EQ(on_loop([this] {
                  test::refuse_to_add(adding::event, 1);
                  return scc_agent_init(&info, master);
              }),
              0U);
    daemon.accept_registration();
    EXPECT_EQ(test::statuses().wait(), 1U);
    const auto added = test::added_tasks("scc-connect");
    ASSERT_EQ(added.size(), 2U);
    EXPECT_TRUE(added[0].refused);
    EXPECT_EQ(added[0].arg, added[1].arg);
}

TEST_F(AgentTasks, ToReadAreScheduledAgainUntilTheLoopTakesThem) {
    test::refuse_to_add(adding::read_high, 1);
    start();
    EXPECT_EQ(test::added_tasks("scc-read").size(), 2U);
    EXPECT_TRUE(scc::is_pending(scc::task_read));
}

TEST_F(AgentTasks, ToReconnectAreScheduledAgainUntilTheLoopTakesThem) {
    start();
    test::refuse_to_add(adding::timer, 1);
    daemon.close_both();
    expect_reconnection();
    EXPECT_EQ(test::added_tasks("scc-reconnect").size(), 2U);
}

TEST_F(AgentTasks, ToConnectGiveTheirRecordBackWhenTheyAreCancelled) {
    start();
    in_loop([] {
        EXPECT_EQ(_scc_lib_thread_event(0, std::calloc(1, 568), -1), 0);  // the leak sanitizer counts
        EXPECT_TRUE(scc::is_pending(scc::task_connect));
        scc::cancel_all_tasks();
        EXPECT_FALSE(scc::is_pending(scc::task_connect));
    });
    test::set_timer_seconds(-1);
    settle();
    EXPECT_EQ(state(), 4U) << "a cancelled connect task has run";
}

TEST_F(AgentTasks, ToWriteSendTheirValueAsABatchedRequest) {
    start();
    const test::debugging on;
    on_loop([] {
        const int fd = g_scc_client_cb.async_fd.load();
        return static_cast<std::uint32_t>(
            _scc_lib_thread_event(3, write_argument(wire().u32(199).u32(3).text("abc")), fd));
    });
    const test::received_item item = daemon.read_item(side::async);
    EXPECT_EQ(item.type, 199);
    EXPECT_EQ(item.sub_id, 0);
    EXPECT_EQ(item.value, bytes(wire().text("abc")));
    EXPECT_TRUE(test::wait_for_log("type:199, len:3"));
}

TEST_F(AgentTasks, ToWriteForgetTheReadTaskAndNotThemselves) {
    start();
    ASSERT_TRUE(scc::is_pending(scc::task_read));
    on_loop([] {
        const int fd = g_scc_client_cb.async_fd.load();
        return static_cast<std::uint32_t>(
            _scc_lib_thread_event(3, write_argument(wire().u32(199).u32(0)), fd));
    });
    EXPECT_EQ(daemon.read_item(side::async).type, 199);
    settle();
    EXPECT_FALSE(scc::is_pending(scc::task_read));
    EXPECT_TRUE(scc::is_pending(scc::task_write));
}

// 22 counts among the errors that end a connection.
TEST_F(AgentTasks, ToWriteAnOversizedValueSendItAndThenStartTheConnectionOver) {
    start();
    const test::debugging on;
    on_loop([] {
        const int fd = g_scc_client_cb.async_fd.load();
        return static_cast<std::uint32_t>(
            _scc_lib_thread_event(3, write_argument(wire().u32(199).u32(8176).zeros(8176)), fd));
    });
    const test::received_item item = daemon.read_item(side::async);
    EXPECT_EQ(item.type, 199);
    EXPECT_EQ(item.value.size(), 8176U);
    EXPECT_TRUE(test::wait_for_log("scc msg send error. rv=22, Invalid argument"));
    expect_reconnection();
    EXPECT_TRUE(test::logged("scc client start to try re-reg."));
    EXPECT_FALSE(scc::is_pending(scc::task_write));
}

// What the write handler returns on the loop's thread.
test::event_queue<int>& returned() {
    static auto* queue = new test::event_queue<int>;
    return *queue;
}

int write_and_tell(qx_thread* task) {
    returned().push(_scc_lib_agent_write(task));
    return 0;
}

TEST_F(AgentTasks, ToWriteReturnZeroWhateverBecameOfTheSend) {
    start();
    for (const std::uint32_t length : {3U, 8176U}) {
        void* request = write_argument(wire().u32(199).u32(length).zeros(length));
        in_loop([&] {
            ASSERT_NE(qx_thread_add_event_withname(master, write_and_tell, request, 0, "test"), nullptr);
        });
        EXPECT_EQ(returned().wait(), 0) << length;
        EXPECT_EQ(daemon.read_item(side::async).value.size(), length);
    }
    expect_reconnection();
}

TEST_F(AgentTasks, ToWriteThatFailDuringAnUnregistrationOnlySetTheStateBack) {
    start();
    test::forget_added_tasks();
    on_loop([] {
        g_scc_client_cb.app_id.store(0);
        const int fd = g_scc_client_cb.async_fd.load();
        return static_cast<std::uint32_t>(
            _scc_lib_thread_event(3, write_argument(wire().u32(199).u32(8176).zeros(8176)), fd));
    });
    EXPECT_EQ(daemon.read_item(side::async).type, 199);
    settle();
    EXPECT_EQ(state(), 1U);
    EXPECT_TRUE(test::added_tasks("scc-reconnect").empty());
}

TEST_F(AgentTasks, EndAConnectionOnceHoweverManyNoticeItsLoss) {
    start();
    in_loop([] {
        test::set_timer_seconds(1000);
        const scc::u32 epoch = scc::connection_epoch();
        scc::u32 after = 0;
        EXPECT_TRUE(scc::end_connection(epoch, after));
        EXPECT_EQ(after, scc::connection_epoch());
        scc::schedule_reconnect(after);
        scc::u32 untouched = 0;
        EXPECT_FALSE(scc::end_connection(epoch, untouched));
        EXPECT_TRUE(scc::is_pending(scc::task_reconnect)) << "the second one cancelled the first one's timer";
        scc::schedule_read(epoch);
        EXPECT_FALSE(scc::is_pending(scc::task_read)) << "a closed connection is read";
    });
}

}  // namespace
