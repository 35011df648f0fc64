// Captures of the wire, by sccd-dev and by sccctl.
#include <fmt/format.h>

#include <filesystem>

#include "common/pcapng.h"
#include "ctl_support.h"

namespace ctl_test {
namespace {

using scc::devkit::byte_buffer;
namespace pcapng = scc::devkit::pcapng;

class CtlCapture : public with_daemon {};
class CtlCaptureAlone : public without_daemon {};

std::string bytes(std::initializer_list<int> values) {
    return {values.begin(), values.end()};
}

// What sccctl as app 19 sends for "addr-learning 3 on", from the app id in the packet's header on.
std::string addr_learning(int pid) {
    const std::string number = bytes({pid & 0xff, pid >> 8 & 0xff, pid >> 16 & 0xff, pid >> 24 & 0xff});
    return bytes({1, 0, 2, 0, 19, 0, 0, 0}) + number +
           bytes({28, 0, 0, 0, 1, 1, 0, 0, 12, 0, 0, 0, 0, 0, 123, 0, 1, 0, 0, 0, 3, 0, 0, 0, 1, 0, 0, 0});
}

int number_at(const std::string& text, std::size_t offset) {
    int number = 0;
    text.copy(reinterpret_cast<char*>(&number), sizeof number, offset);
    return number;
}

// The data of each packet block; the file must consist of whole blocks.
std::vector<std::string> packets_of(const std::string& text) {
    std::vector<std::string> packets;
    for (std::size_t offset = 0; offset < text.size();) {
        const auto len = static_cast<std::size_t>(number_at(text, offset + 4));
        if (len < 12 || len % 4 != 0 || offset + len > text.size() ||
            number_at(text, offset + len - 4) != static_cast<int>(len)) {
            ADD_FAILURE() << "no whole block at " << offset;
            return packets;
        }
        if (number_at(text, offset) == 6) {
            packets.push_back(
                text.substr(offset + 28, static_cast<std::size_t>(number_at(text, offset + 20))));
        }
        offset += len;
    }
    return packets;
}

bool has_request(const std::vector<std::string>& packets) {
    for (const std::string& each : packets) {
        if (each.size() == 40 && each == addr_learning(number_at(each, 8)) && number_at(each, 8) != 0) {
            return true;
        }
    }
    return false;
}

TEST(DevkitPcapng, APacketBlockHoldsHeaderAndMessage) {
    const byte_buffer message{9, 8, 7};
    const pcapng::packet_header header{pcapng::packet_direction::from_daemon, pcapng::packet_socket::sync, 5,
                                       0x01020304};
    EXPECT_EQ(pcapng::packet(0x1122334455667788, header, message),
              (byte_buffer{6,    0,    0,    0,    48,   0,    0,    0,    0, 0, 0, 0,  // block, interface
                           0x44, 0x33, 0x22, 0x11, 0x88, 0x77, 0x66, 0x55,              // time
                           15,   0,    0,    0,    15,   0,    0,    0,                 // lengths
                           1,    1,    1,    0,    5,    0,    0,    0,    4, 3, 2, 1,  // header
                           9,    8,    7,    0,    48,   0,    0,    0}));
    const byte_buffer lost = pcapng::packet(0, header, {}, 3);
    EXPECT_EQ(byte_buffer(lost.begin() + 40, lost.end()),
              (byte_buffer{4, 0, 8, 0, 3, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 60, 0, 0, 0}));
}

TEST_F(CtlCapture, FollowsARunningDaemonWholeMessageByMessage) {
    process capture(SCCCTL_PATH, {"capture", file("wire.pcapng")}, directory());
    while (text_of("wire.pcapng").empty()) {
        continue;
    }
    ASSERT_EQ(run({"addr-learning", "3", "on"}).status, 0);
    while (packets_of(text_of("wire.pcapng")).size() < 8) {
        continue;  // two registrations, the request, the unregistration, and their answers
    }
    capture.signal(SIGINT);
    EXPECT_EQ(capture.finish(), 0);
    EXPECT_EQ(capture.errors(), "sccctl: 8 messages captured\n");
    EXPECT_TRUE(has_request(packets_of(text_of("wire.pcapng"))));
}

TEST_F(CtlCapture, EndsAfterTheGivenCountWithAWholeBlock) {
    process capture(SCCCTL_PATH, {"capture", file("wire.pcapng"), "--count", "3"}, directory());
    while (text_of("wire.pcapng").empty()) {
        continue;
    }
    ASSERT_EQ(run({"addr-learning", "3", "on"}).status, 0);
    EXPECT_EQ(capture.finish(), 0);
    EXPECT_EQ(packets_of(text_of("wire.pcapng")).size(), 3u);
}

TEST_F(CtlCapture, ADaemonThatGoesEndsItWithStatusThree) {
    process capture(SCCCTL_PATH, {"capture", file("wire.pcapng")}, directory());
    while (text_of("wire.pcapng").empty()) {
        continue;
    }
    daemon().signal(SIGKILL);
    EXPECT_EQ(capture.finish(), 3);
    EXPECT_NE(capture.errors().find("capture: the daemon went away\n"), std::string::npos)
        << capture.errors();
}

TEST_F(CtlCapture, AFullFileEndsItWithStatusOne) {
    const finished result = run({"capture", "/dev/full"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.errors, "sccctl: capture: /dev/full: No space left on device\n");
    const finished nowhere = run({"capture", "/proc/none/wire.pcapng"});
    EXPECT_EQ(nowhere.status, 1);
    EXPECT_EQ(nowhere.errors, "sccctl: capture: /proc/none/wire.pcapng: No such file or directory\n");
}

TEST_F(CtlCaptureAlone, NoFileIsMadeWithoutADaemon) {
    EXPECT_EQ(run({"capture", file("wire.pcapng")}).status, 3);
    EXPECT_FALSE(std::filesystem::exists(file("wire.pcapng")));
}

TEST_F(CtlCaptureAlone, TheDaemonWritesItsOwnCapture) {
    process daemon(SCCD_DEV_PATH, {"--capture", file("wire.pcapng")}, directory());
    ASSERT_EQ(daemon.line(), "sccd-dev: ready");
    ASSERT_EQ(run({"addr-learning", "3", "on"}).status, 0);
    daemon.signal(SIGTERM);
    EXPECT_EQ(daemon.finish(), 0);
    const auto packets = packets_of(text_of("wire.pcapng"));
    EXPECT_EQ(packets.size(), 8u);
    EXPECT_TRUE(has_request(packets));
}

TEST_F(CtlCaptureAlone, TheDaemonDoesNotStartWithoutItsCapture) {
    for (const auto& [name, problem] : {std::pair{"/proc/none/wire.pcapng", "No such file or directory"},
                                        std::pair{"/dev/full", "No space left on device"}}) {
        process daemon(SCCD_DEV_PATH, {"--capture", name}, directory());
        EXPECT_EQ(daemon.finish(), 1);
        EXPECT_EQ(daemon.errors(), fmt::format("sccd-dev: {}: {}\n", name, problem));
        EXPECT_EQ(daemon.output(), "");
        EXPECT_FALSE(std::filesystem::exists(file("security/scc/.sccd_sd_")));
    }
}

TEST_F(CtlCaptureAlone, AFullTraceShowsEveryFieldAndByte) {
    process daemon(SCCD_DEV_PATH, {"--trace=full"}, directory());
    ASSERT_EQ(daemon.line(), "sccd-dev: ready");
    ASSERT_EQ(run({"dirchn-host-set", "10.0.0.7", "255.255.255.0", "off", "3", "add"}).status, 0);
    std::string line;
    do {
        line = daemon.line();
    } while (!line.empty() && line.find(" dirchn-host-set ") == std::string::npos);
    EXPECT_EQ(line.substr(line.find("<-")),
              "<- app=19 async 113 dirchn-host-set call=1 ip=10.0.0.7 mask=255.255.255.0 arp=off(0) ifx=3 "
              "add=add(1) "
              "(24 bytes) 010000000a000007ffffff00000000000300000001000000");
    process refused(SCCD_DEV_PATH, {"--trace=some"}, directory());
    EXPECT_EQ(refused.finish(), 2);
}

}  // namespace
}  // namespace ctl_test
