// Integers in and out of bytes, the walk over items, and the bound that makes the walk safe.
#include "msg/bytes.h"

#include <gtest/gtest.h>

#include "support/guarded_bytes.h"
#include "support/wire_bytes.h"

using test::bytes;
using test::item_bytes;
using test::message_bytes;
using test::wire;

namespace {

TEST(Bytes, LoadAndStoreTakeAnyAddressAndTouchNothingElse) {
    bytes buffer(16, 0xEE);
    scc::store<std::uint16_t>(buffer.data(), 1, 0x1122);
    scc::store<std::uint64_t>(buffer.data(), 5, 0x0102030405060708);
    EXPECT_EQ(buffer, bytes(wire().u8(0xEE).u16(0x1122).fill(2, 0xEE).u64(0x0102030405060708).fill(3, 0xEE)));
    EXPECT_EQ(scc::load<std::uint16_t>(buffer.data(), 1), 0x1122);
    EXPECT_EQ(scc::load<std::uint64_t>(buffer.data() + 5), 0x0102030405060708U);
    EXPECT_EQ(scc::load<std::uint8_t>(buffer.data()), 0xEE);
    EXPECT_EQ(scc::load<std::int32_t>(wire().u32(0xFFFFFFFFU).get().data()), -1);
}

TEST(Items, AreReadInOrderWithTheirSubIdsTypesAndValues) {
    const bytes message = message_bytes({item_bytes(301, wire().u8(1).u8(2).u8(3)),
                                         item_bytes(302, {}, 0xABCD), item_bytes(0xFFFF, wire().u32(9), 1)});
    scc::item_reader reader(3, message.data() + 8);
    scc::item item;
    ASSERT_TRUE(reader.next(item));
    EXPECT_EQ(item.type, 301);
    EXPECT_EQ(item.sub_id, 0);
    EXPECT_EQ(bytes(item.value.begin(), item.value.end()), bytes({1, 2, 3}));
    ASSERT_TRUE(reader.next(item));
    EXPECT_EQ(item.type, 302);
    EXPECT_EQ(item.sub_id, 0xABCD);
    EXPECT_TRUE(item.value.empty());
    ASSERT_TRUE(reader.next(item));
    EXPECT_EQ(item.type, 0xFFFF);
    EXPECT_EQ(item.value.data(), message.data() + message.size() - 4);
    EXPECT_FALSE(reader.next(item));
    EXPECT_FALSE(reader.next(item));
    EXPECT_EQ(item.type, 0xFFFF) << "the end wrote to the item";
}

TEST(Items, ACountOfZeroHasNone) {
    scc::item_reader reader(0, nullptr);
    scc::item item;
    EXPECT_FALSE(reader.next(item));
}

// A message with its item count and the first item's length changed.
bytes altered(bytes message, std::uint16_t count, std::uint32_t first_length) {
    std::memcpy(message.data() + 5, &count, 2);
    std::memcpy(message.data() + 8, &first_length, 4);
    return message;
}

TEST(ItemsFit, WhenTheyFillTheMessageOrLess) {
    const bytes message = message_bytes({item_bytes(1, bytes(5)), item_bytes(2, bytes(3))});
    EXPECT_TRUE(scc::items_fit(message));
    EXPECT_TRUE(scc::items_fit(altered(message, 1, 5))) << "bytes after the last item are not read";
    EXPECT_TRUE(scc::items_fit(altered(message, 0, 5)));
    EXPECT_TRUE(scc::items_fit(wire().u32(8).u8(1).u16(0).u8(0).get()));
}

TEST(ItemsFit, NotWhenOneLeadsPastTheMessage) {
    const bytes message = message_bytes({item_bytes(1, bytes(5)), item_bytes(2, bytes(3))});
    EXPECT_FALSE(scc::items_fit(altered(message, 3, 5))) << "an item more than there are";
    EXPECT_FALSE(scc::items_fit(altered(message, 0xFFFF, 5)));
    EXPECT_FALSE(scc::items_fit(altered(message, 2, 9))) << "the second header ends a byte too late";
    EXPECT_TRUE(scc::items_fit(altered(message, 1, 16)));
    EXPECT_FALSE(scc::items_fit(altered(message, 1, 17))) << "one byte past the end";
    for (const std::uint32_t hostile : {0xFFFFFFFFU, 0xFFFFFFF8U, 0xFFFFFFF0U, 0x80000000U}) {
        EXPECT_FALSE(scc::items_fit(altered(message, 1, hostile))) << hostile;
        EXPECT_FALSE(scc::items_fit(altered(message, 2, hostile))) << hostile;
    }
    for (std::size_t cut = 1; cut <= 7; ++cut) {
        const bytes shorter(message.begin(), message.begin() + 8 + static_cast<std::ptrdiff_t>(cut));
        EXPECT_FALSE(scc::items_fit(shorter)) << "half a header of " << cut;
    }
}

TEST(ItemsFit, AlsoWithTheLargestNumberOfItems) {
    bytes message = wire().u32(8 + 65535 * 8).u8(1).u16(65535).u8(0).zeros(65535 * 8);
    EXPECT_TRUE(scc::items_fit(message));
    message.pop_back();
    EXPECT_FALSE(scc::items_fit(message));
}

// A message may end where the memory ends.
TEST(ItemsFit, IsDecidedWithoutReadingPastTheMessage) {
    for (std::size_t left = 0; left < 8; ++left) {
        const bytes message = wire().u32(20).u8(1).u16(3).u8(0).u32(0).u16(0).u16(301).zeros(left);
        const test::guarded_bytes guarded(message);
        EXPECT_FALSE(scc::items_fit({guarded.data(), message.size()})) << left;
    }
}

}  // namespace
