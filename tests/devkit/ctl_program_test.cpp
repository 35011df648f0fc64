// sccctl as its users run it: against a real daemon, against a refusing one, and against none.
#include <algorithm>
#include <filesystem>
#include <set>

#include "command.h"
#include "common/messages.h"
#include "ctl_support.h"
#include "program.h"
#include "sccd/setting_table.h"

namespace ctl_test {
namespace {

using nlohmann::json;

class CtlProgram : public with_daemon {};
class CtlProgramAlone : public without_daemon {};

// The lines of data/every_command.txt, in an order in which a fresh daemon accepts all of them.
std::vector<std::string> every_command() {
    std::ifstream file(TEST_DATA_DIR "/every_command.txt");
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);) {
        if (!line.starts_with("#")) {
            lines.push_back(line);
        }
    }
    return lines;
}

TEST(CtlEveryCommandList, NamesEveryRowOfTheTable) {
    const auto all = every_command();
    for (const auto& row : scc::ctl::commands()) {
        const std::string name(row.name);
        EXPECT_TRUE(std::any_of(all.begin(), all.end(), [&](const std::string& line) {
            return line == name || line.starts_with(name + " ");
        })) << name;
    }
}

// Traces, settings and faults call a request what the command line calls it.
TEST(CtlCommandTable, ACommandOfOneWordHasTheNameOfItsRequest) {
    std::set<std::string_view> words;
    for (const auto& row : scc::ctl::commands()) {
        words.insert(row.name.substr(0, row.name.find(' ')));
        // The library knows the answer to this one.
        const bool is_local =
            row.kind == scc::ctl::call_kind::local || row.name == "nac-user-counter-support";
        const bool is_sent = !is_local && row.name.find(' ') == row.name.npos;
        const auto* const message = scc::devkit::find_message(scc::devkit::message_route::request, row.name);
        EXPECT_EQ(message != nullptr, is_sent) << row.name;
    }
    for (const auto& setting : scc::sccd::setting_rows()) {
        const bool is_second_form = setting.name() == "dhcp-snooping-set-second";
        EXPECT_TRUE(words.contains(setting.name()) || is_second_form) << setting.name();
    }
}

TEST(CtlCommandTable, ReachesEveryCallOfTheHeaderOnceOrMore) {
    std::set<std::string_view> reached;
    for (const auto& row : scc::ctl::commands()) {
        reached.insert(row.function);
    }
    for (const char* name : {"scc_d1x_authen_method",
                             "scc_d1x_author_mode_set",
                             "scc_d1x_port_addr_num",
                             "scc_d1x_port_open",
                             "scc_d1x_set_pt_ctrl",
                             "scc_d1x_set_cos",
                             "scc_d1x_set_dscp",
                             "scc_dot1x_redirect_enable",
                             "scc_d1x_mac_move",
                             "scc_webauth_set",
                             "scc_http_dport_set",
                             "scc_dirchn_host_set",
                             "scc_dirchn_server_set",
                             "scc_dirchn_site_set",
                             "scc_dirchn_arp_set",
                             "scc_sp_port_secuity",
                             "scc_sp_port_violate",
                             "scc_global_ip_mac",
                             "scc_ip_source_guard_status",
                             "scc_bind_except_port",
                             "scc_dhcp_trust_port",
                             "scc_dhcp_snooping_set",
                             "scc_nd_snooping_set",
                             "scc_arpcheck",
                             "scc_arpcheck_trust",
                             "scc_addr_learning",
                             "scc_nac_esc_set",
                             "scc_nac_esc_eport_set",
                             "scc_nac_app_set",
                             "scc_nac_user_set",
                             "scc_arp_entry_set",
                             "scc_arp_dyn_entry_set",
                             "scc_ndsnp_default_bind_set",
                             "scc_nac_nbr_set",
                             "scc_cpp_set",
                             "scc_offline_detect_cfg",
                             "scc_direct_vlan_set",
                             "scc_acl_global_eport_set",
                             "scc_svi_router_acl_set",
                             "scc_efacl_ctrl",
                             "scc_warterline_notify",
                             "scc_test_cmd_set",
                             "scc_bind_user_name_get",
                             "scc_mac_query",
                             "scc_sp_port_addr_num",
                             "scc_nac_user_get",
                             "scc_nac_span_dport_set",
                             "scc_is_arp_check_enabled",
                             "scc_arp_check_user_count_get",
                             "scc_arp_check_user_data_get",
                             "scc_get_nac_max_user",
                             "scc_nac_user_counter_support",
                             "scc_acl_create",
                             "scc_acl_delete",
                             "scc_acl_add_ace",
                             "scc_acl_delete_ace",
                             "scc_acl_apply",
                             "scc_acl_unapply",
                             "scc_acl_reseqence",
                             "scc_data_recover",
                             "scc_acl_cls_get",
                             "scc_acl_get_ace",
                             "scc_acl_get_ace_by_sn",
                             "scc_user_acl_apply",
                             "scc_user_acl_unapply",
                             "scc_user_acl_delete_vmsup",
                             "scc_user_acl_change_vmsup",
                             "scc_acl_get_filter_counter",
                             "scc_acl_get_counter",
                             "scc_ace_get_counter",
                             "scc_acl_reset_filter_counter",
                             "scc_acl_reset_counter",
                             "scc_ace_reset_counter",
                             "scc_strerror"}) {
        EXPECT_EQ(reached.erase(name), 1u) << name;
    }
    EXPECT_TRUE(reached.empty()) << *reached.begin();
}

