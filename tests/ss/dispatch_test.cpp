// Dispatching a message's items to the operations: order, unknown types, values that are too short.
#include <array>

#include "client/log.h"
#include "ss/service.h"
#include "ss/service_fixture.h"

using test::bytes;
using test::item_bytes;
using test::side;
using test::wire;

namespace {

using Dispatch = test::registered_service;

// The 27 types, and how much of a value each of them needs: what is read, and the records that the handler
// is promised; lists are empty.
struct type_row {
    std::uint16_t type;
    std::size_t least_bytes;
};

constexpr type_row known_types[] = {
    {131, 140}, {132, 940}, {133, 244}, {138, 28}, {140, 36},  {141, 36}, {142, 12}, {143, 8},  {148, 16},
    {149, 12},  {150, 20},  {151, 96},  {152, 96}, {153, 12},  {154, 16}, {155, 4},  {158, 24}, {163, 12},
    {201, 9},   {205, 4},   {206, 36},  {209, 16}, {213, 520}, {214, 8},  {312, 36}, {313, 36}, {318, 0},
};

bool is_known(std::uint32_t type) {
    for (const type_row& row : known_types) {
        if (row.type == type) {
            return true;
        }
    }
    return false;
}

std::string unknown_text(std::uint32_t type) {
    return "unknown scclib msg type(" + std::to_string(type) + ").";
}

TEST_F(Dispatch, AnUnknownTypeBetweenTwoOperationsIsLoggedAndSkipped) {
    start_with_all_handlers();
    const test::debugging on;
    daemon.send_items(side::async, {item_bytes(131, wire().u32(1).zeros(132).u32(1), 10),
                                    item_bytes(999, wire().u32(2), 11),
                                    item_bytes(132, wire().u32(3).zeros(932).u32(0), 12)});
    EXPECT_EQ(test::u32_at(called(1), 0), 1U);
    EXPECT_EQ(test::u32_at(called(4), 0), 3U);
    EXPECT_TRUE(test::wait_for_log("lib proc msg done.\n"));
    for (const char* text : {"scc-type:10, ss-type:131", "scc-type:11, ss-type:999",
                             "scc-type:12, ss-type:132", "unknown scclib msg type(999)."}) {
        EXPECT_TRUE(test::logged(text)) << text;
    }
}

TEST_F(Dispatch, EveryTypeOutsideTheTableIsUnknown) {
    for (std::uint32_t type = 0; type <= 0xFFFF; type += type < 500 ? 1 : 997) {
        if (is_known(type)) {
            continue;
        }
        const test::debugging on;
        const bytes item = item_bytes(static_cast<std::uint16_t>(type), wire().zeros(1000), 3);
        _scc_ss_async_msg_proc(1, item.data());
        EXPECT_EQ(test::log_texts(), (std::vector<std::string>{"scc-type:3, ss-type:" + std::to_string(type),
                                                               unknown_text(type)}));
    }
}

TEST_F(Dispatch, AProbeAndAnApplicationsResultAreUnknownHere) {
    start_with_all_handlers();
    const test::debugging on;
    send(319, wire().zeros(8));
    send(401, wire().u32(1).u32(0));
    expect_nothing_more();
    EXPECT_TRUE(test::logged(unknown_text(319)));
    EXPECT_TRUE(test::logged(unknown_text(401)));
    // Nothing was answered on the other socket either.
    EXPECT_EQ(scc_ss_fetch_func(), 0U);
    EXPECT_EQ(daemon.read_item(side::sync).type, 204);
}

TEST_F(Dispatch, EachTypeOfTheTableIsKnown) {
    start_with_all_handlers();
    for (const type_row& row : known_types) {
        const test::debugging on;
        send(row.type, bytes(1000));
        EXPECT_TRUE(test::wait_for_log("lib proc msg done.\n"));
        EXPECT_FALSE(test::logged(unknown_text(row.type)));
    }
}

TEST_F(Dispatch, AValueThatIsTooShortIsLoggedAndSkippedAndTheNextItemRuns) {
    start_with_all_handlers();
    for (const type_row& row : known_types) {
        for (const std::size_t length : {std::size_t{0}, row.least_bytes / 2, row.least_bytes - 1}) {
            if (row.least_bytes == 0) {
                continue;
            }
            SCOPED_TRACE(row.type);
            const test::debugging on;
            daemon.send_items(side::async, {item_bytes(row.type, bytes(length)),
                                            item_bytes(163, wire().u32(1).u32(1).u32(1))});
            called(12);  // and nothing before
            EXPECT_TRUE(test::logged("scclib msg type(" + std::to_string(row.type) +
                                     ") too short. len:" + std::to_string(length) + "."));
        }
    }
}

TEST_F(Dispatch, AValueCutAtAnyOffsetOfAnyTypeReachesNoHandler) {
    start_with_all_handlers();
    for (const type_row& row : known_types) {
        SCOPED_TRACE(row.type);
        const bytes whole = test::pattern(row.least_bytes, 1);
        std::vector<bytes> items;
        for (std::size_t cut = 0; cut < row.least_bytes; ++cut) {
            items.push_back(item_bytes(row.type, test::slice(whole, 0, cut), 3));
        }
        if (items.empty()) {
            continue;
        }
        const test::debugging on;
        daemon.send_items(side::async, items);
        EXPECT_TRUE(test::wait_for_log("lib proc msg done.\n"));
        const auto texts = test::log_texts();
        ASSERT_EQ(texts.size(), 2 * row.least_bytes + 2);
        for (std::size_t cut = 0; cut < row.least_bytes; ++cut) {
            EXPECT_EQ(texts[2 * cut + 2], "scclib msg type(" + std::to_string(row.type) +
                                              ") too short. len:" + std::to_string(cut) + ".");
        }
    }
    EXPECT_EQ(test::handler_calls().size(), 0U);
    expect_nothing_more();
}

// The header is right about what follows it; the item is not.
TEST_F(Dispatch, AMessageWhoseItemIsCutAtAnyOffsetIsRefusedWhole) {
    start_with_all_handlers();
    for (const type_row& row : known_types) {
        const bytes item = item_bytes(row.type, test::pattern(row.least_bytes, 1), 3);
        wire hostile;
        for (std::size_t cut = 0; cut < item.size(); ++cut) {
            hostile.u32(static_cast<std::uint32_t>(8 + cut)).u8(1).u16(1).u8(0);
            hostile.add(test::slice(item, 0, cut));
        }
        // More items than there are, and lengths that point far away or wrap.
        for (const std::uint16_t count : std::initializer_list<std::uint16_t>{2, 0xFFFF}) {
            hostile.u32(static_cast<std::uint32_t>(8 + item.size())).u8(1).u16(count).u8(0).add(item);
        }
        for (const std::uint32_t length : {0x7FFFFFFFU, 0xFFFFFFF8U, 0xFFFFFFFFU}) {
            hostile.u32(static_cast<std::uint32_t>(8 + item.size())).u8(1).u16(1).u8(0);
            hostile.add(test::with_u32(item, 0, length));
        }
        daemon.send(side::async, hostile);
    }
    expect_nothing_more();
    EXPECT_EQ(test::handler_calls().size(), 0U);
    EXPECT_EQ(scc_ss_fetch_func(), 0U);
    EXPECT_EQ(daemon.read_item(side::sync).type, 204);
}

struct list_row {
    std::uint16_t type;
    bytes head;  // the bytes before the count
    std::size_t element_bytes;
    int slot;
};

// An incomplete list. In the last rows, the count times the size of an entry wraps at 32 bits to less than
// the list.
TEST_F(Dispatch, AListThatIsNotAllThereReachesNoHandler) {
    start_with_all_handlers();
    const list_row rows[] = {{154, wire().u32(5).u32(0).u32(76), 88, 21}, {155, {}, 4, 22}};
    for (const list_row& row : rows) {
        SCOPED_TRACE(row.type);
        const std::uint32_t wraps = row.element_bytes == 88 ? 0x20000000U : 0x40000000U;
        const std::pair<std::uint32_t, std::size_t> short_ones[] = {
            {1, 0},         {1, row.element_bytes - 1},     {3, 2 * row.element_bytes + 1},
            {wraps, 0},     {wraps + 1, row.element_bytes}, {0xFFFFFFFF, 64},
            {0x80000000, 0}};
        for (const auto& [count, carried] : short_ones) {
            SCOPED_TRACE(count);
            const test::debugging on;
            const bytes value = wire().add(row.head).u32(count).fill(carried, 0xEE);
            daemon.send_items(side::async,
                              {item_bytes(row.type, value), item_bytes(163, wire().u32(1).u32(1).u32(1))});
            called(12);  // and nothing before
            EXPECT_TRUE(test::logged("scclib msg type(" + std::to_string(row.type) +
                                     ") too short. len:" + std::to_string(value.size()) + "."));
        }
        const bytes list = test::pattern(3 * row.element_bytes, 0x31);
        send(row.type, wire().add(row.head).u32(3).add(list));
        EXPECT_EQ(test::slice(called(row.slot), row.type == 154 ? 12 : 4, list.size()), list);
    }
}

TEST_F(Dispatch, ATooShortItemCountsInTheTotalAlone) {
    start_with_all_handlers();
    for (const auto& [type, pair] :
         {std::pair<std::uint16_t, std::uint32_t>{154, 21}, {155, 22}, {213, 10}}) {
        send(type, type == 213 ? bytes(519) : bytes(wire().zeros(type == 154 ? 12 : 0).u32(1)));
        expect_nothing_more();
        EXPECT_EQ((*ss_stat)[pair].received, 0U);
        EXPECT_EQ((*ss_stat)[pair].answered, 0U);
    }
    EXPECT_EQ((*ss_stat)[0].received, 6U);
}

TEST_F(Dispatch, ItsLinesCarryTheNameOfTheMessagesFunction) {
    const test::debugging on;
    for (const bytes& item :
         {item_bytes(999, bytes(3)), item_bytes(214, bytes(7)), item_bytes(155, wire().u32(1))}) {
        _scc_ss_async_msg_proc(1, item.data());
    }
    _scc_ss_async_msg_proc(0, nullptr);
    const std::vector<test::log_line> lines = test::captured_log();
    EXPECT_EQ(lines.size(), 7U);
    for (const test::log_line& line : lines) {
        EXPECT_TRUE(line.whole.starts_with("<_scc_ss_async_msg_proc ")) << line.whole;
    }
}

// The cache's display reads a mode, and for some modes three words of an ACL after it.
TEST_F(Dispatch, ADumpCommandCutInsideItsDataDumpsNothing) {
    start();
    test::clear_log();
    std::vector<bytes> items;
    for (const std::uint32_t mode : {0U, 1U, 2U, 3U, 4U}) {
        const bytes whole = wire().zeros(32).u32(3).u32(mode).u32(1).u32(5).u32(300);
        const std::size_t least = mode == 1 || mode == 3 ? 40 : 52;
        for (std::size_t cut = 33; cut < least; ++cut) {
            items.push_back(item_bytes(206, test::slice(whole, 0, cut)));
        }
    }
    daemon.send_items(side::async, items);
    expect_nothing_more();
    EXPECT_EQ(test::log_texts(), std::vector<std::string>{});
}

TEST_F(Dispatch, AValueOfExactlyTheLeastLengthRuns) {
    start_with_all_handlers();
    for (const type_row& row : known_types) {
        SCOPED_TRACE(row.type);
        const test::debugging on;
        send(row.type, bytes(row.least_bytes));
        EXPECT_TRUE(test::wait_for_log("lib proc msg done.\n"));
        for (const std::string& text : test::log_texts()) {
            EXPECT_EQ(text.find("too short"), std::string::npos) << text;
        }
    }
}

TEST_F(Dispatch, AValueLongerThanItsOperationReadsIsSteppedOver) {
    start_with_all_handlers();
    daemon.send_items(side::async, {item_bytes(143, wire().u32(1).u32(1).zeros(5001)),
                                    item_bytes(149, wire().u32(2).u32(3).u32(4).zeros(1)),
                                    item_bytes(163, wire().u32(3).u32(1).u32(1))});
    EXPECT_EQ(test::u32_at(called(8), 0), 1U);
    EXPECT_EQ(called(16), bytes(wire().u32(2).u32(3).u32(4)));
    EXPECT_EQ(test::u32_at(called(12), 0), 3U);
}

TEST_F(Dispatch, AMessageOf2000ItemsRunsInTheOrderOfTheWire) {
    start_with_all_handlers();
    std::vector<bytes> items;
    for (std::uint32_t id = 0; id < 2000; ++id) {
        items.push_back(item_bytes(149, wire().u32(id).u32(1).u32(2), 5));
    }
    daemon.send_items(side::async, items);
    for (std::uint32_t id = 0; id < 2000; ++id) {
        ASSERT_EQ(called(16), bytes(wire().u32(id).u32(1).u32(2)));
    }
}

TEST_F(Dispatch, NoItemsOrANullPointerIsLoggedAndIgnored) {
    const test::debugging on;
    const bytes item = item_bytes(143, wire().u32(1).u32(1));
    _scc_ss_async_msg_proc(0, item.data());
    _scc_ss_async_msg_proc(0x10000, item.data());
    _scc_ss_async_msg_proc(3, nullptr);
    EXPECT_EQ(test::log_texts(), (std::vector<std::string>{"input param invalid. tlv_num(0).",
                                                           "input param invalid. tlv_num(0).",
                                                           "input param invalid. tlv_num(3)."}));
}

TEST_F(Dispatch, VlansAndAuthenticationModeGoToTheHandlersOfTheRegistration) {
    start_with_all_handlers();
    const bytes vlans = test::pattern(512, 0x61);
    send(213, wire().u32(0xEEEEEEEE).u32(0xEEEEEEEE).add(vlans));
    EXPECT_EQ(called(13), vlans);
    const test::debugging on;
    send(214, wire().u32(0xEEEEEEEE).u32(3));
    EXPECT_EQ(called(14), bytes(wire().u32(3)));
    EXPECT_TRUE(test::logged("call authmode notify handler"));
    expect_nothing_more();
}

TEST_F(Dispatch, VlansAndAuthenticationModeWithoutHandlersAreIgnored) {
    start();
    const test::debugging on;
    send(213, wire().zeros(520));
    send(214, wire().u32(0).u32(3));
    expect_nothing_more();
    EXPECT_TRUE(test::logged("ignore direct vlan notify msg"));
    EXPECT_TRUE(test::logged("ignore authmode notify msg"));
}

// Entry 0: one create, called and answered with success; entry 6: one user added. The columns: index,
// calls, call successes, callback successes, call failures, callback failures.
TEST_F(Dispatch, ACollectionIsAnsweredWithTheStatisticsUnderAppId16) {
    start();
    const test::debugging on;
    send(131, wire().u32(1).zeros(132).u32(1));
    send(151, wire().u32(2).u8(1).zeros(91));
    daemon.read_items(side::async, 2);
    send(318, {});
    wire expected;
    expected.u32(16).u32(13);
    expected.u32(0).u32(1).u32(1).u32(1).u32(0).u32(0);
    for (std::uint32_t entry = 1; entry < 13; ++entry) {
        const std::uint32_t calls = entry == 6 ? 1 : 0;
        expected.u32(entry).u32(calls).u32(calls).u32(0).u32(0).u32(0);
    }
    const test::received_item item = daemon.read_item(side::sync);
    EXPECT_EQ(item.type, 318);
    EXPECT_EQ(item.sub_id, 0);
    EXPECT_EQ(item.value, expected.get());
    EXPECT_TRUE(test::wait_for_log("send libinfo collect(func_cnt:13) back. rv:0."));
}

// A debug command shows the ACL cache as well, which a service does not have.
TEST_F(Dispatch, ADebugCommand3ShowsTheCacheThenTheServicesOwnState) {
    start();
    test::clear_log();
    send(206, wire().zeros(32).u32(3).u32(3));
    EXPECT_TRUE(test::wait_for_log("dump ss list."));
    const auto lines = test::captured_log();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.front().submodule, "SHOW");
    EXPECT_EQ(lines.front().text, "================== scclib all acl info ===================");
    EXPECT_TRUE(test::logged("Total acl num:0\n"));
    EXPECT_TRUE(test::logged("ss-stat: recv_cnt(1) callback_cnt(0)."));
}

