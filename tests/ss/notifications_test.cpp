// Reports of hardware events: checks, texts, bytes and counts of the four reports.
#include <algorithm>
#include <functional>
#include <map>
#include <thread>
#include <utility>

#include "client/diagnostics.h"
#include "ss/service_fixture.h"

using test::bytes;
using test::side;
using test::wire;

namespace {

constexpr const char* unavailable_text = "scclib no registered or scc svr no available.";

class Notifications : public test::registered_service {
  protected:
    // The next thing on the synchronous socket is one message with one item of this type and value.
    void expect_up(std::uint16_t type, const bytes& value) {
        const test::received_message message = daemon.read(side::sync);
        const auto length = static_cast<std::uint32_t>(value.size());
        const bytes whole =
            wire().u32(length + 16).u8(1).u16(1).u8(0).u32(length).u16(0).u16(type).add(value);
        EXPECT_EQ(message.raw, whole);
    }

    // The next message is a fetch with that call id: nothing was sent before, and no id was taken.
    void expect_untouched(std::uint32_t next_id) {
        EXPECT_EQ(scc_ss_fetch_func(), 0U);
        expect_up(204, wire().u32(next_id).u32(16));
    }

    // Of the entry: calls, successes, failures.
    static void expect_counted(std::uint32_t code, std::uint32_t calls) {
        const scc::call_statistics counted = scc::read_statistics(code);
        EXPECT_EQ(counted.calls, calls) << code;
        EXPECT_EQ(counted.call_successes, calls) << code;
        EXPECT_EQ(counted.call_failures, 0U) << code;
    }
};

constexpr scc_address_move moves[2] = {
    {0x4C, 100, 101, 102, {0x00, 0x1A, 0x2B, 0x3C, 0x4D, 0x5E}},
    {0x4D, 4094, 65535, 0, {0xFF, 0xFE, 0xFD, 0xFC, 0xFB, 0xFA}},
};

bytes move_bytes(std::uint32_t count) {
    wire out;
    out.u32(0x4C).u16(100).u16(101).u16(102).add({0x00, 0x1A, 0x2B, 0x3C, 0x4D, 0x5E});
    if (count > 1) {
        out.u32(0x4D).u16(4094).u16(65535).u16(0).add({0xFF, 0xFE, 0xFD, 0xFC, 0xFB, 0xFA});
    }
    return out;
}

TEST_F(Notifications, MovedAddressesGoUpWithTheirCountInRealTime) {
    start();
    EXPECT_EQ(scc_ss_move_addr_notify(2, moves), 0U);
    expect_up(202, wire().u32(1).u32(2).add(move_bytes(2)));
    EXPECT_EQ(scc_ss_move_addr_notify(1, moves), 0U);
    expect_up(202, wire().u32(2).u32(1).add(move_bytes(1)));
    expect_counted(11, 2);
    expect_counted(10, 0);
}

TEST_F(Notifications, AHundredThousandMovedAddressesFitInOneMessage) {
    start();
    constexpr std::uint32_t count = 100000;
    std::vector<scc_address_move> many(count);
    for (std::uint32_t i = 0; i < count; ++i) {
        many[i].ifx = i;
    }
    std::thread service([&] { EXPECT_EQ(scc_ss_move_addr_notify(count, many.data()), 0U); });
    const test::received_item item = daemon.read_item(side::sync);
    service.join();
    EXPECT_EQ(item.type, 202);
    ASSERT_EQ(item.value.size(), 8U + 16 * count);
    EXPECT_EQ(test::u32_at(item.value, 4), count);
    EXPECT_EQ(test::u32_at(item.value, 8 + 16 * 99999), 99999U);
}

TEST_F(Notifications, EachMovedAddressIsLoggedWithoutItsClosingParenthesis) {
    start();
    const test::debugging on;
    EXPECT_EQ(scc_ss_move_addr_notify(2, moves), 0U);
    EXPECT_EQ(test::log_texts(),
              (std::vector<std::string>{
                  "address move notify(num:2).",
                  "address move notify(ifx:0x4c mac:001a.2b3c.4d5e, vid:100, bf-vid:101, af-vid:102.",
                  "address move notify(ifx:0x4d mac:fffe.fdfc.fbfa, vid:4094, bf-vid:65535, af-vid:0."}));
}

TEST_F(Notifications, MovesWithoutEntriesOrWithoutACountReturn22) {
    start();
    const test::debugging on;
    EXPECT_EQ(scc_ss_move_addr_notify(0, moves), 22U);
    EXPECT_EQ(scc_ss_move_addr_notify(-1, moves), 22U);
    EXPECT_EQ(scc_ss_move_addr_notify(1, nullptr), 22U);
    EXPECT_EQ(test::log_texts(),
              (std::vector<std::string>{"address move notify(num:0).", "scclib param invalid.",
                                        "address move notify(num:-1).", "scclib param invalid.",
                                        "address move notify(num:1).", "scclib param invalid."}));
    expect_untouched(1);
    expect_counted(11, 0);
}

TEST_F(Notifications, MovesBeforeTheRegistrationAreLoggedAndReturn2004) {
    const test::debugging on;
    EXPECT_EQ(scc_ss_move_addr_notify(1, moves), 2004U);
    EXPECT_EQ(test::log_texts().back(), unavailable_text);
    EXPECT_EQ(test::log_texts().size(), 3U);
    expect_counted(11, 0);
}

// ---- users without traffic

scc_flow_user ipv4_user() {
    scc_flow_user user{};
    std::memset(&user, 0xEE, sizeof user);
    for (std::size_t i = 0; i < 8; ++i) {
        user.head[i] = static_cast<std::uint8_t>(i + 1);
    }
    const std::uint8_t address[] = {192, 168, 1, 10};
    const std::uint8_t mask[] = {255, 255, 0, 0};
    std::memcpy(user.address, address, 4);
    std::memcpy(user.mask, mask, 4);
    user.ifx = 76;
    user.vid = 100;
    const std::uint8_t mac[] = {0x00, 0x1A, 0x2B, 0x3C, 0x4D, 0x5E};
    std::memcpy(user.mac, mac, 6);
    user.family = 2;
    return user;
}

bytes ipv4_user_bytes(std::uint32_t family = 2) {
    return wire()
        .add({1, 2, 3, 4, 5, 6, 7, 8})
        .add({192, 168, 1, 10})
        .fill(12, 0xEE)
        .add({255, 255, 0, 0})
        .fill(12, 0xEE)
        .u32(76)
        .u16(100)
        .add({0x00, 0x1A, 0x2B, 0x3C, 0x4D, 0x5E})
        .u32(family);
}

scc_flow_user ipv6_user(std::uint32_t family) {
    scc_flow_user user = ipv4_user();
    const std::uint8_t address[16] = {0x20, 0x01, 0x0D, 0xB8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    const std::uint8_t mask[16] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
    std::memcpy(user.address, address, 16);
    std::memcpy(user.mask, mask, 16);
    user.family = family;
    return user;
}

TEST_F(Notifications, AUserWithoutTrafficGoesUpWithFlowTimeAndExtraBytes) {
    start();
    const scc_flow_user user = ipv4_user();
    const bytes extra{0xA1, 0xA2, 0xA3, 0xA4, 0xA5};
    EXPECT_EQ(scc_noflow_offline_notify(&user, 0x1122334455667788, 0x99AABBCCDDEEFF00, extra.data(), 5), 0U);
    expect_up(203, wire()
                       .u32(1)
                       .zeros(4)
                       .add(ipv4_user_bytes())
                       .u64(0x1122334455667788)
                       .u64(0x99AABBCCDDEEFF00)
                       .u64(5)
                       .add(extra));
    expect_counted(10, 1);
    expect_counted(11, 0);
}

TEST_F(Notifications, WithoutExtraBytesAUserWithoutTrafficIs88Bytes) {
    start();
    const scc_flow_user user = ipv4_user();
    const bytes value = wire().u32(1).zeros(4).add(ipv4_user_bytes()).u64(7).u64(8).u64(0);
    ASSERT_EQ(value.size(), 88U);
    EXPECT_EQ(scc_noflow_offline_notify(&user, 7, 8, nullptr, 0), 0U);
    expect_up(203, value);
    // A pointer without a length adds nothing.
    EXPECT_EQ(scc_noflow_offline_notify(&user, 7, 8, "xyz", 0), 0U);
    expect_up(203, test::with_u32(value, 0, 2));
}

TEST_F(Notifications, ANegativeLengthOfExtraBytesAddsNone) {
    start();
    const scc_flow_user user = ipv4_user();
    for (const int length : {-1, -88, -2147483647 - 1}) {
        EXPECT_EQ(scc_noflow_offline_notify(&user, 7, 8, "xyz", length), 0U);
        EXPECT_EQ(test::slice(daemon.read_item(side::sync).value, 4, 84),
                  bytes(wire().zeros(4).add(ipv4_user_bytes()).u64(7).u64(8).u64(0)));
    }
}

struct user_text_row {
    scc_flow_user user;
    const char* addresses;
};

TEST_F(Notifications, AUserWithoutTrafficIsLoggedByItsFamily) {
    start();
    std::vector<user_text_row> rows;
    for (const std::uint32_t family : {0U, 1U, 2U, 5U, 0xFFFFFFFFU}) {
        rows.push_back({ipv4_user(), "Ipv4:192.168.1.10,mask:255.255.0.0"});
        rows.back().user.family = family;
    }
    for (const std::uint32_t family : {3U, 4U}) {
        rows.push_back({ipv6_user(family), "Ipv6:2001:db8::1,mask:ffff:ffff:ffff:ffff::"});
    }
    for (const user_text_row& row : rows) {
        const test::debugging on;
        EXPECT_EQ(scc_noflow_offline_notify(&row.user, 0xFFFFFFFFFFFFFFFF, 60, nullptr, 0), 0U);
        EXPECT_EQ(
            test::log_texts(),
            std::vector<std::string>{"offline user - Ifx:76, Vid:100, Mac: 001a.2b3c.4d5e, " +
                                     std::string(row.addresses) + ". flow:18446744073709551615, time:60"});
    }
}

TEST_F(Notifications, AUserWithoutTrafficNeedsAUserAndTheExtraBytesOfItsLength) {
    start();
    const scc_flow_user user = ipv4_user();
    const test::debugging on;
    EXPECT_EQ(scc_noflow_offline_notify(nullptr, 1, 2, nullptr, 0), 22U);
    EXPECT_EQ(scc_noflow_offline_notify(&user, 1, 2, nullptr, 1), 22U);
    EXPECT_EQ(scc_noflow_offline_notify(&user, 1, 2, nullptr, -1), 22U);
    EXPECT_EQ(test::log_texts(), std::vector<std::string>{});
    expect_untouched(1);
    expect_counted(10, 0);
}

TEST_F(Notifications, AUserWithoutTrafficBeforeTheRegistrationReturns2004) {
    const scc_flow_user user = ipv4_user();
    const test::debugging on;
    EXPECT_EQ(scc_noflow_offline_notify(&user, 1, 2, nullptr, 0), 2004U);
    EXPECT_EQ(test::log_texts(), std::vector<std::string>{unavailable_text});
    expect_counted(10, 0);
}

// ---- traffic

TEST_F(Notifications, AUsersTrafficGoesUpIn80BytesAndIsNotCounted) {
    start();
    const scc_flow_user user = ipv4_user();
    EXPECT_EQ(scc_flow_notify(&user, 0x1122334455667788, 0x99AABBCCDDEEFF00), 0U);
    expect_up(208,
              wire().u32(1).zeros(4).add(ipv4_user_bytes()).u64(0x1122334455667788).u64(0x99AABBCCDDEEFF00));
    for (std::uint32_t code = 0; code <= 12; ++code) {
        expect_counted(code, 0);
    }
}

TEST_F(Notifications, TrafficOfNobodyReturns22) {
    start();
    const test::debugging on;
    EXPECT_EQ(scc_flow_notify(nullptr, 1, 2), 22U);
    EXPECT_EQ(test::log_texts(), std::vector<std::string>{"scclib param invalid."});
    expect_untouched(1);
}

TEST_F(Notifications, TrafficBeforeTheRegistrationReturns2004) {
    const scc_flow_user user = ipv4_user();
    const test::debugging on;
    EXPECT_EQ(scc_flow_notify(&user, 1, 2), 2004U);
    EXPECT_EQ(test::log_texts(), std::vector<std::string>{unavailable_text});
}

// ---- ACE counters

constexpr scc_acl_key acl{1, 5, 300, 9};
constexpr scc_ace_counter counters[2] = {{0x1122334455667788, 7}, {0x99AABBCCDDEEFF00, 8}};

TEST_F(Notifications, AceCountersGoUpWithTheirAclAndAreNotCounted) {
    start();
    EXPECT_EQ(scc_ss_ace_counter_notify(&acl, 2, counters), 0U);
    expect_up(207, wire()
                       .u32(1)
                       .u32(1)
                       .u32(5)
                       .u32(300)
                       .u32(9)
                       .u32(2)
                       .u64(0x1122334455667788)
                       .u64(7)
                       .u64(0x99AABBCCDDEEFF00)
                       .u64(8));
    for (std::uint32_t code = 0; code <= 12; ++code) {
        expect_counted(code, 0);
    }
}

TEST_F(Notifications, NoAceCountersAre24Bytes) {
    start();
    EXPECT_EQ(scc_ss_ace_counter_notify(&acl, 0, nullptr), 0U);
    expect_up(207, wire().u32(1).u32(1).u32(5).u32(300).u32(9).u32(0));
    EXPECT_EQ(scc_ss_ace_counter_notify(&acl, 0, counters), 0U);
    expect_up(207, wire().u32(2).u32(1).u32(5).u32(300).u32(9).u32(0));
}

TEST_F(Notifications, AceCountersAreCheckedByTheirAclFirst) {
    start();
    struct key_row {
        scc_acl_key key;
        const char* text;
    };
    constexpr key_row rows[] = {
        {{1, 5, 0, 9}, "acl id is invalid (<1 or >32768)."},
        {{1, 5, 32769, 9}, "acl id is invalid (<1 or >32768)."},
        {{1, 5, 0xFFFFFFFF, 9}, "acl id is invalid (<1 or >32768)."},
        {{1, 0, 300, 9}, "acl app_type(0) is invalid"},
    };
    for (const key_row& row : rows) {
        const test::debugging on;
        EXPECT_EQ(scc_ss_ace_counter_notify(&row.key, 1, nullptr), 22U);
        EXPECT_EQ(test::log_texts(), std::vector<std::string>{row.text});
    }
    const test::debugging on;
    EXPECT_EQ(scc_ss_ace_counter_notify(nullptr, 1, counters), 22U);
    EXPECT_EQ(test::log_texts(), std::vector<std::string>{"scclib param invalid."});
    expect_untouched(1);
}

TEST_F(Notifications, AceCountersWithoutEntriesReturn22WithoutALog) {
    start();
    const test::debugging on;
    EXPECT_EQ(scc_ss_ace_counter_notify(&acl, 1, nullptr), 22U);
    EXPECT_EQ(test::log_texts(), std::vector<std::string>{});
    expect_untouched(1);
}

// No count that the argument can hold makes the library write past its message.
TEST_F(Notifications, MoreAceCountersThanAMessageCanHoldReturn12) {
    start();
    const test::debugging on;
    EXPECT_EQ(scc_ss_ace_counter_notify(&acl, 0xFFFFFFFF, counters), 12U);
    EXPECT_EQ(test::log_texts(), std::vector<std::string>{"scclib malloc addr notify msg failed."});
    expect_untouched(1);
}

TEST_F(Notifications, AceCountersBeforeTheRegistrationReturn2004) {
    const test::debugging on;
    EXPECT_EQ(scc_ss_ace_counter_notify(&acl, 2, counters), 2004U);
    EXPECT_EQ(test::log_texts(), std::vector<std::string>{unavailable_text});
}

// ---- all of them

TEST_F(Notifications, AreLostWhileTheConnectionIsDownAndTakeNoId) {
    start();
    daemon.stop_listening();
    daemon.close_both();
    EXPECT_EQ(test::service_statuses().wait(), 0U);
    const scc_flow_user user = ipv4_user();
    EXPECT_EQ(scc_ss_move_addr_notify(1, moves), 2004U);
    EXPECT_EQ(scc_noflow_offline_notify(&user, 1, 2, nullptr, 0), 2004U);
    EXPECT_EQ(scc_flow_notify(&user, 1, 2), 2004U);
    EXPECT_EQ(scc_ss_ace_counter_notify(&acl, 1, counters), 2004U);
    daemon.listen();
    daemon.accept_registration();
    EXPECT_EQ(test::service_statuses().wait(), 1U);
    expect_untouched(1);
}

// Several threads of the service report at once: every message arrives whole, under an id of its own.
TEST_F(Notifications, OfSeveralThreadsDoNotMix) {
    start();
    constexpr std::uint32_t each = 50;
    const scc_flow_user user = ipv4_user();
    std::vector<std::thread> service;
    service.emplace_back([] {
        for (std::uint32_t i = 0; i < each; ++i) {
            EXPECT_EQ(scc_ss_move_addr_notify(2, moves), 0U);
        }
    });
    service.emplace_back([&] {
        for (std::uint32_t i = 0; i < each; ++i) {
            EXPECT_EQ(scc_flow_notify(&user, 1, 2), 0U);
        }
    });
    service.emplace_back([] {
        for (std::uint32_t i = 0; i < each; ++i) {
            EXPECT_EQ(scc_ss_ace_counter_notify(&acl, 2, counters), 0U);
        }
    });
    std::map<std::uint16_t, std::uint32_t> arrived;
    for (std::uint32_t id = 1; id <= 3 * each; ++id) {
        const test::received_item item = daemon.read_item(side::sync);
        EXPECT_EQ(test::u32_at(item.value, 0), id);
        ++arrived[item.type];
    }
    for (std::thread& thread : service) {
        thread.join();
    }
    EXPECT_EQ(arrived, (std::map<std::uint16_t, std::uint32_t>{{202, each}, {207, each}, {208, each}}));
}

// Each line of a report names the report that was called.
TEST_F(Notifications, AllLinesNameTheCall) {
    const scc_flow_user user = ipv4_user();
    const std::pair<const char*, std::function<void()>> reports[] = {
        {"scc_ss_move_addr_notify",
         [&] {
             EXPECT_EQ(scc_ss_move_addr_notify(0, moves), 22U);
             EXPECT_EQ(scc_ss_move_addr_notify(1, moves), 2004U);
         }},
        {"scc_noflow_offline_notify",
         [&] { EXPECT_EQ(scc_noflow_offline_notify(&user, 1, 2, nullptr, 0), 2004U); }},
        {"scc_flow_notify",
         [&] {
             EXPECT_EQ(scc_flow_notify(nullptr, 1, 2), 22U);
             EXPECT_EQ(scc_flow_notify(&user, 1, 2), 2004U);
         }},
        {"scc_ss_ace_counter_notify",
         [&] { EXPECT_EQ(scc_ss_ace_counter_notify(&acl, 1, counters), 2004U); }},
    };
    const test::debugging on;
    for (const auto& [name, call] : reports) {
        test::clear_log();
        call();
        ASSERT_FALSE(test::captured_log().empty()) << name;
        for (const test::log_line& line : test::captured_log()) {
            EXPECT_TRUE(line.whole.starts_with(std::string("<") + name + " ")) << line.whole;
        }
    }
}

// The lines of a report that goes out: the user's, in both families.
TEST_F(Notifications, TheLineOfAnOfflineUserNamesTheCall) {
    start();
    const test::debugging on;
    const scc_flow_user user = ipv4_user();
    EXPECT_EQ(scc_noflow_offline_notify(&user, 1, 2, nullptr, 0), 0U);
    const auto lines = test::captured_log();
    const auto line = std::ranges::find_if(
        lines, [](const test::log_line& one) { return one.text.starts_with("offline user"); });
    ASSERT_NE(line, lines.end());
    EXPECT_TRUE(line->whole.starts_with("<scc_noflow_offline_notify ")) << line->whole;
}

TEST_F(Notifications, AUserWithoutTrafficMayHaveOneExtraByte) {
    start();
    const scc_flow_user user = ipv4_user();
    EXPECT_EQ(scc_noflow_offline_notify(&user, 1, 2, "x", 1), 0U);
    expect_up(203, wire().u32(1).zeros(4).add(ipv4_user_bytes()).u64(1).u64(2).u64(1).text("x"));
}

TEST_F(Notifications, OneAceCounterGoesUp) {
    start();
    EXPECT_EQ(scc_ss_ace_counter_notify(&acl, 1, counters), 0U);
    expect_up(207, wire().u32(1).u32(1).u32(5).u32(300).u32(9).u32(1).u64(0x1122334455667788).u64(7));
}

TEST_F(Notifications, LogNoFailureWhenTheyAreSent) {
    start();
    const scc_flow_user user = ipv4_user();
    const test::debugging on;
    EXPECT_EQ(scc_ss_move_addr_notify(2, moves), 0U);
    EXPECT_EQ(scc_noflow_offline_notify(&user, 1, 2, "abcd", 4), 0U);
    EXPECT_EQ(scc_flow_notify(&user, 1, 2), 0U);
    EXPECT_EQ(scc_ss_ace_counter_notify(&acl, 2, counters), 0U);
    EXPECT_EQ(scc_ss_fetch_func(), 0U);
    EXPECT_EQ(test::logged_failures(), std::vector<std::string>{});
}

TEST_F(Notifications, LogNothingWhileTheSwitchIsOff) {
    start();
    const scc_flow_user user = ipv4_user();
    test::clear_log();
    EXPECT_EQ(scc_ss_move_addr_notify(2, moves), 0U);
    EXPECT_EQ(scc_noflow_offline_notify(&user, 1, 2, "abcd", 4), 0U);
    EXPECT_EQ(scc_flow_notify(&user, 1, 2), 0U);
    EXPECT_EQ(scc_ss_ace_counter_notify(&acl, 2, counters), 0U);
    EXPECT_EQ(test::log_texts(), std::vector<std::string>{});
}

}  // namespace