TEST_F(CtlProgram, EveryCommandSucceedsAgainstAFreshDaemon) {
    std::string lines;
    const auto all = every_command();
    for (std::string line : all) {
        const auto block = line.find("BLOCK");
        if (block != std::string::npos) {
            line.replace(block, 5, file("block.hex", "01 02 03\n04\n"));
        }
        lines += line + "\n";
    }
    const finished result = run({"shell", "--json"}, lines);
    EXPECT_EQ(result.status, 0) << result.errors;
    const auto answers = result.json_lines();
    ASSERT_EQ(answers.size(), all.size()) << result.errors;
    for (std::size_t i = 0; i < answers.size(); ++i) {
        EXPECT_EQ(answers[i].value("result", -1), 0) << all[i] << ": " << answers[i];
    }
}

TEST_F(CtlProgram, AResultCarriesTheRequestsFieldsBack) {
    const finished result = run({"dirchn-host-set", "10.0.0.7", "255.255.255.0", "3", "4", "add", "--json"});
    EXPECT_EQ(result.status, 0);
    const auto lines = result.json_lines();
    ASSERT_EQ(lines.size(), 1u);
    const json expected = {{"command", "dirchn-host-set"},
                           {"function", "scc_dirchn_host_set"},
                           {"result", 0},
                           {"text", lines[0]["text"]},
                           {"ip", "10.0.0.7"},
                           {"mask", "255.255.255.0"},
                           {"arp", 3},
                           {"ifx", 4},
                           {"flag", 1},
                           {"call_id", 1}};
    EXPECT_EQ(lines[0], expected);
}

TEST_F(CtlProgram, RawOutputShowsEachByteOfARecord) {
    const auto lines =
        run({"arpcheck", "--json", "--raw", "--ifx", "0x01020304", "--field", "734:2=hex:abcd"}).json_lines();
    ASSERT_EQ(lines.size(), 1u);
    ASSERT_EQ(lines[0]["records"].size(), 1u);
    const std::string record = lines[0]["records"][0];
    EXPECT_EQ(record.size(), 2u * 736u);
    EXPECT_TRUE(record.starts_with("0403020100")) << record.substr(0, 10);
    EXPECT_TRUE(record.ends_with("00abcd")) << record.substr(record.size() - 6);
}

TEST_F(CtlProgram, ARecordMayComeFromAFile) {
    const std::string name = file("record.hex", "09 00 00 00\n0a\n");
    const auto lines = run({"arpcheck", "--hex", name, "--vid", "11", "--json"}).json_lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0]["ifx"], 9);
    EXPECT_EQ(lines[0]["vid"], 11);
}

