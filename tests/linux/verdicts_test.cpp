// Real frames through the kernel's rules: 200 rules, 40 frames each. Of every rule and frame three answers
// are compared: whether the frame came out of the bridge, what the classifier of the tables in memory says,
// and what data/verdicts.txt says (make_verdicts.py). The kernel's counters have to agree with them.
#include <arpa/inet.h>

#include <algorithm>
#include <fstream>
#include <random>
#include <set>
#include <sstream>

#include "kernel_support.h"
#include "service/classify.h"

namespace scc::kernel {

// Shown in the names of tests.
static void PrintTo(const list_limits& limits, std::ostream* to) {
    *to << "chains of " << limits.chain << ", runs of " << limits.run;
}

namespace {

using namespace testing;

struct expected_rule {
    std::string matches;  // a digit for each frame
    std::string text;
};

struct verdicts {
    std::vector<frame_bytes> frames;
    std::vector<expected_rule> rules;
};

verdicts read_verdicts() {
    verdicts read;
    std::ifstream file(TEST_DATA_DIR "/verdicts.txt");
    for (std::string line; std::getline(file, line);) {
        std::istringstream words(line);
        std::string kind;
        std::string first;
        words >> kind >> first;
        if (kind == "frame") {
            frame_bytes frame;
            for (std::size_t at = 0; at + 1 < first.size(); at += 2) {
                frame.push_back(static_cast<u8>(std::stoul(first.substr(at, 2), nullptr, 16)));
            }
            read.frames.push_back(frame);
        } else {
            std::string text;
            std::getline(words >> std::ws, text);
            read.rules.push_back({first, text});
        }
    }
    return read;
}

// Frames enter by a, and leave by b unless a rule drops them. What is sent by c comes out of b in any case.
class Verdicts : public ::testing::Test {
  protected:
    void SetUp() override {
        NEED_A_NAMESPACE();
        stay_on_one_processor();
        make_bridge();
    }

