// The configuration records: their bytes, their text, and what is refused.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "scc_records.h"

namespace {

std::string printed(const std::string& text) {
    scc_records_config config{};
    scc_records_error error{};
    if (scc_records_parse_config(text.c_str(), &config, &error) != 0) {
        return std::to_string(error.offset) + ": " + error.text;
    }
    char buffer[SCC_RECORDS_TEXT_BYTES];
    const std::size_t len = scc_records_print_config(&config, buffer, sizeof buffer);
    EXPECT_EQ(len, std::strlen(buffer));
    return buffer;
}

class RecordsConfigText : public testing::TestWithParam<const char*> {};

TEST_P(RecordsConfigText, PrintsAsItWasRead) {
    EXPECT_EQ(printed(GetParam()), GetParam());
}

INSTANTIATE_TEST_SUITE_P(records, RecordsConfigText,
                         testing::Values("ifx 3", "ifx 0 vid 4094",
                                         "ifx 3 mac 00:11:22:33:44:55 operation add ip 10.0.0.7",
                                         "ifx 4294967295 app-type 9 value 1 operation delete",
                                         "ifx 1 ipv6 2001:db8::1 mask ffff::",
                                         "ifx 1 operation get ip 0.0.0.0 mask 255.255.255.0"));

TEST(RecordsConfig, ATextFillsTheBytesThatTheHeaderNames) {
    scc_records_config config{};
    ASSERT_EQ(scc_records_parse_config("operation add mask 255.0.0.0 ip 10.0.0.7 value 6 app-type 5 "
                                       "mac 0011.2233.4455 vid 4 ifx 3 ipv6 ::1",
                                       &config, nullptr),
              0u);
    scc_user_record record{};
    ASSERT_EQ(scc_records_encode_user(&config, &record, nullptr), 0u);
    unsigned char expected[736] = {3,    0, 0, 0, 4, 0, 0, 0, 0x00, 0x11, 0x22, 0x33, 0x44,
                                   0x55, 0, 0, 5, 0, 0, 0, 6, 0,    0,    0,    1};
    expected[32] = 0x06;
    expected[33] = 0x02;
    expected[36] = 10;
    expected[39] = 7;
    expected[55] = 1;
    expected[648] = 255;
    EXPECT_EQ(std::memcmp(&record, expected, sizeof expected), 0);
    scc_records_config again{};
    ASSERT_EQ(scc_records_decode_user(&record, &again), 0u);
    EXPECT_EQ(std::memcmp(&again, &config, sizeof config), 0);
}

TEST(RecordsConfig, AFaultIsToldWithTheByteWhereItBegins) {
    EXPECT_EQ(printed(""), "0: field is missing");
    EXPECT_EQ(printed("ifx"), "3: ifx is missing");
    EXPECT_EQ(printed("ifx 3 colour 4"), "6: unknown field 'colour'");
    EXPECT_EQ(printed("ifx 3 ifx 4"), "6: 'ifx' is given twice");
    EXPECT_EQ(printed("vid 4095"), "4: vid '4095' is not a number from 0 to 4094");
    EXPECT_EQ(printed("mac 00:11"), "4: '00:11' is not a MAC address");
    EXPECT_EQ(printed("ip ::1"), "3: '::1' is not an IPv4 address");
    EXPECT_EQ(printed("ipv6 10.0.0.1"), "5: '10.0.0.1' is not an IPv6 address");
    EXPECT_EQ(printed("mask 10"), "5: '10' is not an IPv4 address");
    EXPECT_EQ(printed("operation drop"), "10: operation 'drop' is not a number from 0 to 3");
}

TEST(RecordsConfig, ValuesOutOfRangeAreRefused) {
    scc_records_config config{};
    scc_config_record record{};
    scc_user_record user{};
    scc_records_error error{};
    EXPECT_EQ(scc_records_encode_config(&config, &record, &error), 0u);
    EXPECT_EQ(scc_records_encode_user(&config, &user, &error), 22u);
    EXPECT_STREQ(error.text, "a user's operation is 1 to 3");
    config.vid = 4095;
    EXPECT_EQ(scc_records_encode_config(&config, &record, &error), 22u);
    EXPECT_STREQ(error.text, "a VLAN id is 0 to 4094");
    config.vid = 0;
    config.operation = 4;
    EXPECT_EQ(scc_records_encode_config(&config, &record, &error), 22u);
    EXPECT_STREQ(error.text, "an operation is 0 to 3");
    EXPECT_EQ(scc_records_encode_config(nullptr, &record, nullptr), 22u);
    EXPECT_EQ(scc_records_encode_config(&config, nullptr, nullptr), 22u);
}

TEST(RecordsConfig, AnApplicationLiesAfterItsKey) {
    scc_records_application application{};
    application.key = {0, 3, 101, 0};
    application.ifx = 5;
    application.direction = 1;
    application.apply_type = 4;
    scc_acl_apply_record record{};
    scc_records_error error{};
    ASSERT_EQ(scc_records_encode_application(&application, &record, &error), 0u);
    EXPECT_EQ(record.key.acl_id, 101u);
    EXPECT_EQ(record.target[0], 5);
    EXPECT_EQ(record.target[4], 1);
    EXPECT_EQ(record.apply_type, 4u);
    scc_records_application again{};
    ASSERT_EQ(scc_records_decode_application(&record, &again), 0u);
    EXPECT_EQ(again.ifx, 5u);
    application.direction = 2;
    EXPECT_EQ(scc_records_encode_application(&application, &record, &error), 22u);
    EXPECT_STREQ(error.text, "a direction is 0 (in) or 1 (out)");
    application.direction = 0;
    application.apply_type = 59;
    EXPECT_EQ(scc_records_encode_application(&application, &record, &error), 22u);
    EXPECT_STREQ(error.text, "an apply type is 0 to 58");
}

TEST(RecordsConfig, AnApplicationMayNameAUser) {
    scc_records_application application{};
    application.key = {0, 3, 101, 0};
    application.mac[5] = 9;
    application.vid = 20;
    application.ipv4 = inet_addr("192.0.2.1");
    application.ipv6[15] = 7;
    scc_acl_apply_record record{};
    scc_records_error error{};
    ASSERT_EQ(scc_records_encode_application(&application, &record, &error), 0u);
    unsigned char bytes[sizeof record];
    std::memcpy(bytes, &record, sizeof bytes);
    EXPECT_EQ(bytes[29], 9);
    EXPECT_EQ(bytes[30], 20);
    EXPECT_EQ(bytes[32], 192);
    EXPECT_EQ(bytes[35], 1);
    EXPECT_EQ(bytes[51], 7);
    application.vid = 4095;
    EXPECT_EQ(scc_records_encode_application(&application, &record, &error), 22u);
    EXPECT_STREQ(error.text, "a VLAN id is 0 to 4094");
}

TEST(RecordsConfig, TheAclOfAUserHasItsAddressesAfterTheKey) {
    scc_records_user_acl user{};
    user.ifx = 5;
    user.direction = 1;
    user.mac[5] = 9;
    user.vid = 20;
    user.key = {0, 3, 101, 0};
    user.ipv4 = inet_addr("192.0.2.1");
    user.ipv6[15] = 7;
    scc_user_acl_record record{};
    scc_records_error error{};
    ASSERT_EQ(scc_records_encode_user_acl(&user, &record, &error), 0u);
    EXPECT_EQ(record.ifx, 5u);
    EXPECT_EQ(record.direction, 1u);
    EXPECT_EQ(record.mac[5], 9);
    EXPECT_EQ(record.vid, 20);
    EXPECT_EQ(record.key.acl_id, 101u);
    EXPECT_EQ(record.tail[0], 192);
    EXPECT_EQ(record.tail[3], 1);
    EXPECT_EQ(record.tail[19], 7);
    scc_records_user_acl again{};
    ASSERT_EQ(scc_records_decode_user_acl(&record, &again), 0u);
    EXPECT_EQ(again.ipv4, inet_addr("192.0.2.1"));
    user.vid = 4095;
    EXPECT_EQ(scc_records_encode_user_acl(&user, &record, &error), 22u);
    EXPECT_STREQ(error.text, "a VLAN id is 0 to 4094");
    user.vid = 0;
    user.direction = 2;
    EXPECT_EQ(scc_records_encode_user_acl(&user, &record, &error), 22u);
    EXPECT_STREQ(error.text, "a direction is 0 (in) or 1 (out)");
    EXPECT_EQ(scc_records_encode_user_acl(nullptr, &record, nullptr), 22u);
    EXPECT_EQ(scc_records_decode_user_acl(&record, nullptr), 22u);
}

TEST(RecordsConfig, AnEntryOfTheArpCheckIsRead) {
    scc_arp_check_entry entry{};
    const unsigned char bytes[] = {7, 0, 0, 0, 10, 0, 2, 0, 0, 0, 0, 9, 192, 0, 2, 1};
    std::memcpy(&entry, bytes, sizeof bytes);
    scc_records_arp_user user{};
    ASSERT_EQ(scc_records_decode_arp_user(&entry, &user), 0u);
    EXPECT_EQ(user.ifx, 7u);
    EXPECT_EQ(user.vid, 10);
    EXPECT_EQ(user.mac[5], 9);
    EXPECT_EQ(user.ipv4, inet_addr("192.0.2.1"));
}

TEST(RecordsConfig, AVlanIsOneBitOfTheDirectVlans) {
    scc_vlan_record vlans{};
    ASSERT_EQ(scc_records_set_vlan(&vlans, 100, 1), 0u);
    ASSERT_EQ(scc_records_set_vlan(&vlans, 101, 1), 0u);
    EXPECT_EQ(vlans.bytes[12], 0x30);
    ASSERT_EQ(scc_records_set_vlan(&vlans, 100, 0), 0u);
    EXPECT_EQ(vlans.bytes[12], 0x20);
    EXPECT_EQ(scc_records_has_vlan(&vlans, 101), 1);
    EXPECT_EQ(scc_records_has_vlan(&vlans, 100), 0);
    EXPECT_EQ(scc_records_set_vlan(&vlans, 4096, 1), 22u);
    EXPECT_EQ(scc_records_has_vlan(&vlans, 4096), 0);
    EXPECT_EQ(scc_records_has_vlan(nullptr, 1), 0);
}

}  // namespace
