// The bytes are those of packets, written by hand.
#include "linux/rule_expressions.h"

#include <gtest/gtest.h>

#include "ace/ace_text.h"
#include "hand_written.h"

namespace scc::kernel {
namespace {

using testing::bytes;

ace::rule rule_of(const std::string& text) {
    std::string error;
    const auto rule = ace::parse_rule(text, error);
    EXPECT_TRUE(rule.has_value()) << text << ": " << error;
    return rule.value_or(ace::rule());
}

keyed_conditions keyed(const std::string& text) {
    const auto conditions = keyed_conditions_of(rule_of(text));
    EXPECT_TRUE(conditions.has_value()) << text;
    return conditions.value_or(keyed_conditions());
}

std::size_t count_of(const std::string& text, const std::string& part) {
    std::size_t count = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++count;
    }
    return count;
}

TEST(RuleExpressions, EveryFormOfPacketsHasItsOwnConditions) {
    EXPECT_EQ(conditions_of(rule_of("deny ether")).size(), 1u);
    EXPECT_EQ(conditions_of(rule_of("deny ip host 10.0.0.1 any")).size(), 1u);
    EXPECT_EQ(conditions_of(rule_of("deny tcp any any")).size(), 2u);
    // IPv4, and IPv6 with and without a fragment header.
    EXPECT_EQ(conditions_of(rule_of("deny tcp any any eq 80")).size(), 3u);
    EXPECT_EQ(conditions_of(rule_of("deny tcp 10.0.0.0/8 any eq 80")).size(), 1u);
    EXPECT_EQ(conditions_of(rule_of("deny tcp 2001:db8::/32 any eq 80")).size(), 2u);
}

TEST(RuleExpressions, AFrameOfAnyKindNeedsNoCondition) {
    EXPECT_EQ(conditions_of(rule_of("deny ether")).front().bytes(), "");
    EXPECT_EQ(conditions_of(rule_of("deny ip any any")).front().bytes(),
              ether_type_condition(0x0800).bytes());
}

TEST(RuleExpressions, AnAddressIsComparedUnderItsMask) {
    const std::string what = conditions_of(rule_of("deny ip 10.1.0.0/16 any")).front().bytes();
    const expressions wanted = ether_type_condition(0x0800) + expressions()
                                                                  .payload(NFT_PAYLOAD_NETWORK_HEADER, 12, 4)
                                                                  .mask(bytes({0xFF, 0xFF, 0, 0}))
                                                                  .equals(bytes({10, 1, 0, 0}));
    EXPECT_EQ(what, wanted.bytes());
}

TEST(RuleExpressions, PortsThatTouchAreOneRange) {
    EXPECT_EQ(count_of(conditions_of(rule_of("deny tcp any any port 80-89,90-99")).front().bytes(), "range"),
              1u);
    EXPECT_TRUE(conditions_of(rule_of("deny tcp any any port 80-89,90-99")).front().sets().empty());
    EXPECT_EQ(conditions_of(rule_of("deny tcp any any port 80-89,91-99")).front().sets().size(), 1u);
}

TEST(RuleExpressions, TimeAndLogAreNotSupported) {
    EXPECT_TRUE(is_supported(rule_of("deny ip any any")));
    EXPECT_FALSE(is_supported(rule_of("deny ip any any log")));
    EXPECT_FALSE(is_supported(rule_of("deny ip any any time-range mon 08:00-17:00")));
    ace::rule strange;
    strange.family = 5;
    EXPECT_FALSE(is_supported(strange));
}

TEST(RuleExpressions, AKeyHoldsEachFieldInRegistersOfItsOwn) {
    EXPECT_EQ(keyed("deny tcp host 10.0.0.1 any eq 80").key, bytes({10, 0, 0, 1, 6, 0, 0, 0, 0, 80, 0, 0}));
    EXPECT_EQ(keyed("deny ip 10.1.0.0/16 any").key, bytes({10, 1, 0, 0}));
    EXPECT_EQ(keyed("deny ether src-mac 02:00:00:00:00:07").key, bytes({2, 0, 0, 0, 0, 7, 0, 0}));
    EXPECT_EQ(keyed("deny ether vlan 258 cos 5").key, bytes({1, 2, 0, 0, 0xA0, 0, 0, 0}));
}

TEST(RuleExpressions, AKeyIsLoadedAfterWhatElseIsCompared) {
    const auto conditions = keyed("deny tcp host 10.0.0.1 any eq 80");
    ASSERT_EQ(conditions.loads.size(), 1u);
    const expressions wanted =
        ether_type_condition(0x0800) + expressions()
                                           .payload(NFT_PAYLOAD_NETWORK_HEADER, 6, 2)
                                           .mask(bytes({0x1F, 0xFF}))
                                           .equals(bytes({0, 0}))
                                           .payload(NFT_PAYLOAD_NETWORK_HEADER, 12, 4, 8)
                                           .meta(NFT_META_L4PROTO, 9)
                                           .payload(NFT_PAYLOAD_TRANSPORT_HEADER, 2, 2, 10);
    EXPECT_EQ(conditions.loads.front().bytes(), wanted.bytes());
}

TEST(RuleExpressions, AMaskAppliesToTheRegisterOfItsField) {
    const auto conditions = keyed("deny ip host 10.0.0.1 10.1.0.0/16");
    const expressions wanted =
        ether_type_condition(0x0800) + expressions()
                                           .payload(NFT_PAYLOAD_NETWORK_HEADER, 12, 4, 8)
                                           .payload(NFT_PAYLOAD_NETWORK_HEADER, 16, 4, 9)
                                           .mask(bytes({0xFF, 0xFF, 0, 0}), 9);
    EXPECT_EQ(conditions.loads.front().bytes(), wanted.bytes());
}

TEST(RuleExpressions, RulesWithOtherValuesHaveTheSameShape) {
    const u64 shape = keyed("deny tcp host 10.0.0.1 any eq 80").shape;
    EXPECT_EQ(keyed("permit udp host 10.0.0.2 any eq 53").shape, shape);
    EXPECT_NE(keyed("deny tcp host 10.0.0.1 any").shape, shape);
    EXPECT_NE(keyed("deny tcp 10.0.0.0/31 any eq 80").shape, shape);
    EXPECT_NE(keyed("deny tcp host 10.0.0.1 eq 80 any").shape, shape);
    EXPECT_NE(keyed("deny tcp any host 10.0.0.1 eq 80").shape, shape);
    EXPECT_NE(keyed("deny tcp host 2001:db8::1 any eq 80").shape, shape);
}

TEST(RuleExpressions, WhatIsNoSingleValueBelongsToTheShape) {
    EXPECT_EQ(keyed("deny tcp any any range 1 9").key, keyed("deny tcp any any range 1 8").key);
    EXPECT_NE(keyed("deny tcp any any range 1 9").shape, keyed("deny tcp any any range 1 8").shape);
    EXPECT_NE(keyed("deny tcp any any port 1,3").shape, keyed("deny tcp any any port 1,4").shape);
    EXPECT_NE(keyed("deny tcp any any established").shape, keyed("deny tcp any any").shape);
    EXPECT_NE(keyed("deny ip host 10.0.0.1 any fragments").shape, keyed("deny ip host 10.0.0.1 any").shape);
}

TEST(RuleExpressions, ARuleThatComparesNoSingleValueHasNoKey) {
    for (const char* text : {"deny ether", "deny ip any any"}) {
        EXPECT_FALSE(keyed_conditions_of(rule_of(text)).has_value()) << text;
    }
}

TEST(RuleExpressions, BothVersionsOfIpNeedTheSameKey) {
    EXPECT_EQ(keyed("deny tcp any any eq 80").loads.size(), 3u);
    // The field lies elsewhere in IPv6.
    EXPECT_FALSE(keyed_conditions_of(rule_of("deny tcp any any dscp 46")).has_value());
    EXPECT_TRUE(keyed_conditions_of(rule_of("deny tcp host 10.0.0.1 any dscp 46")).has_value());
}

TEST(RuleExpressions, AKeyThatDoesNotFitIntoTheRegistersIsNone) {
    const std::string addresses = "deny tcp host 2001:db8::1 eq 1 host 2001:db8::2 eq 2";
    EXPECT_EQ(keyed(addresses + " src-mac 02:00:00:00:00:07").key.size(), 52u);
    EXPECT_EQ(keyed(addresses + " src-mac 02:00:00:00:00:07 dst-mac 02:00:00:00:00:08 vlan 7").key.size(),
              64u);
    EXPECT_FALSE(keyed_conditions_of(
                     rule_of(addresses + " src-mac 02:00:00:00:00:07 dst-mac 02:00:00:00:00:08 vlan 7 cos 5"))
                     .has_value());
}

TEST(RuleExpressions, KeysAreShownAsWhatTheyAre) {
    EXPECT_EQ(keyed("deny ip host 10.0.0.1 any").key_type, 7u);
    EXPECT_EQ(keyed("deny tcp host 10.0.0.1 any eq 80").key_type, (7u << 12u) + (12u << 6u) + 13u);
    EXPECT_EQ(keyed("deny ether vlan 7").key_type, 4u);
    EXPECT_EQ(keyed("deny tcp host 10.0.0.1 eq 1 host 10.0.0.2 eq 2 src-mac 02:00:00:00:00:07").key_type, 4u);
}

}  // namespace
}  // namespace scc::kernel