TEST_F(CtlProgram, TextOutputNamesTheCallAndItsFields) {
    const finished result = run({"addr-learning", "3", "1"});
    EXPECT_EQ(result.status, 0);
    EXPECT_TRUE(result.output.starts_with("addr-learning: ")) << result.output;
    EXPECT_NE(result.output.find("\n  ifx 3\n  enable on (1)\n  call_id 1\n"), std::string::npos)
        << result.output;
    EXPECT_EQ(result.errors, "");
}

TEST_F(CtlProgram, ARefusedRequestHasExitStatusOneAndItsText) {
    ASSERT_EQ(run({"daemon", "fail-next", "type=123", "result=2012"}).status, 0);
    const finished text = run({"addr-learning", "3", "1"});
    EXPECT_EQ(text.status, 1);
    EXPECT_EQ(text.output, "");
    EXPECT_TRUE(text.errors.starts_with("sccctl: addr-learning: ") && text.errors.ends_with(" (2012)\n"))
        << text.errors;

    ASSERT_EQ(run({"daemon", "fail-next", "type=123", "result=2012"}).status, 0);
    const finished as_json = run({"addr-learning", "3", "1", "--json"});
    EXPECT_EQ(as_json.status, 1);
    const auto lines = as_json.json_lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0]["result"], 2012);
}

TEST_F(CtlProgram, NumbersAndTheirNamesMeanTheSame) {
    const auto record = [&](const std::vector<std::string>& line) {
        return run(line).json_lines().at(0)["records"];
    };
    EXPECT_EQ(record({"user-acl", "apply", "1", "--direction", "out", "--json", "--raw"}),
              record({"user-acl", "apply", "1", "--direction", "1", "--json", "--raw"}));
    EXPECT_EQ(record({"nac-app-set", "--app-type", "dot1x-mab", "--operation", "add", "--json", "--raw"}),
              record({"nac-app-set", "--app-type", "5", "--operation", "open", "--json", "--raw"}));
    const json vlans = run({"direct-vlan-set", "1", "--vlans", "5,4000-4002", "--json"}).json_lines().at(0);
    EXPECT_EQ(vlans["vlans"], (json{5, 4000, 4001, 4002}));
}

TEST_F(CtlProgram, ARequestFailsByItsName) {
    ASSERT_EQ(run({"daemon", "fail-next", "type=addr-learning", "result=still-applied"}).status, 0);
    EXPECT_EQ(run({"addr-learning", "3", "on", "--json"}).json_lines().at(0)["result"], 2012);
    ASSERT_EQ(run({"daemon", "mute", "type=addr-learning"}).status, 0);
    EXPECT_EQ(run({"addr-learning", "3", "on", "--timeout", long_enough_to_register}).status, 3);
}

std::vector<std::string> socket_files_in(const std::string& directory) {
    std::vector<std::string> names;
    for (const auto& each : std::filesystem::directory_iterator(directory + "/security/scc")) {
        const std::string name = each.path().filename();
        if (name.starts_with(".sccl_")) {
            names.push_back(name);
        }
    }
    return names;
}

TEST_F(CtlProgram, LeavesNoSocketAfterAQueryThatIsAnsweredTwiceOrInHalf) {
    for (const char* action : {"twice", "half-message", "disconnect"}) {
        ASSERT_EQ(run({"daemon", "fault", action, "request=mac-query"}).status, 0);
        (void)run({"mac-query", "00:11:22:33:44:55", "--timeout", "60"});
        EXPECT_EQ(socket_files_in(directory()), std::vector<std::string>()) << action;
    }
    ASSERT_EQ(run({"daemon", "fault", "half-message", "request=addr-learning"}).status, 0);
    EXPECT_EQ(run({"addr-learning", "3", "on", "--timeout", "60"}).status, 3);
    EXPECT_EQ(socket_files_in(directory()), std::vector<std::string>());
}

