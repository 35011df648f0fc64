#include <sys/resource.h>

#include <random>

#include "sccd_support.h"

namespace sccd_test {
namespace {

byte_string header(std::uint32_t len, std::uint8_t version, std::uint16_t count) {
    return wire_value(8).u32(0, len).u8(4, version).u16(5, count).bytes();
}

TEST(SccdHostile, ALengthBelowAHeaderEndsTheConnection) {
    daemon_process daemon;
    wire_socket wire(daemon.socket_path());

    wire.send_raw(header(7, 1, 1));

    EXPECT_TRUE(wire.ends());
    test_client client(daemon, 3, 77);
}

TEST(SccdHostile, ALengthBeyondSixteenMebibytesEndsTheConnection) {
    daemon_process daemon;
    wire_socket wire(daemon.socket_path());

    wire.send_raw(header(16u * 1024 * 1024 + 1, 1, 1));

    EXPECT_TRUE(wire.ends());
    test_client client(daemon, 3, 77);
}

TEST(SccdHostile, AHostileClientLosesItsRegistrationToo) {
    daemon_process daemon;
    test_client client(daemon, 3, 77);

    client.async.send_raw(header(0, 1, 1));

    EXPECT_TRUE(client.sync.ends());
    EXPECT_EQ(control({{"do", "clients"}})["clients"].size(), 0u);
}

TEST(SccdHostile, MessagesWithoutItemsAreIgnored) {
    daemon_process daemon;
    test_client client(daemon, 3, 77);

    client.async.send_raw(header(8, 1, 0));
    client.async.send_raw(wire_socket::message({}));

    EXPECT_EQ(client.result_of(108, wire_value(8).u32(0, 1)), 0u);
}

TEST(SccdHostile, AMessageOfAnotherVersionIsIgnored) {
    daemon_process daemon;
    test_client client(daemon, 3, 77);
    byte_string message = wire_socket::message({item(108, wire_value(8).u32(0, 1))});
    message[4] = 2;

    client.async.send_raw(message);

    EXPECT_EQ(client.result_of(108, wire_value(8).u32(0, 2)), 0u);
}

TEST(SccdHostile, AMessageWhoseItemsDoNotFitIsIgnoredWhole) {
    daemon_process daemon;
    test_client client(daemon, 3, 77);
    byte_string too_long_value =
        wire_socket::message({item(108, wire_value(8).u32(0, 1)), item(108, wire_value(8).u32(0, 2))});
    too_long_value[8 + 16] = 9;
    byte_string one_item_too_many = wire_socket::message({item(108, wire_value(8).u32(0, 3))});
    one_item_too_many[5] = 2;
    byte_string bytes_left_over =
        wire_socket::message({item(108, wire_value(8).u32(0, 4)), item(108, wire_value(8).u32(0, 5))});
    bytes_left_over[5] = 1;
    byte_string huge_value = wire_socket::message({item(108, wire_value(8).u32(0, 6))});
    for (std::size_t offset = 8; offset < 12; ++offset) {
        huge_value[offset] = 0xff;
    }

    for (const byte_string& message : {too_long_value, one_item_too_many, bytes_left_over, huge_value}) {
        client.async.send_raw(message);
    }

    EXPECT_EQ(client.result_of(108, wire_value(8).u32(0, 7)), 0u);
}

TEST(SccdHostile, AMessageMayArriveByteByByte) {
    daemon_process daemon;
    test_client client(daemon, 3, 77);

    for (const std::uint8_t byte : wire_socket::message({item(108, wire_value(8).u32(0, 7))})) {
        client.async.send_raw({byte});
    }

    EXPECT_EQ(client.async.receive().u32(0), 7u);
}

TEST(SccdHostile, UnknownTypesAndReportsOfApplicationsAreIgnored) {
    daemon_process daemon;
    test_client client(daemon, 3, 77);

    client.async.send({item(0, wire_value(8)), item(65535, wire_value(8)), item(402, wire_value(12)),
                       item(204, wire_value(8)), item(202, wire_value(24).u32(4, 1)),
                       item(318, wire_value(8)), item(319, wire_value(4))});

    EXPECT_EQ(client.result_of(108, wire_value(8).u32(0, 1)), 0u);
}

TEST(SccdHostile, EveryTypeWithEveryShortLengthLeavesTheDaemonAlive) {
    daemon_process daemon;
    test_client client(daemon, 3, 77);
    test_client service(daemon, service_app, 78);

    for (std::uint16_t type = 100; type < 420; ++type) {
        if (type == 301 || type == 302) {
            continue;
        }
        for (const std::size_t len : {0u, 3u, 4u, 8u, 12u, 40u, 48u, 104u}) {
            service.sync.send(type, wire_value(len));
            client.async.send(type, wire_value(len));
        }
    }

    EXPECT_EQ(control({{"do", "clients"}})["clients"].size(), 2u);
}

TEST(SccdHostile, RandomBytesNeverEndTheDaemon) {
    daemon_process daemon;
    std::mt19937 random(4711);
    for (int round = 0; round < 50; ++round) {
        wire_socket wire(daemon.socket_path());
        byte_string bytes(64 + random() % 4096);
        for (std::uint8_t& byte : bytes) {
            byte = static_cast<std::uint8_t>(random());
        }
        // Half of them have a valid header.
        if (round % 2 == 0) {
            const byte_string front =
                header(static_cast<std::uint32_t>(bytes.size()), 1, static_cast<std::uint16_t>(random() % 8));
            std::copy(front.begin(), front.end(), bytes.begin());
        }
        ::send(wire.descriptor(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    }

    test_client client(daemon, 3, 77);
    EXPECT_EQ(client.result_of(108, wire_value(8).u32(0, 1)), 0u);
}

TEST(SccdHostile, AClientThatNeverReadsDoesNotHoldUpOthers) {
    daemon_process daemon;
    test_client deaf(daemon, 3, 77);
    test_client other(daemon, 4, 78);
    std::vector<test_item> requests;
    for (std::uint32_t call = 0; call < 10000; ++call) {
        requests.push_back(item(108, wire_value(8).u32(0, call)));
    }

    for (int round = 0; round < 20; ++round) {
        deaf.async.send(requests);
    }
    EXPECT_EQ(other.result_of(108, wire_value(8).u32(0, 1)), 0u);

    // Everything that was queued for the client that did not read is still there, in order.
    std::uint32_t expected = 0;
    for (int count = 0; count < 20 * 10000; ++count) {
        ASSERT_EQ(deaf.async.receive().u32(0), expected);
        expected = (expected + 1) % 10000;
    }
}

TEST(SccdHostile, ADaemonWithoutDescriptorsEndsNewConnectionsAndGoesOn) {
    daemon_process daemon;
    test_client client(daemon, 3, 77);
    constexpr rlimit few{32, 32};
    ASSERT_EQ(::prlimit(daemon.pid(), RLIMIT_NOFILE, &few, nullptr), 0);

    {
        std::deque<wire_socket> many;
        for (int count = 0; count < 40; ++count) {
            many.emplace_back(daemon.socket_path());
        }
        EXPECT_TRUE(many.back().ends());
        EXPECT_EQ(client.result_of(108, wire_value(8).u32(0, 1)), 0u);
    }
    // The ends of those connections have been seen before an exchange that begins after them has ended twice.
    client.settle();
    client.settle();

    test_client other(daemon, 4, 78);
    EXPECT_EQ(other.result_of(108, wire_value(8).u32(0, 2)), 0u);
}

TEST(SccdHostile, AControlLineThatIsNotAnObjectIsRefused) {
    daemon_process daemon;
    wire_socket wire(daemon.socket_directory() + "/.sccd_ctl");
    const std::string lines = "\n[1,2]\n{\"do\":5}\n{\"do\":\"clients\"}\n";

    wire.send_raw(byte_string(lines.begin(), lines.end()));

    std::string replies;
    char letter = 0;
    while (std::count(replies.begin(), replies.end(), '\n') < 4 &&
           ::recv(wire.descriptor(), &letter, 1, 0) == 1) {
        replies.push_back(letter);
    }
    const std::string refused = "{\"ok\":false,\"error\":\"not a JSON object\"}\n";
    EXPECT_TRUE(replies.starts_with(refused + refused + "{\"ok\":false,\"error\":\"no command ''; "))
        << replies;
    EXPECT_TRUE(replies.ends_with("\n{\"ok\":true,\"clients\":[]}\n")) << replies;
}

// Each level of a list would take stack when the request's field is copied.
TEST(SccdHostile, AControlLineThatIsNestedTooDeeplyIsRefused) {
    daemon_process daemon;
    constexpr std::size_t levels = 500'000;
    for (const std::string field : {R"("direct-vlan","vlans":)", R"("ace-counter","entries":)"}) {
        wire_socket wire(std::string(std::getenv("TMPDIR")) + "/security/scc/.sccd_ctl");
        const std::string line = R"({"do":"notify-named","name":)" + field + std::string(levels, '[') +
                                 std::string(levels, ']') + "}\n";

        wire.send_raw({line.begin(), line.end()});

        EXPECT_EQ(wire.receive_text(), R"({"ok":false,"error":"not a JSON object"})");
        EXPECT_EQ(control({{"do", "clients"}})["ok"], true);
    }
}

TEST(SccdHostile, AControlLineThatIsTooLongIsRefusedOnceAndDropped) {
    daemon_process daemon;
    wire_socket wire(daemon.socket_directory() + "/.sccd_ctl");
    const byte_string part(4u * 1024 * 1024, 'x');

    wire.send_raw(part);
    wire.send_raw({'x'});

    EXPECT_EQ(wire.receive_text(), R"({"ok":false,"error":"a line of more than 4194304 bytes"})");
    wire.send_raw(part);
    const std::string rest = "x\n{\"do\":\"clients\"}\n";
    wire.send_raw({rest.begin(), rest.end()});
    EXPECT_EQ(wire.receive_text(), R"({"ok":true,"clients":[]})");
}

// The daemon has handled what arrived before.
void settle() {
    EXPECT_EQ(control({{"do", "clients"}})["ok"], true);
}

// How much is taken until the daemon reads no more; `most` if it reads on.
std::size_t bytes_taken(int descriptor, const byte_string& line, std::size_t most) {
    std::size_t taken = 0;
    for (int full = 0; full < 3 && taken < most;) {
        const std::size_t offset = taken % line.size();
        const ssize_t count =
            ::send(descriptor, line.data() + offset, line.size() - offset, MSG_DONTWAIT | MSG_NOSIGNAL);
        full = count > 0 ? 0 : full + 1;
        taken += count > 0 ? static_cast<std::size_t>(count) : 0;
        if (count <= 0) {
            settle();
        }
    }
    return taken;
}

TEST(SccdHostile, ControlLinesAreNotReadOnAndOnWhileAnAnswerIsAwaited) {
    daemon_process daemon;
    test_client client(daemon, 3, 77);
    wire_socket wire(daemon.socket_directory() + "/.sccd_ctl");
    const std::string asked = R"({"do":"alive","app":3,"timeout_ms":1000000})"
                              "\n";
    wire.send_raw({asked.begin(), asked.end()});
    ASSERT_EQ(client.async.receive().type, 319);
    byte_string line(128 * 1024, 'x');
    line.back() = '\n';

    const std::size_t taken = bytes_taken(wire.descriptor(), line, 64u * 1024 * 1024);

    EXPECT_LT(taken, 8u * 1024 * 1024);
    client.sync.send(319, wire_value(4).u32(0, 3));
    EXPECT_TRUE(wire.receive_text().starts_with(R"({"ok":true,"app":3)"));
    const byte_string last(line.begin() + static_cast<std::ptrdiff_t>(taken % line.size()), line.end());
    wire.send_raw(last);
    for (std::size_t lines = 0; lines < taken / line.size() + 1; ++lines) {
        ASSERT_EQ(wire.receive_text(), R"({"ok":false,"error":"not a JSON object"})");
    }
}

}  // namespace
}  // namespace sccd_test
