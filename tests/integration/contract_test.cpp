// What an application can rely on, however it starts: the same cases with the library's receive thread and
// with the application's event loop, against the real daemon process.
#include <gtest/gtest.h>
#include <qx_thread.h>
#include <scclib.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "devkit/sccd_support.h"
#include "support/events.h"

namespace {

using nlohmann::json;
using sccd_test::control;
using sccd_test::daemon_process;

constexpr std::uint32_t app_id = 7;

// What the handlers report. Never destroyed: the library's threads live as long as the process.
struct reports {
    test::event_queue<std::uint32_t> statuses;
    test::event_queue<std::pair<std::uint32_t, std::uint32_t>> results;  // call id, result
    test::event_queue<std::uint32_t> authmodes;
    test::event_queue<int> connections;
};

reports& seen() {
    static auto* one = new reports;
    return *one;
}

void on_status(std::uint32_t status) {
    seen().statuses.push(status);
}

void on_addr_learning(std::uint32_t result, std::uint32_t call_id, std::uint32_t, std::uint8_t) {
    seen().results.push({call_id, result});
}

void on_authmode(std::uint32_t mode) {
    seen().authmodes.push(mode);
}

void on_connection() {
    seen().connections.push(1);
}

enum class start { receive_thread, event_loop };

void PrintTo(start way, std::ostream* out) {
    *out << (way == start::receive_thread ? "receive thread" : "event loop");
}

// An application that starts and ends in one of the two modes. Its calls in between are the same.
class application {
  public:
    explicit application(start way) : way_(way) {
        if (way_ == start::event_loop) {
            static auto* kept = new std::vector<qx_thread_master*>;  // the library may still use it
            kept->push_back(qx_thread_master_create());
            master_ = kept->back();
            loop_ = std::thread([this] { qx_thread_master_run(master_); });
            scc_agent_set_connect_callback(on_connection);
        }
    }
    // The master is kept: the library may still use it.
    ~application() {
        if (loop_.joinable()) {
            qx_thread_master_stop(master_);
            loop_.join();
        }
    }
    application(const application&) = delete;
    application& operator=(const application&) = delete;

    std::uint32_t enter(const scc_reg_info& info) {
        if (way_ == start::receive_thread) {
            return scc_svr_reg(&info);
        }
        return on_loop([&] { return scc_agent_init(&info, master_); });
    }
    std::uint32_t leave() {
        return way_ == start::receive_thread ? scc_svr_unreg() : on_loop(scc_agent_finish);
    }

  private:
    using work = std::packaged_task<std::uint32_t()>;

    static int run_work(qx_thread* task) {
        (*static_cast<work*>(qx_thread_arg(task)))();
        return 0;
    }

    template <class Function>
    std::uint32_t on_loop(const Function& function) {
        work packaged(function);
        auto result = packaged.get_future();
        if (qx_thread_add_event_withname(master_, run_work, &packaged, 0, "test") == nullptr) {
            ADD_FAILURE() << "the loop takes no task";
            return ~0U;
        }
        return result.get();
    }

    start way_;
    qx_thread_master* master_ = nullptr;
    std::thread loop_;
};

class Contract : public ::testing::TestWithParam<start> {
  protected:
    explicit Contract(std::vector<std::string> daemon_arguments = {})
        : daemon(std::move(daemon_arguments)), app(GetParam()) {
        info.app_id = app_id;
        info.option = 1;
        info.handlers.server_status = on_status;
        info.handlers.addr_learning = on_addr_learning;
        info.handlers.authmode = on_authmode;
    }

    void enter() {
        ASSERT_EQ(app.enter(info), 0U);
        ASSERT_EQ(seen().statuses.wait(), 1U);
    }

    static void expect_result(std::uint32_t call_id, std::uint32_t result) {
        const auto got = seen().results.wait();
        ASSERT_TRUE(got.has_value());
        EXPECT_EQ(got->first, call_id);
        EXPECT_EQ(got->second, result);
    }

    static void expect_working_request() {
        std::uint32_t call_id = 0;
        ASSERT_EQ(scc_addr_learning(3, 1, &call_id), 0U);
        expect_result(call_id, 0);
    }

    // A failed first attempt is silent in thread mode; in event-loop mode the reconnection reports it as an
    // outage.
    void expect_late_registration() {
        if (GetParam() == start::event_loop) {
            EXPECT_EQ(seen().statuses.wait(), 0U);
        }
        EXPECT_EQ(seen().statuses.wait(), 1U);
    }