TEST_F(CtlProgram, AFaultTakesTheNamesOfRequestsAndResults) {
    const finished ordered = run({"daemon", "fault", "refuse", "request=addr-learning", "result=no-acl"});
    ASSERT_EQ(ordered.status, 0) << ordered.errors;
    EXPECT_EQ(run({"addr-learning", "3", "on", "--json"}).json_lines().at(0)["result"], 2005);
    const finished misspelt = run({"daemon", "fault", "mute", "request=addr-learnin"});
    EXPECT_EQ(misspelt.status, 2);
    EXPECT_NE(misspelt.errors.find("did you mean 'addr-learning'?"), std::string::npos) << misspelt.errors;
}

TEST_F(CtlProgram, ATestCommandAsJsonStillNamesItsCommand) {
    const json sent = run({"test-cmd-set", "7", "--json"}).json_lines().at(0);
    EXPECT_EQ(sent["command"], "test-cmd-set");
    EXPECT_EQ(sent.value("test_command", 0), 7);
}

TEST_F(CtlProgram, ARefusedQueryShowsNoValue) {
    const auto lines = run({"counter", "acl", "77", "--json"}).json_lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0]["result"], 2005);
    EXPECT_FALSE(lines[0].contains("counter"));
}

TEST_F(CtlProgram, AnAnswerThatNeverComesHasExitStatusThree) {
    ASSERT_EQ(run({"daemon", "mute", "type=123"}).status, 0);
    const finished result = run({"addr-learning", "3", "1", "--timeout", long_enough_to_register});
    EXPECT_EQ(result.status, 3);
    EXPECT_EQ(result.errors, "sccctl: addr-learning: no answer within 4.0 s\n");
}

TEST_F(CtlProgram, ATakenAppIdHasExitStatusThree) {
    process holder(SCCCTL_PATH, {"watch", "--app", "4"}, directory());
    ASSERT_EQ(holder.line(), "server-status status=1");
    const finished result = run({"addr-learning", "3", "1", "--app", "4", "--timeout", "0.3"});
    EXPECT_EQ(result.status, 3);
    EXPECT_NE(result.errors.find("the id is taken"), std::string::npos);
}

TEST_F(CtlProgram, ASingleCommandSaysThatItsCacheIsEmptyAndWhatToDo) {
    ASSERT_EQ(run({"acl", "create", "101"}).status, 0);
    for (const char* reader : {"show", "class"}) {
        const finished result = run({"acl", reader, "101"});
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.errors,
                  "sccctl: acl " + std::string(reader) +
                      ": the cache holds what this process created, so that of a single command "
                      "is empty: 'sccctl acl list' asks the daemon, 'sccctl shell' keeps one "
                      "process (2005)\n");
    }
    const json shown = run({"acl", "show", "101", "--json"}).json_lines().at(0);
    EXPECT_EQ(shown["result"], 2005);
    EXPECT_TRUE(shown.contains("hint"));
    EXPECT_FALSE(shell("acl show 7\n").at(0).contains("hint"));
}

TEST_F(CtlProgram, ARegistrationWithoutTheCacheCannotReadIt) {
    EXPECT_EQ(run({"acl", "show", "101", "--option", "0", "--json"}).json_lines().at(0)["result"], 2013);
}

