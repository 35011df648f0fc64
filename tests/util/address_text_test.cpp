// Addresses as text, and the two conversions of IPv4 addresses.
#include "util/address_text.h"

#include <gtest/gtest.h>

#include <thread>

#include "scclib.h"
#include "support/wire_bytes.h"

namespace {

// A word on the wire: these bytes in this order.
std::uint32_t network(std::uint8_t a, std::uint8_t b, std::uint8_t c, std::uint8_t d) {
    return test::u32_at({a, b, c, d}, 0);
}

in6_addr ipv6(const test::bytes& address) {
    in6_addr out{};
    std::memcpy(&out, address.data(), 16);
    return out;
}

const test::bytes documentation = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0xab, 0xcd, 0, 1};
const test::bytes full = {0xff, 0x12, 0xff, 0x34, 0xff, 0x56, 0xff, 0x78,
                          0xff, 0x9a, 0xff, 0xbc, 0xff, 0xde, 0xff, 0xf0};

TEST(AddressText, ShowsIpv4AddressesAndMasksMostSignificantByteFirst) {
    EXPECT_STREQ(ip_show(network(192, 168, 1, 10)), "192.168.1.10");
    EXPECT_STREQ(ip_show(0), "0.0.0.0");
    EXPECT_STREQ(ip_show(0xFFFFFFFFU), "255.255.255.255");
    EXPECT_STREQ(ip_show(network(1, 2, 3, 4)), "1.2.3.4");
    EXPECT_STREQ(mask_show(network(255, 255, 240, 0)), "255.255.240.0");
    EXPECT_STREQ(mask_show(network(255, 0, 255, 0)), "255.0.255.0");
}

TEST(AddressText, ShowsIpv6AddressesAndMasksInTheUsualForm) {
    EXPECT_STREQ(ipv6_show(ipv6(documentation)), "2001:db8::abcd:1");
    EXPECT_STREQ(ipv6_show(ipv6(test::bytes(16))), "::");
    EXPECT_STREQ(ipv6_show(ipv6(full)), "ff12:ff34:ff56:ff78:ff9a:ffbc:ffde:fff0");
    EXPECT_STREQ(ipv6_mask_show(ipv6(test::wire().fill(8, 0xFF).zeros(8))), "ffff:ffff:ffff:ffff::");
}

TEST(AddressText, ShowsAMacAddressAsThreeGroupsOfFourDigits) {
    const std::uint8_t mac[] = {0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e};
    EXPECT_STREQ(mac_show(mac), "001a.2b3c.4d5e");
    const std::uint8_t zero[6] = {};
    EXPECT_STREQ(mac_show(zero), "0000.0000.0000");
    const std::uint8_t ones[] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
    EXPECT_STREQ(mac_show(ones), "ffff.ffff.ffff");
}

TEST(AddressText, EachFormatterKeepsItsTextUntilItsOwnNextCall) {
    const std::uint8_t mac[] = {1, 2, 3, 4, 5, 6};
    const char* ip = ip_show(network(10, 20, 30, 40));
    const char* mask = mask_show(network(255, 255, 0, 0));
    const char* address = ipv6_show(ipv6(documentation));
    const char* prefix = ipv6_mask_show(ipv6(test::bytes(16)));
    const char* hardware = mac_show(mac);
    EXPECT_STREQ(ip, "10.20.30.40");
    EXPECT_STREQ(mask, "255.255.0.0");
    EXPECT_STREQ(address, "2001:db8::abcd:1");
    EXPECT_STREQ(prefix, "::");
    EXPECT_STREQ(hardware, "0102.0304.0506");
    EXPECT_EQ(ip_show(network(1, 1, 1, 1)), ip) << "a formatter has one buffer";
    EXPECT_STREQ(ip, "1.1.1.1");
}

TEST(AddressText, AShorterTextLeavesNothingOfALongerOneInAnyBuffer) {
    const auto padded = [](const std::string& text) { return text + std::string(128 - text.size(), '\0'); };
    const std::uint8_t mac[] = {1, 2, 3, 4, 5, 6};
    ip_show(network(255, 255, 255, 255));
    EXPECT_EQ(std::string(ip_show(0), 128), padded("0.0.0.0"));
    mask_show(network(255, 255, 255, 255));
    EXPECT_EQ(std::string(mask_show(0), 128), padded("0.0.0.0"));
    ipv6_show(ipv6(full));
    EXPECT_EQ(std::string(ipv6_show(ipv6(test::bytes(16))), 128), padded("::"));
    ipv6_mask_show(ipv6(full));
    EXPECT_EQ(std::string(ipv6_mask_show(ipv6(test::bytes(16))), 128), padded("::"));
    mac_show(mac);
    EXPECT_EQ(std::string(mac_show(nullptr), 128), padded(""));
}

TEST(AddressText, OfTheLogLivesWithItsCallerOnAnyThread) {
    const auto show = [](std::uint8_t last) {
        for (int round = 0; round < 500; ++round) {
            const scc::address_text first = scc::ipv4_text(network(10, 0, 0, last));
            const scc::address_text second = scc::ipv4_text(network(10, 0, 1, last));
            EXPECT_EQ(std::string(first.text), "10.0.0." + std::to_string(last));
            EXPECT_EQ(std::string(second.text), "10.0.1." + std::to_string(last));
        }
    };
    std::thread other(show, std::uint8_t{7});
    show(200);
    other.join();
    EXPECT_STREQ(scc::ipv6_text(ipv6(full)).text, "ff12:ff34:ff56:ff78:ff9a:ffbc:ffde:fff0");
}

TEST(IpSet, MakesAHostOrderAddressOfNumbersFromZeroTo255) {
    EXPECT_EQ(ip_set(10, 0, 0, 1), 0x0A000001U);
    EXPECT_EQ(ip_set(255, 255, 255, 255), 0xFFFFFFFFU);
    EXPECT_EQ(ip_set(1, 2, 3, 4), 0x01020304U);
    EXPECT_EQ(ip_set(0, 0, 0, 0), 0U);
    for (const int bad : {-1, 256, 0x7FFFFFFF, -0x7FFFFFFF}) {
        EXPECT_EQ(ip_set(bad, 0, 0, 1), 0U);
        EXPECT_EQ(ip_set(1, bad, 0, 1), 0U);
        EXPECT_EQ(ip_set(1, 0, bad, 1), 0U);
        EXPECT_EQ(ip_set(1, 0, 0, bad), 0U);
    }
}

TEST(MaskCount, CountsTheLeadingOnesOnly) {
    EXPECT_EQ(mask_count(network(255, 0, 255, 0)), 8);
    EXPECT_EQ(mask_count(network(0, 255, 255, 255)), 0);
    EXPECT_EQ(mask_count(network(0x7F, 255, 255, 255)), 0);
    EXPECT_EQ(mask_count(network(255, 255, 255, 254)), 31);
    std::uint32_t host = 0;
    for (int count = 0; count <= 32; ++count) {
        EXPECT_EQ(
            mask_count(network(static_cast<std::uint8_t>(host >> 24U), static_cast<std::uint8_t>(host >> 16U),
                               static_cast<std::uint8_t>(host >> 8U), static_cast<std::uint8_t>(host))),
            count);
        host = host >> 1U | 0x80000000U;
    }
}

}  // namespace
