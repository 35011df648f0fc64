#include "sccd_support.h"

namespace sccd_test {
namespace {

constexpr std::uint16_t recovery_mark = 201;

// Answers an operation as a service does: recoveries and application users in their own ways.
void serve(test_client& service, const test_item& operation) {
    if (operation.type == 154 || operation.type == 155 || operation.type == 213) {
        return;
    }
    const std::uint16_t scc_type = operation.type == recovery_mark ? std::uint16_t{0} : operation.sub_id;
    service.async.send({item(402, wire_value(12).raw(0, operation.part(0, 4)), scc_type)});
}

// Receives a whole recovery, from its start to its end.
std::vector<test_item> receive_recovery(test_client& service) {
    std::vector<test_item> operations;
    while (true) {
        operations.push_back(service.async.receive());
        const test_item& last = operations.back();
        if (last.type == 0) {
            return {};
        }
        serve(service, last);
        if (last.type == recovery_mark && last.part(8, 1) == byte_string{0}) {
            return operations;
        }
    }
}

std::vector<std::uint16_t> types_of(const std::vector<test_item>& operations) {
    std::vector<std::uint16_t> types;
    for (const test_item& operation : operations) {
        types.push_back(operation.type);
    }
    return types;
}

// Everything that a service is ever given, requested while there is no service.
void fill(test_client& client) {
    EXPECT_EQ(client.result_of(131, acl_request(1, 5, 1)), 0u);
    EXPECT_EQ(client.result_of(132, ace_request(2, 5, 7, 1, 1)), 0u);
    EXPECT_EQ(client.result_of(132, ace_request(3, 5, 9, 2, 1)), 0u);
    EXPECT_EQ(client.result_of(138, wire_value(28).u32(0, 4).key(4, 3, 5).u32(20, 10).u32(24, 10)), 0u);
    EXPECT_EQ(client.result_of(132, ace_request(5, 5, 15, 3, 1)), 0u);
    EXPECT_EQ(client.result_of(133, apply_request(6, 5, 2, 1)), 0u);
    EXPECT_EQ(client.result_of(142, wire_value(16).u32(0, 7).u32(4, 9).u32(8, 1)), 0u);
    EXPECT_EQ(client.result_of(143, wire_value(8).u32(0, 8).u32(4, 1)), 0u);
    EXPECT_EQ(client.result_of(163, wire_value(12).u32(0, 9).u32(4, 1)), 0u);
    EXPECT_EQ(client.result_of(126, wire_value(744).u32(0, 10).u32(8, 4).u32(24, 6).u32(32, 1)), 0u);
    EXPECT_EQ(client.result_of(126, wire_value(744).u32(0, 11).u32(8, 4).u32(12, 20).u32(24, 6).u32(32, 1)),
              0u);
    EXPECT_EQ(client.result_of(166, wire_value(16).u32(0, 12).u32(4, 1).u32(8, 30).u32(12, 40)), 0u);
    EXPECT_EQ(client.result_of(167, wire_value(520).u32(0, 13).u32(4, 1).u8(8, 0x55)), 0u);
    EXPECT_EQ(client.result_of(127, user_request(14, 1, 4, 1)), 0u);
    EXPECT_EQ(client.result_of(127, user_request(15, 2, 4, 1)), 0u);
    EXPECT_EQ(client.result_of(127, user_request(16, 3, 5, 1)), 0u);
    EXPECT_EQ(client.result_of(112, wire_value(12).u32(0, 17).u16(4, 80).u32(8, 1)), 0u);
    EXPECT_EQ(client.result_of(112, wire_value(12).u32(0, 18).u16(4, 8080).u32(8, 1)), 0u);
}

const std::vector<std::uint16_t> everything{201, 131, 138, 132, 132, 132, 133, 142, 143,
                                            163, 148, 158, 209, 213, 154, 154, 155, 201};

TEST(SccdRecovery, ANewServiceWithNothingToRecoverIsLeftAlone) {
    daemon_process daemon;
    test_client application(daemon, 3, 77);
    test_client service(daemon, service_app, 78);

    application.async.send(131, acl_request(1, 5, 1));

    EXPECT_EQ(service.async.receive().type, 131);
}

TEST(SccdRecovery, AServiceThatRegistersGetsEverythingBetweenStartAndEnd) {
    daemon_process daemon;
    test_client application(daemon, 3, 77);
    fill(application);

    test_client service(daemon, service_app, 78);

    const std::vector<test_item> operations = receive_recovery(service);
    EXPECT_EQ(types_of(operations), everything);
    EXPECT_EQ(operations.front().part(4, 5), (byte_string{16, 0, 0, 0, 1}));
    EXPECT_EQ(operations.back().part(4, 5), (byte_string{16, 0, 0, 0, 0}));
}

TEST(SccdRecovery, RecoveredOperationsCarryWhatHadBeenGiven) {
    daemon_process daemon;
    test_client application(daemon, 3, 77);
    fill(application);
    test_client service(daemon, service_app, 78);

    const std::vector<test_item> operations = receive_recovery(service);

    ASSERT_EQ(operations.size(), everything.size());
    EXPECT_EQ(operations[1].part(4, 136), item(0, acl_request(1, 5, 1)).part(4, 136));
    EXPECT_EQ(operations[2].part(20, 8), (byte_string{10, 0, 0, 0, 10, 0, 0, 0}));
    EXPECT_EQ(operations[3].u32(24 + 220), 10u);
    EXPECT_EQ(operations[4].u32(24 + 220), 15u);
    EXPECT_EQ(operations[4].u32(24 + 224), 3u);
    EXPECT_EQ(operations[5].u32(24 + 220), 20u);
    EXPECT_EQ(operations[5].u32(936), 1u);
    EXPECT_EQ(operations[6].part(8, 240), item(0, apply_request(6, 5, 2, 1)).part(8, 240));
    EXPECT_EQ(operations[7].part(4, 8), (byte_string{9, 0, 0, 0, 1, 0, 0, 0}));
    EXPECT_EQ(operations[8].u32(4), 1u);
    EXPECT_EQ(operations[9].part(4, 8), (byte_string{1, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(operations[10].part(4, 12), (byte_string{4, 0, 0, 0, 1, 0, 0, 0, 6, 0, 0, 0}));
    EXPECT_EQ(operations[11].u32(20), 20u);
    EXPECT_EQ(operations[12].part(4, 12), (byte_string{1, 0, 0, 0, 30, 0, 0, 0, 40, 0, 0, 0}));
    EXPECT_EQ(operations[13].part(8, 1), byte_string{0x55});
    EXPECT_EQ(operations[14].part(0, 16), (byte_string{5, 0, 0, 0, 0, 0, 0, 0, 4, 0, 0, 0, 2, 0, 0, 0}));
    EXPECT_EQ(operations[14].value.size(), 16u + 2 * 88);
    EXPECT_EQ(operations[14].part(16 + 88 + 8, 6), (byte_string{0x02, 0, 0, 0, 0, 2}));
    EXPECT_EQ(operations[15].u32(8), 5u);
    EXPECT_EQ(operations[15].u32(12), 1u);
    EXPECT_EQ(operations[16].value, (byte_string{2, 0, 0, 0, 80, 0, 0, 0, 0x90, 0x1f, 0, 0}));
}

TEST(SccdRecovery, TheAclsOfUsersFollowTheAcls) {
    daemon_process daemon;
    test_client application(daemon, 3, 77);
    EXPECT_EQ(application.result_of(131, acl_request(1, 5, 1)), 0u);
    EXPECT_EQ(application.result_of(131, acl_request(2, 6, 1)), 0u);
    const wire_value user = wire_value(224).u32(8, 4).raw(32, {2, 0, 0, 0, 0, 9}).raw(56, {10, 0, 0, 9});
    EXPECT_EQ(application.result_of(134, wire_value(user).u32(0, 3).key(40, 3, 5).u32(216, 1)), 0u);
    EXPECT_EQ(application.result_of(134, wire_value(user).u32(0, 4).key(40, 3, 6).u32(216, 1)), 0u);
    EXPECT_EQ(application.result_of(134, wire_value(user).u32(0, 5).key(40, 3, 6)), 0u);
    test_client service(daemon, service_app, 78);

    const std::vector<test_item> operations = receive_recovery(service);

    EXPECT_EQ(types_of(operations), (std::vector<std::uint16_t>{201, 131, 131, 133, 201}));
    ASSERT_EQ(operations.size(), 5u);
    EXPECT_EQ(operations[3].sub_id, 134);
    const wire_value apply = wire_value(248)
                                 .key(8, 3, 5)
                                 .u32(24, 4)
                                 .raw(32, {2, 0, 0, 0, 0, 9})
                                 .raw(40, {10, 0, 0, 9})
                                 .u32(216, 3)
                                 .u32(240, 1);
    EXPECT_EQ(operations[3].part(4, 244), item(0, apply).part(4, 244));
}

TEST(SccdRecovery, AServiceThatDiedGetsItsStateBackFromItsSuccessor) {
    daemon_process daemon;
    test_client application(daemon, 3, 77);
    {
        test_client service(daemon, service_app, 78);
        application.async.send(131, acl_request(1, 5, 1));
        answer_operation(service, service.async.receive(), 0);
        EXPECT_EQ(application.async.receive().u32(4), 0u);
        // This one dies with the service and must not come back.
        application.async.send(131, acl_request(2, 6, 1));
        EXPECT_EQ(service.async.receive().type, 131);
    }
    EXPECT_EQ(application.async.receive().u32(4), 2020u);

    test_client successor(daemon, service_app, 79);

    const std::vector<test_item> operations = receive_recovery(successor);
    EXPECT_EQ(types_of(operations), (std::vector<std::uint16_t>{201, 131, 201}));
    EXPECT_EQ(operations[1].u32(12), 5u);
}

TEST(SccdRecovery, AFetchBringsEverythingOnceMore) {
    daemon_process daemon;
    test_client application(daemon, 3, 77);
    fill(application);
    test_client service(daemon, service_app, 78);
    EXPECT_EQ(types_of(receive_recovery(service)), everything);

    service.sync.send(204, wire_value(8).u32(0, 1).u32(4, 16));

    EXPECT_EQ(types_of(receive_recovery(service)), everything);
}

TEST(SccdRecovery, AFetchIsAnsweredByARecoveryThatTheServiceHasNotBegun) {
    daemon_process daemon;
    test_client application(daemon, 3, 77);
    fill(application);
    test_client service(daemon, service_app, 78);

    service.sync.send(204, wire_value(8).u32(0, 1).u32(4, 16));
    service.settle();

    EXPECT_EQ(types_of(receive_recovery(service)), everything);
    application.async.send(131, acl_request(50, 6, 1));
    EXPECT_EQ(service.async.receive().type, 131);
}

TEST(SccdRecovery, AFetchFromWithinARecoveryBringsEverythingOnceMore) {
    daemon_process daemon;
    test_client application(daemon, 3, 77);
    EXPECT_EQ(application.result_of(131, acl_request(1, 5, 1)), 0u);
    test_client service(daemon, service_app, 78);
    const test_item start = service.async.receive();
    EXPECT_EQ(start.type, recovery_mark);

    service.sync.send(
        {item(402, wire_value(12).raw(0, start.part(0, 4))), item(204, wire_value(8).u32(4, 16))});

    EXPECT_EQ(types_of(receive_recovery(service)), (std::vector<std::uint16_t>{131, 201}));
    EXPECT_EQ(types_of(receive_recovery(service)), (std::vector<std::uint16_t>{201, 131, 201}));
}

TEST(SccdRecovery, ARecoveryThatAnApplicationAsksForRunsWholeForAnyArgument) {
    daemon_process daemon;
    test_client application(daemon, 3, 77);
    fill(application);
    test_client service(daemon, service_app, 78);
    EXPECT_EQ(types_of(receive_recovery(service)), everything);
    service.settle();

    for (const std::uint32_t argument : {0u, 1u, 7u}) {
        application.async.send(201, wire_value(16).u32(4, 3).u32(8, argument));

        const std::vector<test_item> operations = receive_recovery(service);
        EXPECT_EQ(types_of(operations), everything) << argument;
        EXPECT_EQ(operations.front().part(8, 1), byte_string{1});
        service.settle();
    }
}

TEST(SccdRecovery, AFetchWithoutStateIsStartAndEnd) {
    daemon_process daemon;
    test_client service(daemon, service_app, 78);

    service.sync.send(204, wire_value(8).u32(0, 1).u32(4, 16));

    EXPECT_EQ(types_of(receive_recovery(service)), (std::vector<std::uint16_t>{201, 201}));
}

TEST(SccdRecovery, WhatWasTakenBackDoesNotReturn) {
    daemon_process daemon;
    test_client client(daemon, 3, 77);
    fill(client);
    EXPECT_EQ(client.result_of(131, acl_request(31, 5, 0)), 0u);
    EXPECT_EQ(client.result_of(142, wire_value(16).u32(0, 32).u32(4, 9)), 0u);
    EXPECT_EQ(client.result_of(126, wire_value(744).u32(0, 33).u32(8, 4).u32(24, 6).u32(32, 3)), 0u);
    EXPECT_EQ(client.result_of(126, wire_value(744).u32(0, 34).u32(8, 4).u32(12, 20).u32(24, 6).u32(32, 3)),
              0u);
    EXPECT_EQ(client.result_of(127, user_request(35, 3, 5, 3)), 0u);
    EXPECT_EQ(client.result_of(112, wire_value(12).u32(0, 36).u16(4, 80)), 0u);
    EXPECT_EQ(client.result_of(112, wire_value(12).u32(0, 37).u16(4, 8080)), 0u);

    test_client service(daemon, service_app, 78);

    EXPECT_EQ(types_of(receive_recovery(service)),
              (std::vector<std::uint16_t>{201, 143, 163, 209, 213, 154, 201}));
}

TEST(SccdRecovery, RequestsDuringARecoveryComeAfterIt) {
    daemon_process daemon;
    test_client application(daemon, 3, 77);
    fill(application);
    test_client service(daemon, service_app, 78);

    application.async.send(131, acl_request(50, 6, 1));

    EXPECT_EQ(types_of(receive_recovery(service)), everything);
    const test_item create = service.async.receive();
    EXPECT_EQ(create.type, 131);
    answer_operation(service, create, 0);
    EXPECT_EQ(application.async.receive().part(0, 8), (byte_string{50, 0, 0, 0, 0, 0, 0, 0}));
}

TEST(SccdRecovery, TheStateOutlivesTheApplicationThatMadeIt) {
    daemon_process daemon;
    {
        test_client application(daemon, 3, 77);
        EXPECT_EQ(application.result_of(131, acl_request(1, 5, 1)), 0u);
    }

    test_client service(daemon, service_app, 78);

    EXPECT_EQ(types_of(receive_recovery(service)), (std::vector<std::uint16_t>{201, 131, 201}));
}

TEST(SccdRecovery, ManyUsersOfOnePortComeInSeveralLists) {
    daemon_process daemon;
    test_client application(daemon, 3, 77);
    std::vector<test_item> requests;
    for (std::uint32_t user = 0; user < 600; ++user) {
        requests.push_back(item(127, user_request(user, 1, 4, 1).u16(18, static_cast<std::uint16_t>(user))));
    }
    application.async.send(requests);
    for (std::uint32_t user = 0; user < 600; ++user) {
        ASSERT_EQ(application.async.receive().u32(4), 0u);
    }

    test_client service(daemon, service_app, 78);

    const std::vector<test_item> operations = receive_recovery(service);
    ASSERT_EQ(types_of(operations), (std::vector<std::uint16_t>{201, 154, 154, 201}));
    EXPECT_EQ(operations[1].u32(12), 512u);
    EXPECT_EQ(operations[2].u32(12), 88u);
    EXPECT_EQ(operations[2].value.size(), 16u + 88 * 88);
}

}  // namespace
}  // namespace sccd_test
