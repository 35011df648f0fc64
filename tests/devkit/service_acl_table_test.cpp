#include <cerrno>

#include "service/acl_table.h"
#include "service_frames.h"

namespace scc::service {
namespace {

using namespace testing;

class ServiceAclTable : public ::testing::Test {
  protected:
    void create_with(u32 acl_id, std::initializer_list<const char*> aces) {
        ASSERT_EQ(table_.create(key_of(acl_id)), 0u);
        for (const char* text : aces) {
            ASSERT_EQ(table_.add_ace(key_of(acl_id), ace_of(text)), 0u) << text;
        }
    }

    // Sequence numbers or ACE ids in the order of the table, as ACE counter reports see them.
    std::vector<u64> ids_of(u32 acl_id) {
        for (const acl_counters& acl : table_.applied_counters()) {
            if (acl.key.acl_id != acl_id) {
                continue;
            }
            std::vector<u64> ids;
            for (const scc_ace_counter& ace : acl.aces) {
                ids.push_back(ace.ace);
            }
            return ids;
        }
        return {};
    }

    u64 acl_count(u32 acl_id) {
        u64 count = 99;
        EXPECT_EQ(table_.read_counter(key_of(acl_id), count), 0u);
        return count;
    }

    u64 ace_count(u32 acl_id, u64 ace) {
        u64 count = 99;
        EXPECT_EQ(table_.read_ace_counter(key_of(acl_id), ace, count), 0u);
        return count;
    }

