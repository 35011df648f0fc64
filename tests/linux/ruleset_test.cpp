#include "linux/ruleset.h"

#include <gtest/gtest.h>

namespace scc::kernel {
namespace {

const rule_identity some_ace{kind_ace, 10, 77, 0, 0x0123456789ABCDEF};

TEST(Ruleset, NothingIsPlannedWhereNothingDiffers) {
    held_tables held;
    held.tables = {family::netdev, family::inet};
    held.counters = {"0-3-1.0", "0-3-1.0-77.0"};
    held_rule rule;
    rule.identity = some_ace;
    rule.rules.handles.push_back(4);
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
    held_rule other = rule;
    other.identity->first = 20;
    held.chains[{family::netdev, "acl-0-3-1.0"}] = {rule, other};
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