TEST_F(CtlProgram, EveryNotificationIsWatchedAndDecoded) {
    process watch(SCCCTL_PATH, {"watch", "--json", "--app", "5", "--count", "12"}, directory());
    EXPECT_EQ(json::parse(watch.line()), (json{{"notification", "server-status"}, {"status", 1}}));
    const std::vector<std::pair<std::vector<std::string>, json>> all = {
        {{"station-move", "permit=1"}, {{"notification", "station-move"}, {"type", 210}, {"permit", 1}}},
        {{"authmode", "mode=3"}, {{"notification", "authmode"}, {"type", 214}, {"mode", 3}}},
        {{"dirchn", "add=1", "ip=10.0.0.1"},
         {{"notification", "dirchn"}, {"type", 216}, {"add", 1}, {"ip", "10.0.0.1"}}},
        {{"offline-detect", "open=1", "interval=60", "threshold=9"},
         {{"notification", "offline-detect"},
          {"type", 209},
          {"first", 0},
          {"open", 1},
          {"interval", 60},
          {"threshold", 9}}},
    };
    for (const auto& [words, expected] : all) {
        std::vector<std::string> line = {"notify", "--app", "5"};
        line.insert(line.end(), words.begin(), words.end());
        ASSERT_EQ(run(line).status, 0) << words[0];
        EXPECT_EQ(json::parse(watch.line(), nullptr, false), expected);
    }
    for (const std::string name : {"flow", "noflow-offline", "user-change", "port-violate", "user-roll",
                                   "direct-vlan", "d1x-addr-move", "ace-counter"}) {
        std::vector<std::string> line = {"notify", name, "--app", "5"};
        if (name != "direct-vlan" && name != "ace-counter") {
            line.insert(line.end(), {"ifx=7", "vid=8", "mac=00:11:22:33:44:55"});
        }
        ASSERT_EQ(run(line).status, 0) << name;
        EXPECT_EQ(json::parse(watch.line(), nullptr, false).value("notification", ""), name);
    }
    EXPECT_EQ(watch.finish(), 0);
}

TEST_F(CtlProgram, AUsersNotificationShowsTheUser) {
    process watch(SCCCTL_PATH, {"watch", "--json", "--count", "1"}, directory());
    watch.line();
    ASSERT_EQ(run({"notify", "flow", "ifx=7", "vid=8", "mac=00:11:22:33:44:55", "ip=10.0.0.2",
                   "mask=255.255.255.0", "first=5", "second=0x10"})
                  .status,
              0);
    const json seen = json::parse(watch.line(), nullptr, false);
    EXPECT_EQ(seen["user"]["ip"], "10.0.0.2");
    EXPECT_EQ(seen["user"]["mask"], "255.255.255.0");
    EXPECT_EQ(seen["user"]["ifx"], 7);
    EXPECT_EQ(seen["user"]["vid"], 8);
    EXPECT_EQ(seen["user"]["mac"], "00:11:22:33:44:55");
    EXPECT_EQ(seen["first"], 5);
    EXPECT_EQ(seen["second"], 16);
    EXPECT_EQ(watch.finish(), 0);
}

TEST_F(CtlProgram, WatchedVlansAreAListAndRecordsStandInBraces) {
    process watch(SCCCTL_PATH, {"watch", "--count", "4"}, directory());
    ASSERT_EQ(watch.line(), "server-status status=1");
    ASSERT_EQ(run({"notify", "direct-vlan", "vlans=[5, 4094]"}).status, 0);
    EXPECT_EQ(watch.line(), "direct-vlan vlans=[5,4094]");
    ASSERT_EQ(run({"notify", "port-violate", "add=1", "ifx=7", "mac=00:11:22:33:44:55"}).status, 0);
    EXPECT_EQ(watch.line(), "port-violate add=1 violation={ifx=7,vid=0,mac=00:11:22:33:44:55}");
    ASSERT_EQ(run({"notify", "user-roll", "vid=8", "mac=00:11:22:33:44:55", "roll_type=2"}).status, 0);
    EXPECT_EQ(watch.line(), "user-roll user={ifx=0,vid=8,mac=00:11:22:33:44:55,roll_type=2}");
    ASSERT_EQ(run({"notify", "ace-counter", R"(entries=[{"id":1,"value":3},{"id":2,"value":4}])"}).status, 0);
    EXPECT_EQ(watch.line(),
              "ace-counter key={vdev=0,type=0,acl=0,class=0} count=2 "
              "counters=[{ace=1,packets=3},{ace=2,packets=4}]");
    EXPECT_EQ(watch.finish(), 0);
}

