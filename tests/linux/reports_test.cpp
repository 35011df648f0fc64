// What is reported is seen in the log: without a daemon each notification fails, and is logged as such.
#include "linux/reports.h"

#include <algorithm>

#include "kernel_support.h"

namespace scc::kernel {
namespace {

using namespace testing;

class Reports : public ::testing::Test {
  protected:
    void SetUp() override {
        NEED_A_NAMESPACE();
        make_bridge();
        stay_on_one_processor();
        std::string error;
        const auto map = parse_interface_map("ifx 1 a0\nifx 2 b0\n", error);
        ASSERT_TRUE(map.has_value()) << error;
        filter_ = open_packet_filter(error);
        ASSERT_NE(filter_, nullptr) << error;
        back_end_ = std::make_unique<kernel_back_end>(table_, *map, *filter_, [](const std::string&) {});
        ASSERT_EQ(back_end_->start(), 0u);
        const auto log = [this](const std::string& line) { log_.push_back(line); };
        reports_ = std::make_unique<reports>(table_, *back_end_, *map, 1, log);
        change([](contents& held) {
            held.begin_recovery();
            held.end_recovery();
        });
    }

    template <class Work>
    void change(Work work) {
        EXPECT_EQ(back_end_->run(service::work_kind::change,
                                 [work](contents& held) {
                                     work(held);
                                     return 0u;
                                 }),
                  0u);
    }

    // Passes until there is such a line, and returns those before it.
    std::vector<std::string> lines_before(const std::string& wanted) {
        for (;;) {
            const auto at = std::find_if(log_.begin(), log_.end(), [&wanted](const std::string& line) {
                return line.starts_with(wanted);
            });
            if (at != log_.end()) {
                std::vector<std::string> before(log_.begin(), at);
                log_.erase(log_.begin(), at + 1);
                return before;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
            reports_->pass();
        }
    }
    // A report after the one that has come last tells nothing that begins like this.
    void expect_no_other(const std::string& unwanted) {
        send_from("b1", 20);
        for (std::vector<std::string> lines = lines_before(marker); const std::string& line : lines) {
            EXPECT_FALSE(line.starts_with(unwanted)) << line;
        }
        for (const std::string& line : log_) {
            EXPECT_FALSE(line.starts_with(unwanted)) << line;
        }
    }

    static constexpr const char* marker = "not reported: hits of acl 0-3-2";
    static void add_marker(contents& held) {
        EXPECT_EQ(held.acls.create(key_of(2)), 0u);
        EXPECT_EQ(held.acls.add_ace(key_of(2), ace_of("10 permit ether")), 0u);
        EXPECT_EQ(held.acls.apply(application_of(2, 2)), 0u);
    }

    void wait_for(const std::string& wanted) { (void)lines_before(wanted); }

    // From 02:00:00:00:00:`last`, to an address that no bridge knows.
    static void send_from(const std::string& interface, u8 last) {
        raw_socket(interface).send({2, 0, 0, 0, 0, 1, 2, 0, 0, 0, 0, last, 0x88, 0xB5, 1, 1});
    }
    static scc_ss_user user_with(u8 last, u32 ifx) {
        scc_ss_user user{};
        user.ifx = ifx;
        user.mac[0] = 2;
        user.mac[5] = last;
        return user;
    }

    service::forwarding_table table_;
    std::unique_ptr<packet_filter> filter_;
    std::unique_ptr<kernel_back_end> back_end_;
    std::vector<std::string> log_;
    std::unique_ptr<reports> reports_;
};

TEST_F(Reports, AnAddressThatABridgeLearnsElsewhereHasMoved) {
    ASSERT_GE(reports_->descriptor(), 0);
    send_from("a1", 9);
    send_from("a1", 10);
    // On an interface that is not in the map.
    send_from("c1", 9);
    send_from("b1", 9);
    wait_for("not reported: 02:00:00:00:00:09 moved to interface 2");
    EXPECT_TRUE(log_.empty()) << log_.front();
    send_from("b1", 10);
    wait_for("not reported: 02:00:00:00:00:0a moved to interface 2");
    send_from("a1", 9);
    wait_for("not reported: 02:00:00:00:00:09 moved to interface 1");
}

TEST_F(Reports, AStrangerIsReportedAndAUserWithAnotherAddressIsNot) {
    NEED_THE_PACKET_LOG();
    change([](contents& held) {
        held.nac.set_app({1, 0, 6}, 1);
        scc_ss_user user = user_with(9, 1);
        user.ip = htonl(0x0A000009);
        held.nac.add_user(user);
    });
    send_from("a1", 9);
    send_from("a1", 8);
    for (const std::string& line :
         lines_before("not reported: 02:00:00:00:00:08 is a stranger on interface 1")) {
        EXPECT_EQ(line.find("stranger"), std::string::npos) << line;
    }
    // Known elsewhere, and a stranger here all the same.
    send_from("b1", 7);
    send_from("a1", 7);
    wait_for("not reported: 02:00:00:00:00:07 is a stranger on interface 1");
    change([](contents& held) { held.nac.add_user(user_with(8, 1)); });
    send_from("a1", 8);
    send_from("a1", 6);
    for (const std::string& line :
         lines_before("not reported: 02:00:00:00:00:06 is a stranger on interface 1")) {
        EXPECT_FALSE(line.starts_with("not reported: 02:00:00:00:00:08 is a stranger")) << line;
    }
}

TEST_F(Reports, AnInterfaceThatComesBackGetsItsRulesAgain) {
    change([](contents& held) {
        EXPECT_EQ(held.acls.create(key_of(1)), 0u);
        EXPECT_EQ(held.acls.apply(application_of(1, 1)), 0u);
    });
    command("ip link del a0");
    wait_for("interface a0 is gone");
    command("nft flush ruleset");
    command("ip link add a0 type bridge");
    wait_for("interface a0 is there");
    change([](contents&) {});
    EXPECT_NE(output_of("nft list chain netdev scclib in-1-a0").find("jump acl-0-3-1.0"), std::string::npos);
}

TEST_F(Reports, HitsAreReportedWhenTheyChange) {
    change([](contents& held) {
        add_marker(held);
        EXPECT_EQ(held.acls.create(key_of(1)), 0u);
        EXPECT_EQ(held.acls.add_ace(key_of(1), ace_of("10 permit ether")), 0u);
        EXPECT_EQ(held.acls.apply(application_of(1, 1)), 0u);
    });
    send_from("a1", 9);
    wait_for("not reported: hits of acl 0-3-1");
    expect_no_other("not reported: hits of acl 0-3-1");
    send_from("a1", 9);
    wait_for("not reported: hits of acl 0-3-1");
}

TEST_F(Reports, FlowsAndSilenceOfUsersAreReportedOnce) {
    change([](contents& held) {
        add_marker(held);
        held.nac.add_user(user_with(9, 1));
        held.nac.set_offline_detection({true, 1, 0});
    });
    for (int time = 0; time < 2; ++time) {
        send_from("a1", 9);
        wait_for("not reported: flow of ");
        wait_for("not reported: no flow of ");
        expect_no_other("not reported: flow of ");
        expect_no_other("not reported: no flow of ");
    }
}

}  // namespace
}  // namespace scc::kernel
