// The agent's four tasks: how they are added to the loop, what happens when the loop refuses them, and the
// write task, which only tests schedule.
#include "agent/agent_tasks.h"

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>

#include "client/descriptors.h"
#include "client/request_channel.h"
#include "support/loop_application.h"

using test::adding;
using test::bytes;
using test::side;
using test::wire;

extern "C" std::atomic<std::uint8_t> g_send_buf_chk_enabled;

namespace {

test::event_queue<std::uint8_t>& moves() {
    static auto* queue = new test::event_queue<std::uint8_t>;
    return *queue;
}

class AgentTasks : public test::loop_application {
  protected:
    AgentTasks() {
        info.handlers.station_move = [](std::uint8_t permitted) { moves().push(permitted); };
    }

    // The loop watches the asynchronous socket: everything that the daemon sends is delivered.
    void expect_reading() {
        for (const std::uint8_t permitted : bytes{1, 0, 1}) {
            daemon.send_item(side::async, 210, wire().u32(1).u8(permitted));
            ASSERT_EQ(moves().wait(), permitted) << "the loop does not read";
        }
    }
};

// No checker thread runs, so a batch waits until it is full.
class AgentTasksUnflushed : public AgentTasks {
  protected:
    AgentTasksUnflushed() { g_send_buf_chk_enabled = 1; }
};

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
            // Freed with the task: the leak sanitizer checks.
            void* const arg = row.takes_argument ? std::calloc(1, 568) : &ignored;
            EXPECT_EQ(_scc_lib_thread_event(row.kind, arg, fd), 0) << row.name;
            ASSERT_EQ(test::added_tasks(row.name).size(), 1U) << row.name;
            const test::added_task added = test::added_tasks(row.name).front();
            EXPECT_EQ(added.call, row.call) << row.name;
            EXPECT_EQ(added.handler, row.handler) << row.name;
            EXPECT_EQ(added.arg, row.takes_argument ? arg : nullptr) << row.name;
            EXPECT_EQ(added.number, std::vector<long>({0, 3, fd, fd})[row.kind]) << row.name;
            EXPECT_TRUE(scc::is_pending(static_cast<scc::task_kind>(row.kind))) << row.name;
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
        EXPECT_EQ(_scc_lib_thread_event(0, std::calloc(1, 568), -1), 0);  // the leak sanitizer checks
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

TEST_F(AgentTasks, ToWriteLeaveTheReadTaskToTheRecoveryAndForgetThemselves) {
    start();
    ASSERT_TRUE(scc::is_pending(scc::task_read));
    on_loop([] {
        const int fd = g_scc_client_cb.async_fd.load();
        return static_cast<std::uint32_t>(
            _scc_lib_thread_event(3, write_argument(wire().u32(199).u32(0)), fd));
    });
    EXPECT_EQ(daemon.read_item(side::async).type, 199);
    settle();
    EXPECT_TRUE(scc::is_pending(scc::task_read));
    EXPECT_FALSE(scc::is_pending(scc::task_write));
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
TEST_F(AgentTasks, ToWriteReturnZeroWhateverBecameOfTheSend) {
    start();
    for (const std::uint32_t length : {3U, 8176U}) {
        void* request = write_argument(wire().u32(199).u32(length).zeros(length));
        in_loop([&] { ASSERT_EQ(_scc_lib_thread_event(3, request, g_scc_client_cb.async_fd.load()), 0); });
        EXPECT_EQ(test::task_results("scc-write").wait(), 0) << length;
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

// What the loop passes to a handler on a platform whose tasks are not handles.
qx_thread* task_object() {
    static std::uint64_t object[8];
    return reinterpret_cast<qx_thread*>(object);
}

bytes write_request(std::uint32_t type, const std::string& text) {
    return wire().u32(type).u32(static_cast<std::uint32_t>(text.size())).text(text);
}

// Schedules a write task and leaves it to the test to run it.
test::added_task kept_write(std::uint32_t type, const std::string& text) {
    test::keep_from_loop("scc-write");
    EXPECT_EQ(_scc_lib_thread_event(3, write_argument(write_request(type, text)), 1), 0);
    test::keep_from_loop("");
    return test::added_tasks("scc-write").back();
}

void expect_item(const test::received_item& item, std::uint16_t type, const std::string& text) {
    EXPECT_EQ(item.type, type);
    EXPECT_EQ(item.value, bytes(wire().text(text)));
}

TEST_F(AgentTasks, ToWriteThatWaitTogetherSendTheirOwnRequests) {
    start();
    in_loop([] {
        std::vector<test::added_task> tasks;
        for (const char* text : {"a", "bb", "ccc"}) {
            tasks.push_back(kept_write(190 + static_cast<std::uint32_t>(std::strlen(text)), text));
        }
        for (const std::size_t next : {2U, 0U, 1U}) {
            EXPECT_TRUE(test::run_kept(tasks[next], tasks[next].handle));
        }
    });
    expect_item(daemon.read_item(side::async), 193, "ccc");
    expect_item(daemon.read_item(side::async), 191, "a");
    expect_item(daemon.read_item(side::async), 192, "bb");
}

TEST_F(AgentTasks, ToWriteOnTheLoopTogetherSendTheirOwnRequests) {
    start();
    in_loop([] {
        const int fd = g_scc_client_cb.async_fd.load();
        for (std::uint32_t i = 0; i < 40; ++i) {
            EXPECT_EQ(
                _scc_lib_thread_event(3, write_argument(write_request(300 + i, std::string(i, 'x'))), fd), 0);
        }
    });
    std::vector<std::uint16_t> types;
    for (const test::received_item& item : daemon.read_items(side::async, 40)) {
        EXPECT_EQ(item.value.size(), item.type - 300U);
        types.push_back(item.type);
    }
    std::ranges::sort(types);
    for (std::size_t i = 0; i < 40; ++i) {
        EXPECT_EQ(types.at(i), 300 + i);
    }
}

// Stands for the oldest task of the kind.
TEST_F(AgentTasks, ThatAreNotTheirHandleFindTheirArguments) {
    start();
    in_loop([] {
        const auto first = kept_write(191, "a");
        const auto second = kept_write(192, "bb");
        EXPECT_TRUE(test::run_kept(first, task_object()));
        EXPECT_TRUE(test::run_kept(second, task_object()));
    });
    expect_item(daemon.read_item(side::async), 191, "a");
    expect_item(daemon.read_item(side::async), 192, "bb");
    EXPECT_EQ(finish(), 0U);
    test::keep_from_loop("scc-connect");
    ASSERT_EQ(init(), 0U);
    test::keep_from_loop("");
    auto connecting = std::async(std::launch::async, [this] {
        in_loop([] { EXPECT_TRUE(test::run_kept(test::added_tasks("scc-connect").back(), task_object())); });
    });
    EXPECT_EQ(test::u32_at(daemon.accept_registration().first, 0), 7U);
    EXPECT_EQ(test::statuses().wait(), 1U);
    connecting.get();
    expect_reading();
}

// Their requests still belong to the scheduling caller.
TEST_F(AgentTasks, ToWriteThatAreCancelledSendNothing) {
    start();
    in_loop([] {
        const auto first = kept_write(191, "a");
        const auto second = kept_write(192, "bb");
        scc::cancel_all_tasks();
        EXPECT_EQ(test::cancelled_tasks("scc-write").size(), 2U);
        EXPECT_FALSE(test::run_kept(first, first.handle));
        EXPECT_FALSE(test::run_kept(second, second.handle));
        std::free(first.arg);
        std::free(second.arg);
    });
    expect_working_requests();
}

// The loop was about to run them when they were cancelled.
TEST_F(AgentTasks, OfEachKindDoNothingOnceTheyAreCancelled) {
    start();
    in_loop([] {
        test::set_timer_seconds(1000);
        scc::cancel_all_tasks();
        for (const task_kind_row& row : task_kind_rows) {
            void* const arg = row.takes_argument ? std::calloc(1, 568) : nullptr;
            ASSERT_EQ(_scc_lib_thread_event(row.kind, arg, g_scc_client_cb.async_fd.load()), 0) << row.name;
            const test::added_task added = test::added_tasks(row.name).back();
            scc::cancel_all_tasks();
            test::forget_added_tasks();
            EXPECT_EQ(row.handler(added.handle), 0) << row.name;
            EXPECT_TRUE(test::added_tasks().empty()) << row.name;
            if (row.kind == 3) {
                std::free(arg);
            }
        }
    });
    EXPECT_EQ(state(), 4U);
    EXPECT_EQ(test::statuses().size(), 0U);
    expect_working_requests();
}

TEST_F(AgentTasks, ToReadAreNotScheduledWhileTheAppIdIsAway) {
    start();
    in_loop([] {
        test::forget_added_tasks();
        const std::uint32_t app_id = g_scc_client_cb.app_id.exchange(0);
        scc::schedule_read(scc::connection_epoch());
        EXPECT_TRUE(test::added_tasks().empty());
        g_scc_client_cb.app_id = app_id;
    });
}

TEST_F(AgentTasks, ToReadAreCancelledBeforeTheirSocketIsClosedByAWriteThatFailed) {
    start();
    for (int round = 0; round < 3; ++round) {
        settle();  // the read task adds itself again after its handler
        const int fd = g_scc_client_cb.async_fd.load();
        const qx_thread* const reading = test::added_tasks("scc-read").back().handle;
        in_loop([fd] {
            EXPECT_EQ(_scc_lib_thread_event(3, write_argument(wire().u32(199).u32(8176).zeros(8176)), fd), 0);
        });
        EXPECT_EQ(daemon.read_item(side::async).type, 199);
        expect_reconnection();
        const auto cancelled = test::cancelled_tasks("scc-read");
        ASSERT_FALSE(cancelled.empty()) << "the read task was left on the loop";
        EXPECT_EQ(cancelled.back().handle, reading);
        EXPECT_TRUE(cancelled.back().open) << "its socket was closed first";
        expect_reading();
    }
}

TEST_F(AgentTasksUnflushed, ToReadAreCancelledWhenAWriteFindsTheConnectionDead) {
    test::keep_from_loop("scc-read");  // only the write notices
    start();
    test::keep_from_loop("");
    const int fd = g_scc_client_cb.async_fd.load();
    ASSERT_EQ(shutdown(daemon.fd(side::async), SHUT_RD), 0);
    in_loop([fd] {
        const bytes half(5000, 1);
        ASSERT_EQ(_scc_lib_msg_send_bt(0, 900, half.data(), 5000, 0), 0U);
        EXPECT_EQ(_scc_lib_thread_event(3, write_argument(wire().u32(199).u32(5000).add(half)), fd), 0);
    });
    expect_reconnection();
    const auto cancelled = test::cancelled_tasks("scc-read");
    ASSERT_EQ(cancelled.size(), 1U) << "the read task was left on the loop";
    EXPECT_TRUE(cancelled.front().open) << "its socket was closed first";
    expect_reading();
}

TEST_F(AgentTasks, ToReadThatAWriteHasForgottenAreCancelledAtTheEnd) {
    start();
    const int fd = g_scc_client_cb.async_fd.load();
    in_loop([fd] { EXPECT_EQ(_scc_lib_thread_event(3, write_argument(write_request(199, "abc")), fd), 0); });
    expect_item(daemon.read_item(side::async), 199, "abc");
    settle();
    EXPECT_EQ(finish(), 0U);
    const auto cancelled = test::cancelled_tasks("scc-read");
    ASSERT_EQ(cancelled.size(), 1U) << "the read task was left on the loop";
    EXPECT_TRUE(cancelled.front().open) << "its socket was closed first";
    start();
    expect_reading();
}

TEST_F(AgentTasks, ToReadThatAWriteHasForgottenGoOnReading) {
    start();
    const int fd = g_scc_client_cb.async_fd.load();
    in_loop([fd] { EXPECT_EQ(_scc_lib_thread_event(3, write_argument(write_request(199, "abc")), fd), 0); });
    expect_item(daemon.read_item(side::async), 199, "abc");
    expect_reading();
    daemon.close_both();
    expect_reconnection();
    expect_reading();
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

// ---- which record a task finds

TEST_F(AgentTasks, AreTakenByTheirOwnKindAlone) {
    start();
    in_loop([] {
        const test::added_task write = kept_write(191, "a");
        EXPECT_EQ(scc::take_task(scc::task_read, write.handle).argument, nullptr);
        EXPECT_TRUE(scc::is_pending(scc::task_write));
        EXPECT_TRUE(test::run_kept(write, write.handle));
    });
    expect_item(daemon.read_item(side::async), 191, "a");
}

TEST_F(AgentTasks, WithoutAHandleAreTheOldestOfTheirKind) {
    start();
    in_loop([] {
        test::set_timer_seconds(1000);
        scc::schedule_reconnect(scc::connection_epoch());
        ASSERT_TRUE(scc::is_pending(scc::task_reconnect));
        EXPECT_TRUE(scc::take_task(scc::task_reconnect, nullptr).found);
        EXPECT_FALSE(scc::is_pending(scc::task_reconnect));
    });
}

// The loop was about to run it. A later task of its kind is not its own.
TEST_F(AgentTasks, ThatWereCancelledLeaveTheOthersOfTheirKindAlone) {
    start();
    in_loop([] {
        const test::added_task cancelled = kept_write(191, "a");
        scc::cancel_all_tasks();
        std::free(cancelled.arg);
        const test::added_task waiting = kept_write(192, "bb");
        EXPECT_EQ(cancelled.handler(cancelled.handle), 0);
        EXPECT_TRUE(scc::is_pending(scc::task_write));
        EXPECT_TRUE(test::run_kept(waiting, waiting.handle));
    });
    expect_item(daemon.read_item(side::async), 192, "bb");
}

TEST_F(AgentTasks, OfTheSmallestAppIdAreScheduledLikeAnyOther) {
    info.app_id = 1;
    start();
    expect_reading();
    daemon.close_both();
    expect_reconnection();
    expect_reading();
}

// ---- what they return and log

TEST_F(AgentTasks, ThatSucceedReturnZeroAndLogNoFailure) {
    const test::debugging on;
    start();
    EXPECT_EQ(test::task_results("scc-connect").wait(), 0);
    daemon.send_item(side::async, 210, wire().u32(1).u8(1));
    EXPECT_EQ(moves().wait(), 1);
    EXPECT_EQ(test::task_results("scc-read").wait(), 0);
    in_loop([] {
        const int fd = g_scc_client_cb.async_fd.load();
        EXPECT_EQ(_scc_lib_thread_event(3, write_argument(write_request(199, "abc")), fd), 0);
    });
    EXPECT_EQ(daemon.read_item(side::async).type, 199);
    EXPECT_EQ(test::task_results("scc-write").wait(), 0);
    EXPECT_EQ(test::logged_failures(), std::vector<std::string>{});
    daemon.close_both();
    expect_reconnection();
    EXPECT_EQ(test::task_results("scc-reconnect").wait(), 0);
}

TEST_F(AgentTasks, ToReadReturnTheErrorThatEndsTheReading) {
    start();
    test::set_timer_seconds(1000);
    daemon.close_both();
    EXPECT_EQ(test::task_results("scc-read").wait(), 32);
}

// ---- the pause between two attempts to schedule

TEST_F(AgentTasks, AreScheduledAgainTwoSecondsLater) {
    const auto elapsed_since = [](std::chrono::steady_clock::time_point before) {
        return std::chrono::steady_clock::now() - before;
    };
    const auto first = std::chrono::steady_clock::now();
    test::refuse_to_add(adding::event, 1);
    ASSERT_EQ(scc_agent_init(&info, master), 0U);
    EXPECT_GE(elapsed_since(first), std::chrono::milliseconds(1990));
    daemon.accept_registration();
    EXPECT_EQ(test::statuses().wait(), 1U);
    settle();
    in_loop([&] {
        scc::cancel_all_tasks();
        const auto second = std::chrono::steady_clock::now();
        test::refuse_to_add(adding::read_high, 1);
        scc::schedule_read(scc::connection_epoch());
        EXPECT_GE(elapsed_since(second), std::chrono::milliseconds(1990));
    });
    expect_reading();
}

}  // namespace
