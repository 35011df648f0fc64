#include <chrono>
#include <filesystem>
#include <fstream>

#include "sccd_support.h"

namespace sccd_test {
namespace {

using nlohmann::json;

void order(json fault) {
    fault["do"] = "fault";
    const json reply = control(fault);
    ASSERT_EQ(reply["ok"], true) << reply;
}

wire_value redirect(std::uint32_t call) {
    return wire_value(8).u32(0, call).u32(4, 1);
}

TEST(SccdFaults, TheNthRequestAndEverySoManyAfterItAreHit) {
    daemon_process daemon;
    test_client client(daemon, 3, 77);
    order({{"action", "refuse"},
           {"request", "dot1x-redirect-enable"},
           {"result", 12},
           {"nth", 2},
           {"every", 3},
           {"count", 2}});

    std::vector<std::uint32_t> results;
    for (std::uint32_t call = 1; call <= 9; ++call) {
        results.push_back(client.result_of(108, redirect(call)));
    }

    EXPECT_EQ(results, (std::vector<std::uint32_t>{0, 12, 0, 0, 12, 0, 0, 0, 0}));
    EXPECT_EQ(control({{"do", "fault-list"}})["faults"], json::array());
}

TEST(SccdFaults, ARuleMayBeForOneApplicationOrOneProcess) {
    daemon_process daemon;
    test_client first(daemon, 3, 77);
    test_client second(daemon, 4, 78);
    order({{"action", "refuse"}, {"result", 12}, {"app", 4}});
    order({{"action", "refuse"}, {"result", 13}, {"pid", 77}});

    EXPECT_EQ(first.result_of(108, redirect(1)), 13u);
    EXPECT_EQ(second.result_of(108, redirect(2)), 12u);
    EXPECT_EQ(first.result_of(108, redirect(3)), 0u);
    EXPECT_EQ(second.result_of(108, redirect(4)), 0u);
}

TEST(SccdFaults, ARuleForEveryRequestCountsFromTheRegistrationOn) {
    daemon_process daemon;
    order({{"action", "refuse"}, {"result", 12}, {"nth", 2}});
    test_client client(daemon, 3, 77);

    EXPECT_EQ(client.result_of(108, redirect(1)), 0u);
    EXPECT_EQ(client.result_of(108, redirect(2)), 12u);
}

TEST(SccdFaults, ADelayedAnswerLetsOthersPass) {
    daemon_process daemon;
    test_client client(daemon, 3, 77);
    order({{"action", "delay"}, {"request", 108}, {"ms", 50}});
    const auto start = std::chrono::steady_clock::now();

    client.async.send({item(108, redirect(1)), item(109, redirect(2))});

    EXPECT_EQ(client.async.receive().value, wire_value(8).u32(0, 2).bytes());
    EXPECT_EQ(client.async.receive().value, wire_value(8).u32(0, 1).bytes());
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(50));
}

TEST(SccdFaults, AnAnswerComesTwiceUnderAnotherTypeOrCut) {
    daemon_process daemon;
    test_client client(daemon, 3, 77);
    order({{"action", "twice"}, {"request", 108}});
    order({{"action", "wrong-type"}, {"request", 109}});
    order({{"action", "short-value"}, {"request", 104}, {"bytes", 6}});
    order({{"action", "wrong-type"}, {"request", "is-arp-check-enabled"}});

    client.async.send({item(108, redirect(1)), item(109, redirect(2)), item(104, wire_value(744).u32(0, 3))});

    EXPECT_EQ(client.async.receive().value, wire_value(8).u32(0, 1).bytes());
    EXPECT_EQ(client.async.receive().value, wire_value(8).u32(0, 1).bytes());
    const test_item other = client.async.receive();
    EXPECT_EQ(other.type, 499);
    EXPECT_EQ(other.value, wire_value(8).u32(0, 2).bytes());
    EXPECT_EQ(client.async.receive().value, (byte_string{3, 0, 0, 0, 0, 0}));
    EXPECT_EQ(client.query(303, wire_value(0)).type, 499);
    EXPECT_EQ(client.query(303, wire_value(0)).type, 405);
}

TEST(SccdFaults, ALateAnswerWaitsForTheNextRegistration) {
    daemon_process daemon;
    {
        test_client client(daemon, 3, 77);
        order({{"action", "late"}, {"request", 108}});
        client.async.send({item(108, redirect(1)), item(109, redirect(2))});
        EXPECT_EQ(client.async.receive().u32(0), 2u);
    }
    test_client other(daemon, 4, 78);
    test_client again(daemon, 3, 79);

    EXPECT_EQ(again.async.receive().value, wire_value(8).u32(0, 1).bytes());
    EXPECT_EQ(again.result_of(109, redirect(3)), 0u);
    EXPECT_EQ(other.result_of(109, redirect(4)), 0u);
}

TEST(SccdFaults, HalfAMessageIsFollowedByTheEndOfBothConnections) {
    daemon_process daemon;
    test_client client(daemon, 3, 77);
    order({{"action", "half-message"}, {"request", 108}});

    client.async.send(108, redirect(1));

    byte_string received(64);
    const ssize_t count = ::recv(client.async.descriptor(), received.data(), received.size(), MSG_WAITALL);
    EXPECT_EQ(count, 12);
    EXPECT_TRUE(client.sync.ends());
    EXPECT_EQ(control({{"do", "clients"}})["clients"].size(), 0u);
}

TEST(SccdFaults, ADisconnectionCarriesNothingOut) {
    daemon_process daemon;
    test_client client(daemon, 3, 77);
    order({{"action", "disconnect"}, {"request", "acl"}});

    client.async.send(131, acl_request(1, 5, 1));

    EXPECT_TRUE(client.async.ends());
    EXPECT_TRUE(client.sync.ends());
    EXPECT_EQ(control({{"do", "acls"}})["acls"], json::array());
}

TEST(SccdFaults, AClientThatIsNotReadIsReadOnLater) {
    daemon_process daemon;
    test_client client(daemon, 3, 77);
    test_client other(daemon, 4, 78);
    order({{"action", "stop-reading"}, {"request", 108}, {"app", 3}, {"ms", 100}});
    const auto start = std::chrono::steady_clock::now();

    EXPECT_EQ(client.result_of(108, redirect(1)), 0u);
    client.async.send(108, redirect(2));
    EXPECT_EQ(other.result_of(108, redirect(3)), 0u);

    EXPECT_EQ(client.async.receive().u32(0), 2u);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(100));
}

