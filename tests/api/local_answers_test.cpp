// The calls that send nothing: names of binding owners, limits of NAC users, the counter capability.
#include <climits>

#include "api/request_rows.h"

using test::side;
using test::wire;

extern "C" std::uint32_t _app_string_add(char* buf, const char* name, bool need_separator, int size);

namespace {

// ---- names of binding owners ---------------------------------------------------------------------

// The text for a buffer of that many bytes; nothing after them may change.
std::string owners(int mask, int size) {
    char buffer[160];
    std::memset(buffer, 'z', sizeof buffer);
    scc_bind_user_name_get(mask, buffer, size);
    for (std::size_t i = static_cast<std::size_t>(size); i < sizeof buffer; ++i) {
        EXPECT_EQ(buffer[i], 'z') << "byte " << i << " of a buffer of " << size;
    }
    return buffer;
}

TEST(BindUserNames, StandInAnOrderOfTheirOwnForEveryBit) {
    EXPECT_EQ(owners(0x02, 128), "AAA ip-auth-mode");
    EXPECT_EQ(owners(0x10, 128), "address-bind");
    EXPECT_EQ(owners(0x80, 128), "VRB");
    EXPECT_EQ(owners(0x20, 128), "DHCP snooping");
    EXPECT_EQ(owners(0x04, 128), "port-security");
    EXPECT_EQ(owners(0x08, 128), "web-authen");
    EXPECT_EQ(owners(0x3E, 128), "AAA ip-auth-mode/address-bind/DHCP snooping/port-security/web-authen");
    EXPECT_EQ(owners(0xBE, 128), "AAA ip-auth-mode/address-bind/VRB/DHCP snooping/port-security/web-authen");
    EXPECT_EQ(owners(0x0C, 128), "port-security/web-authen");
    EXPECT_EQ(owners(0x84, 128), "VRB/port-security");
}

TEST(BindUserNames, LeaveOutBitsWithoutAName) {
    EXPECT_EQ(owners(0, 128), "");
    EXPECT_EQ(owners(0x41, 128), "");
    EXPECT_EQ(owners(static_cast<int>(0xFFFFFF41), 128), "");
    EXPECT_EQ(owners(-1, 128), owners(0xBE, 128));
    EXPECT_EQ(owners(INT_MIN, 128), "");
}

struct size_range {
    int from;
    int to;
    const char* text;
};

// A name of n characters after a text of m is refused when m + n + 1 reaches the size; the slash before
// it stays if there is room.
constexpr size_range all_owners[] = {
    {1, 17, ""},
    {18, 29, "AAA ip-auth-mode/"},
    {30, 30, "AAA ip-auth-mode/address-bind"},
    {31, 33, "AAA ip-auth-mode/address-bind/"},
    {34, 34, "AAA ip-auth-mode/address-bind/VRB"},
    {35, 47, "AAA ip-auth-mode/address-bind/VRB/"},
    {48, 48, "AAA ip-auth-mode/address-bind/VRB/DHCP snooping"},
    {49, 61, "AAA ip-auth-mode/address-bind/VRB/DHCP snooping/"},
    {62, 62, "AAA ip-auth-mode/address-bind/VRB/DHCP snooping/port-security"},
    {63, 72, "AAA ip-auth-mode/address-bind/VRB/DHCP snooping/port-security/"},
    {73, 128, "AAA ip-auth-mode/address-bind/VRB/DHCP snooping/port-security/web-authen"},
};

constexpr size_range short_owners[] = {
    {1, 4, ""},
    {5, 14, "VRB/"},
    {15, 128, "VRB/web-authen"},
};

constexpr size_range last_owner[] = {
    {1, 11, ""},
    {12, 128, "web-authen"},
};

void expect_for_every_size(int mask, std::span<const size_range> ranges) {
    int next = 1;
    for (const size_range& range : ranges) {
        ASSERT_EQ(range.from, next);
        for (; next <= range.to; ++next) {
            EXPECT_EQ(owners(mask, next), range.text) << "size " << next;
        }
    }
    EXPECT_EQ(next, 129);
}

TEST(BindUserNames, StopBeforeTheFirstNameThatDoesNotFitAnyBufferSize) {
    expect_for_every_size(0xBE, all_owners);
    expect_for_every_size(0x88, short_owners);
    expect_for_every_size(0x08, last_owner);
}

TEST(BindUserNames, DoNothingWithoutABufferOrRoomInIt) {
    scc_bind_user_name_get(0xBE, nullptr, 128);
    for (const int size : {0, -1, INT_MIN}) {
        char buffer[4] = "abc";
        scc_bind_user_name_get(0xBE, buffer, size);
        EXPECT_STREQ(buffer, "abc") << size;
    }
}

TEST(BindUserNames, AreAppendedOneByOneWithTheNewLengthReturned) {
    char buffer[16] = "";
    EXPECT_EQ(_app_string_add(buffer, "one", false, 16), 3U);
    EXPECT_STREQ(buffer, "one");
    EXPECT_EQ(_app_string_add(buffer, "two", true, 16), 7U);
    EXPECT_STREQ(buffer, "one/two");
    EXPECT_EQ(_app_string_add(buffer, "12345678", true, 16), 0xFFFFFFFFU);
    EXPECT_STREQ(buffer, "one/two/");
}

// ---- NAC users -----------------------------------------------------------------------------------

TEST(NacUserLimits, AreHigherForSomeKindsAndNeedNoRegistration) {
    for (const int kind : {1, 4, 5, 6, 7}) {
        std::uint64_t a = 1;
        std::uint64_t b = 2;
        std::uint64_t c = 3;
        EXPECT_EQ(scc_get_nac_max_user(kind, &a, &b, &c), 0U);
        EXPECT_EQ(a, 4096U) << kind;
        EXPECT_EQ(b, 3000U) << kind;
        EXPECT_EQ(c, 3000U) << kind;
    }
    for (const int kind : {0, 2, 3, 8, 9, -1, 0x101, INT_MIN, INT_MAX}) {
        std::uint64_t a = ~0ULL;
        std::uint64_t b = ~0ULL;
        std::uint64_t c = ~0ULL;
        EXPECT_EQ(scc_get_nac_max_user(kind, &a, &b, &c), 0U);
        EXPECT_EQ(a, 128U) << kind;
        EXPECT_EQ(b, 128U) << kind;
        EXPECT_EQ(c, 128U) << kind;
    }
}

TEST(NacUserLimits, AreWrittenWhereThereIsAPointer) {
    std::uint64_t only = 0;
    EXPECT_EQ(scc_get_nac_max_user(1, nullptr, nullptr, nullptr), 0U);
    EXPECT_EQ(scc_get_nac_max_user(1, &only, nullptr, nullptr), 0U);
    EXPECT_EQ(only, 4096U);
    EXPECT_EQ(scc_get_nac_max_user(1, nullptr, &only, nullptr), 0U);
    EXPECT_EQ(only, 3000U);
    EXPECT_EQ(scc_get_nac_max_user(2, nullptr, nullptr, &only), 0U);
    EXPECT_EQ(only, 128U);
}

class NacUserCounters : public test::recording_client {
  protected:
    // A later result shows that the capability word was processed.
    void tell_capabilities(std::uint64_t word) {
        std::uint32_t id = 0;
        ASSERT_EQ(scc_addr_learning(1, 1, &id), 0U);
        daemon.read_item(side::async);
        daemon.send_item(side::async, 406, wire().u64(word));
        daemon.send_result(id, 0);
        ASSERT_EQ(test::results().wait()->call_id, id);
    }

