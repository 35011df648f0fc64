// One message at a time from a socket: what becomes of an interrupted one, and what ends with its connection.
#include "client/message_reader.h"

#include "client/connected_pair.h"
#include "support/large_blocks.h"

using scc::message_end;
using test::bytes;
using test::wire;

namespace {

// The beginning of a message of a large block.
bytes large_beginning() {
    return wire().u32(test::large_blocks::size).u8(1).u16(1).u8(0).zeros(100);
}

class MessageReader : public test::connected_pair {};

TEST_F(MessageReader, AnInterruptedMessageGoesOnWhereItWasCut) {
    for (std::size_t cut = 1; cut < good.size(); ++cut) {
        arrive(test::slice(good, 0, cut));
        expect_refused(receive(), 11, message_end::not_reached);
        arrive(wire().add(test::slice(good, cut, good.size() - cut)).add(good));
        expect_whole(good);
        expect_whole(good);
    }
}

TEST_F(MessageReader, AReadOfAnEarlierConnectionLeavesAnInterruptedMessageAlone) {
    const std::uint32_t earlier = scc::connection_epoch();
    lose();
    connect();
    arrive(test::slice(good, 0, 15));
    expect_refused(receive(), 11, message_end::not_reached);
    expect_refused(scc::receive_message(scc::channel::sync, earlier), 9, message_end::not_reached);
    arrive(test::slice(good, 15, good.size() - 15));
    expect_whole(good);
}

TEST_F(MessageReader, TheRestOfAnInterruptedMessageIsNotTakenFromTheNextConnection) {
    for (const std::size_t cut : {3U, 15U}) {
        arrive(test::slice(good, 0, cut));
        expect_refused(receive(), 11, message_end::not_reached);
        lose();
        connect();
        arrive(good);
        expect_whole(good);
    }
}

TEST_F(MessageReader, AnInterruptedMessageIsFreedWhenTheNextConnectionIsRead) {
    const test::large_blocks blocks;
    arrive(large_beginning());
    expect_refused(receive(), 11, message_end::not_reached);
    lose();
    connect();
    arrive(good);
    expect_whole(good);
    EXPECT_EQ(blocks.more(), 0);
}

TEST_F(MessageReader, AnInterruptedMessageIsFreedWhenItsStreamEnds) {
    const test::large_blocks blocks;
    arrive(large_beginning());
    end_stream();
    expect_refused(receive(), 32, message_end::not_reached);
    EXPECT_EQ(blocks.more(), 0);
}

TEST_F(MessageReader, AHeaderWithoutItemsIsRefusedAndOnlyItIsSkipped) {
    const test::debugging on;
    arrive(wire().u32(8).u8(1).u16(1).u8(0).u32(40).u8(1).u16(0).u8(0).add(good));
    expect_refused(receive(), 2007, message_end::refused);
    expect_refused(receive(), 2007, message_end::refused);
    expect_whole(good);
    EXPECT_EQ(test::log_texts(),
              (std::vector<std::string>{"msg format error,no tlv.", "msg format error,no tlv."}));
}

TEST_F(MessageReader, AMessageOfOneByteMoreThanAHeaderIsReadWhole) {
    const test::debugging on;
    arrive(wire().u32(9).u8(1).u16(1).u8(0).u8(0xEE).add(good));
    expect_refused(receive(), 2007, message_end::dropped);
    expect_whole(good);
    EXPECT_EQ(test::log_texts(), std::vector<std::string>{"msg format error,items exceed msg. len:9."});
}

TEST_F(MessageReader, AMessageWhoseItemsDoNotFitIsFreed) {
    const test::large_blocks blocks;
    {
        const bytes refused = wire()
                                  .u32(test::large_blocks::size)
                                  .u8(1)
                                  .u16(1)
                                  .u8(0)
                                  .u32(test::large_blocks::size)
                                  .to(test::large_blocks::size);
        arrive(refused);
    }
    expect_refused(receive(), 2007, message_end::dropped);
    EXPECT_EQ(blocks.more(), 0);
    arrive(good);
    expect_whole(good);
}

}  // namespace