TEST(SccdFaults, ARestartEndsAllConnectionsAndRefusesNewOnesForAWhile) {
    daemon_process daemon;
    test_client client(daemon, 3, 77);
    test_client other(daemon, 4, 78);
    order({{"action", "restart"}, {"request", 108}, {"ms", 200}});

    const auto start = std::chrono::steady_clock::now();
    client.async.send(108, redirect(1));

    EXPECT_TRUE(client.sync.ends());
    EXPECT_TRUE(other.async.ends());
    bool accepted = false;
    while (!accepted) {
        wire_socket wire(daemon.socket_path());
        const byte_string message = wire_socket::message({item(301, registration(3, 77, true))});
        ::send(wire.descriptor(), message.data(), message.size(), MSG_NOSIGNAL);
        char byte = 0;
        accepted = ::recv(wire.descriptor(), &byte, 1, 0) == 1;
    }
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(200));
}

TEST(SccdFaults, FaultsAreListedAndCleared) {
    daemon_process daemon;
    test_client client(daemon, 3, 77);
    order({{"action", "delay"}, {"request", "dot1x-redirect-enable"}, {"ms", "20"}, {"nth", 5}});
    order({{"action", "refuse"}, {"result", 12}, {"app", 3}, {"count", 0}});
    order({{"action", "short-value"}, {"pid", 77}, {"nth", 9}});
    EXPECT_EQ(client.result_of(108, redirect(1)), 12u);

    const json listed = control({{"do", "fault-list"}})["faults"];

    EXPECT_EQ(listed, json::parse(R"([
        {"id": 1, "action": "delay", "request": "dot1x-redirect-enable", "ms": 20, "nth": 5, "every": 1, "count": 1,
         "seen": 1, "hits": 0},
        {"id": 2, "action": "refuse", "app": 3, "result": 12, "nth": 1, "every": 1, "count": 0, "seen": 1,
         "hits": 1},
        {"id": 3, "action": "short-value", "pid": 77, "bytes": 4, "nth": 9, "every": 1, "count": 1, "seen": 1,
         "hits": 0}])"));
    EXPECT_EQ(control({{"do", "fault-clear"}, {"id", 2}})["ok"], true);
    EXPECT_EQ(control({{"do", "fault-clear"}, {"id", 2}})["error"], "no fault 2");
    EXPECT_EQ(client.result_of(108, redirect(2)), 0u);
    EXPECT_EQ(control({{"do", "fault-clear"}})["ok"], true);
    EXPECT_EQ(control({{"do", "fault-list"}})["faults"], json::array());
}