TEST_F(CtlProgram, AMistypedNotificationIsRefusedWithWhatItTakes) {
    const finished field = run({"notify", "station-move", "permitt=1"});
    EXPECT_EQ(field.status, 1);
    EXPECT_EQ(field.errors, "sccctl: notify: no field 'permitt'; station-move takes permit\n");
    EXPECT_EQ(run({"notify", "70000"}).status, 1);
    const finished nobody = run({"notify", "station-move", "permit=1"});
    EXPECT_EQ(nobody.status, 1);
    EXPECT_EQ(nobody.errors, "sccctl: notify: nobody is registered\n");
    EXPECT_EQ(run({"daemon", "mute"}).errors, "sccctl: mute: type is missing\n");
}

TEST_F(CtlProgram, AUsersAddressesAreMarkedInItsFlags) {
    const std::vector<std::string> user = {"nac-user", "add", "--mac", "00:11:22:33:44:55", "--json"};
    const auto flags = [&](const std::vector<std::string>& addresses) {
        std::vector<std::string> line = user;
        line.insert(line.end(), addresses.begin(), addresses.end());
        return run(line).json_lines().at(0)["flags"];
    };
    EXPECT_EQ(flags({}), 0);
    EXPECT_EQ(flags({"--ip", "10.0.0.7"}), 0x2);
    EXPECT_EQ(flags({"--ip", "10.0.0.7", "--mask", "255.0.0.0"}), 0x202);
    EXPECT_EQ(flags({"--ip", "10.0.0.7", "--flags", "0"}), 0);
    EXPECT_EQ(flags({"--ipv6", "2001:db8::7"}), 0x4);
    EXPECT_EQ(run({"daemon", "users", "--json"}).json_lines().at(0)["users"][0]["ip"], "2001:db8::7");
    EXPECT_EQ(run({"nac-user", "get", "--mac", "00:11:22:33:44:55", "--json"}).json_lines().at(0)["ipv6"],
              "2001:db8::7");
}

TEST_F(CtlProgram, AWatchReportsThatTheDaemonWentAway) {
    process watch(SCCCTL_PATH, {"watch"}, directory());
    ASSERT_EQ(watch.line(), "server-status status=1");
    daemon().signal(SIGKILL);
    EXPECT_EQ(watch.line(), "server-status status=0");
    watch.signal(SIGINT);
    EXPECT_EQ(watch.finish(), 0);
}

TEST_F(CtlProgram, AWatchWithoutItsNotificationsRunsIntoItsTime) {
    EXPECT_EQ(run({"watch", "--count", "1", "--seconds", "0.2"}).status, 3);
    EXPECT_EQ(run({"watch", "--seconds", "0.2"}).status, 0);
}

TEST_F(CtlProgram, ADaemonWithoutClientsSaysSo) {
    EXPECT_EQ(run({"alive"}).output, "nobody is registered\n");
    EXPECT_EQ(run({"alive", "--json"}).output, "{\"ok\":true,\"clients\":[]}\n");
    EXPECT_EQ(run({"stats"}).status, 0);
}

TEST_F(CtlProgram, ClientsStatisticsLivenessAndDebuggingGoThroughTheDaemon) {
    process watch(SCCCTL_PATH, {"watch", "--app", "6"}, directory());
    ASSERT_EQ(watch.line(), "server-status status=1");
    const json clients = run({"clients", "--json"}).json_lines().at(0);
    ASSERT_EQ(clients["clients"].size(), 1u);
    EXPECT_EQ(clients["clients"][0]["app"], 6);
    EXPECT_EQ(run({"stats", "--app", "6", "--json"}).json_lines().at(0)["entries"].size(), 13u);
    EXPECT_EQ(run({"alive", "--app", "6", "--json"}).json_lines().at(0)["app"], 6);
    EXPECT_EQ(run({"alive"}).status, 0);
    EXPECT_EQ(run({"debug", "on", "--app", "6"}).status, 0);
    EXPECT_EQ(run({"debug", "off", "--app", "6"}).status, 0);
    EXPECT_EQ(run({"stats", "--json"}).json_lines().at(0)["entries"][7]["name"], "nac-user-delete");
    EXPECT_EQ(run({"debug", "on"}).output, "sent 1\n");  // every client, without --app
    const finished unknown = run({"stats", "--app", "7"});
    EXPECT_EQ(unknown.status, 1);
    EXPECT_EQ(unknown.errors, "sccctl: stats: no application 7 is registered\n");
}

