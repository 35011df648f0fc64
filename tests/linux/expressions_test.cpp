// The bytes are those of the kernel's interface (linux/netfilter/nf_tables.h), written by hand.
#include "linux/expressions.h"

#include <gtest/gtest.h>

#include "hand_written.h"

namespace scc::kernel {
namespace {

using testing::bytes;

TEST(Expressions, CompareTwoBytesOfThePacket) {
    expressions what;
    what.payload(NFT_PAYLOAD_TRANSPORT_HEADER, 2, 2).equals(bytes_of(0x0050));
    EXPECT_EQ(what.bytes(), bytes({
                                52, 0, 1, 0x80,                                         // element
                                12, 0, 1, 0,    'p', 'a',  'y', 'l', 'o', 'a', 'd', 0,  // name
                                36, 0, 2, 0x80,                                         // data
                                8,  0, 1, 0,    0,   0,    0,   1,                      // to register 1
                                8,  0, 2, 0,    0,   0,    0,   2,                      // transport header
                                8,  0, 3, 0,    0,   0,    0,   2,                      // offset
                                8,  0, 4, 0,    0,   0,    0,   2,                      // length
                                44, 0, 1, 0x80,                                         // element
                                8,  0, 1, 0,    'c', 'm',  'p', 0,                      // name
                                32, 0, 2, 0x80,                                         // data
                                8,  0, 1, 0,    0,   0,    0,   1,                      // register 1
                                8,  0, 2, 0,    0,   0,    0,   0,                      // is equal to
                                12, 0, 3, 0x80,                                         // data
                                6,  0, 1, 0,    0,   0x50, 0,   0,                      // value, padded
                            }));
}

TEST(Expressions, VerdictsHaveTheKernelsNumbers) {
    const auto code_of = [](const expressions& what) {
        // The number follows four nested headers and the register.
        const std::size_t at = 4 + 16 + 4 + 8 + 4 + 4 + 4;
        return what.bytes().substr(at, 4);
    };
    EXPECT_EQ(code_of(expressions().drop()), bytes({0, 0, 0, 0}));
    EXPECT_EQ(code_of(expressions().leave_chain()), bytes({0xFF, 0xFF, 0xFF, 0xFB}));
    EXPECT_EQ(code_of(expressions().jump("a")), bytes({0xFF, 0xFF, 0xFF, 0xFD}));
    EXPECT_EQ(code_of(expressions().go_to("a")), bytes({0xFF, 0xFF, 0xFF, 0xFC}));
}

TEST(Expressions, OnlySeveralRangesNeedASet) {
    EXPECT_TRUE(expressions().lies_in({{5, 5}}).sets().empty());
    EXPECT_TRUE(expressions().lies_in({{5, 9}}).sets().empty());
    const expressions what = expressions().lies_in({{5, 9}, {11, 11}});
    ASSERT_EQ(what.sets().size(), 1u);
    EXPECT_EQ(what.sets()[0].ranges.size(), 2u);
}

TEST(Expressions, ASetsNumberStaysInItsPlaceWhenListsAreJoined) {
    const expressions first = expressions().count();
    const expressions set = expressions().lies_in({{5, 9}, {11, 11}});
    const expressions both = first + set;
    ASSERT_EQ(both.sets().size(), 1u);
    EXPECT_EQ(both.sets()[0].number_at, first.bytes().size() + set.sets()[0].number_at);
    EXPECT_EQ(both.bytes().substr(both.sets()[0].number_at - 4, 8), bytes({8, 0, 4, 0, 0, 0, 0, 0}));
}

TEST(Expressions, FingerprintsTellSetsApart) {
    EXPECT_EQ(expressions().lies_in({{5, 9}, {11, 11}}).fingerprint(),
              expressions().lies_in({{5, 9}, {11, 11}}).fingerprint());
    EXPECT_NE(expressions().lies_in({{5, 9}, {11, 11}}).fingerprint(),
              expressions().lies_in({{5, 9}, {11, 12}}).fingerprint());
}

}  // namespace
}  // namespace scc::kernel
