// The installed scenarios, and what a real application of the library makes of each.
#include <scclib.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <set>
#include <thread>

#include "sccd_support.h"
#include "support/events.h"

namespace sccd_test {
namespace {

using nlohmann::json;
using call_result = std::pair<std::uint32_t, std::uint32_t>;  // call id, result

// Never destroyed: the library's threads live as long as the process.
struct reports {
    test::event_queue<std::uint32_t> statuses;
    test::event_queue<call_result> results;
};
reports& seen() {
    static auto* one = new reports;
    return *one;
}

void on_status(std::uint32_t status) {
    seen().statuses.push(status);
}
void on_learning(std::uint32_t result, std::uint32_t call_id, std::uint32_t, std::uint8_t) {
    seen().results.push({call_id, result});
}
void on_port_open(std::uint32_t result, std::uint32_t call_id, const scc_config_record*) {
    seen().results.push({call_id, result});
}

std::string scenario(const std::string& name) {
    return std::string(SCENARIO_DIR) + "/" + name + ".json";
}

class SccdScenarios : public ::testing::Test {
  protected:
    void begin(const std::string& name) {
        daemon.signal(SIGTERM);
        daemon.wait_for_end();
        daemon.set_arguments({"--scenario", scenario(name)});
        daemon.start();
        scc_reg_info info{};
        info.app_id = 7;
        info.handlers.server_status = on_status;
        info.handlers.addr_learning = on_learning;
        info.handlers.d1x_port_open = on_port_open;
        ASSERT_EQ(scc_svr_reg(&info), 0u);
        ASSERT_EQ(seen().statuses.wait(), 1u);
    }

    static std::uint32_t ask() {
        std::uint32_t call_id = 0;
        EXPECT_EQ(scc_addr_learning(3, 1, &call_id), 0u);
        return call_id;
    }
    // The library sends waiting requests together; asking and waiting keeps them apart.
    static void expect_answer(std::uint32_t call_id) {
        EXPECT_EQ(seen().results.wait(), (call_result{call_id, 0}));
    }
    static void expect_working_request() { expect_answer(ask()); }
    static void expect_reconnection() {
        EXPECT_EQ(seen().statuses.wait(), 0u);
        EXPECT_EQ(seen().statuses.wait(), 1u);
    }
    // Whether every result of the requests so far has been handled.
    static void expect_no_more_results() {
        expect_working_request();
        EXPECT_EQ(seen().results.size(), 0u);
    }

    daemon_process daemon;
};

TEST_F(SccdScenarios, RestartInBurstDropsTheOutstandingCallsAndReconnects) {
    begin("restart-in-burst");
    std::set<std::uint32_t> asked;
    std::uint32_t call_id = 0;
    // The library may notice the restart before the last of them.
    for (int count = 0; count < 200 && scc_addr_learning(3, 1, &call_id) == 0; ++count) {
        asked.insert(call_id);
    }
    EXPECT_GE(asked.size(), 50u);
    expect_reconnection();

    const std::uint32_t later = ask();
    std::optional<call_result> result = seen().results.wait();
    for (; result && result->first != later; result = seen().results.wait()) {
        EXPECT_EQ(result->second, 0u);
        EXPECT_EQ(asked.erase(result->first), 1u);
    }
    EXPECT_EQ(result, (call_result{later, 0}));
    EXPECT_GE(asked.size(), 1u);
    EXPECT_EQ(asked.count(later), 0u);
}

TEST_F(SccdScenarios, SlowServiceDelaysEveryResultAndKeepsTheOrder) {
    begin("slow-service");
    const auto start = std::chrono::steady_clock::now();
    const std::uint32_t first = ask();
    const std::uint32_t second = ask();

    expect_answer(first);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(300));
    expect_answer(second);
    std::uint8_t enabled = 1;
    EXPECT_EQ(scc_is_arp_check_enabled(&enabled), 0u);
    EXPECT_EQ(enabled, 0);
}

TEST_F(SccdScenarios, FullBuffersLoseNoRequest) {
    begin("full-buffers");
    for (int count = 0; count < 9; ++count) {
        expect_working_request();
    }
    const auto start = std::chrono::steady_clock::now();
    std::vector<std::uint32_t> asked;
    scc_config_record record{};
    for (int count = 0; count < 2000; ++count) {
        std::uint32_t call_id = 0;
        ASSERT_EQ(scc_d1x_port_open(&record, &call_id), 0u);
        asked.push_back(call_id);
    }

    for (const std::uint32_t call_id : asked) {
        ASSERT_EQ(seen().results.wait(), (call_result{call_id, 0}));
    }
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1500));
    EXPECT_EQ(seen().statuses.size(), 0u);
}

