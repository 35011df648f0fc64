#include <arpa/inet.h>

#include <cstring>

#include "service/acl_table.h"
#include "service/application.h"
#include "service_frames.h"

namespace scc::service {
namespace {

using namespace testing;

// Where the application lies, without the user.
scc_records_application on_interface_1(u32 direction) {
    scc_records_application application{};
    application.key = key_of(5);
    application.ifx = 1;
    application.direction = direction;
    return application;
}

// The user of addresses and headers of service_frames.h: it sends those frames, or gets them.
scc_records_application user_of(u32 direction, bool with_mac, const char* ip) {
    scc_records_application user = on_interface_1(direction);
    if (with_mac) {
        std::memcpy(user.mac, &addresses[direction == 0 ? 6 : 0], sizeof user.mac);
    }
    if (inet_pton(AF_INET, ip, &user.ipv4) != 1) {
        (void)inet_pton(AF_INET6, ip, user.ipv6);
    }
    return user;
}

scc_acl_apply_record record_of(const scc_records_application& application) {
    scc_acl_apply_record record{};
    EXPECT_EQ(scc_records_encode_application(&application, &record, nullptr), 0u);
    return record;
}

// Whether an ACL that is applied like this sees the frame on its way from interface 1 to interface 1.
bool sees(const scc_records_application& application, const frame_bytes& frame) {
    acl_table table;
    EXPECT_EQ(table.create(key_of(5)), 0u);
    EXPECT_EQ(table.add_ace(key_of(5), ace_of("10 permit ether")), 0u);
    EXPECT_EQ(table.apply(record_of(application)), 0u);
    return table.classify(packet_of(frame), {1, 1}).matches == 1;
}

TEST(ServiceApplication, WithoutAUserItSeesAllFrames) {
    EXPECT_TRUE(place_of(record_of(on_interface_1(0))).frames.empty());
    EXPECT_TRUE(sees(on_interface_1(0), arp_frame()));
    EXPECT_TRUE(sees(on_interface_1(1), tcp6_frame()));
}

TEST(ServiceApplication, AMacAddressIsTheSendersOfWhatEnters) {
    scc_records_application user = user_of(0, true, "");
    EXPECT_TRUE(sees(user, arp_frame()));
    EXPECT_TRUE(sees(user, tcp6_frame()));
    user.mac[5] = 0xFE;
    EXPECT_FALSE(sees(user, arp_frame()));
}

TEST(ServiceApplication, AMacAddressIsTheReceiversOfWhatLeaves) {
    scc_records_application user = user_of(1, true, "");
    EXPECT_TRUE(sees(user, arp_frame()));
    user.mac[5] = 0x01;
    EXPECT_FALSE(sees(user, arp_frame()));
}

TEST(ServiceApplication, AnAddressLeavesPacketsOfThatAddressAlone) {
    EXPECT_TRUE(sees(user_of(0, true, "192.0.2.1"), tcp_frame()));
    EXPECT_FALSE(sees(user_of(0, true, "192.0.2.2"), tcp_frame()));
    EXPECT_FALSE(sees(user_of(0, true, "198.51.100.1"), tcp_frame()));
    EXPECT_FALSE(sees(user_of(0, true, "192.0.2.1"), arp_frame()));
    EXPECT_FALSE(sees(user_of(0, true, "192.0.2.1"), tcp6_frame()));
    EXPECT_TRUE(sees(user_of(1, true, "198.51.100.1"), tcp_frame()));
    EXPECT_FALSE(sees(user_of(1, true, "192.0.2.1"), tcp_frame()));
    EXPECT_TRUE(sees(user_of(0, false, "2001:db8::5"), tcp6_frame()));
    EXPECT_FALSE(sees(user_of(0, false, "2001:db8::6"), tcp6_frame()));
    EXPECT_TRUE(sees(user_of(1, false, "2001:db8::80"), tcp6_frame()));
    EXPECT_FALSE(sees(user_of(1, false, "2001:db8::80"), tcp_frame()));
}

TEST(ServiceApplication, AUserMayHaveAnAddressOfEachVersion) {
    scc_records_application user = user_of(0, true, "192.0.2.1");
    (void)inet_pton(AF_INET6, "2001:db8::5", user.ipv6);
    EXPECT_TRUE(sees(user, tcp_frame()));
    EXPECT_TRUE(sees(user, tcp6_frame()));
    EXPECT_FALSE(sees(user, arp_frame()));
    user.mac[5] = 9;
    EXPECT_FALSE(sees(user, tcp_frame()));
    EXPECT_FALSE(sees(user, tcp6_frame()));
}

TEST(ServiceApplication, AVlanLeavesItsFramesAlone) {
    scc_records_application user = user_of(0, true, "");
    user.vid = 10;
    EXPECT_TRUE(sees(user, tcp_frame()));
    EXPECT_FALSE(sees(user, udp_frame()));
    user.vid = 11;
    EXPECT_FALSE(sees(user, tcp_frame()));
}

TEST(ServiceApplication, ThePlacesOfTwoUsersDiffer) {
    acl_table table;
    ASSERT_EQ(table.create(key_of(5)), 0u);
    ASSERT_EQ(table.add_ace(key_of(5), ace_of("10 permit ether")), 0u);
    const scc_acl_apply_record first = record_of(user_of(0, true, "192.0.2.1"));
    const scc_acl_apply_record second = record_of(user_of(0, true, "192.0.2.2"));
    EXPECT_EQ(table.apply(first), 0u);
    EXPECT_EQ(table.apply(second), 0u);
    EXPECT_EQ(table.apply(first), 2009u);
    EXPECT_EQ(table.unapply(first), 0u);
    EXPECT_EQ(table.classify(packet_of(tcp_frame()), {1, 0}).matches, 0u);
    EXPECT_EQ(table.unapply(first), 2008u);
    EXPECT_EQ(table.remove(key_of(5)), u32{SCC_E_STILL_APPLIED});
}

TEST(ServiceApplication, ItsTextNamesTheUser) {
    EXPECT_EQ(text_of(record_of(on_interface_1(1))), "out ifx 1");
    scc_records_application user = user_of(0, true, "192.0.2.1");
    (void)inet_pton(AF_INET6, "2001:db8::5", user.ipv6);
    user.vid = 20;
    EXPECT_EQ(text_of(record_of(user)),
              "in ifx 1 mac 02:00:00:00:00:01 vid 20 ip 192.0.2.1 ipv6 2001:db8::5");
}

}  // namespace
}  // namespace scc::service
