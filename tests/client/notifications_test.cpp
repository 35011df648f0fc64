// Each notification: its item type, its handler and arguments, the two log lines, and what is counted.
#include "client/notifications.h"

#include "client/control_block.h"
#include "client/diagnostics.h"
#include "client/dispatch.h"
#include "client/handler_recorder.h"
#include "support/log_acts.h"
#include "support/log_capture.h"

using test::bytes;
using test::handler_call;
using test::pointer_to;
using test::wire;

namespace {

bytes filled(std::size_t count, std::uint8_t first) {
    bytes all(count);
    for (std::size_t i = 0; i < count; ++i) {
        all[i] = static_cast<std::uint8_t>(first + i * 3);
    }
    return all;
}

const bytes mac = {0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e};
const bytes address = {192, 168, 1, 10};

struct notification_case {
    std::uint16_t type;
    bytes value;
    handler_call call;
    std::string called;  // empty: nothing is logged when the handler is called
    std::string ignored;
};

std::vector<notification_case> simple_cases() {
    const bytes move = filled(16, 9);
    const bytes user = filled(56, 40);
    const bytes vlans = filled(512, 11);
    const bytes extra = filled(8, 77);
    const bytes key = wire().u32(1).u32(58).u32(32768).u32(3);
    const bytes counter = wire().u64(5).u64(6);
    return {
        {110,
         wire().zeros(4).u32(1).add(move),
         {10, {"32:1", pointer_to(move)}},
         "call d1x mac move notify handler",
         "ignore d1x mac move notify msg"},
        {211,
         wire().zeros(8).add(user).u64(0x100000001).u64(7),
         {57, {pointer_to(user), "64:4294967297", "64:7"}},
         "call flow num handler",
         "ignore flow num notify msg"},
        {212,
         wire().zeros(8).add(user).u64(0x200000002).u64(8).u32(8).zeros(4).add(extra),
         {48, {pointer_to(user), "64:8589934594", "64:8", pointer_to(extra), "32:8"}},
         "call noflow offline handler",
         "ignore noflow offline notify msg"},
        {213, wire().zeros(8).add(vlans), {47, {pointer_to(vlans)}}, "", "ignore direct vlan notify msg"},
        {214,
         wire().u32(9).u32(0x80000001),
         {49, {"32:2147483649"}},
         "call authmode notify handler",
         "ignore authmode notify msg"},
        {407,
         wire().u32(9).add(key).u32(1).add(counter),
         {55, {pointer_to(key), "32:1", pointer_to(counter)}},
         "call counter notify handler, acl(id:32768, app:58), ace(cnt:1)",
         "ignore counter notify msg"},
    };
}

// Notifications that say one of two words.
std::vector<notification_case> two_sided_cases() {
    const auto detect = [](std::uint8_t open) -> bytes {
        return wire().u32(70000).u8(open).fill(3, 0xEE).u32(30).u32(40);
    };
    const auto channel = [](std::uint32_t add) -> bytes { return wire().u32(1).add(address).u32(add); };
    const bytes violator = wire().u32(0x1f).u16(4094).add(mac).add(filled(44, 1));
    const bytes roll = wire().u32(0x2c).u16(100).add(mac).u32(3);
    const auto violation = [&](std::uint8_t add) -> bytes { return wire().u32(1).add(violator).u8(add); };
    return {
        {209,
         detect(255),
         {61, {"32:70000", "8:255", "32:30", "32:40"}},
         "call offline detect cfg handler(open).",
         "ignore offline detect cfg notify msg"},
        {209,
         detect(0),
         {61, {"32:70000", "8:0", "32:30", "32:40"}},
         "call offline detect cfg handler(close).",
         "ignore offline detect cfg notify msg"},
        {210,
         wire().u32(0).u8(2),
         {56, {"8:2"}},
         "call station move handler(permit).",
         "ignore station move notify msg"},
        {210,
         wire().u32(1).u8(0).fill(3, 0xEE),
         {56, {"8:0"}},
         "call station move handler(deny).",
         "ignore station move notify msg"},
        {216,
         channel(0x0100),
         {64, {"8:1", "32:167880896"}},
         "add dirchn(ip:192.168.1.10).",
         "ignore dirchn notify msg"},
        {216,
         channel(0),
         {64, {"8:0", "32:167880896"}},
         "del dirchn(ip:192.168.1.10).",
         "ignore dirchn notify msg"},
        {217,
         violation(2),
         {65, {"8:2", pointer_to(violator)}},
         "add ps violate(ifx:0x1f vid:4094 mac:001a.2b3c.4d5e).",
         "ignore ps violate notify msg"},
        {217,
         violation(0),
         {65, {"8:0", pointer_to(violator)}},
         "del ps violate(ifx:0x1f vid:4094 mac:001a.2b3c.4d5e).",
         "ignore ps violate notify msg"},
        {219,
         wire().zeros(8).add(roll),
         {66, {pointer_to(roll)}},
         "call user roll handler(ifx:0x2c, vid:100, mac:001a.2b3c.4d5e, roll_type:3).",
         "ignore user roll notify msg(ifx:0x2c, vid:100, mac:001a.2b3c.4d5e, roll_type:3)."},
    };
}

std::vector<notification_case> all_cases() {
    std::vector<notification_case> cases = simple_cases();
    for (notification_case& row : two_sided_cases()) {
        cases.push_back(std::move(row));
    }
    return cases;
}

void receive(std::uint16_t type, const bytes& value) {
    const bytes item = test::item_bytes(type, value);
    _scc_lib_async_msg_proc(1, item.data());
}

// Index, calls, call successes, callback successes, call failures, callback failures of each entry in use.
using counts = std::vector<std::vector<std::uint32_t>>;

counts counted() {
    counts rows;
    for (std::uint32_t i = 0; i < 13; ++i) {
        const scc::call_statistics e = scc::read_statistics(i);
        const std::vector<std::uint32_t> row{
            i, e.calls, e.call_successes, e.callback_successes, e.call_failures, e.callback_failures};
        if (row != std::vector<std::uint32_t>{i, 0, 0, 0, 0, 0}) {
            rows.push_back(row);
        }
    }
    _scc_lib_func_stat_reset();
    return rows;
}

TEST(Notifications, EachReachesItsHandlerAloneAndSaysSoWhileDebugging) {
    test::use_handlers(test::recording_handlers());
    for (const notification_case& row : all_cases()) {
        SCOPED_TRACE(row.type);
        const test::debugging on;
        receive(row.type, row.value);
        EXPECT_EQ(test::taken_calls(), std::vector<handler_call>{row.call});
        EXPECT_EQ(test::log_texts(),
                  row.called.empty() ? std::vector<std::string>{} : std::vector<std::string>{row.called});
    }
}

TEST(Notifications, EachWithoutAHandlerIsIgnoredAndSaysSoWhileDebugging) {
    for (const notification_case& row : all_cases()) {
        SCOPED_TRACE(row.type);
        const test::debugging on;
        receive(row.type, row.value);
        EXPECT_TRUE(test::taken_calls().empty());
        EXPECT_EQ(test::log_texts(), std::vector<std::string>{row.ignored});
    }
}

TEST(Notifications, NothingIsLoggedWhileDebuggingIsOff) {
    for (const bool with_handler : {true, false}) {
        test::use_handlers(with_handler ? test::recording_handlers() : scc_handlers{});
        for (const notification_case& row : all_cases()) {
            receive(row.type, row.value);
        }
        EXPECT_EQ(test::taken_calls().size(), with_handler ? all_cases().size() : 0U);
    }
    g_scc_client_cb.handlers.water_line = test::recording_handlers().water_line;
    receive(220, wire().u32(1));
    EXPECT_EQ(test::taken_calls().size(), 1U);
    EXPECT_TRUE(test::captured_log().empty());
}

TEST(Notifications, DoNotReachAHandlerThatIsClearedWhileTheirLineIsWritten) {
    test::use_handlers(test::recording_handlers());
    const test::debugging on;
    test::on_log("call d1x mac move notify handler", [] {
        scc::store_handler<decltype(scc_handlers::d1x_addr_move)>(g_scc_client_cb.handlers.d1x_addr_move,
                                                                  nullptr);
    });
    receive(110, wire().zeros(4).u32(1).zeros(16));
    EXPECT_TRUE(test::logged("call d1x mac move notify handler"));
    EXPECT_TRUE(test::taken_calls().empty());
}

TEST(Notifications, AddressMovesAndNoFlowCountCallsAlwaysAndCallbacksWithAHandler) {
    const bytes move = wire().zeros(4).u32(1).zeros(16);
    const bytes offline = wire().zeros(96);
    receive(110, move);
    EXPECT_EQ(counted(), (counts{{11, 1, 1, 0, 0, 0}}));
    receive(212, offline);
    EXPECT_EQ(counted(), (counts{{10, 1, 1, 0, 0, 0}}));
    test::use_handlers(test::recording_handlers());
    receive(110, move);
    EXPECT_EQ(counted(), (counts{{11, 1, 1, 1, 0, 0}}));
    receive(212, offline);
    EXPECT_EQ(counted(), (counts{{10, 1, 1, 1, 0, 0}}));
}

TEST(Notifications, NoOtherIsCounted) {
    for (const bool with_handler : {true, false}) {
        test::use_handlers(with_handler ? test::recording_handlers() : scc_handlers{});
        for (const notification_case& row : all_cases()) {
            if (row.type == 110 || row.type == 212) {
                continue;
            }
            SCOPED_TRACE(row.type);
            receive(row.type, row.value);
            EXPECT_EQ(counted(), counts{});
        }
    }
}

test::event_queue<scc::call_statistics>& seen_inside() {
    static auto* queue = new test::event_queue<scc::call_statistics>;
    return *queue;
}

TEST(Notifications, TheCallbackIsCountedOnlyOnceTheHandlerHasReturned) {
    scc_handlers handlers{};
    handlers.d1x_addr_move = [](std::uint32_t, const scc_address_move*) {
        seen_inside().push(scc::read_statistics(11));
    };
    test::use_handlers(handlers);
    receive(110, wire().zeros(4).u32(1).zeros(16));
    const auto inside = seen_inside().wait();
    ASSERT_TRUE(inside);
    EXPECT_EQ(inside->calls, 1U);
    EXPECT_EQ(inside->callback_successes, 0U);
    EXPECT_EQ(scc::read_statistics(11).callback_successes, 1U);
}

test::event_queue<std::vector<std::string>>& log_inside() {
    static auto* queue = new test::event_queue<std::vector<std::string>>;
    return *queue;
}

TEST(Notifications, TheLineOfACallIsWrittenBeforeTheHandlerRuns) {
    scc_handlers handlers{};
    handlers.d1x_addr_move = [](std::uint32_t, const scc_address_move*) {
        log_inside().push(test::log_texts());
    };
    handlers.station_move = [](std::uint8_t) { log_inside().push(test::log_texts()); };
    handlers.user_change = [](std::uint8_t, const void*, const void*) {
        log_inside().push(test::log_texts());
        return 0;
    };
    test::use_handlers(handlers);
    const auto first_line = [](std::uint16_t type, const bytes& value) {
        const test::debugging on;
        receive(type, value);
        return log_inside().wait();
    };
    using lines = std::vector<std::string>;
    EXPECT_EQ(first_line(110, wire().zeros(24)), lines{"call d1x mac move notify handler"});
    EXPECT_EQ(first_line(210, wire().zeros(4).u8(1)), lines{"call station move handler(permit)."});
    EXPECT_EQ(first_line(127, wire().zeros(96)), lines{"user(mac:0000.0000.0000, ip:0.0.0.0) del."});
}

// ---- user added or deleted: the one handler whose return value counts --------------------------------

bytes user_change(std::uint8_t add) {
    return wire()
        .u32(0)
        .add(mac)  // at 4
        .zeros(6)
        .u8(add)  // at 16
        .zeros(7)
        .add({1, 2, 3, 4, 5, 6, 7, 8})  // the user, at 24
        .add(address)                   // at 32, inside it
        .zeros(44)
        .add({9, 10, 11, 12, 13, 14, 15, 16});  // the detail, at 80
}

std::atomic<int>& answer() {
    static std::atomic<int> value{0};
    return value;
}

int answering(std::uint8_t /*add*/, const void* /*user*/, const void* /*detail*/) {
    return answer();
}

TEST(UserChangeNotification, HandsOnTheRawByteAndTheUserAndTheDetail) {
    test::use_handlers(test::recording_handlers());
    for (const std::uint8_t add : {std::uint8_t{1}, std::uint8_t{0x80}, std::uint8_t{0}}) {
        const test::debugging on;
        receive(127, user_change(add));
        EXPECT_EQ(test::taken_calls(),
                  std::vector<handler_call>(
                      {{63, {"8:" + std::to_string(add), "@0102030405060708", "@090a0b0c0d0e0f10"}}}));
        EXPECT_EQ(test::log_texts(),
                  std::vector<std::string>{std::string("user(mac:001a.2b3c.4d5e, ip:192.168.1.10) ") +
                                           (add != 0 ? "add." : "del.")});
    }
}

TEST(UserChangeNotification, WithoutAHandlerIsIgnoredButCountedAsACall) {
    const test::debugging on;
    receive(127, user_change(1));
    EXPECT_EQ(counted(), (counts{{8, 1, 1, 0, 0, 0}}));
    receive(127, user_change(0));
    EXPECT_EQ(counted(), (counts{{9, 1, 1, 0, 0, 0}}));
    EXPECT_EQ(test::log_texts(),
              (std::vector<std::string>{"ignore user cfg notify msg", "ignore user cfg notify msg"}));
}

TEST(UserChangeNotification, TheHandlersReturnValueDecidesBetweenCallbackSuccessAndFailure) {
    scc_handlers handlers{};
    handlers.user_change = answering;
    test::use_handlers(handlers);
    for (const int failure : {1, -1, 256}) {
        answer() = failure;
        receive(127, user_change(1));
        EXPECT_EQ(counted(), (counts{{8, 1, 1, 0, 0, 1}}));
        receive(127, user_change(0));
        EXPECT_EQ(counted(), (counts{{9, 1, 1, 0, 0, 1}}));
    }
    answer() = 0;
    receive(127, user_change(1));
    EXPECT_EQ(counted(), (counts{{8, 1, 1, 1, 0, 0}}));
    receive(127, user_change(0));
    EXPECT_EQ(counted(), (counts{{9, 1, 1, 1, 0, 0}}));
}

// ---- water line: position 67 is never installed ------------------------------------------------------

TEST(WaterLineNotification, IsAlwaysIgnoredEvenWithAHandlerInTheRecord) {
    const test::debugging on;
    test::use_handlers(test::recording_handlers());
    receive(220, wire().u32(0x01000000));
    receive(220, wire().u32(0));
    EXPECT_TRUE(test::taken_calls().empty());
    EXPECT_EQ(test::log_texts(),
              (std::vector<std::string>{"ignore waterline notify(start).", "ignore waterline notify(end)."}));
    EXPECT_EQ(counted(), counts{});
}

TEST(WaterLineNotification, WouldHandOnOneForAnyWordThatIsNotZero) {
    const test::debugging on;
    g_scc_client_cb.handlers.water_line = test::recording_handlers().water_line;
    receive(220, wire().u32(0x01000000));
    receive(220, wire().u32(0));
    EXPECT_EQ(test::taken_calls(), (std::vector<handler_call>{{67, {"8:1"}}, {67, {"8:0"}}}));
    EXPECT_EQ(test::log_texts(),
              (std::vector<std::string>{"call waterline handler(start).", "call waterline handler(end)."}));
}

}  // namespace
