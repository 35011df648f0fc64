// ACLs that are bound to a single user: requests 134 and 137 and the change of VLAN, 314.
#include "sccd_support.h"

namespace sccd_test {
namespace {

// On interface 4, by its MAC address and both IP addresses, in VLAN 20, for what leaves.
wire_value user_acl_request(std::uint32_t call, std::uint32_t acl, std::uint8_t user,
                            std::uint32_t operation) {
    return wire_value(224)
        .u32(0, call)
        .u32(8, 4)
        .u64(16, 0x0102030405060708)
        .u32(24, 9)
        .u32(28, 1)
        .raw(32, {2, 0, 0, 0, 0, user})
        .u16(38, 20)
        .key(40, 3, acl)
        .raw(56, {10, 0, 0, user})
        .raw(60, {0x20, 1, 0xd, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, user})
        .u32(216, operation);
}

// The operation that the service gets for it, without its call id.
byte_string user_acl_operation(std::uint32_t acl, std::uint8_t user, std::uint32_t operation) {
    const wire_value value = wire_value(248)
                                 .key(8, 3, acl)
                                 .u32(24, 4)
                                 .u32(28, 1)
                                 .raw(32, {2, 0, 0, 0, 0, user})
                                 .u16(38, 20)
                                 .raw(40, {10, 0, 0, user})
                                 .raw(44, {0x20, 1, 0xd, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, user})
                                 .u64(64, 0x0102030405060708)
                                 .u32(216, 9)
                                 .u32(240, operation);
    return item(0, value).part(4, 244);
}

// A daemon with its service, and an application that has created ACL 5.
class SccdUserAcl : public ::testing::Test {
  protected:
    void SetUp() override { pass(131, acl_request(1, 5, 1)); }

    test_item pass(std::uint16_t type, const wire_value& value, std::uint32_t result = 0) {
        return sccd_test::pass(application, service, type, value, result);
    }

    static nlohmann::json user_acls() { return control({{"do", "state"}})["state"]["user_acls"]; }