TEST_F(SccdScenarios, LostAnswersLeaveTheirCallsOpenAndCompleteTheOthers) {
    begin("lost-answers");
    std::vector<std::uint32_t> asked;
    for (int count = 0; count < 8; ++count) {
        asked.push_back(ask());
    }
    for (const std::size_t answered : {0u, 1u, 3u, 4u, 6u, 7u}) {
        expect_answer(asked[answered]);
    }
    std::uint8_t enabled = 0;
    EXPECT_EQ(scc_is_arp_check_enabled(&enabled), 0u);
    EXPECT_EQ(seen().results.size(), 0u);
}

TEST_F(SccdScenarios, DoubledAnswersReachTheHandlerOnce) {
    begin("doubled-answers");
    for (int count = 0; count < 20; ++count) {
        expect_working_request();
    }
    expect_no_more_results();
    EXPECT_EQ(control({{"do", "fault-list"}})["faults"].at(0)["hits"], 21);
}

TEST_F(SccdScenarios, ALateAnswerCompletesNothingOfTheNextConnection) {
    begin("late-answer");
    ask();
    ask();
    expect_reconnection();

    for (int count = 0; count < 5; ++count) {
        expect_working_request();
    }
    expect_no_more_results();
}

TEST_F(SccdScenarios, ARefusedRegistrationIsRepeated) {
    begin("refused-registration");
    expect_working_request();
    EXPECT_EQ(control({{"do", "fault-list"}})["faults"], json::array());
}

TEST_F(SccdScenarios, AWrongReplyIsAFormatErrorAndTheNextQueryIsRight) {
    begin("wrong-reply");
    std::uint8_t enabled = 7;
    EXPECT_EQ(scc_is_arp_check_enabled(&enabled), 2007u);
    EXPECT_EQ(enabled, 7);
    EXPECT_EQ(scc_is_arp_check_enabled(&enabled), 0u);
    EXPECT_EQ(enabled, 0);
}

TEST_F(SccdScenarios, AShortAnswerIsIgnored) {
    begin("short-answer");
    const std::uint32_t cut = ask();
    const std::uint32_t whole = ask();
    EXPECT_NE(cut, whole);
    expect_answer(whole);
    expect_no_more_results();
}

TEST_F(SccdScenarios, ABrokenMessageEndsTheConnectionOnly) {
    begin("broken-message");
    for (int count = 0; count < 4; ++count) {
        expect_working_request();
    }
    ask();
    expect_reconnection();
    expect_no_more_results();
}

TEST(SccdScenarioFiles, EachHasATestAndOneLineThatTellsIt) {
    const std::set<std::string> tested{
        "restart-in-burst", "slow-service",         "full-buffers", "lost-answers", "doubled-answers",
        "late-answer",      "refused-registration", "wrong-reply",  "short-answer", "broken-message"};
    std::set<std::string> installed;
    for (const auto& file : std::filesystem::directory_iterator(SCENARIO_DIR)) {
        installed.insert(file.path().stem());
        std::ifstream text(file.path());
        const json parsed = json::parse(text, nullptr, false);
        const std::string about = parsed.is_object() ? parsed.value("about", "") : "";
        EXPECT_TRUE(about.ends_with(".")) << file.path();
        EXPECT_EQ(about.find('\n'), std::string::npos) << file.path();
    }
    EXPECT_EQ(installed, tested);
}

}  // namespace
}  // namespace sccd_test
