// Daemon, security service and applications as processes under load; one or all are killed and restarted.
// Whatever dies, every accepted request is answered exactly once or dropped with its connection, and in the
// end the service has exactly what was answered with success.
#include <filesystem>

#include "devkit/service_frames.h"
#include "kill_support.h"

namespace kill_test {
namespace {

using sccd_test::test_client;
using sccd_test::wire_value;

const std::vector<std::string> with_delay = {"--delay", "150"};

class Kill : public ::testing::Test {
  protected:
    // Everybody registered, and the load running.
    void start(application& app) {
        security.start();
        security.wait_for_registration();
        app.start();
        app.wait_for_connection(1);
        app.wait_for_load();
    }

    // The service has what was answered with success, and nothing else of this application.
    void expect_users_in_place(const application& app, const tally& sum) {
        EXPECT_TRUE(wait_until([&] { return security.users_of(app) == sum.users; }))
            << sum.users.size() << " users were added, " << security.users_of(app).size() << " are held";
    }

    patient_daemon daemon;
    service security{with_delay};
};

// An application can tell what it lost in the same way in both modes.
class KillOfTheDaemon : public Kill, public ::testing::WithParamInterface<receives> {};

INSTANTIATE_TEST_SUITE_P(, KillOfTheDaemon, ::testing::Values(receives::with_a_thread, receives::on_a_loop),
                         [](const auto& way) {
                             return way.param == receives::on_a_loop ? "OnAnEventLoop" : "WithAThread";
                         });

TEST_P(KillOfTheDaemon, UnderLoadDropsTheCallsOfItsConnectionAndAnswersAllLaterOnes) {
    application app(daemon.directory(), 7, 500, GetParam());
    start(app);
    for (std::uint32_t round = 1; round <= 2; ++round) {
        daemon.kill_hard();
        daemon.start();
        EXPECT_TRUE(wait_until([&] { return app.ledger().losses == round; }));
        app.wait_for_connection(round + 1);
        security.wait_for_registration();
        app.wait_for_load();
    }
    app.settle();
    const tally sum = app.check();
    EXPECT_GT(sum.dropped, 0u);
    EXPECT_EQ(sum.timed_out, 0u);
    EXPECT_GT(sum.users.size(), 0u);
    EXPECT_GT(app.ledger().queries, 0u);
    EXPECT_EQ(app.ledger().losses, 2u);
    expect_users_in_place(app, sum);
    app.leave();
}

TEST_F(Kill, AServiceKilledUnderLoadLeavesNoCallUnanswered) {
    application app(daemon.directory(), 7);
    start(app);
    for (int round = 0; round < 3; ++round) {
        security.kill_hard();
        security.start();
        security.wait_for_registration();
        app.wait_for_load();
    }
    app.settle();
    const tally sum = app.check();
    EXPECT_GT(sum.timed_out, 0u);
    EXPECT_EQ(sum.dropped, 0u);
    EXPECT_EQ(app.ledger().losses, 0u);
    expect_users_in_place(app, sum);
    app.leave();
}

// ---- a returning service ----

wire_value ace_with_rule(std::uint32_t call, std::uint32_t acl, const char* text) {
    const scc_ace_record record = scc::service::testing::ace_of(text);
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(&record);
    return wire_value(944)
        .u32(0, call)
        .key(4, 3, acl)
        .raw(24, sccd_test::byte_string(bytes, bytes + sizeof record))
        .u32(936, 1);
}

void fill(test_client& client) {
    EXPECT_EQ(client.result_of(131, sccd_test::acl_request(1, 5, 1)), 0u);
    EXPECT_EQ(client.result_of(132, ace_with_rule(2, 5, "10 permit tcp any any port 80 id 7")), 0u);
    EXPECT_EQ(client.result_of(132, ace_with_rule(3, 5, "20 deny udp any any id 8")), 0u);
    EXPECT_EQ(client.result_of(133, sccd_test::apply_request(4, 5, 1, 1)), 0u);
    EXPECT_EQ(client.result_of(127, sccd_test::user_request(5, 9, 14, 1)), 0u);
    EXPECT_EQ(client.result_of(112, wire_value(12).u32(0, 6).u16(4, 80).u32(8, 1)), 0u);
    EXPECT_EQ(client.result_of(112, wire_value(12).u32(0, 7).u16(4, 8080).u32(8, 1)), 0u);
}

std::uint64_t ace_counter(test_client& client, std::uint64_t ace) {
    const auto reply = client.query(313, wire_value(40).key(4, 3, 5).u64(24, ace).u32(32, 1));
    EXPECT_EQ(reply.u32(40), 0u);
    return reply.u64(32);
}

void run_capture(service& security) {
    const std::size_t from = security.process().line_count();
    security.process().signal(SIGUSR1);
    security.process().wait_for_line("scc-ss-dev: reported:", from);
}

std::vector<std::string> wait_for_recovery(service& security) {
    const std::size_t begin = security.process().wait_for_line("201 data recovery start");
    const std::size_t end = security.process().wait_for_line("201 data recovery end", begin);
    return security.process().lines(begin, end);
}

bool has_line(const std::vector<std::string>& lines, const std::string& text) {
    return std::any_of(lines.begin(), lines.end(),
                       [&](const std::string& line) { return line.find(text) != std::string::npos; });
}

TEST_F(Kill, AServiceThatReturnsUnderLoadIsGivenItsStateAndCountsAgain) {
    security.start_with({"--verbose", "--pcap", std::string(TEST_DATA_DIR) + "/flows.pcap"});
    security.wait_for_registration();
    fill(*std::make_unique<test_client>(daemon, 3, 100));
    application app(daemon.directory(), 7);
    app.start();
    app.wait_for_connection(1);
    run_capture(security);
    app.wait_for_load(300, 0);
    test_client client(daemon, 3, 101);
    EXPECT_EQ(ace_counter(client, 7), 22u);

    security.kill_hard();
    security.start();
    const std::vector<std::string> recovery = wait_for_recovery(security);

    EXPECT_TRUE(has_line(recovery, "131 create acl 0/3/5: 0"));
    EXPECT_TRUE(has_line(recovery, "132 add ace sn 10 id 7 of acl 0/3/5: 0"));
    EXPECT_TRUE(has_line(recovery, "132 add ace sn 20 id 8 of acl 0/3/5: 0"));
    EXPECT_TRUE(has_line(recovery, "133 apply acl 0/3/5 type 3 ifx 1 in: 0"));
    EXPECT_TRUE(has_line(recovery, "154 recover 1 user ifx 14 app 5: 0"));
    EXPECT_TRUE(has_line(recovery, "154 recover "));
    EXPECT_TRUE(has_line(recovery, "155 recover 2 layer-4 ports: 0"));
    EXPECT_EQ(ace_counter(client, 7), 0u);
    run_capture(security);
    EXPECT_EQ(ace_counter(client, 7), 22u);
    app.wait_for_load(300, 0);
    app.settle();
    expect_users_in_place(app, app.check());
    app.leave();
}

// ---- applications ----

TEST_F(Kill, AnApplicationKilledUnderLoadHarmsNobodyAndComesBackUnderItsAppId) {
    application neighbour(daemon.directory(), 5);
    application app(daemon.directory(), 7);
    start(app);
    neighbour.start();
    neighbour.wait_for_connection(1);
    for (int round = 0; round < 3; ++round) {
        neighbour.wait_for_load();
        app.wait_for_load();
        app.kill_hard();
        EXPECT_GT(app.check().dropped, 0u);
        app.start_again();
        app.wait_for_connection(1);
        EXPECT_EQ(registered_pid(7), app.pid());
        for (const char* name : {"/.sccl_sd1_", "/.sccl_sd2_"}) {
            EXPECT_TRUE(
                std::filesystem::is_socket(daemon.socket_directory() + name + std::to_string(app.pid())));
        }
    }
    neighbour.wait_for_load();
    app.wait_for_load();
    for (application* one : {&neighbour, &app}) {
        one->settle();
        const tally sum = one->check();
        EXPECT_EQ(sum.dropped, 0u);
        EXPECT_EQ(sum.timed_out, 0u);
        EXPECT_EQ(one->ledger().losses, 0u);
        expect_users_in_place(*one, sum);
        one->leave();
    }
    EXPECT_TRUE(security.process().runs());
}

// ---- everybody ----

TEST_F(Kill, AllThreeKilledInEveryCombinationAnswerEachCallOnceAndComeBack) {
    application neighbour(daemon.directory(), 5);
    application app(daemon.directory(), 7);
    start(app);
    neighbour.start();
    neighbour.wait_for_connection(1);
    struct victims {
        bool daemon, service, application;
    };
    const victims rounds[] = {{true, true, true},
                              {false, true, true},
                              {true, false, true},
                              {true, true, false},
                              {true, true, true}};
    for (const victims& die : rounds) {
        neighbour.wait_for_load();
        app.wait_for_load();
        const std::uint32_t losses = neighbour.ledger().losses;
        const std::uint32_t app_connections = die.application ? 0 : app.ledger().connections.load();
        if (die.daemon) {
            daemon.kill_hard();
        }
        if (die.service) {
            security.kill_hard();
        }
        if (die.application) {
            app.kill_hard();
            (void)app.check();
        }
        if (die.daemon) {
            EXPECT_TRUE(wait_until([&] { return neighbour.ledger().losses == losses + 1; }));
            daemon.start();
        }
        if (die.service) {
            security.start();
        }
        if (die.application) {
            app.start_again();
        }
        if (die.service || die.daemon) {
            security.wait_for_registration();
        }
        neighbour.wait_for_connection(neighbour.ledger().losses + 1);
        app.wait_for_connection(app_connections + (die.daemon || die.application ? 1 : 0));
        if (HasFailure()) {
            return;
        }
    }
    for (application* one : {&neighbour, &app}) {
        one->wait_for_load();
        one->settle();
        const tally sum = one->check();
        expect_users_in_place(*one, sum);
    }
    neighbour.leave();
    app.leave();
}

// ---- thousands outstanding ----

constexpr std::uint32_t thousands = 5000;

// The service carries out user requests without answering: they stay outstanding until a process dies.
class KillWithThousandsOutstanding : public Kill {
  protected:
    KillWithThousandsOutstanding() : app(daemon.directory(), 7, thousands) {
        security.start_with({"--silent", "151"});
        security.wait_for_registration();
        app.start();
        app.wait_for_load(300, thousands);
        // The last of them may still be in a batch or with the daemon, which would give it to the next
        // service.
        EXPECT_TRUE(wait_for_count(thousands, [&] { return security.users_of(app).size(); }));
    }

