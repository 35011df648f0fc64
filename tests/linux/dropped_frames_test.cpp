#include "linux/dropped_frames.h"

#include "kernel_support.h"

namespace scc::kernel {
namespace {

using namespace testing;
using namespace std::chrono_literals;

constexpr ace::mac_bytes first_mac = {2, 0, 0, 0, 0, 1};
constexpr ace::mac_bytes second_mac = {2, 0, 0, 0, 0, 2};

// Waits until `count` frames have come.
std::vector<dropped_frame> take(dropped_frames& log, std::size_t count) {
    std::vector<dropped_frame> frames;
    while (frames.size() < count) {
        pollfd ready{log.descriptor(), POLLIN, 0};
        if (::poll(&ready, 1, 60'000) != 1) {
            ADD_FAILURE() << "only " << frames.size() << " frames came";
            break;
        }
        const std::vector<dropped_frame> more = log.take();
        frames.insert(frames.end(), more.begin(), more.end());
    }
    return frames;
}

TEST(DroppedFrames, NameTheirStationInterfaceAndVlan) {
    NEED_A_NAMESPACE();
    NEED_THE_PACKET_LOG();
    make_bridge();
    ASSERT_TRUE(dropped_frames::are_told());
    dropped_frames log;
    EXPECT_EQ(log.problem(), "");
    back_end_bench bench("ifx 1 a0\nifx 2 b0\n");
    bench.recover_nothing();
    bench.change([](contents& held) { held.nac.set_app({1, 0, 6}, 1); });
    bench.change([](contents& held) { held.nac.set_app({2, 0, 6}, 1); });
    const raw_socket port_a("a1");
    const raw_socket port_b("b1");
    const frame_bytes plain = {2, 0, 0, 0, 0, 9, 2, 0, 0, 0, 0, 1, 0x88, 0xB5, 1, 1};
    frame_bytes tagged = {2, 0, 0, 0, 0, 9, 2, 0, 0, 0, 0, 2, 0x81, 0, 0x60, 20, 0x88, 0xB5, 1, 1};
    port_a.send(plain);
    port_b.send(tagged);

    std::vector<dropped_frame> frames = take(log, 2);
    std::ranges::sort(frames, {}, &dropped_frame::source);
    ASSERT_EQ(frames.size(), 2u);
    EXPECT_EQ(frames[0].source, first_mac);
    EXPECT_EQ(frames[0].kernel_index, ::if_nametoindex("a0"));
    EXPECT_EQ(frames[0].vid, 0);
    EXPECT_EQ(frames[1].source, second_mac);
    EXPECT_EQ(frames[1].kernel_index, ::if_nametoindex("b0"));
    EXPECT_EQ(frames[1].vid, 20);
    EXPECT_TRUE(log.take().empty());
}

TEST(DroppedFrames, HaveOneReader) {
    NEED_A_NAMESPACE();
    NEED_THE_PACKET_LOG();
    const dropped_frames log;
    const dropped_frames second;
    EXPECT_GE(log.descriptor(), 0);
    EXPECT_EQ(second.descriptor(), -1);
    EXPECT_EQ(second.problem(), "another process reads them");
    EXPECT_TRUE(dropped_frames::are_told()) << "although another process reads them";
}

TEST(OnceASecond, CountsEachStationOfEachInterfaceForItself) {
    once_a_second limit;
    const once_a_second::clock::time_point start{1h};
    EXPECT_TRUE(limit.allows(1, first_mac, start));
    EXPECT_FALSE(limit.allows(1, first_mac, start + 999ms));
    EXPECT_TRUE(limit.allows(1, second_mac, start + 999ms));
    EXPECT_TRUE(limit.allows(2, first_mac, start + 999ms));
    EXPECT_TRUE(limit.allows(1, first_mac, start + 1s));
    EXPECT_FALSE(limit.allows(1, first_mac, start + 1500ms));
}

TEST(OnceASecond, ForgetsStationsThatAreGone) {
    once_a_second limit;
    const once_a_second::clock::time_point start{1h};
    for (unsigned index = 0; index < 1'000; ++index) {
        const ace::mac_bytes mac = {2, 0, 0, 0, static_cast<u8>(index >> 8), static_cast<u8>(index)};
        EXPECT_TRUE(limit.allows(1, mac, start + index * 10ms));
    }
    EXPECT_LE(limit.known(), 200u);
}

}  // namespace
}  // namespace scc::kernel