TEST_F(Dispatch, LogsNothingWhileTheSwitchIsOff) {
    start_with_all_handlers();
    test::clear_log();
    for (const type_row& row : known_types) {
        if (row.type != 206) {
            send(row.type, bytes(1000));
        }
    }
    send(999, bytes(10));
    daemon.read_items(side::async, 2);  // of the user read and the data recovery
    expect_nothing_more();
    test::script().returns = 22;
    for (const std::uint16_t type : {std::uint16_t{147}, std::uint16_t{152}}) {
        send(type, bytes(1000));
    }
    daemon.read_items(side::async, 1);  // of the user read
    expect_nothing_more();
    _scc_ss_async_msg_proc(0, nullptr);
    scc_flow_user user{};
    user.family = 3;
    EXPECT_EQ(scc_noflow_offline_notify(&user, 1, 2, nullptr, 0), 0U);
    EXPECT_EQ(test::log_texts(), std::vector<std::string>{});
}

// What is sent for every type of operation, whole and cut, and what the service does of its own accord.
class DispatchLog : public test::registered_service {
  protected:
    void live() {
        const scc_address_move move{};
        const scc_flow_user user{};
        const scc_acl_key key = {1, 2, 3, 4};
        EXPECT_EQ(scc_ss_reg(nullptr), 22U);
        EXPECT_EQ(scc_ss_fetch_func(), 2004U);
        info = test::all_handlers();
        start();
        EXPECT_EQ(scc_ss_reg(&info), 0U);
        send_everything();
        _scc_ss_handler_clear();
        send_everything();
        EXPECT_EQ(scc_ssc_nacm_app_op_callback(0, 99, 0, 0, 5), 0U);
        EXPECT_EQ(scc_ss_move_addr_notify(0, &move), 22U);
        EXPECT_EQ(scc_ss_move_addr_notify(1, &move), 0U);
        EXPECT_EQ(scc_noflow_offline_notify(&user, 1, 2, nullptr, 0), 0U);
        EXPECT_EQ(scc_flow_notify(&user, 1, 2), 0U);
        EXPECT_EQ(scc_ss_ace_counter_notify(&key, 0, nullptr), 0U);
        EXPECT_EQ(scc_ss_fetch_func(), 0U);
        daemon.close_both();
        daemon.accept_registration();
        send_everything();
    }

