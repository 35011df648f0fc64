#include <sys/stat.h>

#include <filesystem>
#include <future>

#include "sccd_support.h"

namespace sccd_test {
namespace {

using nlohmann::json;

// Runs one control call while the test answers as an application.
class background_call {
  public:
    explicit background_call(const json& request)
        : reply_(std::async(std::launch::async, [request] { return control(request); })) {}

    json wait() { return reply_.get(); }

  private:
    std::future<json> reply_;
};

TEST(SccdControl, ClientsAreListedWithPidAndOption) {
    daemon_process daemon;
    test_client application(daemon, 3, 77);
    test_client service(daemon, service_app, 78);

    const json clients = control({{"do", "clients"}})["clients"];

    ASSERT_EQ(clients.size(), 2u);
    EXPECT_EQ(clients[0], (json{{"app", 3}, {"pid", 77}, {"option", 1}, {"sync", true}, {"async", true}}));
    EXPECT_EQ(clients[1]["app"], 16);
}

TEST(SccdControl, ItemsOfAnyTypeAreSentToOneOrToAllApplications) {
    daemon_process daemon;
    test_client first(daemon, 3, 77);
    test_client second(daemon, 4, 78);
    test_client service(daemon, service_app, 79);

    EXPECT_EQ(control({{"do", "notify"}, {"type", 999}, {"hex", "01 02ff"}})["sent"], 2);
    EXPECT_EQ(control({{"do", "notify"}, {"type", 998}, {"to", 4}, {"hex", ""}})["sent"], 1);
    EXPECT_EQ(control({{"do", "notify"}, {"type", 997}, {"to", 16}, {"sub", 7}, {"hex", "00"}})["sent"], 1);

    EXPECT_EQ(first.async.receive().value, (byte_string{1, 2, 0xff}));
    EXPECT_EQ(second.async.receive().type, 999);
    EXPECT_EQ(second.async.receive().type, 998);
    const test_item to_service = service.async.receive();
    EXPECT_EQ(to_service.type, 997);
    EXPECT_EQ(to_service.sub_id, 7);
}

TEST(SccdControl, RequestsThatCannotBeReadAreRefusedAndSendNothing) {
    daemon_process daemon;
    test_client client(daemon, 3, 77);
    const json requests[] = {
        {{"do", "nonsense"}},
        json::object(),
        {{"do", "notify"}, {"hex", "00"}},
        {{"do", "notify"}, {"type", 70000}, {"hex", "00"}},
        {{"do", "notify"}, {"type", -1}, {"hex", "00"}},
        {{"do", "notify"}, {"type", 110}, {"hex", "0"}},
        {{"do", "notify"}, {"type", 110}, {"hex", "zz"}},
        {{"do", "notify"}, {"type", 110}, {"hex", 12}},
        {{"do", "notify"}, {"type", 110}, {"to", 9}, {"hex", "00"}},
        {{"do", "notify-named"}, {"name", "nonsense"}},
        {{"do", "notify-named"}, {"name", "dirchn"}, {"ip", "300.1.1.1"}},
        {{"do", "notify-named"}, {"name", "flow"}, {"mac", "02:00"}},
        {{"do", "notify-named"}, {"name", "ace-counter"}, {"entries", {1, 2}}},
        {{"do", "notify-named"}, {"name", "direct-vlan"}, {"vlans", {4096}}},
        {{"do", "alive"}, {"app", 9}},
        {{"do", "fail-next"}, {"type", 131}, {"result", 1}, {"count", 0}},
        {{"do", "mute"}, {"type", "x"}},
        {{"do", "counters"}, {"type", 3}, {"id", 5}, {"acl", 1}},
        {{"do", "mute"}},
        {{"do", "fail-next"}, {"type", 108}},
        {{"do", "fail-next"}, {"typ", 108}, {"result", 5}},
        {{"do", "capability"}, {"to", 3}},
        {{"do", "acls"}, {"type", 3}},
        {{"do", "notify-named"}, {"name", "station-move"}, {"permitt", 1}},
        {{"do", "notify-named"}, {"name", "flow"}, {"ip", "10.0.0"}},
    };

    for (const json& request : requests) {
        const json reply = control(request);
        EXPECT_EQ(reply["ok"], false) << request.dump();
        EXPECT_TRUE(reply["error"].is_string()) << request.dump();
    }
    EXPECT_EQ(client.result_of(108, wire_value(8).u32(0, 1)), 0u);
}

TEST(SccdControl, ARefusalSaysWhatWouldHaveBeenRight) {
    daemon_process daemon;
    const std::pair<json, std::string> rows[] = {
        {{{"do", "fail-next"}, {"type", 108}, {"result", 5}, {"cuont", 2}},
         "no field 'cuont'; fail-next takes type, result, count"},
        {{{"do", "mute"}, {"count", 2}}, "type is missing"},
        {{{"do", "quit"}, {"now", 1}}, "no field 'now'; quit takes none"},
        {{{"do", "notify-named"}, {"name", "station-move"}, {"permitt", 1}},
         "no field 'permitt'; station-move takes permit"},
        {{{"do", "notify-named"}, {"name", "user-roll"}, {"port", 1}},
         "no field 'port'; user-roll takes ifx, vid, mac, roll_type"},
        {{{"do", "alive"}, {"app", 9}}, "no application 9 is registered"},
    };

    for (const auto& [request, error] : rows) {
        EXPECT_EQ(control(request)["error"], error);
    }
    EXPECT_TRUE(control({{"do", "nonsense"}})["error"].get<std::string>().starts_with(
        "no command 'nonsense'; there are clients, notify, "));
    EXPECT_TRUE(control({{"do", "notify-named"}, {"name", "x"}})["error"].get<std::string>().starts_with(
        "no notification 'x'; there are d1x-addr-move, "));
}

struct named_case {
    json request;
    std::uint16_t type;
    wire_value value;
};

const byte_string mac{0x02, 0, 0, 0, 0, 9};

// The 56-byte user record of the fields below, at an offset of the value.
wire_value with_user(std::size_t len, std::size_t offset) {
    return wire_value(len)
        .raw(offset + 8, {10, 0, 0, 9})
        .raw(offset + 24, {255, 0, 0, 0})
        .u32(offset + 40, 4)
        .u16(offset + 44, 20)
        .raw(offset + 46, mac)
        .u32(offset + 52, 1);
}

json with_user(json fields) {
    fields.update(
        {{"ip", "10.0.0.9"}, {"mask", "255.0.0.0"}, {"ifx", 4}, {"vid", 20}, {"mac", "02:00:00:00:00:09"}});
    return fields;
}

TEST(SccdControl, EveryNamedNotificationHasTheLayoutThatTheLibraryReads) {
    daemon_process daemon;
    test_client client(daemon, 3, 77);
    const named_case rows[] = {
        {{{"name", "d1x-addr-move"},
          {"ifx", 4},
          {"vid", 20},
          {"mac", "02:00:00:00:00:09"},
          {"vid_before", 7},
          {"vid_after", 8}},
         110,
         wire_value(24).u32(4, 1).u32(8, 4).u16(12, 20).u16(14, 7).u16(16, 8).raw(18, mac)},
        {with_user({{"name", "user-change"}, {"add", true}}), 127, with_user(816, 24).raw(4, mac).u8(16, 1)},
        {{{"name", "offline-detect"}, {"first", 9}, {"open", true}, {"interval", 30}, {"threshold", "0x28"}},
         209,
         wire_value(16).u32(0, 9).u8(4, 1).u32(8, 30).u32(12, 40)},
        {{{"name", "station-move"}, {"permit", true}}, 210, wire_value(8).u8(4, 1)},
        {with_user({{"name", "flow"}, {"first", 5}, {"second", 6}}), 211,
         with_user(80, 8).u64(64, 5).u64(72, 6)},
        {{{"name", "flow"}, {"ip", "2001:db8::1"}, {"mask", "ffff::"}},
         211,
         wire_value(80)
             .raw(16, {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1})
             .raw(32, {0xff, 0xff})
             .u32(60, 3)},
        {with_user({{"name", "noflow-offline"}, {"flow", 5}, {"time", 6}, {"extra", "aabb"}}), 212,
         with_user(90, 8).u64(64, 5).u64(72, 6).u64(80, 2).raw(88, {0xaa, 0xbb})},
        {{{"name", "direct-vlan"}, {"value", 1}, {"vlans", {1, 4095}}},
         213,
         wire_value(520).u32(4, 1).u8(8, 2).u8(519, 0x80)},
        {{{"name", "authmode"}, {"mode", 2}}, 214, wire_value(8).u32(4, 2)},
        {{{"name", "dirchn"}, {"ip", "1.2.3.4"}, {"add", true}},
         216,
         wire_value(12).raw(4, {1, 2, 3, 4}).u32(8, 1)},
        {{{"name", "port-violate"}, {"add", true}, {"ifx", 4}, {"vid", 20}, {"mac", "02:00:00:00:00:09"}},
         217,
         wire_value(64).u32(4, 4).u16(8, 20).raw(10, mac).u8(60, 1)},
        {{{"name", "user-roll"}, {"roll_type", 3}, {"ifx", 4}, {"vid", 20}, {"mac", "02:00:00:00:00:09"}},
         219,
         wire_value(24).u32(8, 4).u16(12, 20).raw(14, mac).u32(20, 3)},
        {{{"name", "water-line"}, {"start", true}}, 220, wire_value(4).u32(0, 1)},
        {{{"name", "ace-counter"},
          {"type", 3},
          {"id", 5},
          {"class", 1},
          {"entries", {{{"id", 7}, {"value", 100}}, {{"id", 8}, {"value", 200}}}}},
         407,
         wire_value(56).key(4, 3, 5).u32(20, 2).u64(24, 7).u64(32, 100).u64(40, 8).u64(48, 200)},
    };

    for (const named_case& row : rows) {
        json request = row.request;
        request["do"] = "notify-named";
        ASSERT_EQ(control(request)["ok"], true) << request.dump();
        const test_item notification = client.async.receive();
        EXPECT_EQ(notification.type, row.type);
        EXPECT_EQ(notification.value, row.value.bytes()) << request["name"];
    }
}

TEST(SccdControl, DebugCommandsReachApplicationsAndTheService) {
    daemon_process daemon;
    test_client application(daemon, 3, 77);
    test_client service(daemon, service_app, 78);

    EXPECT_EQ(control({{"do", "debug"}, {"app", 3}, {"open", true}})["ok"], true);
    EXPECT_EQ(control({{"do", "debug"}, {"app", 3}, {"open", false}})["ok"], true);
    EXPECT_EQ(
        control({{"do", "debug-show"}, {"app", 3}, {"mode", 2}, {"vdev", 0}, {"type", 3}, {"id", 5}})["ok"],
        true);
    EXPECT_EQ(control({{"do", "debug-dump-service"}})["ok"], true);

    EXPECT_EQ(application.async.receive().value, wire_value(52).u32(24, 1).u32(32, 1).bytes());
    EXPECT_EQ(application.async.receive().value, wire_value(52).u32(32, 1).bytes());
    const test_item show = application.async.receive();
    EXPECT_EQ(show.type, 206);
    EXPECT_EQ(show.value, wire_value(52).u32(32, 3).u32(36, 2).u32(44, 3).u32(48, 5).bytes());
    EXPECT_EQ(service.async.receive().u32(32), 3u);
}

TEST(SccdControl, TheCapabilityWordIsEightBytes) {
    daemon_process daemon;
    test_client client(daemon, 3, 77);

    EXPECT_EQ(control({{"do", "capability"}, {"word", "0x8000000000000020"}, {"to", 3}})["ok"], true);

    const test_item capability = client.async.receive();
    EXPECT_EQ(capability.type, 406);
    EXPECT_EQ(capability.value, (byte_string{0x20, 0, 0, 0, 0, 0, 0, 0x80}));
}

TEST(SccdControl, AliveRepliesWhenTheApplicationHasAnswered) {
    daemon_process daemon;
    test_client client(daemon, 3, 77);
    background_call call({{"do", "alive"}, {"app", 3}, {"timeout_ms", 20000}});

    EXPECT_EQ(client.async.receive().type, 319);
    client.sync.send(319, wire_value(4).u32(0, 3));

    const json reply = call.wait();
    EXPECT_EQ(reply["ok"], true);
    EXPECT_EQ(reply["app"], 3);
}

TEST(SccdControl, AnApplicationThatDoesNotAnswerOrDiesIsNotAlive) {
    daemon_process daemon;
    test_client client(daemon, 3, 77);

    EXPECT_EQ(control({{"do", "alive"}, {"app", 3}, {"timeout_ms", 20}}),
              (json{{"ok", false}, {"error", "application 3 has not answered"}, {"unreachable", true}}));
    EXPECT_EQ(client.async.receive().type, 319);
    background_call call({{"do", "alive"}, {"app", 3}, {"timeout_ms", 20000}});
    EXPECT_EQ(client.async.receive().type, 319);
    client.async.close();

    EXPECT_EQ(call.wait()["ok"], false);
}

TEST(SccdControl, StatisticsComeAsThirteenEntries) {
    daemon_process daemon;
    test_client client(daemon, 3, 77);
    background_call call({{"do", "stats"}, {"app", 3}, {"timeout_ms", 20000}});
    wire_value statistics(320);
    statistics.u32(0, 3).u32(4, 13);
    for (std::uint32_t entry = 0; entry < 13; ++entry) {
        statistics.u32(8 + 24 * entry, entry);
    }
    statistics.u32(8 + 24 * 12 + 4, 1).u32(8 + 24 * 12 + 8, 2).u32(8 + 24 * 12 + 12, 3);
    statistics.u32(8 + 24 * 12 + 16, 4).u32(8 + 24 * 12 + 20, 5);

    EXPECT_EQ(client.async.receive().type, 318);
    client.sync.send(318, statistics);

    const json reply = call.wait();
    ASSERT_EQ(reply["entries"].size(), 13u);
    EXPECT_EQ(reply["entries"][12], (json{{"index", 12},
                                          {"name", "data-recover"},
                                          {"calls", 1},
                                          {"call_successes", 2},
                                          {"callback_successes", 3},
                                          {"call_failures", 4},
                                          {"callback_failures", 5}}));
}

TEST(SccdControl, QuitEndsTheDaemonAndRemovesItsSockets) {
    daemon_process daemon;

    EXPECT_EQ(control({{"do", "quit"}})["ok"], true);

    EXPECT_EQ(WEXITSTATUS(daemon.wait_for_end()), 0);
    EXPECT_TRUE(std::filesystem::is_empty(daemon.socket_directory()));
    EXPECT_EQ(control({{"do", "clients"}})["ok"], false);
}

TEST(SccdControl, AclsUsersAndSettingsAreShown) {
    daemon_process daemon;
    test_client client(daemon, 3, 77);
    EXPECT_EQ(client.result_of(131, acl_request(1, 5, 1)), 0u);
    EXPECT_EQ(client.result_of(132, ace_request(2, 5, 10, 4, 1)), 0u);
    EXPECT_EQ(client.result_of(133, apply_request(3, 5, 2, 1)), 0u);
    EXPECT_EQ(client.result_of(127, user_request(4, 9, 4, 1)), 0u);
    EXPECT_EQ(client.result_of(165, user_request(5, 8, 4, 1)), 0u);
    EXPECT_EQ(client.result_of(143, wire_value(8).u32(0, 6).u32(4, 1)), 0u);

    const json acl = control({{"do", "acls"}})["acls"][0];
    const json users = control({{"do", "users"}});
    const json settings = control({{"do", "settings"}})["settings"];

    EXPECT_EQ(acl["id"], 5);
    EXPECT_EQ(acl["pid"], 77);
    EXPECT_EQ(acl["aces"][0]["sn"], 10);
    EXPECT_EQ(acl["aces"][0]["id"], 4);
    EXPECT_EQ(acl["applies"][0]["ifx"], 2);
    EXPECT_EQ(users["users"][0]["mac"], "02:00:00:00:00:09");
    EXPECT_EQ(users["users"][0]["ip"], "10.0.0.9");
    EXPECT_EQ(users["arp_entries"][0]["ip"], "10.0.0.8");
    EXPECT_EQ(settings["svi-router-acl-set"], (json::array({{{"value", 1}}})));
}

TEST(SccdControl, TheServicesReportsReachTheApplications) {
    daemon_process daemon;
    test_client first(daemon, 3, 77);
    test_client second(daemon, 4, 78);
    test_client service(daemon, service_app, 79);

    service.sync.send(202, wire_value(40).u32(0, 9).u32(4, 2).u32(8, 4).u32(24, 5));
    service.sync.send(203, with_user(90, 8).u32(0, 10).u64(80, 2).raw(88, {0xaa, 0xbb}));
    service.sync.send(208, with_user(80, 8).u32(0, 11).u64(64, 5).u64(72, 6));
    service.sync.send(207, wire_value(40).u32(0, 12).key(4, 3, 5).u32(20, 1).u64(24, 7).u64(32, 100));

    for (test_client* client : {&first, &second}) {
        const test_item moved = client->async.receive();
        EXPECT_EQ(moved.type, 110);
        EXPECT_EQ(moved.value, wire_value(24).u32(4, 1).u32(8, 4).bytes());
        EXPECT_EQ(client->async.receive().value, wire_value(24).u32(4, 1).u32(8, 5).bytes());
        const test_item offline = client->async.receive();
        EXPECT_EQ(offline.type, 212);
        EXPECT_EQ(offline.value, with_user(90, 8).u64(80, 2).raw(88, {0xaa, 0xbb}).bytes());
        const test_item flow = client->async.receive();
        EXPECT_EQ(flow.type, 211);
        EXPECT_EQ(flow.value, with_user(80, 8).u64(64, 5).u64(72, 6).bytes());
        const test_item counters = client->async.receive();
        EXPECT_EQ(counters.type, 407);
        EXPECT_EQ(counters.value, wire_value(40).key(4, 3, 5).u32(20, 1).u64(24, 7).u64(32, 100).bytes());
    }
}

TEST(SccdControl, ReportsWhoseCountsDoNotFitAreIgnored) {
    daemon_process daemon;
    test_client client(daemon, 3, 77);
    test_client service(daemon, service_app, 79);

    service.sync.send({item(202, wire_value(24).u32(4, 0xffffffff).u32(8, 6)),
                       item(203, wire_value(88).u64(80, 1)), item(207, wire_value(40).u32(20, 2)),
                       item(207, wire_value(24).u32(20, 0x10000000)), item(208, wire_value(80).u64(64, 3))});

    const test_item moved = client.async.receive();
    EXPECT_EQ(moved.type, 110);
    EXPECT_EQ(moved.u32(8), 6u);
    EXPECT_EQ(client.async.receive().type, 211);
}

TEST(SccdControl, ATraceShowsItemsOfBothDirectionsByName) {
    daemon_process daemon({"--trace"});
    test_client client(daemon, 3, 77);

    EXPECT_EQ(client.result_of(131, acl_request(21, 5, 1)), 0u);

    const std::string request = daemon.read_line_with(" acl ");
    const std::string answer = daemon.read_line_with("call-ret");
    EXPECT_NE(request.find("<- app=3 async 131 acl call=21 key=0/3/5/1 op=1 (140 bytes) 15000000"),
              std::string::npos)
        << request;
    EXPECT_NE(answer.find("-> app=3 async 401 call-ret call=21 result=0 (8 bytes) 1500000000000000"),
              std::string::npos)
        << answer;
}

constexpr uid_t nobody = 65534;

// Runs `act` in a child as an unprivileged user and returns its result.
template <class Act>
std::string as_nobody(Act act) {
    int ends[2];
    EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    const pid_t child = ::fork();
    if (child == 0) {
        std::string text = "no such user";
        if (::setresgid(nobody, nobody, nobody) == 0 && ::setresuid(nobody, nobody, nobody) == 0)
            text = act();
        const bool whole = ::write(ends[1], text.data(), text.size()) == static_cast<ssize_t>(text.size());
        ::_exit(whole ? 0 : 1);
    }
    ::close(ends[1]);
    std::string text;
    char buffer[4096];
    for (ssize_t count; (count = ::read(ends[0], buffer, sizeof buffer)) > 0;) {
        text.append(buffer, static_cast<std::size_t>(count));
    }
    ::close(ends[0]);
    int status = -1;
    ::waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    return text;
}

// A directory that others may enter, like the runtime directory.
class SccdControlUsers : public ::testing::Test {
  protected:
    void SetUp() override {
        if (::geteuid() != 0) GTEST_SKIP() << "only root can become another user";
        ASSERT_EQ(::chmod(daemon.directory().c_str(), 0755), 0);
    }