    acl_table table_;
};

TEST_F(ServiceAclTable, AnAclIsCreatedOnceWhateverItsClass) {
    EXPECT_EQ(table_.create({1, 2, 5, 0}), 0u);
    EXPECT_EQ(table_.create({1, 2, 5, 7}), 2010u);
    EXPECT_EQ(table_.create({1, 3, 5, 0}), 0u);
    EXPECT_EQ(table_.create({2, 2, 5, 0}), 0u);
}

TEST_F(ServiceAclTable, OperationsOnAMissingAclFindNone) {
    u64 counter = 7;
    EXPECT_EQ(table_.remove(key_of(5)), 2005u);
    EXPECT_EQ(table_.add_ace(key_of(5), ace_of("10 permit ether")), 2005u);
    EXPECT_EQ(table_.delete_ace(key_of(5), ace_of("10 permit ether")), 2005u);
    EXPECT_EQ(table_.apply(application_of(5, 1)), 2005u);
    EXPECT_EQ(table_.unapply(application_of(5, 1)), 2005u);
    EXPECT_EQ(table_.resequence(key_of(5), 10, 10), 2005u);
    EXPECT_EQ(table_.read_counter(key_of(5), counter), 2005u);
    EXPECT_EQ(table_.reset_counter(key_of(5)), 2005u);
    EXPECT_EQ(table_.read_ace_counter(key_of(5), 1, counter), 2005u);
    EXPECT_EQ(table_.reset_ace_counter(key_of(5), 1), 2005u);
    EXPECT_EQ(counter, 7u);
}

TEST_F(ServiceAclTable, AcesStandInTheOrderOfTheirSequenceNumbers) {
    create_with(
        5, {"20 permit ether id 1", "10 permit ether id 2", "20 permit ether id 3", "5 deny ether id 4"});
    ASSERT_EQ(table_.apply(application_of(5, 1)), 0u);
    EXPECT_EQ(ids_of(5), (std::vector<u64>{4, 2, 1, 3}));
}

TEST_F(ServiceAclTable, AnAceIsTakenOnceForItsNumberAndId) {
    create_with(5, {"10 permit ether id 1"});
    EXPECT_EQ(table_.add_ace(key_of(5), ace_of("10 deny ip any any id 1")), 2011u);
    EXPECT_EQ(table_.add_ace(key_of(5), ace_of("10 deny ip any any id 2")), 0u);
    EXPECT_EQ(table_.add_ace(key_of(5), ace_of("20 deny ip any any id 1")), 0u);
}

TEST_F(ServiceAclTable, AnAceIsDeletedByItsNumberAndIdTogether) {
    create_with(5, {"10 permit ether id 1"});
    EXPECT_EQ(table_.delete_ace(key_of(5), ace_of("10 permit ether id 2")), 2006u);
    EXPECT_EQ(table_.delete_ace(key_of(5), ace_of("11 permit ether id 1")), 2006u);
    EXPECT_EQ(table_.delete_ace(key_of(5), ace_of("10 permit ether id 1")), 0u);
    EXPECT_EQ(table_.delete_ace(key_of(5), ace_of("10 permit ether id 1")), 2006u);
}

TEST_F(ServiceAclTable, AnAclIsAppliedOnceAtEachPlace) {
    create_with(5, {});
    EXPECT_EQ(table_.apply(application_of(5, 1)), 0u);
    EXPECT_EQ(table_.apply(application_of(5, 1)), 2009u);
    EXPECT_EQ(table_.apply(application_of(5, 2)), 0u);
    EXPECT_EQ(table_.apply(application_of(5, 1, direction::out)), 0u);
    EXPECT_EQ(table_.unapply(application_of(5, 3)), 2008u);
    EXPECT_EQ(table_.unapply(application_of(5, 1)), 0u);
    EXPECT_EQ(table_.unapply(application_of(5, 1)), 2008u);
}

TEST_F(ServiceAclTable, AnAclThatIsStillAppliedIsNotDeleted) {
    create_with(5, {});
    ASSERT_EQ(table_.apply(application_of(5, 1)), 0u);
    EXPECT_EQ(table_.remove(key_of(5)), 2012u);
    ASSERT_EQ(table_.unapply(application_of(5, 1)), 0u);
    EXPECT_EQ(table_.remove(key_of(5)), 0u);
    EXPECT_EQ(table_.remove(key_of(5)), 2005u);
}

TEST_F(ServiceAclTable, AppliedAclsAreCountedOnceHoweverManyPlacesTheyHave) {
    create_with(5, {});
    create_with(6, {});
    EXPECT_EQ(table_.applied_count(), 0u);
    ASSERT_EQ(table_.apply(application_of(5, 1)), 0u);
    ASSERT_EQ(table_.apply(application_of(5, 2)), 0u);
    EXPECT_EQ(table_.applied_count(), 1u);
    ASSERT_EQ(table_.apply(application_of(6, 1)), 0u);
    EXPECT_EQ(table_.applied_count(), 2u);
}

TEST_F(ServiceAclTable, ResequencingKeepsEqualNumbersEqualAndTheLargestAsTheyAre) {
    create_with(5, {"5 permit ether id 1", "5 permit ether id 2", "7 permit ether id 3",
                    "2147483647 permit ether id 4"});
    ASSERT_EQ(table_.resequence(key_of(5), 10, 10), 0u);
    EXPECT_EQ(table_.delete_ace(key_of(5), ace_of("10 permit ether id 1")), 0u);
    EXPECT_EQ(table_.delete_ace(key_of(5), ace_of("10 permit ether id 2")), 0u);
    EXPECT_EQ(table_.delete_ace(key_of(5), ace_of("20 permit ether id 3")), 0u);
    EXPECT_EQ(table_.delete_ace(key_of(5), ace_of("2147483647 permit ether id 4")), 0u);
}

TEST_F(ServiceAclTable, ResequencingLeavesALeadingZero) {
    create_with(5, {"0 permit ether id 1", "7 permit ether id 2"});
    ASSERT_EQ(table_.resequence(key_of(5), 10, 5), 0u);
    EXPECT_EQ(table_.delete_ace(key_of(5), ace_of("0 permit ether id 1")), 0u);
    EXPECT_EQ(table_.delete_ace(key_of(5), ace_of("10 permit ether id 2")), 0u);
}

TEST_F(ServiceAclTable, ResequencingNeedsPositiveNumbers) {
    create_with(5, {});
    EXPECT_EQ(table_.resequence(key_of(5), 0, 10), u32{EINVAL});
    EXPECT_EQ(table_.resequence(key_of(5), 10, 0), u32{EINVAL});
    EXPECT_EQ(table_.resequence(key_of(5), 0x80000000, 10), u32{EINVAL});
    EXPECT_EQ(table_.resequence(key_of(5), 10, 0xFFFFFFFF), u32{EINVAL});
}

TEST_F(ServiceAclTable, APacketCountsAtTheFirstAceThatMatches) {
    create_with(5,
                {"30 permit ether id 3", "10 deny udp any any id 1", "20 permit tcp any any port 80 id 2"});
    ASSERT_EQ(table_.apply(application_of(5, 1)), 0u);
    const verdict tcp = table_.classify(packet_of(tcp_frame()), {1, 0});
    EXPECT_EQ(tcp.matches, 1u);
    EXPECT_FALSE(tcp.denied);
    EXPECT_TRUE(table_.classify(packet_of(udp_frame()), {1, 0}).denied);
    EXPECT_EQ(table_.classify(packet_of(arp_frame()), {1, 0}).matches, 1u);
    EXPECT_EQ(ace_count(5, 1), 1u);
    EXPECT_EQ(ace_count(5, 2), 1u);
    EXPECT_EQ(ace_count(5, 3), 1u);
    EXPECT_EQ(acl_count(5), 3u);
}

TEST_F(ServiceAclTable, AnAclCountsOnlyWhereItIsApplied) {
    create_with(5, {"10 permit ether"});
    EXPECT_EQ(table_.classify(packet_of(tcp_frame()), {1, 0}).matches, 0u);
    ASSERT_EQ(table_.apply(application_of(5, 1)), 0u);
    EXPECT_EQ(table_.classify(packet_of(tcp_frame()), {2, 0}).matches, 0u);
    EXPECT_EQ(table_.classify(packet_of(tcp_frame()), {1, 0}).matches, 1u);
    EXPECT_EQ(acl_count(5), 1u);
}

TEST_F(ServiceAclTable, AnAclOnInterfaceZeroIsOnEveryInterface) {
    create_with(5, {"10 permit ether"});
    ASSERT_EQ(table_.apply(application_of(5, 0)), 0u);
    EXPECT_EQ(table_.classify(packet_of(tcp_frame()), {7, 0}).matches, 1u);
}

TEST_F(ServiceAclTable, AnOutboundAclSeesThePacketsThatLeaveByItsInterface) {
    create_with(5, {"10 permit ether"});
    ASSERT_EQ(table_.apply(application_of(5, 2, direction::out)), 0u);
    EXPECT_EQ(table_.classify(packet_of(tcp_frame()), {2, 0}).matches, 0u);
    EXPECT_EQ(table_.classify(packet_of(tcp_frame()), {2, 1}).matches, 0u);
    EXPECT_EQ(table_.classify(packet_of(tcp_frame()), {1, 2}).matches, 1u);
}

TEST_F(ServiceAclTable, AnAceWithoutARuleMatchesNothing) {
    create_with(5, {});
    scc_ace_record strange{};
    strange.sn = 10;
    strange.ace_id = 4;
    ASSERT_EQ(table_.add_ace(key_of(5), strange), 0u);
    ASSERT_EQ(table_.apply(application_of(5, 1)), 0u);
    EXPECT_EQ(table_.classify(packet_of(tcp_frame()), {1, 0}).matches, 0u);
}

TEST_F(ServiceAclTable, TheCountersOfAclAndAcesAreResetApart) {
    create_with(5, {"10 permit ether id 1"});
    ASSERT_EQ(table_.apply(application_of(5, 1)), 0u);
    table_.classify(packet_of(tcp_frame()), {1, 0});
    EXPECT_EQ(table_.reset_counter(key_of(5)), 0u);
    EXPECT_EQ(acl_count(5), 0u);
    EXPECT_EQ(ace_count(5, 1), 1u);
    EXPECT_EQ(table_.reset_ace_counter(key_of(5), 1), 0u);
    EXPECT_EQ(ace_count(5, 1), 0u);
}

TEST_F(ServiceAclTable, AnAceCounterIsNamedByIdAndElseBySequenceNumber) {
    create_with(5, {"10 permit udp any any id 20", "20 permit tcp any any id 30"});
    ASSERT_EQ(table_.apply(application_of(5, 1)), 0u);
    table_.classify(packet_of(tcp_frame()), {1, 0});
    u64 counter = 7;
    EXPECT_EQ(ace_count(5, 20), 0u);
    EXPECT_EQ(ace_count(5, 30), 1u);
    EXPECT_EQ(ace_count(5, 10), 0u);
    EXPECT_EQ(table_.read_ace_counter(key_of(5), 11, counter), 2006u);
    EXPECT_EQ(table_.reset_ace_counter(key_of(5), 11), 2006u);
    EXPECT_EQ(counter, 7u);
}

TEST_F(ServiceAclTable, ARecoveryTakesEverythingAgainAndKeepsItsCounters) {
    create_with(5, {"10 permit ether id 1"});
    ASSERT_EQ(table_.apply(application_of(5, 1)), 0u);
    table_.classify(packet_of(tcp_frame()), {1, 0});

    table_.begin_recovery();
    EXPECT_EQ(table_.applied_count(), 0u);
    EXPECT_EQ(table_.add_ace(key_of(5), ace_of("10 permit ether id 1")), 2005u);
    EXPECT_EQ(table_.create(key_of(5)), 0u);
    EXPECT_EQ(table_.create(key_of(5)), 2010u);
    EXPECT_EQ(table_.delete_ace(key_of(5), ace_of("10 permit ether id 1")), 2006u);
    EXPECT_EQ(table_.add_ace(key_of(5), ace_of("10 permit ether id 1")), 0u);
    EXPECT_EQ(table_.add_ace(key_of(5), ace_of("10 permit ether id 1")), 2011u);
    EXPECT_EQ(table_.unapply(application_of(5, 1)), 2008u);
    EXPECT_EQ(table_.apply(application_of(5, 1)), 0u);
    EXPECT_EQ(table_.apply(application_of(5, 1)), 2009u);
    table_.end_recovery();

    EXPECT_EQ(acl_count(5), 1u);
    EXPECT_EQ(ace_count(5, 1), 1u);
    EXPECT_EQ(table_.applied_count(), 1u);
}

TEST_F(ServiceAclTable, TheEndOfARecoveryDropsWhatWasNotSentAgain) {
    create_with(5, {"10 permit udp any any id 1", "20 permit tcp any any id 2"});
    create_with(6, {"10 permit ether"});
    ASSERT_EQ(table_.apply(application_of(5, 1)), 0u);
    ASSERT_EQ(table_.apply(application_of(5, 2)), 0u);

    table_.begin_recovery();
    create_with(5, {"20 permit tcp any any id 2"});
    ASSERT_EQ(table_.apply(application_of(5, 2)), 0u);
    table_.end_recovery();

    EXPECT_EQ(ids_of(5), (std::vector<u64>{2}));
    EXPECT_EQ(table_.unapply(application_of(5, 1)), 2008u);
    EXPECT_EQ(table_.remove(key_of(6)), 2005u);
    EXPECT_EQ(table_.create(key_of(6)), 0u);
}

TEST_F(ServiceAclTable, PacketsAreClassifiedThroughoutARecovery) {
    create_with(5, {"10 permit ether id 1"});
    ASSERT_EQ(table_.apply(application_of(5, 1)), 0u);
    table_.begin_recovery();
    EXPECT_EQ(table_.classify(packet_of(tcp_frame()), {1, 0}).matches, 1u);
    table_.end_recovery();
    EXPECT_EQ(table_.classify(packet_of(tcp_frame()), {1, 0}).matches, 0u);
}

TEST_F(ServiceAclTable, TheTextShowsRulesCountersAndPlaces) {
    create_with(5, {"10 permit tcp any any port 80 id 7"});
    ASSERT_EQ(table_.apply(application_of(5, 1)), 0u);
    table_.classify(packet_of(tcp_frame()), {1, 0});
    EXPECT_EQ(table_.text(),
              "acl vdev 1 type 2 id 5 class 3: 1 packet\n"
              "  ace 10 permit tcp any any port 80 id 7: 1 packet\n"
              "  applied in ifx 1 type 2\n");
}

}  // namespace
}  // namespace scc::service
