// A second start at each moment of the first one: before any of its threads has run, in the following
// milliseconds, and by another thread at the same time. New threads can be held back, so that only the
// effects of the call itself are visible.
#include <algorithm>
#include <array>
#include <barrier>
#include <cerrno>
#include <chrono>
#include <cstddef>

#include "fault_support.h"
#include "msg/paths.h"

using test::call;
using test::side;

namespace {

struct told_status {
    std::uint32_t app_id;  // of the start whose handler was called
    std::uint32_t status;

    bool operator==(const told_status&) const = default;
};

std::ostream& operator<<(std::ostream& out, const told_status& told) {
    return out << "status " << told.status << " to app id " << told.app_id;
}

test::event_queue<told_status>& told() {
    static auto* queue = new test::event_queue<told_status>;
    return *queue;
}

template <std::uint32_t AppId>
void tell(std::uint32_t status) {
    told().push({AppId, status});
}

template <std::uint32_t AppId>
std::uint32_t begin_application() {
    scc_reg_info info{};
    info.app_id = AppId;
    info.handlers.server_status = tell<AppId>;
    return scc_svr_reg(&info);
}

std::uint32_t begin_service() {
    scc_ss_reg_info info{};
    info.server_status = tell<16>;
    return scc_ss_reg(&info);
}

struct start_kind {
    std::uint32_t app_id;
    int threads;
    std::uint32_t (*begin)();
};

constexpr std::array start_kinds = {
    start_kind{7, 2, begin_application<7>},
    start_kind{9, 2, begin_application<9>},
    start_kind{16, 3, begin_service},
};

std::string already_registered(const start_kind& kind) {
    return "(app id:" + std::to_string(kind.app_id) + ", pid:" + test::own_pid() + ") already registered!";
}

// The first start's kind, then the second one's.
class SecondStart : public test::fault_test,
                    public ::testing::WithParamInterface<std::tuple<std::size_t, std::size_t>> {
  protected:
    SecondStart() { test::end_faults(); }
    ~SecondStart() override { test::release_new_threads(); }

    static const start_kind& first() { return start_kinds[std::get<0>(GetParam())]; }
    static const start_kind& second() { return start_kinds[std::get<1>(GetParam())]; }

    static int threads_made() { return test::calls(call::pthread_create); }

    // One start has registered, once on each socket, and nothing else is in flight.
    void expect_one_registration(const start_kind& kind) {
        const auto [sync, async] = daemon.accept_registration();
        EXPECT_EQ(test::u32_at(sync, 0), kind.app_id);
        EXPECT_EQ(test::u32_at(async, 0), kind.app_id);
        EXPECT_EQ(told().wait(), (told_status{kind.app_id, 1}));
        ASSERT_EQ(scc_warterline_notify(1), 0U);
        EXPECT_EQ(daemon.read_item(side::sync).type, 220);
        ASSERT_EQ(scc_addr_learning(1, 1, nullptr), 0U);
        EXPECT_EQ(daemon.read_item(side::async).type, 123);
        EXPECT_EQ(g_scc_client_cb.app_id.load(), kind.app_id);
        EXPECT_EQ(told().size(), 0U);
    }
};

TEST_P(SecondStart, BeforeAThreadOfTheFirstHasRunChangesNothing) {
    test::hold_new_threads();
    ASSERT_EQ(first().begin(), 0U);
    EXPECT_EQ(threads_made(), first().threads);
    {
        const test::debugging on;
        EXPECT_EQ(second().begin(), 0U);
        EXPECT_EQ(test::log_texts(), std::vector<std::string>{already_registered(second())});
    }
    EXPECT_EQ(threads_made(), first().threads);
    EXPECT_EQ(g_scc_client_cb.app_id.load(), first().app_id);
    test::release_new_threads();
    expect_one_registration(first());
}

TEST_P(SecondStart, WithinMillisecondsOfTheFirstChangesNothing) {
    constexpr int rounds_per_delay = 5;
    for (const int microseconds : {0, 200, 1000, 5000}) {
        for (int round = 0; round < rounds_per_delay; ++round) {
            SCOPED_TRACE(microseconds);
            test::end_faults();
            ASSERT_EQ(first().begin(), 0U);
            const test::debugging on;
            std::this_thread::sleep_for(std::chrono::microseconds(microseconds));
            EXPECT_EQ(second().begin(), 0U);
            ASSERT_TRUE(test::logged(already_registered(second())));
            ASSERT_EQ(threads_made(), first().threads);
            expect_one_registration(first());
            stop();
        }
    }
}

TEST_P(SecondStart, ByAnotherThreadAtTheSameTimeChangesNothing) {
    for (int round = 0; round < 20; ++round) {
        SCOPED_TRACE(round);
        test::end_faults();
        const test::debugging on;
        if (round % 2 == 0) {
            test::hold_new_threads();
        }
        std::barrier both(2);
        std::thread beside([&both] {
            both.arrive_and_wait();
            EXPECT_EQ(second().begin(), 0U);
        });
        both.arrive_and_wait();
        EXPECT_EQ(first().begin(), 0U);
        beside.join();
        test::release_new_threads();
        const bool first_won = g_scc_client_cb.app_id.load() == first().app_id;
        const start_kind& winner = first_won ? first() : second();
        const start_kind& loser = first_won ? second() : first();
        ASSERT_EQ(std::ranges::count(test::log_texts(), already_registered(loser)), 1);
        ASSERT_EQ(threads_made(), winner.threads);
        expect_one_registration(winner);
        stop();
    }
}

TEST_P(SecondStart, AfterAnUnregistrationBegins) {
    ASSERT_EQ(first().begin(), 0U);
    expect_one_registration(first());
    for (const start_kind* next : {&second(), &first(), &second()}) {
        stop();
        ASSERT_EQ(next->begin(), 0U);
        expect_one_registration(*next);
    }
}

TEST_P(SecondStart, AfterOneThatHadTooFewThreadsBegins) {
    for (int nth = 1; nth <= first().threads; ++nth) {
        SCOPED_TRACE(nth);
        test::hold_new_threads();
        test::fail_call(call::pthread_create, nth, EAGAIN);
        EXPECT_NE(first().begin(), 0U);
        EXPECT_TRUE(test::end_faults());
        EXPECT_EQ(second().begin(), 0U);
        EXPECT_EQ(g_scc_client_cb.app_id.load(), second().app_id);
        test::release_new_threads();
        expect_one_registration(second());
        stop();
    }
}

std::string name_of(const ::testing::TestParamInfo<SecondStart::ParamType>& info) {
    static constexpr std::array<const char*, 3> names = {"Application", "OtherApplication", "Service"};
    return std::string(names[std::get<0>(info.param)]) + "Then" + names[std::get<1>(info.param)];
}

INSTANTIATE_TEST_SUITE_P(EachPair, SecondStart,
                         ::testing::Combine(::testing::Range(std::size_t{0}, std::size_t{3}),
                                            ::testing::Range(std::size_t{0}, std::size_t{3})),
                         name_of);

using StartFromHandler = test::fault_test;

void start_over(std::uint8_t) {
    EXPECT_EQ(scc_svr_unreg(), 0U);
    EXPECT_EQ(begin_application<9>(), 0U);
    test::entered().push(1);
}

TEST_F(StartFromHandler, AfterAnUnregistrationInTheSameHandlerBegins) {
    info.handlers.station_move = start_over;
    start();
    daemon.send_item(side::async, 210, test::wire().u32(1).u8(1));
    daemon.answer_unregistration();
    EXPECT_EQ(test::u32_at(daemon.accept_registration().first, 0), 9U);
    EXPECT_TRUE(test::entered().wait());
    EXPECT_EQ(told().wait(), (told_status{9, 1}));
    EXPECT_EQ(test::statuses().size(), 0U);
    stop();
}

// A directory that is made leaves the error number of an earlier call alone.
TEST(DirectoryFaults, AnEarlierErrorIsNotTakenForThatOfTheDirectory) {
    const test::temp_dir directory;
    const int before = test::calls(test::call::mkdir);  // a profile has made directories
    test::on_call(test::call::mkdir, [] {
        test::on_call(test::call::mkdir, [] { test::on_call(test::call::mkdir, [] { errno = EIO; }); });
    });
    EXPECT_EQ(_scc_dir_create((directory.path() + "/new").c_str()), 0U);
    EXPECT_EQ(test::calls(test::call::mkdir), before + 3);
}

}  // namespace