  private:
    void send_everything() {
        for (const std::uint16_t type : std::to_array<std::uint16_t>(
                 {131, 132, 133, 138, 140, 141, 142, 143, 148, 149, 150, 151, 152, 153,
                  154, 155, 158, 163, 201, 206, 209, 213, 214, 312, 313, 318, 400, 999})) {
            send(type, bytes(1000));
            send(type, bytes(3));
        }
        send(205, wire().u32(1));
        constexpr std::uint32_t mark = 0xFACADE;
        send(201, wire().u32(mark).u32(9).u8(test::mark_byte));
        while (test::u32_at(daemon.read_item(side::async).value, 0) != mark) {
        }
    }
};

TEST_F(DispatchLog, IsEmptyWhileTheSwitchIsOff) {
    test::clear_log();
    live();
    send(205, wire().u32(0));
    expect_nothing_more();
    EXPECT_EQ(test::log_texts(), std::vector<std::string>{});
}

TEST_F(DispatchLog, TellsOfTheSameLifeWhileTheSwitchIsOn) {
    const test::debugging on;
    live();
    EXPECT_GT(test::captured_log().size(), 300U);
    for (const test::log_line& line : test::captured_log()) {
        EXPECT_EQ(line.submodule, "DETAIL") << line.whole;
        EXPECT_TRUE(line.whole.starts_with('<')) << line.whole;
    }
}

}  // namespace