    static std::uint8_t supported() {
        std::uint8_t answer = 0xA5;
        EXPECT_EQ(scc_nac_user_counter_support(&answer), 0U);
        return answer;
    }
};

TEST_F(NacUserCounters, AreSupportedUnlessTheirBitIsSet) {
    start();
    EXPECT_EQ(supported(), 1);
    for (const std::uint64_t without : {0x20ULL, 0x3FULL, ~0ULL}) {
        tell_capabilities(without);
        EXPECT_EQ(supported(), 0) << std::hex << without;
    }
    for (const std::uint64_t with : {0x0ULL, 0x1FULL, 0x40ULL, 0x2000000000ULL, ~0x20ULL}) {
        tell_capabilities(with);
        EXPECT_EQ(supported(), 1) << std::hex << with;
    }
}

TEST_F(NacUserCounters, AreForgottenWithTheConnection) {
    start();
    tell_capabilities(0x20);
    EXPECT_EQ(supported(), 0);
    daemon.close_both();
    EXPECT_EQ(test::statuses().wait(), 0U);
    daemon.accept_registration();
    EXPECT_EQ(test::statuses().wait(), 1U);
    EXPECT_EQ(supported(), 1);
}

TEST_F(NacUserCounters, AreUnknownWhenNotRegisteredAndNeedAPlace) {
    const test::debugging on;
    EXPECT_EQ(scc_nac_user_counter_support(nullptr), 22U);
    std::uint8_t answer = 0xA5;
    EXPECT_EQ(scc_nac_user_counter_support(&answer), 2004U);
    EXPECT_EQ(answer, 0xA5);
    start();
    EXPECT_EQ(scc_nac_user_counter_support(nullptr), 22U);
}

TEST(BindUserNames, AreNotAppendedWhenEvenTheSlashDoesNotFit) {
    char buffer[8] = "abc";
    EXPECT_EQ(_app_string_add(buffer, "x", true, 4), 0xFFFFFFFFU);
    EXPECT_STREQ(buffer, "abc");
}

}  // namespace
