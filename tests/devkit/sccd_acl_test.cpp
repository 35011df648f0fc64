#include "sccd_support.h"

namespace sccd_test {
namespace {

constexpr std::uint32_t create = 1;
constexpr std::uint32_t remove = 0;

wire_value resequence(std::uint32_t call, std::uint32_t id, std::uint32_t start, std::uint32_t increment) {
    return wire_value(28).u32(0, call).key(4, 3, id).u32(20, start).u32(24, increment);
}

wire_value user_acl(std::uint32_t call, std::uint32_t id, std::uint8_t user, std::uint32_t operation) {
    return wire_value(224)
        .u32(0, call)
        .raw(8 + 24, {2, 0, 0, 0, 0, user})
        .key(8 + 32, 3, id)
        .u32(216, operation);
}

wire_value counter_request(std::uint32_t call, std::uint32_t id, std::uint64_t ace, std::uint32_t query) {
    return wire_value(40).u32(0, call).key(4, 3, id).u64(24, ace).u32(32, query);
}

std::vector<std::uint32_t> sequence_numbers() {
    std::vector<std::uint32_t> numbers;
    const nlohmann::json acls = control({{"do", "acls"}})["acls"];
    for (const auto& ace : acls[0]["aces"]) {
        numbers.push_back(ace["sn"]);
    }
    return numbers;
}

TEST(SccdAcl, AnAclIsCreatedOnceAndDeletedOnce) {
    daemon_process daemon;
    test_client client(daemon, 3, 77);

    EXPECT_EQ(client.result_of(131, acl_request(1, 5, remove)), 2005u);
    EXPECT_EQ(client.result_of(131, acl_request(2, 5, create)), 0u);
    EXPECT_EQ(client.result_of(131, acl_request(3, 5, create)), 2010u);
    EXPECT_EQ(client.result_of(131, acl_request(4, 5, remove)), 0u);
    EXPECT_EQ(client.result_of(131, acl_request(5, 5, remove)), 2005u);
}

TEST(SccdAcl, TheClassDoesNotTellAclsApart) {
    daemon_process daemon;
    test_client client(daemon, 3, 77);
    EXPECT_EQ(client.result_of(131, acl_request(1, 5, create)), 0u);

    EXPECT_EQ(client.result_of(131, acl_request(2, 5, create).u32(16, 9)), 2010u);
}

TEST(SccdAcl, AnAceNeedsItsAclAndIsAddedOnceUnderItsNumberAndId) {
    daemon_process daemon;
    test_client client(daemon, 3, 77);

    EXPECT_EQ(client.result_of(132, ace_request(1, 5, 10, 1, create)), 2005u);
    EXPECT_EQ(client.result_of(131, acl_request(2, 5, create)), 0u);
    EXPECT_EQ(client.result_of(132, ace_request(3, 5, 10, 1, create)), 0u);
    EXPECT_EQ(client.result_of(132, ace_request(4, 5, 10, 1, create)), 2011u);
    EXPECT_EQ(client.result_of(132, ace_request(5, 5, 10, 2, create)), 0u);
    EXPECT_EQ(client.result_of(132, ace_request(6, 5, 11, 1, remove)), 2006u);
    EXPECT_EQ(client.result_of(132, ace_request(7, 5, 10, 1, remove)), 0u);
    EXPECT_EQ(client.result_of(132, ace_request(8, 5, 10, 1, remove)), 2006u);
    EXPECT_EQ(client.result_of(132, ace_request(9, 6, 10, 1, remove)), 2005u);
}

TEST(SccdAcl, AnAclIsAppliedOnceOnEachEntity) {
    daemon_process daemon;
    test_client client(daemon, 3, 77);

    EXPECT_EQ(client.result_of(133, apply_request(1, 5, 2, create)), 2005u);
    EXPECT_EQ(client.result_of(133, apply_request(2, 5, 2, remove)), 2005u);
    EXPECT_EQ(client.result_of(131, acl_request(3, 5, create)), 0u);
    EXPECT_EQ(client.result_of(133, apply_request(4, 5, 2, remove)), 2008u);
    EXPECT_EQ(client.result_of(133, apply_request(5, 5, 2, create)), 0u);
    EXPECT_EQ(client.result_of(133, apply_request(6, 5, 2, create)), 2009u);
    EXPECT_EQ(client.result_of(133, apply_request(7, 5, 3, create)), 0u);
    EXPECT_EQ(client.result_of(133, apply_request(8, 5, 2, remove)), 0u);
    EXPECT_EQ(client.result_of(133, apply_request(9, 5, 2, remove)), 2008u);
}

TEST(SccdAcl, ResequencingKeepsEqualNumbersEqualAndLeavesTheLargestAlone) {
    daemon_process daemon;
    test_client client(daemon, 3, 77);
    EXPECT_EQ(client.result_of(131, acl_request(1, 5, create)), 0u);
    EXPECT_EQ(client.result_of(132, ace_request(2, 5, 5, 1, create)), 0u);
    EXPECT_EQ(client.result_of(132, ace_request(3, 5, 5, 2, create)), 0u);
    EXPECT_EQ(client.result_of(132, ace_request(4, 5, 7, 3, create)), 0u);
    EXPECT_EQ(client.result_of(132, ace_request(5, 5, 0x7fffffff, 4, create)), 0u);

    EXPECT_EQ(client.result_of(138, resequence(6, 5, 10, 10)), 0u);

    EXPECT_EQ(sequence_numbers(), (std::vector<std::uint32_t>{10, 10, 20, 0x7fffffff}));
    EXPECT_EQ(client.result_of(132, ace_request(7, 5, 20, 3, remove)), 0u);
}

TEST(SccdAcl, ResequencingKeepsALeadingZero) {
    daemon_process daemon;
    test_client client(daemon, 3, 77);
    EXPECT_EQ(client.result_of(131, acl_request(1, 5, create)), 0u);
    EXPECT_EQ(client.result_of(132, ace_request(2, 5, 0, 1, create)), 0u);
    EXPECT_EQ(client.result_of(132, ace_request(3, 5, 8, 2, create)), 0u);

    EXPECT_EQ(client.result_of(138, resequence(4, 5, 100, 5)), 0u);

    EXPECT_EQ(sequence_numbers(), (std::vector<std::uint32_t>{0, 100}));
}

TEST(SccdAcl, ResequencingNeedsTheAclAndPositiveNumbers) {
    daemon_process daemon;
    test_client client(daemon, 3, 77);

    EXPECT_EQ(client.result_of(138, resequence(1, 5, 10, 10)), 2005u);
    EXPECT_EQ(client.result_of(131, acl_request(2, 5, create)), 0u);
    EXPECT_EQ(client.result_of(138, resequence(3, 5, 0, 10)), 22u);
    EXPECT_EQ(client.result_of(138, resequence(4, 5, 10, 0x80000000)), 22u);
}

TEST(SccdAcl, AnAclIsBoundToAUserOnce) {
    daemon_process daemon;
    test_client client(daemon, 3, 77);

    EXPECT_EQ(client.result_of(134, user_acl(1, 5, 1, create)), 2005u);
    EXPECT_EQ(client.result_of(131, acl_request(2, 5, create)), 0u);
    EXPECT_EQ(client.result_of(134, user_acl(3, 5, 1, create)), 0u);
    EXPECT_EQ(client.result_of(134, user_acl(4, 5, 1, create)), 2009u);
    EXPECT_EQ(client.result_of(134, user_acl(5, 5, 2, create)), 0u);
    EXPECT_EQ(client.result_of(134, user_acl(6, 5, 1, remove)), 0u);
    EXPECT_EQ(client.result_of(134, user_acl(7, 5, 1, remove)), 2008u);
    EXPECT_EQ(client.result_of(137, wire_value(232).u32(0, 8).key(216, 3, 5)), 0u);
    EXPECT_EQ(client.result_of(134, user_acl(9, 5, 2, remove)), 2008u);
}

TEST(SccdAcl, AUserMayHaveTheAclOnceForEachOfItsAddresses) {
    daemon_process daemon;
    test_client client(daemon, 3, 77);
    ASSERT_EQ(client.result_of(131, acl_request(1, 5, 1)), 0u);
    wire_value second = user_acl(3, 5, 1, create);
    second.raw(8 + 48, {10, 0, 0, 9});

    EXPECT_EQ(client.result_of(134, user_acl(2, 5, 1, create)), 0u);
    EXPECT_EQ(client.result_of(134, second), 0u);
    EXPECT_EQ(client.result_of(134, wire_value(second).u32(0, 4)), 2009u);
    EXPECT_EQ(client.result_of(134, wire_value(second).u32(0, 5).u32(216, remove)), 0u);
    EXPECT_EQ(client.result_of(134, user_acl(6, 5, 1, create)), 2009u);
}

TEST(SccdAcl, ABindingGoesWithItsAcl) {
    daemon_process daemon;
    test_client client(daemon, 3, 77);
    EXPECT_EQ(client.result_of(131, acl_request(1, 5, create)), 0u);
    EXPECT_EQ(client.result_of(131, acl_request(2, 6, create)), 0u);
    EXPECT_EQ(client.result_of(134, user_acl(3, 5, 1, create)), 0u);
    EXPECT_EQ(client.result_of(134, user_acl(4, 6, 1, create)), 0u);

    EXPECT_EQ(client.result_of(131, acl_request(5, 5, remove)), 0u);
    EXPECT_EQ(client.result_of(131, acl_request(6, 5, create)), 0u);

    EXPECT_EQ(client.result_of(134, user_acl(7, 5, 1, create)), 0u);
    EXPECT_EQ(client.result_of(134, user_acl(8, 6, 1, create)), 2009u);
}

TEST(SccdAcl, CountersAreReadAndResetWithoutAService) {
    daemon_process daemon;
    test_client client(daemon, 3, 77);
    EXPECT_EQ(client.result_of(131, acl_request(1, 5, create)), 0u);
    EXPECT_EQ(client.result_of(132, ace_request(2, 5, 10, 4, create)), 0u);
    ASSERT_EQ(control({{"do", "counters"},
                       {"type", 3},
                       {"id", 5},
                       {"acl", 70},
                       {"filter", 80},
                       {"sn", 10},
                       {"ace", 90}})["ok"],
              true);

    const test_item filter = client.query(311, wire_value(24).key(4, 3, 5).u32(20, 1));
    const test_item acl = client.query(312, counter_request(0, 5, 0, 1));
    const test_item ace = client.query(313, counter_request(0, 5, 10, 1));

    EXPECT_EQ(filter.type, 409);
    EXPECT_EQ(filter.u64(16), 80u);
    EXPECT_EQ(filter.u32(24), 0u);
    EXPECT_EQ(acl.type, 408);
    EXPECT_EQ(acl.u64(32), 70u);
    EXPECT_EQ(acl.u32(40), 0u);
    EXPECT_EQ(acl.u32(12), 5u);
    EXPECT_EQ(ace.type, 407);
    EXPECT_EQ(ace.u64(24), 10u);
    EXPECT_EQ(ace.u64(32), 90u);
    EXPECT_EQ(ace.u32(40), 0u);
    EXPECT_EQ(client.result_of(139, wire_value(24).u32(0, 6).key(4, 3, 5)), 0u);
    EXPECT_EQ(client.result_of(140, counter_request(7, 5, 0, 0)), 0u);
    EXPECT_EQ(client.result_of(141, counter_request(8, 5, 4, 0)), 0u);
    EXPECT_EQ(client.query(311, wire_value(24).key(4, 3, 5).u32(20, 1)).u64(16), 0u);
    EXPECT_EQ(client.query(312, counter_request(0, 5, 0, 1)).u64(32), 0u);
    EXPECT_EQ(client.query(313, counter_request(0, 5, 10, 1)).u64(32), 0u);
}

TEST(SccdAcl, CountersOfUnknownAclsAndAcesAreRefused) {
    daemon_process daemon;
    test_client client(daemon, 3, 77);

    EXPECT_EQ(client.query(311, wire_value(24).key(4, 3, 5).u32(20, 1)).u32(24), 2005u);
    EXPECT_EQ(client.query(312, counter_request(0, 5, 0, 1)).u32(40), 2005u);
    EXPECT_EQ(client.query(313, counter_request(0, 5, 10, 1)).u32(40), 2005u);
    EXPECT_EQ(client.result_of(139, wire_value(24).u32(0, 6).key(4, 3, 5)), 2005u);
    EXPECT_EQ(client.result_of(140, counter_request(7, 5, 0, 0)), 2005u);
    EXPECT_EQ(client.result_of(131, acl_request(1, 5, create)), 0u);
    EXPECT_EQ(client.query(313, counter_request(0, 5, 10, 1)).u32(40), 2006u);
    EXPECT_EQ(client.result_of(141, counter_request(8, 5, 4, 0)), 2006u);
}

TEST(SccdAcl, AnEgressPortMustBeAnInterface) {
    daemon_process daemon;
    test_client client(daemon, 3, 77);

    EXPECT_EQ(client.result_of(142, wire_value(16).u32(0, 1).u32(4, 0).u32(8, 1)), 22u);
    EXPECT_EQ(client.result_of(142, wire_value(16).u32(0, 2).u32(4, 65536).u32(8, 1)), 22u);
    EXPECT_EQ(client.result_of(142, wire_value(16).u32(0, 3).u32(4, 65535).u32(8, 1)), 0u);
}

}  // namespace
}  // namespace sccd_test
