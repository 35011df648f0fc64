#include <tuple>

#include "sccd_support.h"

namespace sccd_test {
namespace {

TEST(SccdRequests, EveryConfigurationRequestIsAnsweredUnderItsCallId) {
    daemon_process daemon;
    test_client client(daemon, 3, 77);
    // With the lengths that the library sends. Those that find nothing to remove have a result of their own.
    const std::tuple<std::uint16_t, std::size_t, std::uint32_t> requests[] = {
        {101, 744, 0},   {102, 744, 0}, {103, 744, 0}, {104, 744, 0},   {105, 744, 0},   {106, 744, 0},
        {107, 744, 0},   {108, 8, 0},   {109, 8, 0},   {111, 744, 0},   {113, 24, 2015}, {114, 12, 2},
        {115, 20, 2016}, {116, 744, 0}, {118, 744, 0}, {119, 744, 0},   {120, 744, 0},   {121, 744, 0},
        {122, 744, 0},   {123, 12, 22}, {124, 28, 0},  {125, 744, 0},   {126, 744, 0},   {128, 16, 0},
        {130, 928, 2},   {137, 232, 0}, {143, 8, 0},   {159, 20, 2016}, {160, 744, 22},  {161, 744, 22},
        {162, 744, 0},   {163, 12, 0},  {164, 744, 0}, {166, 16, 0},    {167, 520, 0},   {169, 744, 0},
    };
    std::uint32_t call = 100;

    for (const auto& [type, len, result] : requests) {
        ++call;
        EXPECT_EQ(client.result_of(type, wire_value(len).u32(0, call)), result) << type;
    }
}

TEST(SccdRequests, ResultsOfOneMessageComeBackAsOneMessageInOrder) {
    daemon_process daemon;
    test_client client(daemon, 3, 77);

    client.async.send({item(108, wire_value(8).u32(0, 11)), item(109, wire_value(8).u32(0, 12)),
                       item(104, wire_value(744).u32(0, 13))});

    for (std::uint32_t call = 11; call <= 13; ++call) {
        const test_item answer = client.async.receive();
        EXPECT_EQ(answer.type, 401);
        EXPECT_EQ(answer.message, 1);
        EXPECT_EQ(answer.u32(0), call);
        EXPECT_EQ(answer.u32(4), 0u);
    }
}

TEST(SccdRequests, ManyResultsComeBackInSeveralLargeMessages) {
    daemon_process daemon;
    test_client client(daemon, 3, 77);
    std::vector<test_item> requests;
    for (std::uint32_t call = 0; call < 1000; ++call) {
        requests.push_back(item(108, wire_value(8).u32(0, call)));
    }

    client.async.send(requests);

    test_item answer;
    for (std::uint32_t call = 0; call < 1000; ++call) {
        answer = client.async.receive();
        ASSERT_EQ(answer.u32(0), call);
    }
    // 512 items of 16 bytes fill a message; the registration's reply came in message 0.
    EXPECT_EQ(answer.message, 2);
}

TEST(SccdRequests, OneWayRequestsAreNotAnswered) {
    daemon_process daemon;
    test_client client(daemon, 3, 77);

    client.sync.send(220, wire_value(4).u32(0, 1));
    client.async.send(
        {item(205, wire_value(4)), item(201, wire_value(16).u32(4, 3)), item(108, wire_value(8).u32(0, 9))});

    EXPECT_EQ(client.async.receive().u32(0), 9u);
    EXPECT_EQ(client.query(303, wire_value(0)).type, 405);
}

TEST(SccdRequests, AWaterLineReachesTheOtherApplications) {
    daemon_process daemon;
    test_client sender(daemon, 3, 77);
    test_client other(daemon, 4, 78);

    sender.sync.send(220, wire_value(4).u32(0, 1));

    const test_item notification = other.async.receive();
    EXPECT_EQ(notification.type, 220);
    EXPECT_EQ(notification.value, (byte_string{1, 0, 0, 0}));
}

TEST(SccdRequests, AShortRequestIsInvalidAndOneWithoutACallIdIsIgnored) {
    daemon_process daemon;
    test_client client(daemon, 3, 77);

    client.async.send(
        {item(104, wire_value(3)), item(104, wire_value(743).u32(0, 7)), item(131, wire_value(4).u32(0, 8))});

    const test_item first = client.async.receive();
    const test_item second = client.async.receive();
    EXPECT_EQ(first.u32(0), 7u);
    EXPECT_EQ(first.u32(4), 22u);
    EXPECT_EQ(second.u32(0), 8u);
    EXPECT_EQ(second.u32(4), 22u);
    EXPECT_EQ(client.query(315, wire_value(3)).u32(12), 22u);
}

TEST(SccdRequests, AControlBlockMustFitIntoItsItem) {
    daemon_process daemon;
    test_client client(daemon, 3, 77);

    EXPECT_EQ(client.result_of(157, wire_value(18).u32(0, 1).u32(4, 10)), 0u);
    EXPECT_EQ(client.result_of(157, wire_value(18).u32(0, 2).u32(4, 11)), 22u);
    EXPECT_EQ(client.result_of(157, wire_value(8).u32(0, 3)), 22u);
}

TEST(SccdRequests, AnHttpPortThatWasNeverAddedCannotBeDeleted) {
    daemon_process daemon;
    test_client client(daemon, 3, 77);

    EXPECT_EQ(client.result_of(112, wire_value(12).u32(0, 1).u16(4, 8080)), 2014u);
    EXPECT_EQ(client.result_of(112, wire_value(12).u32(0, 2).u16(4, 8080).u32(8, 1)), 0u);
    EXPECT_EQ(client.result_of(112, wire_value(12).u32(0, 3).u16(4, 8080)), 0u);
    EXPECT_EQ(client.result_of(112, wire_value(12).u32(0, 4).u16(4, 8080)), 2014u);
}

TEST(SccdRequests, AUserIsAddedReadBackAndDeleted) {
    daemon_process daemon;
    test_client client(daemon, 3, 77);
    const wire_value question = wire_value(744).u32(0, 0xffffffff).raw(16, {0x02, 0, 0, 0, 0, 9}).u32(32, 2);

    EXPECT_EQ(client.result_of(127, user_request(1, 9, 4, 1)), 0u);
    const test_item found = client.query(307, question);
    EXPECT_EQ(client.result_of(127, user_request(2, 9, 4, 3)), 0u);
    const test_item missing = client.query(307, question);

    EXPECT_EQ(found.type, 401);
    ASSERT_EQ(found.value.size(), 746u);
    EXPECT_EQ(found.u32(4), 0u);
    EXPECT_EQ(found.u32(10), 4u);
    EXPECT_EQ(found.u32(10 + 24), 2u);
    EXPECT_EQ(found.part(10 + 36, 4), (byte_string{10, 0, 0, 9}));
    EXPECT_EQ(missing.u32(4), 2u);
    EXPECT_EQ(missing.part(10, 736), item(0, question).part(8, 736));
}

TEST(SccdRequests, DeletingAnUnknownUserOrArpEntryFindsNothing) {
    daemon_process daemon;
    test_client client(daemon, 3, 77);

    EXPECT_EQ(client.result_of(127, user_request(1, 9, 4, 3)), 2u);
    EXPECT_EQ(client.result_of(165, user_request(2, 9, 4, 3)), 2u);
    EXPECT_EQ(client.result_of(168, user_request(3, 9, 4, 3)), 2u);
    EXPECT_EQ(client.result_of(127, user_request(4, 9, 4, 7)), 22u);
}

TEST(SccdRequests, AMacQueryFindsUsersAndArpEntries) {
    daemon_process daemon;
    test_client client(daemon, 3, 77);
    EXPECT_EQ(client.result_of(127, user_request(1, 8, 4, 1)), 0u);
    EXPECT_EQ(client.result_of(165, user_request(2, 9, 4, 1)), 0u);

    const test_item user = client.query(315, wire_value(152).u32(0, 5).raw(4, {0x02, 0, 0, 0, 0, 8}));
    const test_item arp_entry = client.query(315, wire_value(152).u32(0, 6).raw(4, {0x02, 0, 0, 0, 0, 9}));
    const test_item unknown = client.query(315, wire_value(152).u32(0, 7).raw(4, {0x02, 0, 0, 0, 0, 1}));

    EXPECT_EQ(user.type, 413);
    EXPECT_EQ(user.u32(12), 0u);
    EXPECT_EQ(user.part(32, 4), (byte_string{10, 0, 0, 8}));
    EXPECT_EQ(arp_entry.part(32, 4), (byte_string{10, 0, 0, 9}));
    EXPECT_EQ(unknown.u32(12), 2u);
}

TEST(SccdRequests, TheArpCheckIsOnWhileAnInterfaceHasIt) {
    daemon_process daemon;
    test_client client(daemon, 3, 77);

    EXPECT_EQ(client.query(303, wire_value(0)).u32(0), 0u);
    EXPECT_EQ(client.result_of(122, wire_value(744).u32(0, 1).u32(8, 4).u32(32, 1)), 0u);
    EXPECT_EQ(client.query(303, wire_value(0)).u32(0), 1u);
    EXPECT_EQ(client.result_of(122, wire_value(744).u32(0, 2).u32(8, 4).u32(32, 3)), 0u);
    EXPECT_EQ(client.query(303, wire_value(0)).u32(0), 0u);
}

TEST(SccdRequests, ArpCheckUsersAreCountedAndListedUpToTheCapacity) {
    daemon_process daemon;
    test_client client(daemon, 3, 77);
    EXPECT_EQ(client.result_of(127, user_request(1, 1, 4, 1)), 0u);
    EXPECT_EQ(client.result_of(127, user_request(2, 2, 5, 1)), 0u);
    EXPECT_EQ(client.result_of(168, user_request(3, 3, 4, 1)), 0u);

    const test_item all = client.query(304, wire_value(12));
    const test_item on_port = client.query(304, wire_value(12).u32(4, 4));
    const test_item list = client.query(305, wire_value(12).u32(4, 0).u32(8, 2));

    EXPECT_EQ(all.value, (byte_string{0, 0, 0, 0, 0, 0, 0, 0, 3, 0, 0, 0}));
    EXPECT_EQ(all.type, 411);
    EXPECT_EQ(on_port.u32(8), 2u);
    EXPECT_EQ(list.type, 410);
    EXPECT_EQ(list.u32(0), 0u);
    EXPECT_EQ(list.u32(8), 2u);
    ASSERT_EQ(list.value.size(), 12u + 2 * 48);
    EXPECT_EQ(list.part(12 + 6, 6), (byte_string{0x02, 0, 0, 0, 0, 1}));
    EXPECT_EQ(list.part(12 + 12, 4), (byte_string{10, 0, 0, 1}));
}

TEST(SccdRequests, SynchronousSettingsAreAcceptedWithTheirOwnReplies) {
    daemon_process daemon;
    test_client client(daemon, 3, 77);
    EXPECT_EQ(client.result_of(127, user_request(1, 1, 4, 1)), 0u);

    const test_item number = client.query(317, wire_value(744).u32(0, 5).u32(8, 4));
    const test_item span = client.query(316, wire_value(744).u32(0, 6));

    EXPECT_EQ(number.type, 415);
    EXPECT_EQ(number.u32(0), 0u);
    EXPECT_EQ(number.u32(4), 1u);
    EXPECT_EQ(span.type, 414);
    EXPECT_EQ(span.u32(0), 0u);
}

TEST(SccdRequests, OtherApplicationsLearnOfAddedAndDeletedUsers) {
    daemon_process daemon;
    test_client sender(daemon, 3, 77);
    test_client other(daemon, 4, 78);

    EXPECT_EQ(sender.result_of(127, user_request(1, 9, 4, 1)), 0u);
    const test_item added = other.async.receive();
    EXPECT_EQ(sender.result_of(127, user_request(2, 9, 4, 3)), 0u);
    const test_item deleted = other.async.receive();

    EXPECT_EQ(added.type, 127);
    EXPECT_EQ(added.part(4, 6), (byte_string{0x02, 0, 0, 0, 0, 9}));
    EXPECT_EQ(added.part(16, 1), byte_string{1});
    EXPECT_EQ(added.part(32, 4), (byte_string{10, 0, 0, 9}));
    EXPECT_EQ(added.u32(24 + 40), 4u);
    EXPECT_EQ(added.part(80, 736), item(0, user_request(1, 9, 4, 1)).part(8, 736));
    EXPECT_EQ(deleted.type, 127);
    EXPECT_EQ(deleted.part(16, 1), byte_string{0});
    sender.settle();
}

TEST(SccdRequests, OrderedFailuresRefuseTheNextRequestsOfTheirType) {
    daemon_process daemon;
    test_client client(daemon, 3, 77);
    ASSERT_EQ(control({{"do", "fail-next"}, {"type", 131}, {"result", 12}, {"count", 2}})["ok"], true);
    ASSERT_EQ(control({{"do", "fail-next"}, {"type", 315}, {"result", 2019}})["ok"], true);

    EXPECT_EQ(client.result_of(131, acl_request(1, 1, 1)), 12u);
    EXPECT_EQ(client.result_of(131, acl_request(2, 1, 1)), 12u);
    EXPECT_EQ(client.result_of(131, acl_request(3, 1, 1)), 0u);
    EXPECT_EQ(client.query(315, wire_value(152)).u32(12), 2019u);
    EXPECT_EQ(client.query(315, wire_value(152)).u32(12), 2u);
}

TEST(SccdRequests, AMutedTypeIsNotAnsweredOnceAndUnmutingLiftsIt) {
    daemon_process daemon;
    test_client client(daemon, 3, 77);
    ASSERT_EQ(control({{"do", "mute"}, {"type", 108}})["ok"], true);
    ASSERT_EQ(control({{"do", "mute"}, {"type", 109}})["ok"], true);
    ASSERT_EQ(control({{"do", "unmute"}, {"type", 109}})["ok"], true);

    client.async.send({item(108, wire_value(8).u32(0, 1)), item(109, wire_value(8).u32(0, 2)),
                       item(108, wire_value(8).u32(0, 3))});

    EXPECT_EQ(client.async.receive().u32(0), 2u);
    EXPECT_EQ(client.async.receive().u32(0), 3u);
}

TEST(SccdRequests, AnUnregistrationCanBeRefusedOnOrder) {
    daemon_process daemon;
    test_client client(daemon, 3, 77);
    ASSERT_EQ(control({{"do", "fail-next"}, {"type", 302}, {"result", 5}})["ok"], true);

    EXPECT_EQ(client.query(302, wire_value(4).u32(0, 3)).u32(4), 5u);
    EXPECT_EQ(client.result_of(108, wire_value(8).u32(0, 1)), 0u);
}

}  // namespace
}  // namespace sccd_test
