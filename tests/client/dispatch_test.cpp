// Dispatching the items of a message: the function of each type, unknown types, values that are too short.
#include "client/dispatch.h"

#include <algorithm>
#include <thread>

#include "client/acl_cache.h"
#include "client/client_data.h"
#include "client/control_block.h"
#include "client/diagnostics.h"
#include "client/handler_recorder.h"
#include "client/lifetime.h"
#include "client/log.h"
#include "client/request_channel.h"
#include "support/registered_client.h"

using test::bytes;
using test::handler_call;
using test::item_bytes;
using test::side;
using test::wire;

namespace {

using texts = std::vector<std::string>;

void walk(const std::vector<bytes>& items) {
    const bytes message = test::message_bytes(items);
    _scc_lib_async_msg_proc(static_cast<std::uint32_t>(items.size()), message.data() + 8);
}

// Authentication mode: the shortest notification that shows its value.
bytes mode_item(std::uint32_t mode) {
    return item_bytes(214, wire().u32(0).u32(mode));
}

handler_call mode_call(std::uint32_t mode) {
    return {49, {"32:" + std::to_string(mode)}};
}

class Dispatch : public ::testing::Test {
  protected:
    Dispatch() {
        _scc_lib_data_init();
        test::use_handlers(test::recording_handlers());
    }
    ~Dispatch() override { _scc_lib_data_free(); }
};

TEST_F(Dispatch, ACountOfZeroOrNoItemsAreLoggedWithTheCountAndIgnored) {
    const test::debugging on;
    const bytes item = mode_item(1);
    _scc_lib_async_msg_proc(0, item.data());
    _scc_lib_async_msg_proc(3, nullptr);
    EXPECT_EQ(test::log_texts(),
              (texts{"input param invalid. tlv_num(0).", "input param invalid. tlv_num(3)."}));
    EXPECT_TRUE(test::taken_calls().empty());
}

TEST_F(Dispatch, OnlyTheLowSixteenBitsOfTheCountAreUsed) {
    const test::debugging on;
    const bytes item = mode_item(1);
    _scc_lib_async_msg_proc(0xFFFF0000U, item.data());
    EXPECT_EQ(test::log_texts(), texts{"input param invalid. tlv_num(0)."});
    EXPECT_TRUE(test::taken_calls().empty());
    _scc_lib_async_msg_proc(0x00050001U, item.data());
    EXPECT_EQ(test::taken_calls(), std::vector<handler_call>{mode_call(1)});
}

TEST_F(Dispatch, EachOfTheThirteenNotificationsReachesItsPosition) {
    struct place {
        std::uint16_t type;
        int position;
    };
    const place places[] = {{110, 10}, {127, 63}, {209, 61}, {210, 56}, {211, 57}, {212, 48},
                            {213, 47}, {214, 49}, {216, 64}, {217, 65}, {219, 66}, {407, 55}};
    for (const place& place : places) {
        walk({item_bytes(place.type, bytes(1000))});
        const std::vector<handler_call> calls = test::taken_calls();
        ASSERT_EQ(calls.size(), 1U) << place.type;
        EXPECT_EQ(calls[0].position, place.position) << place.type;
    }
    const test::debugging on;
    walk({item_bytes(220, bytes(1000))});
    EXPECT_EQ(test::log_texts(), texts{"ignore waterline notify(end)."});
    EXPECT_TRUE(test::taken_calls().empty());
}

TEST_F(Dispatch, EveryTypeOutsideTheTableIsLoggedAsUnknownWithItsNumber) {
    const std::vector<std::uint16_t> known = {110, 127, 206, 209, 210, 211, 212, 213, 214,
                                              216, 217, 219, 220, 318, 319, 401, 406, 407};
    texts expected;
    const test::debugging on;
    const auto offer = [&](std::uint16_t type) {
        if (std::find(known.begin(), known.end(), type) == known.end()) {
            walk({item_bytes(type, bytes(1000))});
            expected.push_back("unknown scclib msg type(" + std::to_string(type) + ").");
        }
    };
    for (std::uint16_t type = 0; type <= 500; ++type) {
        offer(type);
    }
    offer(0x8000);
    offer(0xFFFF);
    EXPECT_EQ(expected.size(), 501U - known.size() + 2U);
    EXPECT_EQ(test::log_texts(), expected);
    EXPECT_TRUE(test::taken_calls().empty());
}

TEST_F(Dispatch, AnUnknownItemIsSkippedByItsLengthAndTheNextIsDelivered) {
    for (const std::uint16_t unknown : {std::uint16_t{215}, std::uint16_t{218}, std::uint16_t{400},
                                        std::uint16_t{408}, std::uint16_t{402}}) {
        const test::debugging on;
        walk({item_bytes(unknown, bytes(13, 0xEE)), mode_item(unknown)});
        EXPECT_EQ(test::taken_calls(), std::vector<handler_call>{mode_call(unknown)});
        EXPECT_EQ(test::log_texts(), (texts{"unknown scclib msg type(" + std::to_string(unknown) + ").",
                                            "call authmode notify handler"}));
    }
}

TEST_F(Dispatch, ANotificationAndAResultInOneMessageAreDeliveredInThatOrder) {
    const bytes saved = wire().u8(7);
    ASSERT_EQ(_scc_lib_save_call_data(3, 45, saved.data(), 1), 0U);
    walk({mode_item(5), item_bytes(401, wire().u32(3).u32(2004))});
    EXPECT_EQ(test::taken_calls(),
              (std::vector<handler_call>{mode_call(5), {46, {"32:2004", "32:3", "8:7"}}}));
}

// Another thread may unregister, register anew and make a request after the receive thread has read a
// message.
TEST_F(Dispatch, AMessageReadForAnEndedRegistrationReachesNoHandlerOfTheNext) {
    scc::result_run ended(scc::current_generation());
    (void)scc::begin_generation();
    const bytes saved = wire().u8(7);
    ASSERT_EQ(_scc_lib_save_call_data(1, 45, saved.data(), 1), 0U);
    const bytes message = test::message_bytes({mode_item(5), item_bytes(401, wire().u32(1).u32(0))});
    scc::dispatch_items(2, message.data() + 8, ended);
    ended.deliver();
    EXPECT_TRUE(test::taken_calls().empty());
    EXPECT_EQ(scc::pending_calls(), 1U);
}

TEST_F(Dispatch, AResultThatWaitsInARunIsDroppedWithItsRegistration) {
    scc::result_run run(scc::current_generation());
    const bytes saved = wire().u8(7);
    ASSERT_EQ(_scc_lib_save_call_data(1, 45, saved.data(), 1), 0U);
    const bytes message = test::message_bytes({item_bytes(401, wire().u32(1).u32(0))});
    scc::dispatch_items(1, message.data() + 8, run);
    (void)scc::begin_generation();
    run.deliver();
    EXPECT_TRUE(test::taken_calls().empty());
    EXPECT_EQ(scc::pending_calls(), 1U);
}

// A handler may unregister, start on an event loop and run the loop, all on the receive thread.
TEST_F(Dispatch, AnEndedReceiveThreadThatRunsAnEventLoopDeliversForTheLoop) {
    const std::uint32_t ended = scc::begin_generation();
    (void)scc::begin_generation();
    std::thread([ended] {
        scc::belong_to_generation(ended);
        walk({mode_item(5)});
    }).join();
    EXPECT_EQ(test::taken_calls(), std::vector<handler_call>{mode_call(5)});
}

void save(std::uint32_t call_id, std::uint32_t kind, const bytes& data) {
    ASSERT_EQ(_scc_lib_save_call_data(call_id, kind, data.data(), static_cast<int>(data.size())), 0U);
}

bytes result_item(std::uint32_t call_id) {
    return item_bytes(401, wire().u32(call_id).u32(0));
}

handler_call result_call(std::uint32_t call_id, std::uint8_t value) {
    return {46, {"32:0", "32:" + std::to_string(call_id), "8:" + std::to_string(value)}};
}

TEST_F(Dispatch, ResultsAndEverythingBetweenThemKeepTheOrderOfTheWire) {
    for (std::uint8_t id = 1; id <= 4; ++id) {
        save(id, 45, {id});
    }
    const test::debugging on;
    walk({result_item(1), mode_item(10), result_item(2), result_item(2), result_item(3),
          item_bytes(215, bytes(3)), item_bytes(401, bytes(7)), result_item(4), mode_item(11)});
    EXPECT_EQ(test::taken_calls(),
              (std::vector<handler_call>{result_call(1, 1), mode_call(10), result_call(2, 2),
                                         result_call(3, 3), result_call(4, 4), mode_call(11)}));
    EXPECT_EQ(test::log_texts(),
              (texts{"call authmode notify handler", "no such call id:2 in scc lib",
                     "unknown scclib msg type(215).", "scclib msg type(401) too short. len:7.",
                     "call authmode notify handler"}));
}

TEST_F(Dispatch, AMessageOfManyResultsIsDeliveredWholeAndInOrder) {
    std::vector<bytes> items;
    std::vector<handler_call> expected;
    for (std::uint8_t id = 1; id <= 200; ++id) {
        save(id, 45, {id});
        items.push_back(result_item(id));
        expected.push_back(result_call(id, id));
    }
    walk(items);
    EXPECT_EQ(test::taken_calls(), expected);
    EXPECT_EQ(scc::pending_calls(), 0U);
}

TEST_F(Dispatch, ADisplayBetweenTwoResultsShowsWhatTheFirstHasBrought) {
    g_scc_client_cb.option.store(1);
    save(1, 31, wire().u32(1).u32(2).u32(3).u32(0));
    save(2, 31, wire().u32(1).u32(2).u32(4).u32(0));
    test::clear_log();
    const bytes display = wire().zeros(32).u32(3).u32(3);
    walk({result_item(1), item_bytes(206, display), result_item(2)});
    EXPECT_TRUE(test::logged("Total acl num:1\n"));
    test::clear_log();
    walk({item_bytes(206, display)});
    EXPECT_TRUE(test::logged("Total acl num:2\n"));
}

TEST_F(Dispatch, TheSwitchBetweenTwoResultsHoldsForTheSecondAlone) {
    test::clear_log();
    const auto command = [](std::uint32_t value) {
        return item_bytes(206, wire().zeros(24).u32(value).zeros(4).u32(1));
    };
    walk({result_item(1), command(1), result_item(2), command(0), result_item(3)});
    EXPECT_EQ(test::log_texts(),
              (texts{"scclib debug open.", "no such call id:2 in scc lib", "scclib debug close."}));
    EXPECT_EQ(scc_lib_debug.load(), 0U);
}

TEST_F(Dispatch, ItemsOfOddLengthsLeaveTheNextUnalignedAndIntact) {
    std::vector<bytes> items;
    std::vector<handler_call> expected;
    for (std::uint32_t i = 0; i < 20; ++i) {
        items.push_back(item_bytes(999, bytes(i)));
        items.push_back(mode_item(0x10203040U + i));
        expected.push_back(mode_call(0x10203040U + i));
    }
    walk(items);
    EXPECT_EQ(test::taken_calls(), expected);
}

TEST_F(Dispatch, TheSubIdTakesNoPart) {
    walk({item_bytes(214, wire().u32(0).u32(8), 0xABCD)});
    EXPECT_EQ(test::taken_calls(), std::vector<handler_call>{mode_call(8)});
}

TEST_F(Dispatch, TheDebugCommandIsReachedThroughItem206) {
    const test::debugging on;
    walk({item_bytes(206, wire().zeros(24).u32(0).zeros(4).u32(1))});
    EXPECT_EQ(scc_lib_debug.load(), 0U);
    walk({item_bytes(206, wire().zeros(24).u32(1).zeros(4).u32(1))});
    EXPECT_EQ(scc_lib_debug.load(), 1U);
}

TEST_F(Dispatch, TheCapabilityWordIsReachedThroughItem406) {
    walk({item_bytes(406, wire().u64(0x1112131415161718))});
    EXPECT_EQ(scc::capability_word(), 0x1112131415161718U);
}

// The least length of each type, with empty lists: the bytes that its function reads, and the records that
// its handler is promised.
struct least_length {
    std::uint16_t type;
    std::size_t bytes;
};

constexpr least_length least_lengths[] = {
    {110, 8}, {127, 80}, {206, 36}, {209, 16}, {210, 5}, {211, 80}, {212, 88}, {213, 520},
    {214, 8}, {216, 12}, {217, 61}, {219, 24}, {220, 4}, {401, 8},  {406, 8},  {407, 24},
};

TEST_F(Dispatch, AnItemShorterThanItsFunctionReadsIsLoggedAndSkippedAndTheWalkGoesOn) {
    for (const least_length& row : least_lengths) {
        SCOPED_TRACE(row.type);
        for (const std::size_t length : {std::size_t{0}, row.bytes - 1}) {
            const test::debugging on;
            walk({item_bytes(row.type, bytes(length, 0xEE)), mode_item(row.type)});
            EXPECT_EQ(test::taken_calls(), std::vector<handler_call>{mode_call(row.type)});
            EXPECT_EQ(test::log_texts().front(), "scclib msg type(" + std::to_string(row.type) +
                                                     ") too short. len:" + std::to_string(length) + ".");
        }
    }
    for (std::uint32_t i = 0; i < 13; ++i) {
        EXPECT_EQ(scc::read_statistics(i).calls, 0U) << "a short item was counted at " << i;
    }
}

TEST_F(Dispatch, AnItemOfExactlyTheLeastLengthIsProcessed) {
    // Without handlers: the test's own read bytes even through untyped pointers.
    test::use_handlers(scc_handlers{});
    for (const least_length& row : least_lengths) {
        const test::debugging on;
        walk({item_bytes(row.type, bytes(row.bytes))});
        for (const std::string& text : test::log_texts()) {
            EXPECT_EQ(text.find("too short"), std::string::npos) << row.type << ": " << text;
        }
    }
}

TEST_F(Dispatch, AReportThatPromisesMoreThanItCarriesIsSkipped) {
    const test::debugging on;
    const auto counters = [](std::uint32_t count, std::size_t carried) {
        return item_bytes(407, wire().zeros(20).u32(count).zeros(carried * 16));
    };
    const auto offline = [](std::uint32_t extra, std::size_t carried) {
        return item_bytes(212, wire().zeros(80).u32(extra).zeros(4).zeros(carried));
    };
    walk({counters(2, 1), counters(0xFFFFFFFF, 1), counters(0x10000000, 0), offline(9, 8),
          offline(0xFFFFFFFF, 8)});
    EXPECT_TRUE(test::taken_calls().empty());
    EXPECT_EQ(test::log_texts(),
              (texts{"scclib msg type(407) too short. len:40.", "scclib msg type(407) too short. len:40.",
                     "scclib msg type(407) too short. len:24.", "scclib msg type(212) too short. len:96.",
                     "scclib msg type(212) too short. len:96."}));
    walk({counters(2, 2), offline(8, 8)});
    EXPECT_EQ(test::taken_calls().size(), 2U);
}

// 0x10000000 moves of 16 bytes are 0 in 32 bits.
TEST_F(Dispatch, MovesThatAreNotAllThereReachNoHandler) {
    const auto moves = [](std::uint32_t count, std::size_t carried) {
        return item_bytes(110, wire().u32(0).u32(count).fill(carried, 0xEE));
    };
    const std::pair<std::uint32_t, std::size_t> short_ones[] = {
        {1, 0}, {1, 15}, {2, 31}, {0x10000000, 16}, {0x10000001, 31}, {0xFFFFFFFF, 64}};
    for (const auto& [count, carried] : short_ones) {
        SCOPED_TRACE(count);
        const test::debugging on;
        walk({moves(count, carried), mode_item(7)});
        EXPECT_EQ(test::taken_calls(), std::vector<handler_call>{mode_call(7)});
        EXPECT_EQ(test::log_texts().front(),
                  "scclib msg type(110) too short. len:" + std::to_string(8 + carried) + ".");
    }
    EXPECT_EQ(scc::read_statistics(scc::stat_addr_move).calls, 0U);
    walk({moves(1, 16), moves(2, 32), moves(1, 17)});
    EXPECT_EQ(test::taken_calls().size(), 3U);
}

int g_moves_without_an_entry = 0;

TEST_F(Dispatch, AReportOfNoMovesIsHandedOn) {
    scc_handlers handlers{};
    handlers.d1x_addr_move = [](std::uint32_t count, const scc_address_move*) {
        g_moves_without_an_entry += count == 0 ? 1 : 0;
    };
    test::use_handlers(handlers);
    walk({item_bytes(110, wire().u32(0).u32(0))});
    EXPECT_EQ(g_moves_without_an_entry, 1);
}

TEST_F(Dispatch, DirectVlansThatAreNotAllThereReachNoHandler) {
    for (const std::size_t carried : {std::size_t{0}, std::size_t{24}, std::size_t{511}}) {
        const test::debugging on;
        walk({item_bytes(213, wire().zeros(8).fill(carried, 0xEE))});
        EXPECT_TRUE(test::taken_calls().empty());
        EXPECT_EQ(test::log_texts(),
                  texts{"scclib msg type(213) too short. len:" + std::to_string(8 + carried) + "."});
    }
    walk({item_bytes(213, wire().zeros(8).fill(512, 0xEE))});
    EXPECT_EQ(test::taken_calls().size(), 1U);
}

TEST_F(Dispatch, ItsLinesCarryTheNameOfTheMessagesFunction) {
    const test::debugging on;
    walk({item_bytes(215, bytes(3)), item_bytes(214, bytes(7)), item_bytes(110, wire().u32(0).u32(1))});
    _scc_lib_async_msg_proc(0, nullptr);
    const std::vector<test::log_line> lines = test::captured_log();
    EXPECT_EQ(lines.size(), 4U);
    for (const test::log_line& line : lines) {
        EXPECT_TRUE(line.whole.starts_with("<_scc_lib_async_msg_proc line:")) << line.whole;
    }
}

// ---- through the receive thread ----------------------------------------------------------------------

using RegisteredDispatch = test::registered_client;

TEST_F(RegisteredDispatch, ItemsOfOneAndOfSeveralMessagesArriveInTheOrderOfTheWire) {
    info.handlers = test::recording_handlers();
    start();
    daemon.send_items(side::async, {mode_item(1), item_bytes(215, bytes(3)), mode_item(2)});
    daemon.send_items(side::async, {item_bytes(210, wire().u32(0).u8(1)), mode_item(3)});
    for (const handler_call& expected :
         {mode_call(1), mode_call(2), handler_call{56, {"8:1"}}, mode_call(3)}) {
        EXPECT_EQ(test::handler_calls().wait(), expected);
    }
    stop();
}

TEST_F(RegisteredDispatch, AMessageWhoseItemsLeadPastItIsRefusedWholeAndTheNextIsRead) {
    info.handlers = test::recording_handlers();
    start();
    bytes hostile = test::message_bytes({mode_item(1), mode_item(2)});
    hostile[5] = 3;  // items
    daemon.send(side::async, hostile);
    daemon.send_items(side::async, {mode_item(9)});
    EXPECT_EQ(test::handler_calls().wait(), mode_call(9));
    stop();
}

// A handler ends the registration: what follows it in the message is not even looked at.
TEST_F(Dispatch, NothingIsLoggedOfWhatFollowsTheEndOfTheRegistration) {
    g_scc_client_cb.handlers.authmode = [](std::uint32_t) { scc::end_generation(); };
    const test::debugging on;
    walk({mode_item(5), item_bytes(401, wire().u32(1).u32(0)), item_bytes(9999, bytes(4))});
    EXPECT_EQ(test::log_texts(), texts{"call authmode notify handler"});
}

}  // namespace
