#include "linux/held_tables.h"

#include <gtest/gtest.h>

namespace scc::kernel {
namespace {

const rule_identity some_ace{kind_ace, 10, 77, 0, 0x0123456789ABCDEF};
const chain_name list{family::netdev, "acl-0-3-1.0"};

TEST(HeldTables, ACommentSaysWhatARuleIsFor) {
    EXPECT_EQ(comment_of(some_ace, 1, 3), "a2 10 77 0 0123456789abcdef 1/3");
    const auto fields = parse_comment("a2 10 77 0 0123456789abcdef 2/3");
    ASSERT_TRUE(fields.has_value());
    EXPECT_EQ(fields->identity, some_ace);
    EXPECT_EQ(fields->part, 2u);
    EXPECT_EQ(fields->parts, 3u);
}

TEST(HeldTables, CommentsOfOthersAndOfEarlierVersionsAreNotKnown) {
    for (const char* comment :
         {"", "a", "a1 10 77 0 0123456789abcdef 1/3", "a2 10 77 0 0123456789abcdef 1/3 ",
          "a2 10 77 0 0123456789abcdef 1", "a2 10 77 x 0123456789abcdef 1/3",
          "a2 4294967296 77 0 0123456789abcdef 1/3", "allow ssh"}) {
        EXPECT_FALSE(parse_comment(comment).has_value()) << comment;
    }
}

TEST(HeldTables, PartsOfARuleBelongTogether) {
    const auto groups = group({{4, "a2 1 1 0 0000000000000001 1/2"},
                               {5, "a2 1 1 0 0000000000000001 2/2"},
                               {9, "a2 2 2 0 0000000000000002 1/1"}});
    ASSERT_EQ(groups.size(), 2u);
    EXPECT_EQ(groups[0].identity, (rule_identity{kind_ace, 1, 1, 0, 1}));
    ASSERT_EQ(groups[0].rules.handles.size(), 2u);
    EXPECT_EQ(groups[0].rules.handles[0], 4u);
    EXPECT_EQ(groups[0].rules.handles[1], 5u);
    EXPECT_EQ(groups[1].identity, (rule_identity{kind_ace, 2, 2, 0, 2}));
    EXPECT_EQ(groups[1].rules.handles.front(), 9u);
}

TEST(HeldTables, ARuleThatLacksAPartIsNoneOfTheServices) {
    const auto broken_off =
        group({{4, "a2 1 1 0 0000000000000001 1/2"}, {5, "a2 2 2 0 0000000000000002 1/1"}});
    ASSERT_EQ(broken_off.size(), 2u);
    EXPECT_FALSE(broken_off[0].identity.has_value());
    EXPECT_TRUE(broken_off[1].identity.has_value());
    const auto at_the_end = group({{4, "a2 1 1 0 0000000000000001 1/2"}});
    ASSERT_EQ(at_the_end.size(), 1u);
    EXPECT_FALSE(at_the_end[0].identity.has_value());
    const auto without_beginning = group({{4, "a2 1 1 0 0000000000000001 2/2"}});
    ASSERT_EQ(without_beginning.size(), 1u);
    EXPECT_FALSE(without_beginning[0].identity.has_value());
}

TEST(HeldTables, ALongListBeginsInTheChainOfItsAcl) {
    EXPECT_EQ(first_of_list({family::netdev, "acl-0-3-1.0/12"}).name, "acl-0-3-1.0");
    EXPECT_EQ(first_of_list({family::netdev, "acl-0-3-1.0"}).name, "acl-0-3-1.0");
    EXPECT_EQ(chain_of_list(list, 1).name, "acl-0-3-1.0");
    EXPECT_EQ(chain_of_list(list, 12).name, "acl-0-3-1.0/12");
    EXPECT_EQ(ace_counter("0-3-1.0", 77, 2), "0-3-1.0-77.2");
}

// A rule, a run with number 7, and a rule.
const std::vector<kernel_rule> rules_with_run = {{4, "a2 1 1 0 0000000000000001 1/1"},
                                                 {5, "m2 7 0 0 00000000000000ff 1/2"},
                                                 {6, "m2 7 0 0 00000000000000ff 2/2"},
                                                 {9, "a2 9 9 0 0000000000000009 1/1"}};

kernel_maps maps_of_run() {
    return {{"acl-0-3-1.0-deny-7",
             {{"key of 3", "a2 3 3 0 0000000000000003 1/1"}, {"key of 2", "a2 2 2 0 0000000000000002 1/1"}}},
            {"acl-0-3-1.0-permit-7", {{"key of 4", "a2 4 4 0 0000000000000004 1/1"}}}};
}

TEST(HeldTables, TheAcesOfARunStandInItsPlaceInTheirOrder) {
    auto rules = group(rules_with_run);
    kernel_maps maps = maps_of_run();
    maps["another"];
    expand_runs(list, rules, maps);
    ASSERT_EQ(rules.size(), 5u);
    for (u32 index = 0; index < 5; ++index) {
        EXPECT_EQ(rules[index].identity->first, index == 4 ? 9 : index + 1);
        EXPECT_EQ(rules[index].run != nullptr, index > 0 && index < 4) << index;
    }
    EXPECT_EQ(rules[1].key, "key of 2");
    EXPECT_TRUE(rules[1].denies);
    EXPECT_FALSE(rules[3].denies);
    EXPECT_EQ(rules[1].shape, 255u);
    EXPECT_EQ(rules[1].run, rules[3].run);
    EXPECT_EQ(rules[1].run->number, 7u);
    EXPECT_EQ(rules[1].run->rules.handles.size(), 2u);
    ASSERT_EQ(maps.size(), 1u);
    EXPECT_TRUE(maps.contains("another"));
}

TEST(HeldTables, AnElementThatIsListedTwiceIsNoticedInEveryPlace) {
    using elements = std::vector<kernel_element>;
    EXPECT_FALSE(is_repetitive({}));
    EXPECT_FALSE(is_repetitive(elements{{"a", "1"}, {"b", "1"}, {"c", "1"}}));
    EXPECT_TRUE(is_repetitive(elements{{"a", "1"}, {"a", "1"}}));
    EXPECT_TRUE(is_repetitive(elements{{"a", "1"}, {"b", "1"}, {"c", "1"}, {"a", "1"}}));
}

TEST(HeldTables, ARunWhoseMapsAreNotInOrderIsNoneOfTheServices) {
    std::vector<kernel_maps> broken(5, maps_of_run());
    broken[0].erase("acl-0-3-1.0-permit-7");
    broken[1]["acl-0-3-1.0-permit-7"].push_back({"key", "not the service's"});
    broken[2]["acl-0-3-1.0-permit-7"].push_back({"key", "r2 5 5 0 0000000000000004 1/1"});
    broken[3]["acl-0-3-1.0-permit-7"].push_back({"key", "a2 3 5 0 0000000000000004 1/1"});
    broken[4] = {{"acl-0-3-1.0-deny-7", {}}, {"acl-0-3-1.0-permit-7", {}}};
    for (kernel_maps& maps : broken) {
        const std::size_t before = maps.size();
        auto rules = group(rules_with_run);
        expand_runs(list, rules, maps);
        ASSERT_EQ(rules.size(), 3u);
        EXPECT_FALSE(rules[1].identity.has_value());
        EXPECT_EQ(maps.size(), before);
    }
}

TEST(HeldTables, HandlesAreEnteredOnlyForTheRulesThatAreKnown) {
    auto rules = group(rules_with_run);
    kernel_maps maps = maps_of_run();
    expand_runs(list, rules, maps);
    auto later = rules_with_run;
    for (kernel_rule& rule : later) {
        rule.handle += 100;
    }
    ASSERT_TRUE(enter_handles(later, rules));
    EXPECT_EQ(rules[0].rules.handles.front(), 104u);
    EXPECT_EQ(rules[2].run->rules.handles.front(), 105u);
    EXPECT_EQ(rules[2].run->rules.handles[1], 106u);
    EXPECT_EQ(rules[4].rules.handles.front(), 109u);
    auto longer = later;
    longer.push_back({200, ""});
    EXPECT_FALSE(enter_handles(longer, rules));
    auto shorter = later;
    shorter.pop_back();
    EXPECT_FALSE(enter_handles(shorter, rules));
    auto other = later;
    other[1].comment = "m2 8 0 0 00000000000000ff 1/2";
    other[2].comment = "m2 8 0 0 00000000000000ff 2/2";
    EXPECT_FALSE(enter_handles(other, rules));
    EXPECT_EQ(rules[0].rules.handles.front(), 104u);
}

}  // namespace
}  // namespace scc::kernel