    static constexpr const char* map_text = "ifx 1 a0\nifx 2 b0\n";
};

// Port 1, where frames enter, port 2, where they leave, and a port without ACLs.
class three_ports {
  public:
    // Sends the frames into port 1; `arrived` are those that leave. A last one goes around, so that it
    // arrives whatever the ACLs say; false if it does not.
    [[nodiscard]] bool pass(const std::vector<frame_bytes>& frames, std::set<frame_bytes>& arrived) {
        for (const frame_bytes& frame : frames) {
            in_.send(frame);
        }
        frame_bytes last(60, 0x55);
        last[0] = 0x02;
        last[5] = 0x56;
        last[6] = 0x02;
        last[20] = passed_++;
        around_.send(last);
        arrived.clear();
        frame_bytes frame = out_.receive(20'000);
        while (!frame.empty() && frame != last) {
            arrived.insert(frame);
            frame = out_.receive(20'000);
        }
        return frame == last;
    }

  private:
    const raw_socket in_{"a1"};
    const raw_socket out_{"b1"};
    const raw_socket around_{"c1"};
    u8 passed_ = 0;
};

// A rule alone is a run of one where that is enough.
class VerdictsInAnyForm : public Verdicts, public ::testing::WithParamInterface<std::size_t> {};

INSTANTIATE_TEST_SUITE_P(RunsOfAtLeast, VerdictsInAnyForm, ::testing::Values(16, 1));

TEST_P(VerdictsInAnyForm, OfKernelClassifierAndTableAreTheSame) {
    const verdicts table = read_verdicts();
    ASSERT_EQ(table.frames.size(), 40u);
    ASSERT_EQ(table.rules.size(), 200u);
    back_end_bench bench(map_text, nullptr, {1000, GetParam()});
    bench.recover_nothing();
    three_ports ports;
    std::size_t compared = 0;
    for (std::size_t index = 0; index < table.rules.size(); ++index) {
        const expected_rule& expected = table.rules[index];
        const u32 acl = static_cast<u32>(index) + 1;
        // Every fifth permits, and is told by its counter alone.
        const bool denies = index % 5 != 4;
        const std::string text = std::string(denies ? "10 deny " : "10 permit ") + expected.text;
        ASSERT_EQ(bench.create(acl), 0u);
        ASSERT_EQ(bench.add(acl, text), 0u) << text;
        ASSERT_EQ(bench.apply(acl, 1), 0u);
        std::set<frame_bytes> arrived;
        ASSERT_TRUE(ports.pass(table.frames, arrived)) << "the last frame did not arrive";
        const auto rule = ace::decode(ace_of(text));
        ASSERT_TRUE(rule.has_value());
        u64 matched = 0;
        for (std::size_t number = 0; number < table.frames.size(); ++number) {
            const bool wanted = expected.matches[number] == '1';
            const auto packet = service::parse_packet(table.frames[number]);
            ASSERT_TRUE(packet.has_value());
            EXPECT_EQ(service::matches(*rule, *packet), wanted) << text << ", frame " << number;
            EXPECT_EQ(arrived.contains(table.frames[number]), !denies || !wanted)
                << text << ", frame " << number;
            matched += wanted ? 1 : 0;
            ++compared;
        }
        EXPECT_EQ(bench.packets_of(acl), matched) << text;
        EXPECT_EQ(bench.packets_of(acl, 10), matched) << text;
        ASSERT_EQ(
            bench.result_of([acl](contents& held) { return held.acls.unapply(application_of(acl, 1)); }), 0u);
        ASSERT_EQ(bench.remove(acl), 0u);
    }
    EXPECT_EQ(compared, 8000u);
}

TEST_F(Verdicts, FirstMatchingAceDecidesAndCounts) {
    back_end_bench bench(map_text);
    bench.recover_nothing();
    EXPECT_EQ(bench.create(1), 0u);
    EXPECT_EQ(bench.add(1, "20 deny ether"), 0u);
    EXPECT_EQ(bench.add(1, "10 permit ether vlan 7"), 0u);
    EXPECT_EQ(bench.apply(1, 2, 1), 0u);
    const raw_socket in("a1");
    const raw_socket out("b1");
    const frame_bytes plain = {2, 0, 0, 0, 0, 9, 2, 0, 0, 0, 0, 1, 0x88, 0xB5, 1, 1};
    frame_bytes tagged = plain;
    tagged.insert(tagged.begin() + 12, {0x81, 0x00, 0x00, 0x07});
    in.send(plain);
    in.send(tagged);
    EXPECT_EQ(out.receive(20'000), tagged);
    EXPECT_EQ(bench.packets_of(1, 10), 1u);
    EXPECT_EQ(bench.packets_of(1, 20), 1u);
    EXPECT_EQ(bench.packets_of(1), 2u);
    EXPECT_EQ((*bench).run(service::work_kind::query,
                           [](contents& held) { return held.acls.reset_ace_counter(key_of(1), 10); }),
              0u);
    EXPECT_EQ(bench.packets_of(1, 10), 0u);
    EXPECT_EQ(bench.packets_of(1), 2u);
}

TEST_F(Verdicts, AListInManyChainsActsAsOne) {
    back_end_bench bench(map_text, nullptr, {2, 16});
    bench.recover_nothing();
    EXPECT_EQ(bench.create(1), 0u);
    EXPECT_EQ(bench.create(2), 0u);
    // Of twenty stations every other one is denied; 9 is permitted first, and 10 denied by the next ACL
    // alone.
    const auto station = [](u32 number) {
        return (number < 10 ? "02:00:00:00:01:0" : "02:00:00:00:01:") + std::to_string(number);
    };
    for (u32 number = 1; number <= 20; ++number) {
        const std::string sn = std::to_string(number);
        EXPECT_EQ(
            bench.add(1, sn + (number % 2 == 0 ? " permit" : " deny") + " ether src-mac " + station(number)),
            0u);
    }
    EXPECT_EQ(bench.add(1, "3 permit ether src-mac " + station(9) + " id 100"), 0u);
    EXPECT_EQ(bench.add(2, "1 deny ether src-mac " + station(10)), 0u);
    EXPECT_EQ(bench.apply(1, 1), 0u);
    EXPECT_EQ(bench.apply(2, 1), 0u);
    const raw_socket in("a1");
    const raw_socket out("b1");
    frame_bytes frame = {2, 0, 0, 0, 0, 9, 2, 0, 0, 0, 1, 0, 0x88, 0xB5, 1, 1};
    std::vector<unsigned> arrived;
    for (unsigned number = 1; number <= 21; ++number) {
        frame[11] = static_cast<u8>(number / 10 * 16 + number % 10);
        in.send(frame);
    }
    for (frame_bytes next = out.receive(20'000); !next.empty(); next = out.receive(20'000)) {
        arrived.push_back(next[11] / 16u * 10u + next[11] % 16u);
        if (arrived.back() == 21) {
            break;
        }
    }
    EXPECT_EQ(arrived, (std::vector<unsigned>{2, 4, 6, 8, 9, 12, 14, 16, 18, 20, 21}));
    for (u32 number = 1; number <= 20; ++number) {
        EXPECT_EQ(bench.packets_of(1, number), number == 9 ? 0u : 1u) << number;
    }
    EXPECT_EQ(bench.packets_of(1, 100), 1u);
    EXPECT_EQ(bench.packets_of(1), 20u);
    EXPECT_EQ(bench.packets_of(2), 1u);
}

struct bound_user {
    const char* what;
    u32 direction;
    u8 mac;          // the last byte; 0 for none
    const char* ip;  // "" for none
    const char* ipv6;
    u16 vid;
    const char* sees;  // a digit for each frame
};

scc_acl_apply_record application_to(const bound_user& user, u32 ifx) {
    scc_records_application fields{};
    fields.key = key_of(1);
    fields.ifx = ifx;
    fields.direction = user.direction;
    fields.mac[0] = user.mac == 0 ? 0 : 2;
    fields.mac[5] = user.mac;
    fields.vid = user.vid;
    (void)inet_pton(AF_INET, user.ip, &fields.ipv4);
    (void)inet_pton(AF_INET6, user.ipv6, fields.ipv6);
    scc_acl_apply_record record{};
    EXPECT_EQ(scc_records_encode_application(&fields, &record, nullptr), 0u);
    return record;
}

// Of each application of an ACL to a user three answers are compared: the kernel's, that of the tables in
// memory, and the table's.
TEST_F(Verdicts, TheAclOfAUserIsForItsFramesAlone) {
    back_end_bench bench(map_text);
    bench.recover_nothing();
    const frame_bytes arp = {2, 0, 0, 0, 0, 0x21, 2, 0,  0, 0, 0, 9, 8, 6, 0, 1, 8, 0,  6, 4, 0,
                             1, 2, 0, 0, 0, 0,    9, 10, 0, 0, 9, 0, 0, 0, 0, 0, 0, 10, 0, 0, 1};
    frame_bytes tagged = ipv4_frame(9, 9, 0x21, 1);
    tagged.insert(tagged.begin() + 12, {0x81, 0x00, 0x00, 20});
    const frame_bytes ipv6 = {2, 0, 0,    0, 0,    0x21, 2,   0,    0, 0, 0, 9, 0x86, 0xDD, 0x60, 0, 0, 0,
                              0, 0, 59,   1, 0x20, 1,    0xD, 0xB8, 0, 0, 0, 0, 0,    0,    0,    0, 0, 0,
                              0, 9, 0x20, 1, 0xD,  0xB8, 0,   0,    0, 0, 0, 0, 0,    0,    0,    0, 0, 1};
    const std::vector<frame_bytes> frames = {
        ipv4_frame(9, 9, 0x21, 1), ipv4_frame(8, 9, 0x21, 1), ipv4_frame(9, 8, 0x21, 1), arp, tagged, ipv6,
        ipv4_frame(9, 9, 0x21, 9), ipv4_frame(8, 8, 0x22, 9)};
    const bound_user users[] = {
        {"mac", 0, 9, "", "", 0, "10111110"},
        {"mac and ip", 0, 9, "10.0.0.9", "", 0, "10001010"},
        {"ip", 0, 0, "10.0.0.9", "", 0, "11001010"},
        {"mac and vlan", 0, 9, "", "", 20, "00001000"},
        {"mac, ip and vlan", 0, 9, "10.0.0.9", "", 21, "00000000"},
        {"ipv6", 0, 9, "", "2001:db8::9", 0, "00000100"},
        {"both", 0, 9, "10.0.0.9", "2001:db8::9", 0, "10001110"},
        {"other mac", 0, 7, "10.0.0.9", "", 0, "00000000"},
        {"out, mac", 1, 0x21, "", "", 0, "11111110"},
        {"out, mac and ip", 1, 0x21, "10.0.0.9", "", 0, "00000010"},
        {"out, ipv6", 1, 0, "", "2001:db8::1", 0, "00000100"},
        {"out, the sender", 1, 9, "10.0.0.9", "", 0, "00000000"},
    };
    three_ports ports;
    EXPECT_EQ(bench.create(1), 0u);
    EXPECT_EQ(bench.add(1, "10 deny ether"), 0u);
    u64 dropped = 0;
    for (const bound_user& user : users) {
        const scc_acl_apply_record application = application_to(user, user.direction == 0 ? 1 : 2);
        service::acl_table table;
        ASSERT_EQ(table.create(key_of(1)), 0u);
        ASSERT_EQ(table.add_ace(key_of(1), ace_of("10 deny ether")), 0u);
        ASSERT_EQ(table.apply(application), 0u);
        ASSERT_EQ(bench.result_of([&](contents& held) { return held.acls.apply(application); }), 0u);
        std::set<frame_bytes> arrived;
        ASSERT_TRUE(ports.pass(frames, arrived)) << user.what << ": the last frame did not arrive";
        for (std::size_t number = 0; number < frames.size(); ++number) {
            const bool wanted = user.sees[number] == '1';
            const auto packet = service::parse_packet(frames[number]);
            ASSERT_TRUE(packet.has_value());
            EXPECT_EQ(table.classify(*packet, {1, 2}).denied, wanted) << user.what << ", frame " << number;
            EXPECT_EQ(!arrived.contains(frames[number]), wanted) << user.what << ", frame " << number;
            dropped += wanted ? 1 : 0;
        }
        EXPECT_EQ(bench.packets_of(1), dropped) << user.what;
        ASSERT_EQ(bench.result_of([&](contents& held) { return held.acls.unapply(application); }), 0u);
    }
}

// ---- ACEs that are looked up in maps ----

struct listed_ace {
    u32 sn = 0;
    u32 id = 0;
    ace::rule rule;
    u64 packets = 0;
};

// A rule of the frames' own addresses and ports. Those with the same `form` compare the same fields.
std::string random_rule(u32 form, std::mt19937& random) {
    const auto pick = [&](std::initializer_list<const char*> texts) {
        return std::string(texts.begin()[random() % texts.size()]);
    };
    const auto ip = [&] { return " host " + pick({"10.0.0.1", "10.0.1.2", "192.0.2.3", "198.51.100.4"}); };
    const auto net = [&] {
        return " " + pick({"10.0.0.0/24", "10.0.1.0/24", "192.0.2.0/24", "10.0.0.0/23"});
    };
    const auto ipv6 = [&] { return " host " + pick({"2001:db8::1", "2001:db8:1::2", "fd00::3"}); };
    const auto port = [&] { return " eq " + pick({"22", "80", "443", "1024", "40000"}); };
    const auto protocol = [&] { return pick({"tcp", "udp"}); };
    switch (form) {
        case 0:
            return "ip" + ip() + ip();
        case 1:
            return protocol() + ip() + " any" + port();
        case 2:
            return protocol() + " any any" + port();
        case 3:
            return "ipv6" + ipv6() + ipv6();
        case 4:
            return protocol() + " any" + port() + " any" + port();
        case 5:
            return "ip" + net() + " any";
        case 6:
            return "ether src-mac 02:00:00:00:0" + pick({"0", "1", "2", "3"}) + ":01 vlan " +
                   pick({"10", "20"});
        default:
            return protocol() + " any any range 1 " + pick({"80", "443", "2000"});
    }
}

// One list, whose ACEs come and go, and the packets that each should have counted.
class changing_list {
  public:
    explicit changing_list(back_end_bench& bench) : bench_(bench) {
        EXPECT_EQ(bench.create(1), 0u);
        EXPECT_EQ(bench.apply(1, 1), 0u);
    }

    // Some ACEs come, mostly of the form that is usual at their place, or go, in one transaction.
    void change(u32 count) {
        EXPECT_EQ(bench_.result_of([&](contents& held) {
            u32 result = 0;
            for (u32 change = 0; change < count; ++change) {
                result |= random_() % 3 == 0 && !aces_.empty() ? remove(held) : add(held);
            }
            return result;
        }),
                  0u);
    }

    // Whether the frame passes; counts it where it should be counted.
    bool expect(const frame_bytes& frame) {
        const auto packet = service::parse_packet(frame);
        EXPECT_TRUE(packet.has_value());
        const auto first = std::find_if(aces_.begin(), aces_.end(), [&](const listed_ace& ace) {
            return service::matches(ace.rule, *packet);
        });
        if (first == aces_.end()) {
            return true;
        }
        ++first->packets;
        ++packets_;
        return !first->rule.denies();
    }

    void compare_counters() {
        for (const listed_ace& ace : aces_) {
            EXPECT_EQ(bench_.packets_of(1, ace.id), ace.packets) << ace.sn << " id " << ace.id;
        }
        EXPECT_EQ(bench_.packets_of(1), packets_);
    }

  private:
    u32 add(contents& held) {
        const u32 sn = 1 + static_cast<u32>(random_() % 64);
        const u32 id = ++last_id_;
        const u32 form = random_() % 8 == 0 ? static_cast<u32>(random_() % 8) : sn / 8 % 8;
        const std::string text = std::to_string(sn) + (random_() % 2 == 0 ? " deny " : " permit ") +
                                 random_rule(form, random_) + " id " + std::to_string(id);
        const scc_ace_record record = ace_of(text);
        const auto after =
            std::find_if(aces_.begin(), aces_.end(), [sn](const listed_ace& ace) { return ace.sn > sn; });
        aces_.insert(after, {sn, id, *ace::decode(record), 0});
        return held.acls.add_ace(key_of(1), record);
    }
    u32 remove(contents& held) {
        const auto ace = aces_.begin() + static_cast<std::ptrdiff_t>(random_() % aces_.size());
        scc_ace_record record{};
        record.sn = ace->sn;
        record.ace_id = ace->id;
        aces_.erase(ace);
        return held.acls.delete_ace(key_of(1), record);
    }

    back_end_bench& bench_;
    std::mt19937 random_{20261122};
    std::vector<listed_ace> aces_;
    u64 packets_ = 0;
    u32 last_id_ = 1000;
};

class Runs : public Verdicts, public ::testing::WithParamInterface<list_limits> {};

INSTANTIATE_TEST_SUITE_P(Limits, Runs,
                         ::testing::Values(list_limits{1000, 2}, list_limits{1000, 4}, list_limits{7, 2},
                                           list_limits{1000, 1000}));

TEST_P(Runs, GiveTheVerdictsAndCountersOfASingleList) {
    const verdicts table = read_verdicts();
    back_end_bench bench(map_text, nullptr, GetParam());
    bench.recover_nothing();
    changing_list list(bench);
    three_ports ports;
    for (u32 round = 0; round < 40; ++round) {
        list.change(1 + round);
        ASSERT_TRUE(bench.log().empty()) << bench.log().front();
        std::vector<bool> wanted;
        for (const frame_bytes& frame : table.frames) {
            wanted.push_back(list.expect(frame));
        }
        std::set<frame_bytes> arrived;
        ASSERT_TRUE(ports.pass(table.frames, arrived)) << "the last frame did not arrive";
        std::vector<bool> passed;
        for (const frame_bytes& frame : table.frames) {
            passed.push_back(arrived.contains(frame));
        }
        EXPECT_EQ(passed, wanted);
        list.compare_counters();
        ASSERT_FALSE(HasFailure()) << "round " << round << "\n" << output_of("nft list table netdev scclib");
    }
}

TEST_F(Verdicts, AClosedInterfaceAdmitsItsUsersAlone) {
    back_end_bench bench(map_text);
    bench.recover_nothing();
    const frame_bytes known = {2, 0, 0, 0, 0, 9, 2, 0, 0, 0, 0, 1, 0x88, 0xB5, 1, 1};
    frame_bytes stranger = known;
    stranger[11] = 2;
    bench.change([](contents& held) { held.nac.set_app({1, 0, 6}, 1); });
    bench.change([](contents& held) {
        scc_ss_user user{};
        user.ifx = 1;
        const u8 mac[] = {2, 0, 0, 0, 0, 1};
        std::copy(std::begin(mac), std::end(mac), user.mac);
        held.nac.add_user(user);
    });
    const raw_socket in("a1");
    const raw_socket out("b1");
    in.send(stranger);
    in.send(known);
    EXPECT_EQ(out.receive(20'000), known);
    std::map<std::string, counted> counters;
    EXPECT_EQ((*bench).refresh_counters(counters), 0u);
    EXPECT_EQ(counters[access_counter(1)].packets, 1u);
    EXPECT_EQ(counters["user-1-020000000001"].packets, 1u);
    bench.change([](contents& held) { held.nac.set_app({1, 0, 6}, 3); });
    in.send(stranger);
    EXPECT_EQ(out.receive(20'000), stranger);
}

}  // namespace
}  // namespace scc::kernel