TEST_F(CtlProgram, TwentyAclsAreLoadedSavedAndLoadedAgain) {
    std::string text;
    for (int id = 1; id <= 20; ++id) {
        text += "acl " + std::to_string(id) + " type 3 class 1\n";
        for (int sn = 10; sn <= 100; sn += 10) {
            text +=
                "  " + std::to_string(sn) + " permit tcp 10.0.0.0/8 any port " + std::to_string(sn) + "\n";
        }
    }
    for (int id = 1; id <= 20; ++id) {
        text += "apply " + std::to_string(id) + " type 3 vdev 0 ifx " + std::to_string(id) + "\n";
    }

    const finished loaded =
        run({"acl", "load", file("in.acl", text), "--progress", "--then-save", file("out.acl"), "--json"});
    EXPECT_EQ(loaded.status, 0) << loaded.errors << loaded.output;
    EXPECT_EQ(loaded.errors, "");  // no bar without a terminal
    EXPECT_EQ(loaded.json_lines().at(0)["done"], 240);
    EXPECT_EQ(text_of("out.acl"), text);
}

TEST_F(CtlProgram, ARefusedLineOfAFileIsNamedAndTheOthersTakePlace) {
    const std::string name = file("in.acl", "acl 1\n 10 permit ether\napply 1 ifx 2\nacl 2\n");
    ASSERT_EQ(run({"daemon", "fail-next", "type=132", "result=2011"}).status, 0);
    const finished result = run({"acl", "load", name});
    EXPECT_EQ(result.status, 1);
    EXPECT_TRUE(result.errors.starts_with("sccctl: " + name + ":2: ")) << result.errors;
    EXPECT_EQ(result.output, name + ": 3 of 4 requests done\n");
}

TEST_F(CtlProgram, AFaultyFileIsNotSentAtAll) {
    const std::string name = file("in.acl", "acl 1\n 10 permit nothing\n");
    const finished result = run({"acl", "load", name});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.errors, "sccctl: " + name + ":2:12: protocol 'nothing' is not a number from 0 to 255\n");
    EXPECT_EQ(run({"daemon", "acls", "--json"}).json_lines().at(0)["acls"].size(), 0u);
}

TEST_F(CtlProgram, AShellReadsItsOwnChangesBack) {
    const auto lines = shell(
        "acl create 7 --class 2\n"
        "acl add-ace 7 10 permit tcp any any port 80\n"
        "acl add-ace 7 5 deny ip 10.0.0.0/8 any\n"
        "acl show 7\n"
        "acl resequence 7 100 10\n"
        "acl show-ace 7 110\n"
        "acl class 7\n"
        "acl list\n"
        "acl apply 7 --ifx 3\n"
        "acl save " +
        file("shell.acl") + "\n");
    ASSERT_EQ(lines.size(), 10u);
    EXPECT_EQ(lines[3]["aces"], json::parse(R"([{"sn":5,"id":5,"rule":"5 deny ip 10.0.0.0/8 any"},
                                                {"sn":10,"id":10,"rule":"10 permit tcp any any port 80"}])"));
    EXPECT_EQ(lines[5]["ace"]["rule"], "110 permit tcp any any port 80 id 10");
    EXPECT_EQ(lines[6]["class"], 2);
    EXPECT_EQ(lines[7]["acls"][0]["acl"], 7);
    EXPECT_EQ(text_of("shell.acl"),
              "acl 7 type 1 class 2\n"
              "  100 deny ip 10.0.0.0/8 any id 5\n"
              "  110 permit tcp any any port 80 id 10\n"
              "apply 7 type 1 vdev 0 ifx 3\n");
}

