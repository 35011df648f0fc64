// When a value is long enough: its fixed bytes, and the list whose count it contains.
#include "client/value_lengths.h"

#include <gtest/gtest.h>

#include "support/wire_bytes.h"

using scc::is_long_enough;
using scc::value_length;
using test::bytes;
using test::wire;

namespace {

TEST(ValueLengths, WithoutAListTheFixedBytesAreEnough) {
    constexpr value_length least{5};
    EXPECT_FALSE(is_long_enough(least, bytes(4, 0xFF)));
    EXPECT_TRUE(is_long_enough(least, bytes(5, 0xFF)));
    EXPECT_TRUE(is_long_enough(least, bytes(500, 0xFF)));
    EXPECT_TRUE(is_long_enough(value_length{0}, bytes{}));
}

TEST(ValueLengths, AListIsCountedFromTheEndOfTheFixedBytes) {
    constexpr value_length least{8, 4, 16};
    EXPECT_FALSE(is_long_enough(least, wire().u32(0).zeros(3).get()));
    EXPECT_TRUE(is_long_enough(least, wire().u32(9).u32(0).get()));
    EXPECT_FALSE(is_long_enough(least, wire().u32(0).u32(2).zeros(31).get()));
    EXPECT_TRUE(is_long_enough(least, wire().u32(0).u32(2).zeros(32).get()));
    EXPECT_TRUE(is_long_enough(least, wire().u32(0).u32(2).zeros(33).get()));
}

// 0x10000000 times 16, 0x40000000 times 4 and 0x20000000 times 88 are 0 in 32 bits.
TEST(ValueLengths, NoCountWraps) {
    for (const std::uint32_t count : {0x10000000U, 0x20000000U, 0x40000000U, 0x80000000U, 0xFFFFFFFFU}) {
        for (const std::uint32_t entry_bytes : {1U, 4U, 16U, 88U, 0xFFFFFFFFU}) {
            EXPECT_FALSE(is_long_enough({4, 0, entry_bytes}, wire().u32(count).zeros(88).get()))
                << count << " x " << entry_bytes;
        }
    }
}

TEST(ValueLengths, ATypesOwnCheckDecidesOnceTheFixedBytesAreThere) {
    constexpr value_length odd{2, 0, 0, [](const scc::u8*, scc::u64 length) { return length % 2 != 0; }};
    EXPECT_FALSE(is_long_enough(odd, bytes(1)));
    EXPECT_FALSE(is_long_enough(odd, bytes(2)));
    EXPECT_TRUE(is_long_enough(odd, bytes(3)));
}

}  // namespace
