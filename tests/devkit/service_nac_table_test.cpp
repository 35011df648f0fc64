#include <cstring>

#include "service/nac_table.h"
#include "service_frames.h"

namespace scc::service {
namespace {

using namespace testing;

std::vector<u8> last_mac_bytes(const nac_table& table) {
    std::vector<u8> bytes;
    for (const nac_user& user : table.users()) {
        bytes.push_back(user.mac[5]);
    }
    return bytes;
}

TEST(ServiceNacTable, AUserEntryTellsItsFields) {
    scc_ss_user entry = user_of(9, 4);
    entry.gap_14[0] = 0x14;  // VLAN 20
    const nac_user user = read_user_entry(entry);
    EXPECT_EQ(user.ifx, 4u);
    EXPECT_EQ(user.vid, 20);
    EXPECT_EQ(user.mac, (ace::mac_bytes{0x02, 0, 0, 0, 0, 9}));
    EXPECT_FALSE(user.is_ipv6);
    EXPECT_EQ(user.ip, (ace::ip_bytes{192, 0, 2, 9}));
    EXPECT_EQ(user.mask, (ace::ip_bytes{255, 255, 255, 255}));
}

TEST(ServiceNacTable, AnIpv6UserIsMarkedByItsFlag) {
    scc_ss_user entry = user_of(9, 4);
    entry.gap_14[2] = 0x04;
    entry.tail[4] = 0x20;
    entry.tail[19] = 0x09;
    entry.tail[20] = 0xFF;
    const nac_user user = read_user_entry(entry);
    EXPECT_TRUE(user.is_ipv6);
    EXPECT_EQ(user.ip, (ace::ip_bytes{0x20, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x09}));
    EXPECT_EQ(user.mask, (ace::ip_bytes{0xFF}));
}

TEST(ServiceNacTable, AddingAUserAgainReplacesItsEntry) {
    nac_table table;
    table.add_user(user_of(1, 4));
    table.add_user(user_of(1, 5));
    ASSERT_EQ(table.users().size(), 1u);
    EXPECT_EQ(table.users()[0].ifx, 5u);
}

TEST(ServiceNacTable, AUserIsDeletedOnce) {
    nac_table table;
    table.add_user(user_of(1, 4));
    EXPECT_EQ(table.delete_user(user_of(2, 4)), 2u);
    EXPECT_EQ(table.delete_user(user_of(1, 4)), 0u);
    EXPECT_EQ(table.delete_user(user_of(1, 4)), 2u);
}

TEST(ServiceNacTable, ReadingCompletesTheEntryOfAMacAddress) {
    nac_table table;
    scc_ss_user held = user_of(1, 4);
    held.tail[59] = 0x77;
    table.add_user(held);
    scc_ss_user asked{};
    std::copy_n(held.mac, 6, asked.mac);
    EXPECT_EQ(table.read_user(asked), 0u);
    EXPECT_EQ(asked.ifx, 4u);
    EXPECT_EQ(asked.ip, held.ip);
    EXPECT_EQ(asked.tail[59], 0x77);
    scc_ss_user missing = user_of(3, 8);
    EXPECT_EQ(table.read_user(missing), 2u);
    EXPECT_EQ(missing.ifx, 8u);
}

TEST(ServiceNacTable, AReinstallDropsTheUsersOfItsInterfaceThatWereNotAddedAgain) {
    nac_table table;
    for (const u8 user : {u8{1}, u8{2}}) {
        table.add_user(user_of(user, 4));
    }
    table.add_user(user_of(3, 5));
    table.begin_reinstall(4);
    table.add_user(user_of(2, 4));
    table.end_reinstall(4);
    EXPECT_EQ(last_mac_bytes(table), (std::vector<u8>{2, 3}));
}

TEST(ServiceNacTable, ARecoveryKeepsTheUsersThatAreSentAgain) {
    nac_table table;
    for (const u8 user : {u8{2}, u8{9}}) table.add_user(user_of(user, 4));
    table.begin_recovery();
    for (const u8 user : {u8{1}, u8{2}, u8{3}}) table.add_user(user_of(user, 4));
    table.end_recovery();
    EXPECT_EQ(last_mac_bytes(table), (std::vector<u8>{1, 2, 3}));
}

TEST(ServiceNacTable, TheTextShowsEveryKindOfSetting) {
    nac_table table;
    table.add_user(user_of(1, 4));
    table.set_app({4, 0, 5}, 1);
    table.set_app({4, 20, 6}, 2);
    table.read_default(4, 9);
    table.set_l4port(8080, true);
    table.set_l4port(80, true);
    table.set_egress_port(7, true);
    table.set_cpu_protection(3, true);
    table.set_router_acl(true);
    table.set_offline_detection({true, 60, 2});
    table.set_auth_mode(1);
    EXPECT_EQ(table.text(),
              "user ifx 4 vid 0 mac 02:00:00:00:00:01 ip 192.0.2.1\n"
              "app type 5 ifx 4 vid 0 operation 1\n"
              "app type 6 ifx 4 vid 20 operation 2\n"
              "default read ifx 4 type 9\n"
              "layer-4 ports 80 8080\n"
              "egress ports 7\n"
              "cpu protection 3\n"
              "router acl open\n"
              "offline detection open interval 60 threshold 2\n"
              "authentication mode 1\n");
}

const std::string nothing =
    "router acl closed\n"
    "offline detection closed interval 0 threshold 0\n"
    "authentication mode 0\n";

TEST(ServiceNacTable, AUserWithAnIpv6AddressAndTheDirectVlansAreShown) {
    scc_ss_user user{};
    user.ifx = 4;
    const u8 flags_and_address[32] = {0x4,  0,    0,    0,    0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
                                      0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 7};
    std::memcpy(reinterpret_cast<u8*>(&user) + 16, flags_and_address, sizeof flags_and_address);
    scc_vlan_record vlans{};
    vlans.bytes[0] = 0x20;
    vlans.bytes[511] = 0x40;
    nac_table table;
    table.add_user(user);
    table.set_direct_vlans(vlans);
    EXPECT_EQ(table.text(),
              "user ifx 4 vid 0 mac 00:00:00:00:00:00 ip 2001:db8::7\ndirect vlans 5 4094\n" + nothing);
}

TEST(ServiceNacTable, WhatIsUnsetIsGone) {
    nac_table table;
    table.set_app({4, 0, 5}, 1);
    table.set_app({4, 0, 5}, 0);
    table.set_app({4, 0, 6}, 1);
    table.set_app({4, 0, 6}, 3);
    table.set_l4port(80, true);
    table.set_l4port(80, false);
    table.set_egress_port(7, true);
    table.set_egress_port(7, false);
    table.set_cpu_protection(3, true);
    table.set_cpu_protection(3, false);
    EXPECT_EQ(table.text(), nothing);
}

TEST(ServiceNacTable, TheEndOfARecoveryDropsWhatWasNotSentAgain) {
    nac_table table;
    table.set_app({4, 0, 5}, 1);
    table.set_l4port(80, true);
    table.set_egress_port(7, true);
    table.set_cpu_protection(3, true);
    table.set_router_acl(true);
    table.set_offline_detection({true, 60, 0});
    table.begin_recovery();
    EXPECT_TRUE(table.detection().open);
    table.set_l4port(443, true);
    table.end_recovery();
    EXPECT_EQ(table.text(), "layer-4 ports 443\n" + nothing);
}

}  // namespace
}  // namespace scc::service