TEST(SccdFaults, AFaultThatCannotBeUnderstoodIsRefused) {
    daemon_process daemon;
    const std::pair<json, std::string> rows[] = {
        {json::object(), "action is missing"},
        {{{"action", "explode"}}, "no action 'explode'; there are refuse, mute, delay, "},
        {{{"action", "delay"}}, "ms: missing"},
        {{{"action", "delay"}, {"ms", 3600001}}, "ms: '3600001' is not a number from 1 to 3600000"},
        {{{"action", "refuse"}}, "result: missing"},
        {{{"action", "refuse"}, {"result", 0}}, "result: '0' is not a number from 1 to 4294967295"},
        {{{"action", "mute"}, {"ms", 5}},
         "no field 'ms'; mute takes action, request, app, pid, nth, every, count"},
        {{{"action", "mute"}, {"request", "nonsense"}}, "request: there is no such request"},
        {{{"action", "mute"}, {"request", 402}}, "request: there is no such request"},
        {{{"action", "mute"}, {"nth", 0}}, "nth: '0' is not a number from 1 to 4294967295"},
        {{{"action", "mute"}, {"every", 0}}, "every: '0' is not a number from 1 to 4294967295"},
        {{{"action", "mute"}, {"count", -1}}, "count: '-1' is not a number from 0 to 4294967295"},
    };

    for (auto [fault, error] : rows) {
        fault["do"] = "fault";
        const json reply = control(fault);
        EXPECT_EQ(reply["ok"], false) << fault;
        EXPECT_TRUE(reply["error"].get<std::string>().starts_with(error)) << reply;
    }
    EXPECT_EQ(control({{"do", "fault-list"}})["faults"], json::array());
}

TEST(SccdFaults, AFaultyScenarioIsOneLineWithThePlaceAndStatusOne) {
    daemon_process daemon;
    daemon.signal(SIGTERM);
    daemon.wait_for_end();
    const std::string path = daemon.directory() + "/scenario.json";
    daemon.set_arguments({"--scenario", path});
    EXPECT_EQ(daemon.fail_to_start(), (std::pair{1, "sccd-dev: " + path + ": no such file\n"}));
    const std::pair<std::string, std::string> faulty[] = {
        {"{", "parse error at line 1, column 2: "},
        {"5", "not a JSON object"},
        {"{}", "faults: missing"},
        {R"({"faults": {}})", "faults: not a list"},
        {R"({"fault": []})", "no field 'fault'; a scenario takes about, faults"},
        {R"({"faults": [{"action": "mute"}, 5]})", "faults[1]: not an object"},
        {R"({"faults": [{"action": "mute"}, {"action": "delay"}]})", "faults[1]: ms: missing"},
    };
    for (const auto& [text, reason] : faulty) {
        std::ofstream(path) << text;
        const auto [status, printed] = daemon.fail_to_start();
        EXPECT_EQ(status, 1) << text;
        EXPECT_TRUE(printed.starts_with("sccd-dev: " + path + ": " + reason)) << printed;
        EXPECT_EQ(std::count(printed.begin(), printed.end(), '\n'), 1) << printed;
        EXPECT_TRUE(std::filesystem::is_empty(daemon.socket_directory())) << text;
    }
}

}  // namespace
}  // namespace sccd_test