    // All calls that come now are answered.
    void serve_again() {
        security.kill_hard();
        security.start_with(with_delay);
        security.wait_for_registration();
    }

    application app;
};

TEST_F(KillWithThousandsOutstanding, TheServiceTheyEndWithItExactlyOnce) {
    serve_again();
    app.wait_for_load(2 * thousands);
    app.settle();
    const tally sum = app.check();
    EXPECT_GE(sum.timed_out, thousands);
    EXPECT_EQ(sum.dropped, 0u);
    expect_users_in_place(app, sum);
    app.leave();
}

TEST_F(KillWithThousandsOutstanding, TheDaemonTheyAreDroppedWithTheConnection) {
    daemon.kill_hard();
    EXPECT_TRUE(wait_until([&] { return app.ledger().losses == 1; }));
    daemon.start();
    app.wait_for_connection(2);
    security.wait_for_registration();
    serve_again();
    app.wait_for_load(thousands);
    app.settle();
    const tally sum = app.check();
    EXPECT_GE(sum.dropped, thousands);
    expect_users_in_place(app, sum);
    app.leave();
}

TEST_F(KillWithThousandsOutstanding, TheApplicationTheyAreForNobody) {
    app.kill_hard();
    EXPECT_GE(app.check().dropped, thousands);
    app.start_again();
    app.wait_for_connection(1);
    serve_again();
    app.wait_for_load(thousands);
    app.settle();
    const tally sum = app.check();
    EXPECT_EQ(sum.dropped, 0u);
    expect_users_in_place(app, sum);
    app.leave();
}

}  // namespace
}  // namespace kill_test