TEST_F(CtlProgramAlone, HasExitStatusThreeWithoutADaemon) {
    const finished request = run({"addr-learning", "3", "1", "--timeout", "0.2"});
    EXPECT_EQ(request.status, 3);
    EXPECT_EQ(request.errors, "sccctl: addr-learning: no daemon at " + file("security/scc/.sccd_sd_") +
                                  ": No such file or directory; start one with sccd-dev\n");
    const finished as_json = run({"is-arp-check-enabled", "--timeout", "0.2", "--json"});
    EXPECT_EQ(as_json.status, 3);
    EXPECT_TRUE(as_json.json_lines().at(0).contains("error"));
    EXPECT_EQ(run({"clients"}).status, 3);
    EXPECT_EQ(run({"alive"}).status, 3);
}

TEST_F(CtlProgramAlone, ASocketThatADaemonLeftBehindIsNoDaemon) {
    {
        process killed(SCCD_DEV_PATH, {}, directory());
        ASSERT_EQ(killed.line(), "sccd-dev: ready");
        killed.signal(SIGKILL);
        EXPECT_EQ(killed.finish(), -1);
    }
    const finished result = run({"addr-learning", "3", "on", "--timeout", "600"});
    EXPECT_EQ(result.status, 3);
    EXPECT_TRUE(result.errors.ends_with(": Connection refused; start one with sccd-dev\n")) << result.errors;
}

TEST_F(CtlProgramAlone, OutputThatCannotBeWrittenHasExitStatusOne) {
    for (const char* line :
         {"strerror 2005", "--version", "--help", "strerror 2005 --json", "--list-commands"}) {
        process full("/bin/sh", {"-c", std::string(SCCCTL_PATH) + " " + line + " > /dev/full"}, directory());
        EXPECT_EQ(full.finish(), 1) << line;
        EXPECT_TRUE(full.errors().starts_with("sccctl: standard output: ")) << full.errors();
    }
}

TEST_F(CtlProgram, AnAclFileThatCannotBeWrittenIsAFailure) {
    const std::string lines = "acl create 7\nacl save /dev/full\nacl save /proc/none/file\n";
    const finished result = run({"shell"}, lines);
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.errors,
              "sccctl: acl save: /dev/full: No space left on device\n"
              "sccctl: acl save: /proc/none/file: No such file or directory\n");
}

TEST_F(CtlProgramAlone, AnErrorNamesTheCommandThatWasTyped) {
    for (const char* name : {"stats", "alive", "top", "metrics", "clients"}) {
        EXPECT_TRUE(run({name}).errors.starts_with(std::string("sccctl: ") + name + ": no daemon at "))
            << name;
    }
}

TEST_F(CtlProgramAlone, EachProgramTellsItsVersion) {
    for (const auto& [name, path] : {std::pair{"sccctl", SCCCTL_PATH}, std::pair{"sccd-dev", SCCD_DEV_PATH},
                                     std::pair{"scc-ss-dev", SERVICE_PATH}}) {
        process program(path, {"--version"}, directory());
        EXPECT_EQ(program.finish(), 0);
        EXPECT_EQ(program.output(), std::string(name) + " " SCC_VERSION_TEXT "\n");
    }
}

TEST_F(CtlProgramAlone, AnswersLocallyWithoutADaemon) {
    EXPECT_EQ(run({"get-nac-max-user", "1", "--json"}).json_lines().at(0)["a"], 4096);
    EXPECT_EQ(run({"bind-user-name-get", "0x3E", "--json"}).json_lines().at(0)["names"],
              "AAA ip-auth-mode/address-bind/DHCP snooping/port-security/web-authen");
}

TEST(CtlCommandList, GivesEveryRowItsOptionsAndHelp) {
    const std::string list = scc::ctl::list_commands();
    for (const auto& row : scc::ctl::commands()) {
        EXPECT_NE(("\n" + list).find("\n" + std::string(row.name) + "\t"), std::string::npos) << row.name;
    }
    EXPECT_NE(list.find("acl create\t--type --class --vdev\tcreate an ACL\n"), std::string::npos);
}

}  // namespace
}  // namespace ctl_test