    static json clients() { return control({{"do", "clients"}})["clients"]; }

    void kill_daemon() {
        daemon.signal(SIGKILL);
        daemon.wait_for_end();
    }

    daemon_process daemon;
    application app;
    scc_reg_info info{};
};

std::string name_of_way(const ::testing::TestParamInfo<start>& way) {
    return way.param == start::receive_thread ? "WithAReceiveThread" : "WithAnEventLoop";
}

// The daemon traces every message, so this is only for cases with few of them.
class ContractWithATrace : public Contract {
  protected:
    ContractWithATrace() : Contract({"--trace"}) {}
};

const auto both_ways = ::testing::Values(start::receive_thread, start::event_loop);
INSTANTIATE_TEST_SUITE_P(, Contract, both_ways, name_of_way);
INSTANTIATE_TEST_SUITE_P(, ContractWithATrace, both_ways, name_of_way);

TEST_P(Contract, RegistersBothSocketsUnderItsAppIdPidAndOption) {
    enter();
    const json all = clients();
    ASSERT_EQ(all.size(), 1U);
    EXPECT_EQ(all[0]["app"], app_id);
    EXPECT_EQ(all[0]["pid"], getpid());
    EXPECT_EQ(all[0]["option"], 1);
    if (GetParam() == start::event_loop) {
        EXPECT_EQ(seen().connections.wait(), 1);
    }
}

TEST_P(Contract, GetsTheResultOfEachRequestUnderItsCallId) {
    enter();
    std::vector<std::uint32_t> call_ids(100);
    for (std::uint32_t& call_id : call_ids) {
        ASSERT_EQ(scc_addr_learning(3, 1, &call_id), 0U);
    }
    for (const std::uint32_t call_id : call_ids) {
        expect_result(call_id, 0);
    }
    EXPECT_EQ(call_ids.front(), 1U);
    EXPECT_EQ(call_ids.back(), 100U);
}

TEST_P(Contract, GetsTheDaemonsRefusalOfARequest) {
    enter();
    ASSERT_TRUE(control({{"do", "fail-next"}, {"type", 123}, {"result", 2005}})["ok"]);
    std::uint32_t call_id = 0;
    ASSERT_EQ(scc_addr_learning(3, 1, &call_id), 0U);
    expect_result(call_id, 2005);
    expect_working_request();
}

TEST_P(Contract, AsksAndIsAnsweredInOneCall) {
    enter();
    std::uint32_t count = 99;
    EXPECT_EQ(scc_arp_check_user_count_get(1, &count), 0U);
    EXPECT_EQ(count, 0U);
}

TEST_P(Contract, GetsANotification) {
    enter();
    ASSERT_TRUE(control({{"do", "notify-named"}, {"name", "authmode"}, {"mode", 77}})["ok"]);
    EXPECT_EQ(seen().authmodes.wait(), 77U);
}

TEST_P(Contract, AnswersThatItIsAlive) {
    enter();
    EXPECT_TRUE(control({{"do", "alive"}, {"app", app_id}, {"timeout_ms", 20000}})["ok"]);
}

TEST_P(Contract, ComesBackAfterItsDaemonWasKilledAndStartedAgain) {
    enter();
    expect_working_request();
    kill_daemon();
    EXPECT_EQ(seen().statuses.wait(), 0U);
    EXPECT_EQ(scc_addr_learning(3, 1, nullptr), 2004U);
    daemon.start();
    EXPECT_EQ(seen().statuses.wait(), 1U);
    EXPECT_EQ(clients().size(), 1U);
    expect_working_request();
    ASSERT_TRUE(control({{"do", "notify-named"}, {"name", "authmode"}, {"mode", 5}})["ok"]);
    EXPECT_EQ(seen().authmodes.wait(), 5U);
    EXPECT_EQ(seen().statuses.size(), 0U);
}

TEST_P(Contract, ComesBackAfterADaemonThatWasKilledUnderLoad) {
    enter();
    std::atomic<bool> over{false};
    std::thread load([&over] {
        while (!over) {
            (void)scc_addr_learning(3, 1, nullptr);
            std::uint32_t count = 0;
            (void)scc_arp_check_user_count_get(1, &count);
        }
    });
    for (int round = 0; round < 2; ++round) {
        ASSERT_TRUE(seen().results.wait().has_value());
        kill_daemon();
        EXPECT_EQ(seen().statuses.wait(), 0U);
        daemon.start();
        EXPECT_EQ(seen().statuses.wait(), 1U);
    }
    over = true;
    load.join();
    EXPECT_EQ(seen().statuses.size(), 0U);
    EXPECT_EQ(clients().size(), 1U);
}

TEST_P(Contract, FindsADaemonThatStartsLater) {
    kill_daemon();
    ASSERT_EQ(app.enter(info), 0U);
    EXPECT_EQ(scc_addr_learning(3, 1, nullptr), 2004U);
    // An event loop reports its first failed attempt, and the daemon is started after that: under load it
    // could otherwise be ready before the attempt.
    if (GetParam() == start::event_loop) {
        EXPECT_EQ(seen().statuses.wait(), 0U);
    }
    daemon.start();
    EXPECT_EQ(seen().statuses.wait(), 1U);
    expect_working_request();
}

TEST_P(Contract, TriesAgainAfterTheDaemonRefusedIt) {
    ASSERT_TRUE(control({{"do", "fail-next"}, {"type", 301}, {"result", 2000}})["ok"]);
    ASSERT_EQ(app.enter(info), 0U);
    expect_late_registration();
    expect_working_request();
}

TEST_P(ContractWithATrace, WaitsForAnAppIdThatAnotherProcessHolds) {
    const pid_t holder = fork();
    if (holder == 0) {
        pause();
        _exit(0);
    }
    auto client =
        std::make_unique<sccd_test::test_client>(daemon, app_id, static_cast<std::uint32_t>(holder));
    ASSERT_EQ(app.enter(info), 0U);
    const std::string refusal = daemon.read_line_with("owner=" + std::to_string(holder));
    EXPECT_NE(refusal.find("registration-reply"), std::string::npos);
    EXPECT_EQ(scc_addr_learning(3, 1, nullptr), 2004U);
    client.reset();
    kill(holder, SIGKILL);
    waitpid(holder, nullptr, 0);
    expect_late_registration();
}

TEST_P(Contract, RegistersOnceHoweverOftenItIsStarted) {
    enter();
    EXPECT_EQ(app.enter(info), 0U);
    EXPECT_EQ(clients().size(), 1U);
    expect_working_request();
}

TEST_P(Contract, LeavesNoClientAndNoSocketFile) {
    enter();
    expect_working_request();
    EXPECT_EQ(app.leave(), 0U);
    EXPECT_TRUE(clients().empty());
    EXPECT_EQ(scc_addr_learning(3, 1, nullptr), 2004U);
    const std::string pid = std::to_string(getpid());
    EXPECT_FALSE(std::filesystem::exists(daemon.socket_directory() + "/.sccl_sd1_" + pid));
    EXPECT_FALSE(std::filesystem::exists(daemon.socket_directory() + "/.sccl_sd2_" + pid));
    EXPECT_EQ(seen().statuses.size(), 0U);
}

TEST_P(Contract, LeavesTwiceWithoutHarm) {
    EXPECT_EQ(app.leave(), 0U);
    enter();
    EXPECT_EQ(app.leave(), 0U);
    EXPECT_EQ(app.leave(), 0U);
}

TEST_P(Contract, StaysWhenTheDaemonRefusesToLetItGo) {
    enter();
    ASSERT_TRUE(control({{"do", "fail-next"}, {"type", 302}, {"result", 9}})["ok"]);
    EXPECT_EQ(app.leave(), 2001U);
    expect_working_request();
    EXPECT_EQ(app.leave(), 0U);
}

TEST_P(Contract, EntersAgainWithFreshCallIds) {
    for (int round = 0; round < 3; ++round) {
        enter();
        std::uint32_t call_id = 0;
        ASSERT_EQ(scc_addr_learning(3, 1, &call_id), 0U);
        EXPECT_EQ(call_id, 1U);
        expect_result(1, 0);
        EXPECT_EQ(app.leave(), 0U);
    }
}

TEST_P(Contract, RefusesWhatIsNoRegistration) {
    for (const std::uint32_t wrong : {0U, 20U}) {
        info.app_id = wrong;
        EXPECT_EQ(app.enter(info), 22U);
    }
    EXPECT_TRUE(clients().empty());
}

}  // namespace
