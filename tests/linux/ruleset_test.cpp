#include "linux/ruleset.h"

#include <gtest/gtest.h>

namespace scc::kernel {
namespace {

const rule_identity some_ace{kind_ace, 10, 77, 0, 0x0123456789ABCDEF};

TEST(Ruleset, ACommentSaysWhatARuleIsFor) {
    EXPECT_EQ(comment_of(some_ace, 1, 3), "a2 10 77 0 0123456789abcdef 1/3");
    const auto fields = parse_comment("a2 10 77 0 0123456789abcdef 2/3");
    ASSERT_TRUE(fields.has_value());
    EXPECT_EQ(fields->identity, some_ace);
    EXPECT_EQ(fields->part, 2u);
    EXPECT_EQ(fields->parts, 3u);
}

TEST(Ruleset, CommentsOfOthersAndOfEarlierVersionsAreNotKnown) {
    for (const char* comment :
         {"", "a", "a1 10 77 0 0123456789abcdef 1/3", "a2 10 77 0 0123456789abcdef 1/3 ",
          "a2 10 77 0 0123456789abcdef 1", "a2 10 77 x 0123456789abcdef 1/3",
          "a2 4294967296 77 0 0123456789abcdef 1/3", "allow ssh"}) {
        EXPECT_FALSE(parse_comment(comment).has_value()) << comment;
    }
}

TEST(Ruleset, PartsOfARuleBelongTogether) {
    const auto groups = group({{4, "a2 1 1 0 0000000000000001 1/2"},
                               {5, "a2 1 1 0 0000000000000001 2/2"},
                               {9, "a2 2 2 0 0000000000000002 1/1"}});
    ASSERT_EQ(groups.size(), 2u);
    EXPECT_EQ(groups[0].identity, (rule_identity{kind_ace, 1, 1, 0, 1}));
    ASSERT_EQ(groups[0].handles.size(), 2u);
    EXPECT_EQ(groups[0].handles[0], 4u);
    EXPECT_EQ(groups[0].handles[1], 5u);
    EXPECT_EQ(groups[1].identity, (rule_identity{kind_ace, 2, 2, 0, 2}));
    EXPECT_EQ(groups[1].handles.front(), 9u);
}

TEST(Ruleset, ARuleThatLacksAPartIsNoneOfTheServices) {
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

TEST(Ruleset, ALongListBeginsInTheChainOfItsAcl) {
    EXPECT_EQ(first_of_list({family::netdev, "acl-0-3-1.0/12"}).name, "acl-0-3-1.0");
    EXPECT_EQ(first_of_list({family::netdev, "acl-0-3-1.0"}).name, "acl-0-3-1.0");
    EXPECT_EQ(ace_counter("0-3-1.0", 77, 2), "0-3-1.0-77.2");
}

TEST(Ruleset, NothingIsPlannedWhereNothingDiffers) {
    held_tables held;
    held.tables = {family::netdev, family::inet};
    held.counters = {"0-3-1.0", "0-3-1.0-77.0"};
    held_rule rule;
    rule.identity = some_ace;
    rule.handles.push_back(4);
    held.chains[{family::netdev, "acl-0-3-1.0"}] = {rule};
    change_request request;
    wanted_chain list;
    list.counter = "0-3-1.0";
    list.rules.push_back({some_ace, nullptr, {}});
    request.chains[{family::netdev, "acl-0-3-1.0"}] = list;
    transaction out;
    EXPECT_EQ(plan(
                  request, held, [](const chain_name&) -> u32 { return ENOENT; }, out),
              0u);
    EXPECT_TRUE(out.changes.is_empty());
}

TEST(Ruleset, AnErrorOfTheFetchOfHandlesEndsThePlan) {
    held_tables held;
    held.tables = {family::netdev, family::inet};
    held_rule rule;
    rule.identity = some_ace;
    held.chains[{family::netdev, "acl-0-3-1.0"}] = {rule};
    change_request request;
    wanted_chain list;
    list.counter = "0-3-1.0";
    list.touched = {10};
    request.chains[{family::netdev, "acl-0-3-1.0"}] = list;
    transaction out;
    EXPECT_EQ(plan(
                  request, held, [](const chain_name&) -> u32 { return ENOENT; }, out),
              u32{ENOENT});
}

}  // namespace
}  // namespace scc::kernel
