// Messages out of a stream of bytes, without a receive thread: what one read brings, what is left over, what
// is refused.
#include "client/message_stream.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <optional>

#include "support/large_blocks.h"
#include "support/log_capture.h"
#include "support/wire_bytes.h"

using test::bytes;
using test::item_bytes;
using test::message_bytes;
using test::wire;

namespace {

class MessageStream : public ::testing::Test {
  protected:
    MessageStream() {
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends_), 0);
    }
    ~MessageStream() override {
        close(ends_[0]);
        close(ends_[1]);
    }

    void arrive(const bytes& some) {
        ASSERT_EQ(send(ends_[1], some.data(), some.size(), MSG_NOSIGNAL), static_cast<ssize_t>(some.size()));
    }

    // One read of bytes that have arrived.
    void fill() { ASSERT_EQ(stream_->fill(ends_[0]), 0U); }

    // The next message; empty when there is none.
    bytes next(std::uint32_t expected = 0) {
        void* message = this;
        EXPECT_EQ(stream_->next(&message), expected);
        if (message == nullptr) {
            return {};
        }
        const auto* at = static_cast<const std::uint8_t*>(message);
        bytes copy(at, at + test::number_at<std::uint32_t>({at, at + 4}, 0));
        std::free(message);
        return copy;
    }

    static bytes message_of(std::size_t size, std::uint8_t first) {
        bytes value(size - 16);
        for (std::size_t i = 0; i < value.size(); ++i) {
            value[i] = static_cast<std::uint8_t>(first + i * 7);
        }
        return message_bytes({item_bytes(77, value)});
    }

    // A message of a large block, of which only a part has arrived.
    void begin_large_message() {
        arrive(test::slice(message_of(test::large_blocks::size, 1), 0, 100));
        fill();
        EXPECT_EQ(next(), bytes());
    }

    int ends_[2] = {-1, -1};
    std::optional<scc::message_stream> stream_{std::in_place};
};

TEST_F(MessageStream, TwoMessagesCutAtEveryOffsetAreTwoMessages) {
    const bytes first = message_of(40, 1);
    const bytes second = message_of(33, 9);
    const bytes both = wire().add(first).add(second);
    for (std::size_t cut = 1; cut < both.size(); ++cut) {
        SCOPED_TRACE(cut);
        arrive(test::slice(both, 0, cut));
        fill();
        const bool has_first = cut >= first.size();
        EXPECT_EQ(next(), has_first ? first : bytes());
        EXPECT_EQ(next(), bytes());
        arrive(test::slice(both, cut, both.size() - cut));
        fill();
        if (!has_first) {
            EXPECT_EQ(next(), first);
        }
        EXPECT_EQ(next(), second);
        EXPECT_EQ(next(), bytes());
    }
}

TEST_F(MessageStream, OneReadBringsTheRestOfAMessageAndTheNext) {
    const bytes second = message_of(40, 9);
    const std::pair<std::size_t, std::size_t> rows[] = {{1000, 600}, {16000, 10000}};
    for (const auto& [size, cut] : rows) {
        SCOPED_TRACE(size);
        const bytes first = message_of(size, 1);
        arrive(test::slice(first, 0, cut));
        fill();
        EXPECT_EQ(next(), bytes());
        arrive(wire().add(test::slice(first, cut, size - cut)).add(second));
        fill();
        EXPECT_EQ(next(), first);
        EXPECT_EQ(next(), second);
        EXPECT_EQ(next(), bytes());
    }
}

TEST_F(MessageStream, WhatFollowsAMessageLongerThanAReadIsLeftToTheNextRead) {
    const bytes first = message_of(60000, 1);
    const bytes second = message_of(40, 9);
    arrive(test::slice(first, 0, 30000));
    fill();
    EXPECT_EQ(next(), bytes());
    arrive(wire().add(test::slice(first, 30000, 30000)).add(second));
    bytes found;
    for (int reads = 0; reads < 20 && found.empty(); ++reads) {
        fill();
        found = next();
    }
    EXPECT_EQ(found, first);
    fill();
    EXPECT_EQ(next(), second);
}

TEST_F(MessageStream, AReadAfterALeftOverBeginningTakesNoMoreThanThereIsRoomFor) {
    wire all;
    std::vector<bytes> expected;
    for (std::uint8_t i = 0; i < 10; ++i) {
        expected.push_back(message_of(4003, i));
        all.add(expected.back());
    }
    const bytes& stream = all.get();
    const std::size_t first_read = 4003 + 7;
    arrive(test::slice(stream, 0, first_read));
    fill();
    EXPECT_EQ(next(), expected[0]);
    EXPECT_EQ(next(), bytes());
    arrive(test::slice(stream, first_read, stream.size() - first_read));
    std::vector<bytes> found = {expected[0]};
    for (int reads = 0; reads < 10 && found.size() < expected.size(); ++reads) {
        fill();
        for (bytes one = next(); !one.empty(); one = next()) {
            found.push_back(one);
        }
    }
    EXPECT_EQ(found, expected);
}

TEST_F(MessageStream, AHeaderWithoutItemsIsAFormatErrorAndOnlyItIsSkipped) {
    const test::debugging on;
    arrive(wire().u32(8).u8(1).u16(1).u8(0));
    fill();
    EXPECT_EQ(next(2007), bytes());
    arrive(wire().u32(40).u8(1).u16(0).u8(0).add(message_of(40, 1)));
    fill();
    EXPECT_EQ(next(2007), bytes());
    EXPECT_EQ(next(), message_of(40, 1));
    EXPECT_EQ(test::log_texts(),
              (std::vector<std::string>{"msg format error,no tlv.", "msg format error,no tlv."}));
}

TEST_F(MessageStream, AMessageOfOneByteMoreThanAHeaderIsReadWhole) {
    const test::debugging on;
    arrive(wire().u32(9).u8(1).u16(1).u8(0).u8(0xEE).add(message_of(40, 1)));
    fill();
    EXPECT_EQ(next(2007), bytes());
    EXPECT_EQ(next(), message_of(40, 1));
    EXPECT_EQ(test::log_texts(), std::vector<std::string>{"msg format error,items exceed msg. len:9."});
}

TEST_F(MessageStream, ARefusedMessageIsFreed) {
    const test::large_blocks blocks;
    {
        bytes refused = message_of(test::large_blocks::size, 1);
        refused[8] += 1;  // the item's length
        arrive(refused);
    }
    fill();
    EXPECT_EQ(next(2007), bytes());
    EXPECT_EQ(blocks.more(), 0);
}

TEST_F(MessageStream, AnUnfinishedMessageIsFreedWhenItStartsAfresh) {
    const test::large_blocks blocks;
    begin_large_message();
    stream_->reset();
    EXPECT_EQ(blocks.more(), 0);
    arrive(message_of(40, 1));
    fill();
    EXPECT_EQ(next(), message_of(40, 1));
}

TEST_F(MessageStream, AnUnfinishedMessageIsFreedWithIt) {
    const test::large_blocks blocks;
    begin_large_message();
    stream_.reset();
    EXPECT_EQ(blocks.more(), 0);
}

TEST_F(MessageStream, AReadThatBringsNothingIsItsErrorAndTheEnd32) {
    const test::debugging on;
    EXPECT_EQ(stream_->fill(ends_[0]), 11U);
    shutdown(ends_[1], SHUT_WR);
    EXPECT_EQ(stream_->fill(ends_[0]), 32U);
    EXPECT_EQ(test::log_texts(), (std::vector<std::string>{"recv msg hdr error! syn:0 errno:11.",
                                                           "recv msg hdr error! syn:0 errno:32."}));
}

}  // namespace
