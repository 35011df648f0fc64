#include <filesystem>
#include <fstream>
#include <sstream>

#include "sccd_support.h"
#include "support/waiting.h"

namespace sccd_test {
namespace {

using nlohmann::json;

class SccdState : public ::testing::Test {
  protected:
    [[nodiscard]] std::string path() const { return daemon.directory() + "/state.json"; }
    void restart(int signal_number) {
        daemon.signal(signal_number);
        daemon.wait_for_end();
        start_with_state();
    }
    void start_with_state() {
        daemon.set_arguments({"--state", path()});
        daemon.start();
    }
    void write(const std::string& text) const { std::ofstream(path()) << text; }
    [[nodiscard]] std::string read() const {
        std::ostringstream text;
        text << std::ifstream(path()).rdbuf();
        return text.str();
    }
    void end() {
        daemon.signal(SIGTERM);
        daemon.wait_for_end();
    }

    daemon_process daemon;
};

json state() {
    return control({{"do", "state"}})["state"];
}

void fill(test_client& client) {
    ASSERT_EQ(client.result_of(131, acl_request(1, 5, 1)), 0u);
    ASSERT_EQ(client.result_of(132, ace_request(2, 5, 10, 4, 1).u8(24 + 300, 9)), 0u);
    ASSERT_EQ(client.result_of(132, ace_request(3, 5, 20, 7, 1)), 0u);
    ASSERT_EQ(client.result_of(138, wire_value(28).u32(0, 4).key(4, 3, 5).u32(20, 100).u32(24, 50)), 0u);
    ASSERT_EQ(client.result_of(133, apply_request(5, 5, 2, 1).u8(8 + 231, 3)), 0u);
    ASSERT_EQ(client.result_of(127, user_request(6, 9, 4, 1).u8(743, 0xee)), 0u);
    ASSERT_EQ(client.result_of(165, user_request(7, 8, 4, 1)), 0u);
    ASSERT_EQ(
        client.result_of(134, wire_value(224).u32(0, 8).u32(8, 4).u16(38, 20).key(40, 3, 5).u32(216, 1)), 0u);
    ASSERT_EQ(client.result_of(112, wire_value(12).u32(0, 9).u16(4, 8080).u32(8, 1)), 0u);
    ASSERT_EQ(client.result_of(157, wire_value(11).u32(0, 10).u32(4, 3).u8(10, 7)), 0u);
    ASSERT_EQ(client.result_of(167, wire_value(520).u32(0, 11).u32(4, 1).u8(9, 1)), 0u);
    ASSERT_EQ(control({{"do", "counters"},
                       {"type", 3},
                       {"id", 5},
                       {"acl", 6},
                       {"filter", 7},
                       {"sn", 150},
                       {"ace", 8}})["ok"],
              true);
}

TEST_F(SccdState, EverythingSurvivesARestart) {
    end();
    start_with_state();
    {
        test_client client(daemon, 3, 77);
        fill(client);
    }
    const json before = state();

    restart(SIGTERM);

    EXPECT_EQ(state(), before);
    EXPECT_EQ(before["acls"][0]["aces"][1]["counter"], 8);
    EXPECT_EQ(before["acls"][0]["sn_start"], 100);
    EXPECT_EQ(before["settings"].size(), 3u);
    test_client client(daemon, 3, 77);
    EXPECT_EQ(client.result_of(131, acl_request(1, 5, 1)), 2010u);
    EXPECT_EQ(client.result_of(133, apply_request(2, 5, 2, 1).u8(8 + 231, 3)), 2009u);
    EXPECT_EQ(client.query(315, wire_value(152).raw(4, {0x02, 0, 0, 0, 0, 9})).part(32, 4),
              (byte_string{10, 0, 0, 9}));
}

TEST_F(SccdState, AReturningServiceGetsTheStateOfTheFile) {
    write(R"({"acls": [{"type": 3, "id": 5, "class": 1, "aces": [{"rule": "10 permit ip any any"}],
                        "applies": [{"ifx": 2}]}],
              "settings": {"http-dport-set": [{"port": 8080, "add": 1}]}})");
    end();
    start_with_state();

    test_client service(daemon, service_app, 78);

    std::vector<std::uint16_t> types;
    for (int count = 0; count < 6; ++count) {
        types.push_back(service.async.receive().type);
    }
    EXPECT_EQ(types, (std::vector<std::uint16_t>{201, 131, 132, 133, 155, 201}));
}

