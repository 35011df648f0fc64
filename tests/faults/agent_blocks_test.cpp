// Memory of the event-loop agent: whatever it does again and again keeps no block.
#include <cstdlib>
#include <cstring>

#include "client/descriptors.h"
#include "support/faults.h"
#include "support/loop_application.h"
#include "support/waiting.h"

using test::bytes;
using test::side;
using test::wire;

namespace {

test::event_queue<std::uint8_t>& moves() {
    static auto* queue = new test::event_queue<std::uint8_t>;
    return *queue;
}

class AgentBlocks : public test::loop_application {
  protected:
    AgentBlocks() {
        info.handlers.station_move = [](std::uint8_t permitted) { moves().push(permitted); };
    }
    ~AgentBlocks() override { test::end_faults(); }

    template <class Act>
    void expect_none_kept(Act act) {
        act();
        settle();
        const long before = test::live_blocks();
        for (int round = 0; round < 20 && !HasFailure(); ++round) {
            act();
        }
        settle();
        EXPECT_TRUE(test::eventually([before] { return test::live_blocks() <= before; }))
            << test::live_blocks() - before << " blocks more";
    }
};

TEST_F(AgentBlocks, AreKeptByNoRegistration) {
    expect_none_kept([this] {
        start();
        EXPECT_EQ(finish(), 0U);
    });
}

TEST_F(AgentBlocks, AreKeptByNoMessage) {
    start();
    expect_none_kept([this] {
        daemon.send_item(side::async, 210, wire().u32(1).u8(1));
        EXPECT_EQ(moves().wait(), 1);
    });
}

TEST_F(AgentBlocks, AreKeptByNoWriteTask) {
    start();
    expect_none_kept([this] {
        in_loop([] {
            const bytes request = wire().u32(199).u32(3).text("abc");
            void* argument = std::malloc(request.size());
            std::memcpy(argument, request.data(), request.size());
            EXPECT_EQ(_scc_lib_thread_event(scc::task_write, argument, g_scc_client_cb.async_fd.load()), 0);
        });
        EXPECT_EQ(daemon.read_item(side::async).type, 199);
    });
}

TEST_F(AgentBlocks, AreKeptByNoTaskThatTheLoopRefuses) {
    start();
    expect_none_kept([this] {
        in_loop([] {
            test::refuse_to_add(test::adding::timer, 1);
            EXPECT_EQ(_scc_lib_thread_event(scc::task_reconnect, nullptr, 0), -1);
        });
    });
}

TEST_F(AgentBlocks, AreKeptByNoConnectTaskThatIsCancelled) {
    start();
    expect_none_kept([this] {
        in_loop([] {
            EXPECT_EQ(_scc_lib_thread_event(scc::task_connect, std::calloc(1, sizeof(scc_reg_info)), -1), 0);
            scc::cancel_all_tasks();
        });
    });
}

TEST_F(AgentBlocks, AreKeptByNoStartWithoutAThread) {
    expect_none_kept([this] {
        test::fail_call(test::call::pthread_create, 1, 11);
        EXPECT_EQ(scc_agent_init(&info, master), 11U);
        EXPECT_TRUE(test::end_faults());
    });
}

// A start in thread mode comes first, while the agent's creates its directory.
TEST_F(AgentBlocks, AreKeptByNoStartThatFindsAnother) {
    static const scc_reg_info thread_mode = info;
    const auto register_as_thread = [this] {
        daemon.accept_registration();
        ASSERT_EQ(test::statuses().wait(), 1U);
        auto ending = std::async(std::launch::async, [] { return scc_svr_unreg(); });
        daemon.answer_unregistration();
        EXPECT_EQ(ending.get(), 0U);
        ASSERT_TRUE(test::eventually([] { return !scc::is_started(scc::start_kind::thread); }));
    };
    expect_none_kept([&] {
        test::on_call(test::call::mkdir, [] { EXPECT_EQ(scc_svr_reg(&thread_mode), 0U); });
        EXPECT_EQ(scc_agent_init(&info, master), 0U);
        EXPECT_EQ(g_scc_client_cb.thread_mode.load(), 1U);
        register_as_thread();
    });
}

}  // namespace
