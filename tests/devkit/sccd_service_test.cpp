#include "sccd_support.h"

namespace sccd_test {
namespace {

struct forwarded_case {
    const char* what;
    std::uint16_t request;
    wire_value value;
    std::uint16_t operation;
};

wire_value counter_request(std::uint32_t call, std::uint32_t query) {
    return wire_value(40).u32(0, call).key(4, 3, 5).u64(24, 10).u32(32, query);
}

wire_value counter_result(const test_item& operation, std::uint64_t counter, std::uint32_t result) {
    return wire_value(48).raw(0, operation.part(0, 4)).u64(32, counter).u32(40, result);
}

wire_value nac_app_request(std::uint32_t call, std::uint32_t type, std::uint32_t vid) {
    return wire_value(744).u32(0, call).u32(8, 4).u32(12, vid).u32(24, type).u32(32, 1);
}

TEST(SccdService, WhatTheHardwareMustDoIsForwardedAndItsResultReturned) {
    daemon_process daemon;
    test_client application(daemon, 3, 77);
    test_client service(daemon, service_app, 78);
    const forwarded_case rows[] = {
        {"create", 131, acl_request(901, 5, 1), 131},
        {"add", 132, ace_request(902, 5, 10, 1, 1), 132},
        {"apply", 133, apply_request(903, 5, 2, 1), 133},
        {"resequence", 138, wire_value(28).u32(0, 904).key(4, 3, 5).u32(20, 10).u32(24, 10), 138},
        {"router acl", 143, wire_value(8).u32(0, 905).u32(4, 1), 143},
        {"egress port", 142, wire_value(16).u32(0, 906).u32(4, 9).u32(8, 1), 142},
        {"cpp", 163, wire_value(12).u32(0, 907).u32(4, 1), 163},
        {"user", 127, user_request(908, 9, 4, 1), 151},
        {"app", 126, nac_app_request(909, 6, 0), 148},
        {"app with vlan", 126, nac_app_request(910, 6, 12), 158},
        {"http port", 112, wire_value(12).u32(0, 911).u16(4, 8080).u32(8, 1), 150},
        {"offline detection", 166, wire_value(16).u32(0, 912).u32(4, 1).u32(8, 30).u32(12, 40), 209},
        {"unapply", 133, apply_request(913, 5, 2, 0), 133},
        {"delete ace", 132, ace_request(914, 5, 10, 1, 0), 132},
        {"delete", 131, acl_request(915, 5, 0), 131},
    };

    for (const forwarded_case& row : rows) {
        const test_item operation = pass(application, service, row.request, row.value);
        EXPECT_EQ(operation.type, row.operation) << row.what;
        EXPECT_NE(operation.sub_id, 0) << row.what;
        EXPECT_NE(operation.u32(0), item(0, row.value).u32(0))
            << row.what << ": the call id is the daemon's own";
    }
}

TEST(SccdService, OperationsCarryTheLayoutsThatTheServiceReads) {
    daemon_process daemon;
    test_client application(daemon, 3, 77);
    test_client service(daemon, service_app, 78);

    const test_item create = pass(application, service, 131, acl_request(1, 5, 1));
    const test_item app = pass(application, service, 126, nac_app_request(2, 6, 0));
    const test_item app_with_vlan = pass(application, service, 126, nac_app_request(3, 6, 12));
    const test_item port = pass(application, service, 112, wire_value(12).u32(0, 4).u16(4, 8080).u32(8, 1));
    const test_item user = pass(application, service, 127, user_request(5, 9, 4, 1));
    const test_item offline =
        pass(application, service, 166, wire_value(16).u32(0, 6).u32(4, 256).u32(8, 30).u32(12, 40));

    EXPECT_EQ(create.part(4, 136), item(0, acl_request(1, 5, 1)).part(4, 136));
    EXPECT_EQ(app.part(4, 12), (byte_string{4, 0, 0, 0, 1, 0, 0, 0, 6, 0, 0, 0}));
    EXPECT_EQ(app_with_vlan.part(4, 12), (byte_string{4, 0, 0, 0, 1, 0, 0, 0, 6, 0, 0, 0}));
    EXPECT_EQ(app_with_vlan.u32(20), 12u);
    EXPECT_EQ(port.u64(8), 8080u);
    EXPECT_EQ(port.u32(16), 1u);
    ASSERT_EQ(user.value.size(), 96u);
    EXPECT_EQ(user.part(4, 1), byte_string{1});
    EXPECT_EQ(user.u32(8), 4u);
    EXPECT_EQ(user.part(16, 6), (byte_string{0x02, 0, 0, 0, 0, 9}));
    EXPECT_EQ(user.part(32, 4), (byte_string{10, 0, 0, 9}));
    EXPECT_EQ(offline.part(4, 12), (byte_string{1, 0, 0, 0, 30, 0, 0, 0, 40, 0, 0, 0}));
}

TEST(SccdService, ItsFailureIsReturnedAndTheChangeTakenBack) {
    daemon_process daemon;
    test_client application(daemon, 3, 77);
    test_client service(daemon, service_app, 78);

    pass(application, service, 131, acl_request(1, 5, 1), 28);
    pass(application, service, 131, acl_request(2, 5, 1));
    pass(application, service, 132, ace_request(3, 5, 10, 1, 1), 28);
    pass(application, service, 132, ace_request(4, 5, 10, 1, 1));
    pass(application, service, 133, apply_request(5, 5, 2, 1), 28);
    pass(application, service, 133, apply_request(6, 5, 2, 1));
    pass(application, service, 133, apply_request(7, 5, 2, 0), 28);
    pass(application, service, 132, ace_request(8, 5, 10, 1, 0), 28);
    pass(application, service, 138, wire_value(28).u32(0, 9).key(4, 3, 5).u32(20, 100).u32(24, 10), 28);
    pass(application, service, 131, acl_request(10, 5, 0), 28);

    const nlohmann::json acl = control({{"do", "acls"}})["acls"][0];
    EXPECT_EQ(acl["aces"].size(), 1u);
    EXPECT_EQ(acl["aces"][0]["sn"], 10);
    EXPECT_EQ(acl["sn_start"], 0);
    EXPECT_EQ(acl["applies"].size(), 1u);
}

TEST(SccdService, AFailedDeletionBringsTheAclBackAlsoWhenItWasCreatedAnew) {
    daemon_process daemon;
    test_client application(daemon, 3, 77);
    test_client service(daemon, service_app, 78);
    pass(application, service, 131, acl_request(1, 5, 1));
    pass(application, service, 132, ace_request(2, 5, 10, 1, 1));

    application.async.send({item(131, acl_request(3, 5, 0)), item(131, acl_request(4, 5, 1))});
    answer_operation(service, service.async.receive(), 28);
    answer_operation(service, service.async.receive(), 2010);

    EXPECT_EQ(application.async.receive().u32(4), 28u);
    EXPECT_EQ(application.async.receive().u32(4), 2010u);
    EXPECT_EQ(control({{"do", "acls"}})["acls"][0]["aces"].size(), 1u);
}

TEST(SccdService, AFailedUserIsNotKeptAndNotAnnounced) {
    daemon_process daemon;
    test_client application(daemon, 3, 77);
    test_client other(daemon, 4, 79);
    test_client service(daemon, service_app, 78);

    pass(application, service, 127, user_request(1, 9, 4, 1), 28);
    pass(application, service, 127, user_request(2, 8, 4, 1));

    EXPECT_EQ(other.async.receive().part(4, 6), (byte_string{0x02, 0, 0, 0, 0, 8}));
    EXPECT_EQ(control({{"do", "users"}})["users"].size(), 1u);
}

TEST(SccdService, RefusedRequestsNeverReachIt) {
    daemon_process daemon;
    test_client application(daemon, 3, 77);
    test_client service(daemon, service_app, 78);

    EXPECT_EQ(application.result_of(131, acl_request(1, 5, 0)), 2005u);
    EXPECT_EQ(application.result_of(126, nac_app_request(2, 39, 0)), 22u);
    const test_item operation = pass(application, service, 126, nac_app_request(3, 38, 0));

    EXPECT_EQ(operation.type, 148);
}

TEST(SccdService, RequestsOfOneMessageGoOnTogetherAndMayBeAnsweredInAnyOrder) {
    daemon_process daemon;
    test_client application(daemon, 3, 77);
    test_client service(daemon, service_app, 78);

    application.async.send({item(131, acl_request(1, 5, 1)), item(132, ace_request(2, 5, 10, 1, 1)),
                            item(133, apply_request(3, 5, 2, 1))});
    const test_item create = service.async.receive();
    const test_item add = service.async.receive();
    const test_item apply = service.async.receive();
    EXPECT_EQ(create.message, apply.message);
    service.async.send({item(402, wire_value(12).raw(0, apply.part(0, 4)).u32(4, 3), apply.sub_id),
                        item(402, wire_value(12).raw(0, create.part(0, 4)).u32(4, 0), create.sub_id),
                        item(402, wire_value(12).raw(0, add.part(0, 4)).u32(4, 2), add.sub_id)});

    const test_item first = application.async.receive();
    const test_item second = application.async.receive();
    const test_item third = application.async.receive();
    EXPECT_EQ(first.part(0, 8), (byte_string{3, 0, 0, 0, 3, 0, 0, 0}));
    EXPECT_EQ(second.part(0, 8), (byte_string{1, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(third.part(0, 8), (byte_string{2, 0, 0, 0, 2, 0, 0, 0}));
    EXPECT_EQ(first.message, third.message);
}

TEST(SccdService, AUserWhoMovesIsTwoOperationsUnderOneCallId) {
    daemon_process daemon;
    test_client application(daemon, 3, 77);
    test_client service(daemon, service_app, 78);
    pass(application, service, 127, user_request(1, 9, 4, 1));

    application.async.send(127, user_request(2, 9, 5, 1));
    const test_item leave = service.async.receive();
    const test_item enter = service.async.receive();
    answer_operation(service, enter, 0);
    answer_operation(service, leave, 17);

    EXPECT_EQ(leave.part(0, 4), enter.part(0, 4));
    EXPECT_NE(leave.sub_id, enter.sub_id);
    EXPECT_EQ(leave.part(4, 1), byte_string{0});
    EXPECT_EQ(leave.u32(8), 4u);
    EXPECT_EQ(enter.part(4, 1), byte_string{1});
    EXPECT_EQ(enter.u32(8), 5u);
    EXPECT_EQ(application.async.receive().part(0, 8), (byte_string{2, 0, 0, 0, 17, 0, 0, 0}));
}

TEST(SccdService, CounterQueriesAreAnsweredFromItsSynchronousSocket) {
    daemon_process daemon;
    test_client application(daemon, 3, 77);
    test_client service(daemon, service_app, 78);
    pass(application, service, 131, acl_request(1, 5, 1));

    application.sync.send(312, counter_request(0, 1));
    const test_item acl_query = service.async.receive();
    service.sync.send({item(402, counter_result(acl_query, 1234, 0), acl_query.sub_id)});
    const test_item acl_reply = application.sync.receive();
    application.sync.send(313, counter_request(0, 1));
    const test_item ace_query = service.async.receive();
    service.sync.send({item(402, counter_result(ace_query, 99, 2006), ace_query.sub_id)});
    const test_item ace_reply = application.sync.receive();

    EXPECT_EQ(acl_query.type, 312);
    EXPECT_EQ(acl_query.u32(32), 1u);
    EXPECT_EQ(acl_reply.type, 408);
    EXPECT_EQ(acl_reply.u64(32), 1234u);
    EXPECT_EQ(acl_reply.u32(40), 0u);
    EXPECT_EQ(acl_reply.u32(12), 5u);
    EXPECT_EQ(ace_query.type, 313);
    EXPECT_EQ(ace_query.u64(24), 10u);
    EXPECT_EQ(ace_reply.type, 407);
    EXPECT_EQ(ace_reply.u32(40), 2006u);
}

TEST(SccdService, CounterResetsComeBackAsCounterResultsOnTheAsynchronousSocket) {
    daemon_process daemon;
    test_client application(daemon, 3, 77);
    test_client service(daemon, service_app, 78);
    pass(application, service, 131, acl_request(1, 5, 1));

    for (const std::uint16_t type : {std::uint16_t{140}, std::uint16_t{141}}) {
        application.async.send(type, counter_request(type, 0));
        const test_item reset = service.async.receive();
        EXPECT_EQ(reset.type, type);
        EXPECT_EQ(reset.u32(32), 0u);
        // The second word of a counter result belongs to the key and is not a result.
        service.async.send({item(402, counter_result(reset, 0, 0).u32(4, 77), reset.sub_id)});
        EXPECT_EQ(application.async.receive().u32(4), 0u);
    }
}

TEST(SccdService, AUserIsReadBackThroughIt) {
    daemon_process daemon;
    test_client application(daemon, 3, 77);
    test_client service(daemon, service_app, 78);
    pass(application, service, 127, user_request(1, 9, 4, 1));
    const wire_value question = wire_value(744).raw(16, {0x02, 0, 0, 0, 0, 9}).u32(32, 2);

    application.sync.send(307, question);
    const test_item read = service.async.receive();
    // The service answers under a call id of its own, with its view of the user.
    service.async.send({item(402, wire_value(104).u32(0, 4242).raw(8, read.part(8, 88)).u32(8, 6))});
    const test_item found = application.sync.receive();
    application.sync.send(307, question);
    EXPECT_EQ(service.async.receive().type, 152);
    service.async.send({item(402, wire_value(104).u32(0, 4243).u32(96, 5))});
    const test_item failed = application.sync.receive();

    EXPECT_EQ(read.type, 152);
    EXPECT_EQ(read.part(16, 6), (byte_string{0x02, 0, 0, 0, 0, 9}));
    EXPECT_EQ(found.type, 401);
    EXPECT_EQ(found.u32(4), 0u);
    EXPECT_EQ(found.u32(10), 6u);
    EXPECT_EQ(failed.u32(4), 5u);
}

TEST(SccdService, SilenceIsATimeOutAndALateResultMatchesNothing) {
    daemon_process daemon({"--service-timeout", "50"});
    test_client application(daemon, 3, 77);
    test_client service(daemon, service_app, 78);

    EXPECT_EQ(application.result_of(131, acl_request(1, 5, 1)), 2020u);
    const test_item late = service.async.receive();
    answer_operation(service, late, 0);
    service.settle();

    EXPECT_EQ(control({{"do", "acls"}})["acls"].size(), 0u);
}

TEST(SccdService, ASilentServiceEndsSynchronousQueriesToo) {
    daemon_process daemon({"--service-timeout", "50"});
    test_client application(daemon, 3, 77);
    EXPECT_EQ(application.result_of(131, acl_request(1, 5, 1)), 0u);
    EXPECT_EQ(application.result_of(127, user_request(2, 9, 4, 1)), 0u);
    test_client service(daemon, service_app, 78);

    EXPECT_EQ(application.query(312, counter_request(0, 1)).u32(40), 2020u);
    EXPECT_EQ(application.query(307, wire_value(744).raw(16, {0x02, 0, 0, 0, 0, 9}).u32(32, 2)).u32(4),
              2020u);
}

TEST(SccdService, WhenItDiesOutstandingOperationsFailAndLaterOnesAreAnsweredAlone) {
    daemon_process daemon;
    test_client application(daemon, 3, 77);
    test_client service(daemon, service_app, 78);
    application.async.send({item(131, acl_request(1, 5, 1)), item(132, ace_request(2, 5, 10, 1, 1))});
    EXPECT_EQ(service.async.receive().type, 131);

    service.sync.close();

    EXPECT_EQ(application.async.receive().u32(4), 2020u);
    EXPECT_EQ(application.async.receive().u32(4), 2020u);
    EXPECT_EQ(application.result_of(131, acl_request(3, 5, 1)), 0u);
}

TEST(SccdService, WhenItDiesOutstandingChangesAreUndoneInReverse) {
    daemon_process daemon;
    test_client application(daemon, 3, 77);
    test_client service(daemon, service_app, 78);
    application.async.send({item(131, acl_request(1, 5, 1)), item(131, acl_request(2, 5, 0))});
    EXPECT_EQ(service.async.receive().type, 131);
    EXPECT_EQ(service.async.receive().type, 131);

    service.sync.close();

    EXPECT_EQ(application.async.receive().u32(4), 2020u);
    EXPECT_EQ(application.async.receive().u32(4), 2020u);
    EXPECT_EQ(control({{"do", "acls"}})["acls"].size(), 0u);
}

TEST(SccdService, AResultThatMatchesNothingIsIgnored) {
    daemon_process daemon;
    test_client application(daemon, 3, 77);
    test_client service(daemon, service_app, 78);
    application.async.send(131, acl_request(1, 5, 1));
    const test_item create = service.async.receive();

    service.async.send({item(402, wire_value(12).raw(0, create.part(0, 4)).u32(4, 9), 7),
                        item(402, wire_value(12).u32(0, 4711).u32(4, 9), create.sub_id),
                        item(402, wire_value(4).raw(0, create.part(0, 4)), create.sub_id),
                        item(402, wire_value(12).raw(0, create.part(0, 4)), create.sub_id)});

    EXPECT_EQ(application.async.receive().u32(4), 0u);
}

TEST(SccdService, TestCommandsOfApplicationsReachIt) {
    daemon_process daemon;
    test_client application(daemon, 3, 77);
    test_client service(daemon, service_app, 78);

    application.async.send(205, wire_value(4).u32(0, 6));

    const test_item command = service.async.receive();
    EXPECT_EQ(command.type, 205);
    EXPECT_EQ(command.value, (byte_string{6, 0, 0, 0}));
}

// A service outlives its daemon and may answer the earlier daemon's operations later.
TEST(SccdService, AnAnswerMeantForAKilledDaemonCompletesNothingOfItsSuccessor) {
    daemon_process daemon;
    test_item unanswered;
    {
        test_client application(daemon, 3, 77);
        test_client service(daemon, service_app, 78);
        application.async.send(131, acl_request(1, 5, 1));
        unanswered = service.async.receive();
        daemon.signal(SIGKILL);
        daemon.wait_for_end();
    }
    daemon.start();
    test_client application(daemon, 3, 77);
    test_client service(daemon, service_app, 78);
    application.async.send(131, acl_request(1, 5, 1));
    const test_item operation = service.async.receive();

    answer_operation(service, unanswered, 28);
    answer_operation(service, operation, 0);

    EXPECT_EQ(application.async.receive().part(0, 8), (byte_string{1, 0, 0, 0, 0, 0, 0, 0}));
}

}  // namespace
}  // namespace sccd_test