// The file is written a moment after a change; the test waits for it to appear.
TEST_F(SccdState, TheStateSurvivesAKill) {
    end();
    start_with_state();
    {
        test_client client(daemon, 3, 77);
        ASSERT_EQ(client.result_of(131, acl_request(1, 5, 1)), 0u);
    }
    ASSERT_TRUE(test::eventually([this] { return read().find("\"id\": 5") != std::string::npos; }));

    restart(SIGKILL);

    EXPECT_EQ(state()["acls"][0]["id"], 5);
    EXPECT_FALSE(std::filesystem::exists(path() + ".new"));
}

TEST_F(SccdState, AFaultyFileIsOneLineWithThePlaceAndStatusOne) {
    end();
    daemon.set_arguments({"--state", path()});
    const std::pair<std::string, std::string> faulty[] = {
        {"{\"acls\": [\n  {\"type\" 3}]}", "parse error at line 2, column 11: "},
        {"[]", "not a JSON object"},
        {R"({"acl": []})",
         "no field 'acl'; the state takes format, acls, user_acls, users, arp_entries, settings"},
        {R"({"format": 2})", "format: not 1"},
        {R"({"acls": 5})", "acls: not a list"},
        {R"({"acls": [7]})", "acls[0]: not an object"},
        {R"({"acls": [{"type": 3, "id": 1}, {"type": 3, "id": 1}]})", "acls[1]: refused with 2010"},
        {R"({"acls": [{"type": 3, "id": 1, "aces": [{"sn": 1}, {"rule": "permit nothing"}]}]})",
         "acls[0].aces[1].rule: "},
        {R"({"acls": [{"type": 3, "id": 1, "aces": [{"sn": "one"}]}]})",
         "acls[0].aces[0]: sn: 'one' is not a number from 0 to 4294967295"},
        {R"({"users": [{"mac": "02:00"}]})", "users[0]: mac: not a MAC address"},
        {R"({"users": [{"bytes": "00"}]})", "users[0]: bytes: not 736 bytes"},
        {R"({"user_acls": [{"key": "0/3"}]})", "user_acls[0]: key: not an ACL key such as 0/3/101/1"},
        {R"({"settings": {"d1x": []}})", "settings.d1x: there is no such setting"},
        {R"({"settings": {"d1x-set-cos": [{"value": 8}]}})",
         "settings.d1x-set-cos[0]: value: '8' is not a number from 0 to 7"},
        {R"({"settings": {"http-dport-set": [{"port": 80}]}})",
         "settings.http-dport-set[0].add: this would remove the record"},
        {std::string(100, '[') + std::string(100, ']'), "nested too deeply"},
    };

    for (const auto& [text, reason] : faulty) {
        write(text);
        const auto [status, printed] = daemon.fail_to_start();
        EXPECT_EQ(status, 1) << text;
        EXPECT_TRUE(printed.starts_with("sccd-dev: " + path() + ": " + reason)) << printed;
        EXPECT_EQ(std::count(printed.begin(), printed.end(), '\n'), 1) << printed;
        EXPECT_EQ(read(), text);
    }
    daemon.set_arguments({"--state", daemon.directory()});
    EXPECT_EQ(daemon.fail_to_start().second, "sccd-dev: " + daemon.directory() + ": not a regular file\n");
    daemon.set_arguments({"--state", daemon.directory() + "/none/state"});
    EXPECT_EQ(daemon.fail_to_start().second,
              "sccd-dev: " + daemon.directory() + "/none/state: No such file or directory\n");
}

}  // namespace
}  // namespace sccd_test