    daemon_process daemon;
    test_client application{daemon, 3, 77};
    test_client service{daemon, service_app, 78};
};

TEST_F(SccdUserAcl, IsAnApplicationToTheUsersFrames) {
    const test_item apply = pass(134, user_acl_request(2, 5, 9, 1));
    const test_item unapply = pass(134, user_acl_request(3, 5, 9, 0));
    const test_item of_key_type = pass(134, wire_value(user_acl_request(4, 5, 9, 1)).u32(24, 0));

    EXPECT_EQ(apply.type, 133);
    EXPECT_EQ(apply.sub_id, 134);
    ASSERT_EQ(apply.value.size(), 248u);
    EXPECT_EQ(apply.part(4, 244), user_acl_operation(5, 9, 1));
    EXPECT_EQ(unapply.type, 133);
    EXPECT_EQ(unapply.sub_id, 134);
    EXPECT_EQ(unapply.part(4, 244), user_acl_operation(5, 9, 0));
    EXPECT_EQ(of_key_type.u32(216), 3u);
}

TEST_F(SccdUserAcl, IsNotKeptIfTheServiceRefusesIt) {
    pass(134, user_acl_request(2, 5, 9, 1), 95);
    EXPECT_EQ(user_acls().size(), 0u);
    pass(134, user_acl_request(3, 5, 9, 1));
    pass(134, user_acl_request(4, 5, 9, 0), 28);
    EXPECT_EQ(user_acls().size(), 1u);
}

TEST_F(SccdUserAcl, TheDeletionOfAllUsersOfAnAclIsOneOperationForEach) {
    pass(131, acl_request(2, 6, 1));
    pass(134, user_acl_request(3, 5, 8, 1));
    pass(134, user_acl_request(4, 5, 9, 1));
    pass(134, user_acl_request(5, 6, 9, 1));

    application.async.send(137, wire_value(232).u32(0, 6).key(216, 3, 5));
    const test_item first = service.async.receive();
    const test_item second = service.async.receive();
    answer_operation(service, first, 0);
    answer_operation(service, second, 28);
    const test_item answer = application.async.receive();

    EXPECT_EQ(first.part(4, 244), user_acl_operation(5, 8, 0));
    EXPECT_EQ(second.part(4, 244), user_acl_operation(5, 9, 0));
    EXPECT_EQ(answer.part(0, 8), (byte_string{6, 0, 0, 0, 28, 0, 0, 0}));
    const nlohmann::json left = user_acls();
    ASSERT_EQ(left.size(), 2u);
    EXPECT_EQ(left[0]["key"], "0/3/5/1");
    EXPECT_EQ(left[0]["mac"], "02:00:00:00:00:09");
    EXPECT_EQ(left[1]["key"], "0/3/6/1");

    EXPECT_EQ(application.result_of(137, wire_value(232).u32(0, 7).key(216, 3, 7)), 0u);
}

TEST_F(SccdUserAcl, IsTakenFromItsUsersBeforeItIsDeleted) {
    pass(134, user_acl_request(2, 5, 9, 1));

    application.async.send(131, acl_request(3, 5, 0));
    const test_item unapply = service.async.receive();
    const test_item deletion = service.async.receive();
    answer_operation(service, unapply, 0);
    answer_operation(service, deletion, 28);
    const test_item apply = service.async.receive();

    EXPECT_EQ(unapply.part(4, 244), user_acl_operation(5, 9, 0));
    EXPECT_EQ(deletion.type, 131);
    EXPECT_EQ(apply.part(4, 244), user_acl_operation(5, 9, 1));
    EXPECT_EQ(application.async.receive().part(0, 8), (byte_string{3, 0, 0, 0, 28, 0, 0, 0}));
    EXPECT_EQ(user_acls().size(), 1u);
    answer_operation(service, apply, 0);
    application.async.send(131, acl_request(4, 5, 0));
    answer_operation(service, service.async.receive(), 0);
    answer_operation(service, service.async.receive(), 0);
    EXPECT_EQ(application.async.receive().part(0, 8), (byte_string{4, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(user_acls().size(), 0u);
}

TEST_F(SccdUserAcl, StaysWithItsUsersWhileItCannotBeDeleted) {
    pass(133, apply_request(2, 5, 2, 1));
    pass(134, user_acl_request(3, 5, 9, 1));

    const test_item deletion = pass(131, acl_request(4, 5, 0), 2012);

    EXPECT_EQ(deletion.type, 131);
    EXPECT_EQ(user_acls().size(), 1u);
}

// Moves user 9 of ACL 5 to VLAN 21.
wire_value move_request() {
    return wire_value(232).u32(8, 4).raw(32, {2, 0, 0, 0, 0, 9}).u16(38, 21).key(40, 3, 5);
}

TEST_F(SccdUserAcl, AUserWhoChangesItsVlanIsInTheNewOneBeforeItLeavesTheOld) {
    pass(134, user_acl_request(2, 5, 9, 1));

    application.sync.send(314, move_request());
    const test_item enter = service.async.receive();
    answer_operation(service, enter, 0);
    const test_item leave = service.async.receive();
    answer_operation(service, leave, 0);
    const test_item reply = application.sync.receive();

    EXPECT_EQ(enter.u16(38), 21u);
    EXPECT_EQ(enter.u32(240), 1u);
    EXPECT_EQ(leave.part(4, 244), user_acl_operation(5, 9, 0));
    EXPECT_EQ(reply.type, 136);
    EXPECT_EQ(reply.value, (byte_string{0, 0, 0, 0, 3, 0, 0, 0, 5, 0, 0, 0, 1, 0, 0, 0}));
    EXPECT_EQ(user_acls()[0]["vid"], 21);
}

TEST_F(SccdUserAcl, AVlanChangeThatTheServiceRefusesChangesNothing) {
    pass(134, user_acl_request(2, 5, 9, 1));

    application.sync.send(314, move_request());
    answer_operation(service, service.async.receive(), 28);
    const test_item reply = application.sync.receive();

    EXPECT_EQ(reply.value, byte_string(16, 0));
    const nlohmann::json left = user_acls();
    ASSERT_EQ(left.size(), 1u);
    EXPECT_EQ(left[0]["vid"], 20);
}

}  // namespace
}  // namespace sccd_test
