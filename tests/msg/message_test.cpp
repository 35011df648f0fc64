// Building messages, and the loops that move them over a socket.
#include "msg/message.h"

#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <thread>

#include "support/aside.h"
#include "support/wire_bytes.h"

using test::bytes;
using test::item_bytes;
using test::wire;

namespace {

constexpr std::uint32_t all_ones = 0xFFFFFFFFU;

// ---- building -----------------------------------------------------------------------------------------

TEST(MessageAlloc, HandsOutZeroedBytesAndFreeTakesThemBack) {
    void* message = nullptr;
    ASSERT_EQ(_scc_msg_alloc(&message, 1499), 0U);
    ASSERT_NE(message, nullptr);
    const bytes content(static_cast<std::uint8_t*>(message), static_cast<std::uint8_t*>(message) + 1499);
    EXPECT_EQ(content, bytes(1499));
    _scc_msg_free(&message);
    EXPECT_EQ(message, nullptr);
    _scc_msg_free(&message);
    _scc_msg_free(nullptr);
}

TEST(MessageAlloc, RefusesANullAddress) {
    EXPECT_EQ(_scc_msg_alloc(nullptr, 8), 22U);
}

TEST(MessageHeader, ZeroesTheWholeMessageAndThenSetsItsThreeFields) {
    bytes message(20, 0xEE);
    _scc_msg_hdr_init(message.data(), 1, 0x1234, 16);
    EXPECT_EQ(message, bytes(wire().u32(16).u8(1).u16(0x1234).u8(0).zeros(8).fill(4, 0xEE)));
    _scc_msg_hdr_init(nullptr, 1, 1, 8);
}

TEST(MessageLength, IsTheHeadersLengthAlsoUnaligned) {
    const bytes message = wire().u8(0).u32(0x01020304).zeros(4);
    EXPECT_EQ(_scc_msg_len_get(message.data() + 1), 0x01020304U);
    EXPECT_EQ(_scc_msg_len_get(nullptr), 0U);
}

TEST(MessageAppend, BeginsAnEmptyMessageByItselfAndPacksItemsWithoutPadding) {
    bytes message(64);
    const bytes first = item_bytes(301, wire().u8(1).u8(2).u8(3));
    const bytes second = item_bytes(302, wire().u32(7), 0xABCD);
    EXPECT_EQ(_scc_msg_tlv_add(message.data(), first.data()), 0U);
    EXPECT_EQ(_scc_msg_tlv_add(message.data(), second.data()), 0U);
    EXPECT_EQ(message, bytes(wire()
                                 .u32(8 + 11 + 12)
                                 .u8(1)
                                 .u16(2)
                                 .u8(0)
                                 .u32(3)
                                 .u16(0)
                                 .u16(301)
                                 .u8(1)
                                 .u8(2)
                                 .u8(3)
                                 .u32(4)
                                 .u16(0xABCD)
                                 .u16(302)
                                 .u32(7)
                                 .to(64)));
}

TEST(MessageAppend, InitialisesTheHeaderAgainWhileTheCountIsZero) {
    bytes message = wire().u32(777).u8(9).u16(0).u8(0).to(64);
    const bytes item = item_bytes(5, {});
    EXPECT_EQ(_scc_msg_tlv_add(message.data(), item.data()), 0U);
    EXPECT_EQ(message, bytes(wire().u32(16).u8(1).u16(1).u8(0).u32(0).u16(0).u16(5).to(64)));
}

TEST(MessageAppend, FillsAMessageToExactly1499Bytes) {
    bytes message(1499);
    const bytes item = item_bytes(5, bytes(1499 - 16, 0xAB));
    EXPECT_EQ(_scc_msg_tlv_add(message.data(), item.data()), 0U);
    EXPECT_EQ(message, bytes(wire().u32(1499).u8(1).u16(1).u8(0).add(item)));
}

TEST(MessageAppend, RefusesWhatWouldBring1500BytesAndLeavesTheMessageAsItIs) {
    bytes message(2000);
    const bytes small = item_bytes(5, wire().u32(1));
    ASSERT_EQ(_scc_msg_tlv_add(message.data(), small.data()), 0U);
    const bytes before = message;
    for (const std::size_t length : {std::size_t{1500 - 20 - 8}, std::size_t{1900}}) {
        const bytes item = item_bytes(6, bytes(length, 0xAB));
        EXPECT_EQ(_scc_msg_tlv_add(message.data(), item.data()), all_ones);
        EXPECT_EQ(message, before);
    }
    for (const std::uint32_t claimed : {0xFFFFFFFFU, 0xFFFFFFF8U, 0x80000000U}) {
        const bytes item = wire().u32(claimed).u16(0).u16(6);
        EXPECT_EQ(_scc_msg_tlv_add(message.data(), item.data()), all_ones) << claimed;
        EXPECT_EQ(message, before);
    }
    const bytes fits = item_bytes(6, bytes(1499 - 20 - 8, 0xCD));
    EXPECT_EQ(_scc_msg_tlv_add(message.data(), fits.data()), 0U);
    EXPECT_EQ(test::u32_at(message, 0), 1499U);
}

TEST(MessageAppend, RefusesAFirstItemThatWouldBring1500BytesAndLeavesTheMessageEmpty) {
    const bytes empty = wire().u32(8).u8(1).u16(0).u8(0).to(2000);
    bytes message = empty;
    const bytes item = item_bytes(6, bytes(1500 - 16, 0xAB));
    EXPECT_EQ(_scc_msg_tlv_add(message.data(), item.data()), all_ones);
    EXPECT_EQ(message, empty);
}

TEST(MessageAppend, RefusesNullArguments) {
    bytes message(64);
    const bytes item = item_bytes(5, {});
    EXPECT_EQ(_scc_msg_tlv_add(nullptr, item.data()), 22U);
    EXPECT_EQ(_scc_msg_tlv_add(message.data(), nullptr), 22U);
    EXPECT_EQ(message, bytes(64));
}

TEST(MessageWriters, WriteAHeaderAndAnItemHeaderAtAnyAddress) {
    bytes buffer(24, 0xEE);
    scc::write_header(buffer.data() + 1, 2, 24);
    scc::write_item_header(buffer.data() + 9, 7, 0x0102, 0x0304);
    EXPECT_EQ(buffer,
              bytes(wire().u8(0xEE).u32(24).u8(1).u16(2).u8(0).u32(7).u16(0x0102).u16(0x0304).fill(7, 0xEE)));
}

// ---- moving -------------------------------------------------------------------------------------------

class SocketLoops : public ::testing::Test {
  protected:
    SocketLoops() {
        int pair[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
        ours = pair[0];
        theirs = pair[1];
    }
    ~SocketLoops() override {
        close(ours);
        close_theirs();
    }
    void close_theirs() {
        if (theirs >= 0) {
            close(theirs);
            theirs = -1;
        }
    }
    void put(const bytes& some) const {
        ASSERT_EQ(write(theirs, some.data(), some.size()), static_cast<ssize_t>(some.size()));
    }
    [[nodiscard]] bytes take(std::size_t count) const {
        bytes got(count);
        std::size_t have = 0;
        while (have < count) {
            const ssize_t n = read(theirs, got.data() + have, count - have);
            if (n <= 0) {
                ADD_FAILURE() << "ended after " << have;
                break;
            }
            have += static_cast<std::size_t>(n);
        }
        return got;
    }
    // Whether the next byte that arrives at our end is this one.
    [[nodiscard]] bool next_byte_is(std::uint8_t expected) const {
        std::uint8_t byte = 0;
        return read(ours, &byte, 1) == 1 && byte == expected;
    }

    int ours = -1;
    int theirs = -1;
};

TEST_F(SocketLoops, SendMovesAllBytesThroughAFullSocket) {
    bytes large(4 << 20);
    for (std::size_t i = 0; i < large.size(); ++i) {
        large[i] = static_cast<std::uint8_t>(i * 31 + i / 4099);
    }
    bytes got;
    std::thread reader([&] { got = take(large.size()); });
    EXPECT_EQ(_scc_msg_send(ours, large.data(), static_cast<int>(large.size())), 0U);
    reader.join();
    EXPECT_TRUE(got == large);
}

TEST_F(SocketLoops, SendOfNothingSendsNothingAndSucceeds) {
    const bytes some(4, 1);
    EXPECT_EQ(_scc_msg_send(ours, nullptr, 4), 0U);
    EXPECT_EQ(_scc_msg_send(ours, some.data(), 0), 0U);
    EXPECT_EQ(_scc_msg_send(ours, some.data(), -1), 0U);
    EXPECT_EQ(_scc_msg_send(-1, some.data(), 0), 0U);
    const bytes marker = {0x77};
    EXPECT_EQ(_scc_msg_send(ours, marker.data(), 1), 0U);
    EXPECT_EQ(take(1), marker) << "something was sent before";
}

TEST_F(SocketLoops, SendReturnsTheErrorOfTheSystem) {
    const bytes some(4, 1);
    EXPECT_EQ(_scc_msg_send(-1, some.data(), 4), 9U);
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    EXPECT_EQ(_scc_msg_send(ends[1], some.data(), 4), 88U);
    close(ends[0]);
    close(ends[1]);
}

TEST_F(SocketLoops, SendToAPeerThatClosedReturns32AndRaisesNoSignal) {
    static volatile std::sig_atomic_t raised = 0;
    ASSERT_NE(std::signal(SIGPIPE, [](int) { raised = 1; }), SIG_ERR);
    close_theirs();
    const bytes some(4, 1);
    EXPECT_EQ(_scc_msg_send(ours, some.data(), 4), 32U);
    EXPECT_EQ(raised, 0);
}

TEST_F(SocketLoops, SendReturns11WhenTheSendTimeOutExpires) {
    const timeval short_time{0, 20000};
    ASSERT_EQ(setsockopt(ours, SOL_SOCKET, SO_SNDTIMEO, &short_time, sizeof short_time), 0);
    const bytes large(8 << 20, 1);
    EXPECT_EQ(_scc_msg_send(ours, large.data(), static_cast<int>(large.size())), 11U);
}

TEST_F(SocketLoops, HeaderReceiveTakesExactlyEightBytes) {
    put({1, 2, 3, 4, 5, 6, 7, 8, 9});
    bytes header(10, 0xEE);
    EXPECT_EQ(_scc_msg_hdr_recv(ours, header.data()), 0U);
    EXPECT_EQ(header, bytes({1, 2, 3, 4, 5, 6, 7, 8, 0xEE, 0xEE}));
    EXPECT_TRUE(next_byte_is(9));
}

TEST_F(SocketLoops, HeaderReceiveWithoutABufferReadsNothing) {
    put({9});
    EXPECT_EQ(_scc_msg_hdr_recv(ours, nullptr), 0U);
    EXPECT_TRUE(next_byte_is(9));
}

TEST_F(SocketLoops, ReceivesCollectBytesThatTrickleIn) {
    bytes header(8);
    bytes body(5, 0xEE);
    std::uint32_t results[2] = {1, 1};
    std::thread receiver([&] {
        results[0] = _scc_msg_hdr_recv(ours, header.data());
        results[1] = _scc_msg_body_recv(ours, body.data(), 5);
    });
    for (std::uint8_t i = 1; i <= 13; ++i) {
        put({i});
        std::this_thread::yield();
    }
    receiver.join();
    EXPECT_EQ(results[0], 0U);
    EXPECT_EQ(results[1], 0U);
    EXPECT_EQ(header, bytes({1, 2, 3, 4, 5, 6, 7, 8}));
    EXPECT_EQ(body, bytes({9, 10, 11, 12, 13}));
}

TEST_F(SocketLoops, APeerThatClosesBeforeOrWithinAHeaderGives32) {
    put({1, 2, 3, 4, 5, 6, 7});
    close_theirs();
    bytes header(8);
    EXPECT_EQ(_scc_msg_hdr_recv(ours, header.data()), 32U);
    EXPECT_EQ(_scc_msg_hdr_recv(ours, header.data()), 32U);
}

TEST_F(SocketLoops, APeerThatClosesBeforeOrWithinABodyGives32) {
    put({1, 2, 3});
    close_theirs();
    bytes body(4, 0xEE);
    EXPECT_EQ(_scc_msg_body_recv(ours, body.data(), 4), 32U);
    EXPECT_EQ(body, bytes({1, 2, 3, 0})) << "the buffer was not zeroed first";
    EXPECT_EQ(_scc_msg_body_recv(ours, body.data(), 4), 32U);
    EXPECT_EQ(body, bytes(4));
}

TEST_F(SocketLoops, APeerThatClosesWhileTheBodyIsAwaitedGives32) {
    bytes body(100);
    std::uint32_t result = 1;
    std::thread receiver([&] { result = _scc_msg_body_recv(ours, body.data(), 100); });
    put(bytes(99, 1));
    shutdown(theirs, SHUT_WR);
    receiver.join();
    EXPECT_EQ(result, 32U);
}

TEST_F(SocketLoops, BodyReceiveOfNothingReadsNothing) {
    put({9});
    bytes body(4, 0xEE);
    EXPECT_EQ(_scc_msg_body_recv(ours, nullptr, 4), 0U);
    EXPECT_EQ(_scc_msg_body_recv(ours, body.data(), 0), 0U);
    EXPECT_EQ(_scc_msg_body_recv(ours, body.data(), -5), 0U);
    EXPECT_EQ(body, bytes(4, 0xEE));
    EXPECT_TRUE(next_byte_is(9));
}

TEST_F(SocketLoops, ReceivesReturnTheErrorOfTheSystem) {
    bytes buffer(8);
    EXPECT_EQ(_scc_msg_hdr_recv(-1, buffer.data()), 9U);
    EXPECT_EQ(_scc_msg_body_recv(-1, buffer.data(), 8), 9U);
    const timeval short_time{0, 20000};
    ASSERT_EQ(setsockopt(ours, SOL_SOCKET, SO_RCVTIMEO, &short_time, sizeof short_time), 0);
    EXPECT_EQ(_scc_msg_hdr_recv(ours, buffer.data()), 11U);
}

// ---- the reset rule -----------------------------------------------------------------------------------

TEST(ConnectionReset, IsCalledForByElevenErrorsAndNoOther) {
    const std::vector<std::uint32_t> fatal = {9, 22, 32, 88, 95, 100, 101, 104, 107, 110, 111};
    for (std::uint32_t error = 0; error <= 2100; ++error) {
        const bool expected = std::find(fatal.begin(), fatal.end(), error) != fatal.end();
        EXPECT_EQ(_scc_connect_should_reset(error), expected) << error;
    }
    EXPECT_FALSE(_scc_connect_should_reset(all_ones));
    EXPECT_FALSE(_scc_connect_should_reset(static_cast<std::uint32_t>(-32)));
}

TEST(MessageLength, OfNoMessageIsZero) {
    EXPECT_EQ(_scc_msg_len_get(nullptr), 0U);
}

TEST(MessageAlloc, AFreedMessageGivesItsMemoryBack) {
    const std::size_t before =
        mallinfo2().uordblks;  // 0 under the address sanitizer, which finds leaks itself
    for (int i = 0; i < 1000; ++i) {
        void* message = nullptr;
        ASSERT_EQ(_scc_msg_alloc(&message, 4096), 0U);
        _scc_msg_free(&message);
    }
    EXPECT_LE(mallinfo2().uordblks, before + (std::size_t{128} << 10U));
}

TEST_F(SocketLoops, ABodyOfOneByteIsReceived) {
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    ASSERT_EQ(send(pair[0], "x", 1, 0), 1);
    char byte = 0;
    EXPECT_EQ(_scc_msg_body_recv(pair[1], &byte, 1), 0U);
    EXPECT_EQ(byte, 'x');
    close(pair[0]);
    close(pair[1]);
}

// A signal ends the first send in the middle; the rest follows, and no byte after it.
TEST_F(SocketLoops, ASendThatBreaksOffIsCompletedAndSendsNothingElse) {
    const bytes large(8 << 20, 1);
    test::aside<std::uint32_t> sending(
        [&] { return _scc_msg_send(ours, large.data(), static_cast<int>(large.size())); });
    test::handle_interruptions();
    ASSERT_TRUE(sending.waits_in({SYS_sendto}));
    sending.interrupt();
    EXPECT_TRUE(take(large.size()) == large);
    EXPECT_EQ(sending.get(), 0U);
    const bytes marker = {0x77};
    EXPECT_EQ(_scc_msg_send(ours, marker.data(), 1), 0U);
    EXPECT_EQ(take(1), marker);
}

}  // namespace
