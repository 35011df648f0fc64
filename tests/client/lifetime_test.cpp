// Telling registrations apart: whatever belongs to an ended one changes nothing, waits for nothing and is not
// called.
#include "client/lifetime.h"

#include "client/channel_support.h"
#include "client/descriptors.h"
#include "support/aside.h"
#include "support/one_at_a_time.h"

using test::aside;
using test::side;
using test::wire;

namespace {

class Lifetime : public ::testing::Test {
  protected:
    // As a registration leaves it.
    static void register_as(std::uint32_t app_id) {
        g_scc_client_cb.app_id = app_id;
        _scc_client_state_set(scc::state_registered);
    }

    // How a wait for the end of an unregistration ends after `act`.
    static bool survives_after(void (*act)()) {
        register_as(7);
        const std::uint32_t generation = scc::begin_generation();
        std::uint32_t app_id = 0;
        EXPECT_TRUE(scc::begin_unregistration(app_id));
        aside<bool> waiting([generation] { return scc::survives_unregistration(generation); });
        EXPECT_TRUE(waiting.waits_in(test::waiting_for_a_lock));
        act();
        EXPECT_TRUE(waiting.returns()) << "it waits for the end of the unregistration";
        scc::end_unregistration();
        return waiting.get();
    }

    static bool a_start_lives() { return scc::is_started(scc::start_kind::thread); }
};

TEST_F(Lifetime, AStartIsGivenUpByItsOwnGenerationAlone) {
    const std::uint32_t ended = scc::begin_generation(scc::start_kind::agent);
    const std::uint32_t current = scc::begin_generation(scc::start_kind::agent);
    scc::give_start_up(ended);
    EXPECT_TRUE(a_start_lives());
    scc::give_start_up(current);
    EXPECT_FALSE(a_start_lives());
}

TEST_F(Lifetime, ASecondUnregistrationIsRefusedWhileOneIsUnderWay) {
    register_as(7);
    std::uint32_t app_id = 0;
    ASSERT_TRUE(scc::begin_unregistration(app_id));
    EXPECT_EQ(app_id, 7U);
    std::uint32_t untouched = 5;
    EXPECT_FALSE(scc::begin_unregistration(untouched));
    EXPECT_EQ(untouched, 5U);
    scc::take_unregistration_back(app_id);
    EXPECT_TRUE(scc::begin_unregistration(app_id));
    scc::end_unregistration();
}

TEST_F(Lifetime, NothingStartsWhileAnUnregistrationIsUnderWay) {
    register_as(7);
    std::uint32_t app_id = 0;
    ASSERT_TRUE(scc::begin_unregistration(app_id));
    _scc_client_state_set(scc::state_idle);
    EXPECT_TRUE(a_start_lives());
    scc::end_unregistration();
    EXPECT_FALSE(a_start_lives());
}

// A send that failed meanwhile has reset the state.
TEST_F(Lifetime, ARefusedEndRestoresTheStateOfAConnectionThatStands) {
    for (const bool stands : {true, false}) {
        register_as(7);
        g_scc_client_cb.sync_fd = 0;
        g_scc_client_cb.async_fd = stands ? 0 : -1;
        std::uint32_t app_id = 0;
        ASSERT_TRUE(scc::begin_unregistration(app_id));
        scc::set_idle_of(scc::connection_epoch());
        scc::take_unregistration_back(app_id);
        EXPECT_EQ(g_scc_client_cb.state.load(), stands ? 4U : 1U);
        EXPECT_EQ(g_scc_client_cb.app_id.load(), 7U);
    }
}

TEST_F(Lifetime, TheWaitForAnUnregistrationEndsWithTheGeneration) {
    EXPECT_FALSE(survives_after(scc::end_generation));
}

// The app id is 0 meanwhile: a thread that went on would register as 0, or leave for good.
TEST_F(Lifetime, AResetWaitsForTheOutcomeOfAnUnregistration) {
    const std::uint32_t generation = scc::begin_generation();
    register_as(7);
    std::uint32_t app_id = 0;
    ASSERT_TRUE(scc::begin_unregistration(app_id));
    aside<std::uint32_t> resetting(
        [generation] { return scc::reset_connection(generation) ? g_scc_client_cb.app_id.load() : 99; });
    ASSERT_TRUE(resetting.waits_in(test::waiting_for_a_lock));
    scc::take_unregistration_back(app_id);
    EXPECT_EQ(resetting.get(), 7U);
    EXPECT_EQ(g_scc_client_cb.state.load(), 5U);
}

TEST_F(Lifetime, ATurnWithinAnotherIsGrantedToTheCurrentGenerationAlone) {
    const std::uint32_t ended = scc::begin_generation();
    const scc::delivery_turn outer(ended);
    EXPECT_TRUE(outer.granted());
    EXPECT_TRUE(scc::delivery_turn(ended).granted());
    const std::uint32_t current = scc::begin_generation();
    EXPECT_FALSE(scc::delivery_turn(ended).granted());
    EXPECT_TRUE(scc::delivery_turn(current).granted());
}

TEST_F(Lifetime, ATurnThatWaitsIsNotGrantedOnceItsGenerationHasEnded) {
    const scc::delivery_turn earlier(scc::begin_generation());
    ASSERT_TRUE(earlier.granted());
    const std::uint32_t generation = scc::begin_generation();
    aside<bool> waiting([generation] { return scc::delivery_turn(generation).granted(); });
    ASSERT_TRUE(waiting.waits_in(test::waiting_for_a_lock));
    scc::end_generation();
    EXPECT_TRUE(waiting.returns()) << "it waits for the earlier turn";
    EXPECT_FALSE(waiting.get());
}

TEST_F(Lifetime, AThreadThatIsNoReceiveThreadActsForTheCurrentGeneration) {
    const std::uint32_t ended = scc::begin_generation();
    EXPECT_EQ(scc::generation_of_this_thread(), ended);
    const std::uint32_t current = scc::begin_generation();
    EXPECT_EQ(scc::generation_of_this_thread(), current);
    aside<std::uint32_t> receiving([ended] {
        scc::belong_to_generation(ended);
        return scc::generation_of_this_thread();
    });
    EXPECT_EQ(receiving.get(), ended);
}

TEST_F(Lifetime, TheWaitForAnUnregistrationEndsWithIt) {
    EXPECT_TRUE(survives_after(scc::end_unregistration));
}

TEST_F(Lifetime, ARefusedEndLeavesAnyStateButIdleAsItIs) {
    g_scc_client_cb.sync_fd = 0;
    g_scc_client_cb.async_fd = 0;
    for (const std::uint32_t state : {2U, 3U, 5U}) {
        register_as(7);
        std::uint32_t app_id = 0;
        ASSERT_TRUE(scc::begin_unregistration(app_id));
        _scc_client_state_set(state);
        scc::take_unregistration_back(app_id);
        EXPECT_EQ(g_scc_client_cb.state.load(), state);
    }
}

TEST_F(Lifetime, IsLockedByWhoeverChangesIt) {
    ASSERT_EQ(pthread_mutex_lock(&scc::g_connection_mutex.handle), 0);
    aside<std::uint32_t> beginning([] { return scc::begin_generation(); });
    EXPECT_TRUE(beginning.waits_in(test::waiting_for_a_lock));
    pthread_mutex_unlock(&scc::g_connection_mutex.handle);
    const std::uint32_t begun = beginning.get();
    EXPECT_EQ(begun, scc::current_generation());
}

// ---- handlers of two registrations

// The handler of the first registration that runs when it ends, and how the daemon triggers it.
struct old_handler_row {
    const char* name;
    void (*install)(scc_handlers&);
    void (*provoke)(test::scripted_daemon&);
};

const old_handler_row old_handler_rows[] = {
    {"Status",
     [](scc_handlers& handlers) { handlers.server_status = [](std::uint32_t) { test::old_handler(); }; },
     [](test::scripted_daemon&) {}},
    {"Notification",
     [](scc_handlers& handlers) { handlers.station_move = [](std::uint8_t) { test::old_handler(); }; },
     [](test::scripted_daemon& daemon) { daemon.send_item(side::async, 210, wire().u32(1).u8(1)); }},
    {"Result",
     [](scc_handlers& handlers) {
         handlers.addr_learning = [](std::uint32_t, std::uint32_t, std::uint32_t, std::uint8_t) {
             test::old_handler();
         };
     },
     [](test::scripted_daemon& daemon) {
         ASSERT_EQ(scc_addr_learning(1, 1, nullptr), 0U);
         EXPECT_EQ(daemon.read_item(side::async).type, 123);
         daemon.send_result(1, 0);
     }},
};

class OneHandlerAtATime : public test::runtime_test, public ::testing::WithParamInterface<old_handler_row> {
  protected:
    // The old handler is running from here on, or has begun to act.
    void start() {
        info.app_id = 7;
        GetParam().install(info.handlers);
        ASSERT_EQ(scc_svr_reg(&info), 0U);
        daemon.accept_registration();
        ASSERT_TRUE(test::eventually([] { return g_scc_client_cb.state.load() == 4; }));
        GetParam().provoke(daemon);
    }
};

TEST_P(OneHandlerAtATime, WhenAnotherThreadRegistersAnew) {
    start();
    ASSERT_TRUE(test::entered().wait());
    std::thread beside([] {
        EXPECT_EQ(scc_svr_unreg(), 0U);
        test::register_again();
    });
    daemon.answer_unregistration();
    beside.join();
    test::expect_second_waits_for_first(daemon);
    stop();
}

TEST_P(OneHandlerAtATime, WhenTheHandlerItselfRegistersAnew) {
    test::inside_old_handler() = [] {
        EXPECT_EQ(scc_svr_unreg(), 0U);
        test::register_again();
    };
    start();
    daemon.answer_unregistration();
    ASSERT_TRUE(test::entered().wait());
    test::expect_second_waits_for_first(daemon);
    stop();
}

INSTANTIATE_TEST_SUITE_P(Handlers, OneHandlerAtATime, ::testing::ValuesIn(old_handler_rows),
                         [](const auto& row) { return std::string(row.param.name); });

}  // namespace