    [[nodiscard]] std::string socket() const { return daemon.socket_directory() + "/.sccd_ctl"; }

    daemon_process daemon;
};

TEST(SccdControl, TheSocketIsTheOwnersAloneAndTheClientsSocketEverybodys) {
    daemon_process daemon;
    struct stat status {};
    ASSERT_EQ(::stat((daemon.socket_directory() + "/.sccd_ctl").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600u);
    ASSERT_EQ(::stat(daemon.socket_path().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0777u);
}

TEST_F(SccdControlUsers, AnotherUserIsKeptOutByTheSocketsMode) {
    json reply = json::parse(as_nobody([] { return control({{"do", "quit"}}).dump(); }));
    EXPECT_EQ(reply["ok"], false);
    EXPECT_EQ(reply["error"], "no daemon at " + socket() + ": Permission denied");
    EXPECT_EQ(control({{"do", "clients"}})["ok"], true);
}

// Whatever the mode of the file, and whoever owns the directory.
TEST_F(SccdControlUsers, AnotherUserWhoGetsThroughIsToldSoAndCommandsNothing) {
    ASSERT_EQ(::chmod(socket().c_str(), 0666), 0);
    for (const char* command : {"quit", "clients", "nonsense"}) {
        const json request = {{"do", command}};
        const json reply = json::parse(as_nobody([&] { return control(request).dump(); }));
        EXPECT_EQ(reply, (json{{"ok", false},
                               {"error", "only root and the user who runs the daemon may command it"}}))
            << command;
    }
    EXPECT_EQ(control({{"do", "clients"}})["ok"], true);
}

TEST_F(SccdControlUsers, AnotherUsersLinesAreAllRefused) {
    ASSERT_EQ(::chmod(socket().c_str(), 0666), 0);
    const std::string replies = as_nobody([&] {
        wire_socket wire(socket());
        const std::string lines = "{\"do\":\"mute\",\"type\":108}\nnot JSON\n{\"do\":\"quit\"}\n";
        wire.send_raw(byte_string(lines.begin(), lines.end()));
        ::shutdown(wire.descriptor(), SHUT_WR);
        std::string text;
        char buffer[4096];
        for (ssize_t count; (count = ::recv(wire.descriptor(), buffer, sizeof buffer, 0)) > 0;) {
            text.append(buffer, static_cast<std::size_t>(count));
        }
        return text;
    });
    const std::string refusal =
        R"({"ok":false,"error":"only root and the user who runs the daemon may command it"})"
        "\n";
    EXPECT_EQ(replies, refusal + refusal + refusal);
    test_client client(daemon, 3, 77);
    EXPECT_EQ(client.result_of(108, wire_value(8).u32(0, 1)), 0u);
}

TEST_F(SccdControlUsers, ADaemonOfAnotherUserObeysItsOwner) {
    const std::string outcome = as_nobody([] {
        if (::access(SCCD_DEV_PATH, X_OK) != 0) return std::string("out of reach");
        const daemon_process own;
        return control({{"do", "clients"}}).dump();
    });
    if (outcome == "out of reach") GTEST_SKIP() << "another user cannot run " << SCCD_DEV_PATH;
    EXPECT_EQ(json::parse(outcome)["ok"], true);
}

}  // namespace
}  // namespace sccd_test
