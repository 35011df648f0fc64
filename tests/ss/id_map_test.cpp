// The id/type map: first in, first out for each id, ordered around the wrap, and its dump.
#include "ss/id_map.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <thread>

#include "client/log.h"
#include "ss/callbacks.h"
#include "ss/service_fixture.h"

using test::bytes;
using test::side;
using test::wire;

namespace {

using IdMap = test::registered_service;

// The counters that the dump lists after the total, in their order.
constexpr const char* pair_names[] = {
    "recover  ", "debug    ",      "acl      ",   "ace      ",      "apply    ", "reseq    ",
    "svi      ", "acl_stat ",      "ace_stat ",   "direct-vlan",    "authmode ", "gbl_eport",
    "cpp      ", "offline_cfg",    "app      ",   "def_read ",      "l4port   ", "user     ",
    "user_read", "user_reinstall", "app_recover", "l4port_recover", "app_with ", "test_cmd "};
constexpr std::size_t pairs = std::size(pair_names);
// After the total, the pairs and the line that begins the list.
constexpr std::size_t first_id_line = 1 + pairs + 1;

// What the dump writes: the other threads may log while it holds the switch.
std::vector<std::string> dumped_lines() {
    test::clear_log();
    _scc_ss_retlist_dump();
    std::vector<std::string> lines;
    for (const test::log_line& line : test::captured_log()) {
        if (line.whole.starts_with("<_scc_ss_retlist_dump ")) {
            lines.push_back(line.text);
        }
    }
    return lines;
}

// What follows the counters.
std::vector<std::string> dumped_ids() {
    const auto lines = dumped_lines();
    EXPECT_GE(lines.size(), first_id_line);
    return {lines.begin() + first_id_line, lines.end()};
}

TEST_F(IdMap, GivesTheTypesOfAnIdBackInTheirOrderAndForgetsTheIdThen) {
    const test::debugging on;
    _scc_ss_save_idtype(9, 5);
    _scc_ss_save_idtype(9, 7);
    _scc_ss_save_idtype(9, 5);
    _scc_ss_save_idtype(8, 65535);
    EXPECT_EQ(test::log_texts(),
              (std::vector<std::string>{"save type node id:9 type:5.", "save type node id:9 type:7.",
                                        "save type node id:9 type:5.", "save type node id:8 type:65535."}));
    EXPECT_EQ(_scc_ss_get_type(9), 5);
    EXPECT_EQ(_scc_ss_get_type(9), 7);
    EXPECT_NE(_scc_ss_find_idtype(9), nullptr);
    EXPECT_EQ(_scc_ss_get_type(9), 5);
    EXPECT_EQ(_scc_ss_find_idtype(9), nullptr);
    EXPECT_EQ(_scc_ss_get_type(8), 65535);
    EXPECT_EQ(g_ss_id_map_root.node, nullptr);
}

TEST_F(IdMap, AnUnknownIdHasTypeZeroAndALogLine) {
    _scc_ss_save_idtype(9, 5);
    const test::debugging on;
    EXPECT_EQ(_scc_ss_get_type(10), 0);
    EXPECT_EQ(test::log_texts(), std::vector<std::string>{"no idtype_node."});
    EXPECT_EQ(_scc_ss_get_type(9), 5);
}

TEST_F(IdMap, AnIdWithoutTypesIsRemovedWithALogLine) {
    auto* node = static_cast<scc::scc_ss_id_node*>(std::malloc(sizeof(scc::scc_ss_id_node)));
    ASSERT_NE(node, nullptr);
    node->id = 12;
    node->types.next = &node->types;
    node->types.prev = &node->types;
    ASSERT_TRUE(_scc_ss_add_idtype(node));
    const test::debugging on;
    EXPECT_EQ(_scc_ss_get_type(12), 0);
    EXPECT_EQ(test::log_texts(), std::vector<std::string>{"no type list."});
    EXPECT_EQ(_scc_ss_find_idtype(12), nullptr);
}

TEST_F(IdMap, AnIdWithoutTypesIsRemovedInSilenceWhileTheSwitchIsOff) {
    test::clear_log();
    _scc_ss_save_idtype(12, 1);
    scc::scc_ss_id_node* node = _scc_ss_find_idtype(12);
    ASSERT_NE(node, nullptr);
    auto* type = reinterpret_cast<scc::scc_ss_type_node*>(node->types.next);
    scc::list_del(&type->link);
    std::free(type);
    EXPECT_EQ(_scc_ss_get_type(12), 0);
    EXPECT_EQ(_scc_ss_find_idtype(12), nullptr);
    EXPECT_EQ(test::log_texts(), std::vector<std::string>{});
}

TEST_F(IdMap, RefusesASecondNodeOfAnId) {
    _scc_ss_save_idtype(12, 1);
    scc::scc_ss_id_node other{};
    other.id = 12;
    EXPECT_FALSE(_scc_ss_add_idtype(&other));
    EXPECT_EQ(_scc_ss_get_type(12), 1);
}

TEST_F(IdMap, IsDumpedInTheOrderOfTheWrap) {
    start_with_all_handlers();
    for (const std::uint32_t id : {0U, 0xFFFFFFFEU, 1U, 0xFFFFFFFFU}) {
        send(149, wire().u32(id).u32(1).u32(1), 5);
        called(16);
    }
    expect_nothing_more();
    EXPECT_EQ(dumped_ids(), (std::vector<std::string>{"[id:-2] ", "[id:-1] ", "[id:0] ", "[id:1] "}));
}

TEST_F(IdMap, IdsOnBothSidesOfTheSignBitFollowTheirDifference) {
    for (const std::uint32_t id : {0x80000001U, 0x7FFFFFFFU, 0x80000000U}) {
        _scc_ss_save_idtype(id, 1);
    }
    EXPECT_EQ(dumped_ids(),
              (std::vector<std::string>{"[id:2147483647] ", "[id:-2147483648] ", "[id:-2147483647] "}));
}

TEST_F(IdMap, IsEmptiedByTheServicesRegistration) {
    _scc_ss_save_idtype(9, 5);
    _scc_ss_save_idtype(9, 6);
    _scc_ss_save_idtype(10, 7);
    start();
    EXPECT_EQ(_scc_ss_get_type(9), 0);
    EXPECT_EQ(_scc_ss_get_type(10), 0);
    EXPECT_EQ(g_ss_id_map_root.node, nullptr);
}

TEST_F(IdMap, IsNotEmptiedByARegistrationThatFindsNoDirectory) {
    _scc_ss_save_idtype(9, 5);
    unsetenv("TMPDIR");
    EXPECT_EQ(scc_ss_reg(&info), 5U);
    EXPECT_EQ(scc_ss_reg(nullptr), 22U);
    EXPECT_EQ(_scc_ss_get_type(9), 5);
}

TEST_F(IdMap, IsNotEmptiedByASecondRegistration) {
    start();
    _scc_ss_save_idtype(9, 5);
    EXPECT_EQ(scc_ss_reg(&info), 0U);
    EXPECT_EQ(_scc_ss_get_type(9), 5);
}

TEST_F(IdMap, SurvivesAReconnection) {
    start_with_all_handlers();
    send(131, wire().u32(61).zeros(132).u32(1), 11);
    const auto record = test::record_of<scc_ss_acl_operation>(called(1));
    daemon.close_both();
    EXPECT_EQ(test::service_statuses().wait(), 0U);
    daemon.accept_registration();
    EXPECT_EQ(test::service_statuses().wait(), 1U);
    record.callback(&record, sizeof record);
    expect_result(11, wire().u32(61).u32(0).u32(131));
}

TEST_F(IdMap, IsSharedByAllOperations) {
    start_with_all_handlers();
    send(149, wire().u32(5).u32(1).u32(1), 21);
    send(131, wire().u32(5).zeros(132).u32(1), 22);
    called(16);
    const auto record = test::record_of<scc_ss_acl_operation>(called(1));
    record.callback(&record, sizeof record);
    EXPECT_EQ(scc_ssc_nacm_def_read_callback(0, 5, 0, 0), 0U);
    expect_result(21, wire().u32(5).u32(0).u32(131));
    expect_result(22, wire().u32(5).u32(0).u32(149));
}

// Within 2^31 of one another and across the wrap, in no particular order.
TEST_F(IdMap, Holds100000IdsWithTwoTypesEach) {
    constexpr std::uint32_t count = 100000;
    const auto id_of = [](std::uint32_t i) { return 0xE0000000U + i * 7919U; };
    const auto shuffled = [](std::uint32_t i) { return static_cast<std::uint32_t>(i * 48271ULL % count); };
    for (std::uint32_t i = 0; i < count; ++i) {
        const std::uint32_t k = shuffled(i);
        _scc_ss_save_idtype(id_of(k), static_cast<std::uint16_t>(k % 60000 + 1));
        _scc_ss_save_idtype(id_of(k), static_cast<std::uint16_t>(k % 60000 + 2));
    }
    std::uint32_t seen = 0;
    for (scc::rb_node* node = scc_rb_first(&g_ss_id_map_root); node != nullptr; node = scc_rb_next(node)) {
        ASSERT_EQ(reinterpret_cast<scc::scc_ss_id_node*>(node)->id, id_of(seen));
        ++seen;
    }
    EXPECT_EQ(seen, count);
    for (std::uint32_t i = 0; i < count; ++i) {
        const std::uint32_t k = shuffled(count - 1 - i);
        ASSERT_EQ(_scc_ss_get_type(id_of(k)), k % 60000 + 1);
    }
    for (std::uint32_t k = 0; k < count; ++k) {
        ASSERT_EQ(_scc_ss_get_type(id_of(k)), k % 60000 + 2);
    }
    EXPECT_EQ(g_ss_id_map_root.node, nullptr);
}

// ---- the dump

bytes dump_command() {
    return wire().zeros(32).u32(3).u32(1);
}

TEST_F(IdMap, ADebugCommand3DumpsWithTheSwitchOffAndLeavesItOff) {
    start_with_all_handlers();
    send(149, wire().u32(5).u32(1).u32(1), 21);
    called(16);
    expect_nothing_more();
    test::clear_log();
    send(206, dump_command());
    EXPECT_TRUE(test::wait_for_log("[id:5] "));
    expect_nothing_more();
    EXPECT_EQ(scc_lib_debug.load(), 0);
    const auto texts = test::log_texts();
    EXPECT_EQ(texts.back(), "[id:5] ");
    for (const char* text : {"scclib debug open.", "scclib debug close.", "lib proc msg done.\n"}) {
        EXPECT_FALSE(test::logged(text)) << text;
    }
    const auto line = test::captured_log().back();
    EXPECT_EQ(line.level, 7);
    EXPECT_EQ(line.module, "SCCLIB");
    EXPECT_EQ(line.submodule, "DETAIL");
    EXPECT_EQ(line.flag, 2);
    EXPECT_TRUE(line.whole.starts_with("<_scc_ss_retlist_dump    line:")) << line.whole;
}

TEST_F(IdMap, ADumpWithTheSwitchOnLeavesItOn) {
    start();
    const test::debugging on;
    _scc_ss_retlist_dump();
    EXPECT_EQ(scc_lib_debug.load(), 1);
}

// Ids 1 to 200 are always there; those above come and go while the dump walks the tree.
TEST_F(IdMap, ADumpShowsTheOutstandingIdsInOrderWhileOthersComeAndGo) {
    for (std::uint32_t id = 1; id <= 200; ++id) {
        _scc_ss_save_idtype(id, 5);
    }
    std::atomic<bool> over{false};
    std::atomic<int> rounds{0};
    std::thread answering([&] {
        while (!over) {
            for (std::uint32_t id = 1000; id > 200; --id) {
                _scc_ss_save_idtype(id, 6);
            }
            for (std::uint32_t id = 201; id <= 1000; ++id) {
                EXPECT_EQ(_scc_ss_get_type(id), 6);
            }
            ++rounds;
        }
    });
    for (int dumps = 0; dumps < 10 || rounds < 2; ++dumps) {
        const auto ids = dumped_ids();
        ASSERT_GE(ids.size(), 200U);
        int last = 0;
        for (const std::string& text : ids) {
            ASSERT_TRUE(text.starts_with("[id:")) << text;
            const int id = std::stoi(text.substr(4));
            ASSERT_LT(last, id);
            ASSERT_TRUE(last >= 200 || id == last + 1);
            last = id;
        }
    }
    over = true;
    answering.join();
}

TEST_F(IdMap, OtherDebugCommandsDumpNothing) {
    start();
    test::clear_log();
    send(206, wire().zeros(24).u32(1).zeros(4).u32(1));
    EXPECT_TRUE(test::wait_for_log("scclib debug open."));
    send(206, wire().zeros(24).u32(0).zeros(4).u32(2));
    EXPECT_TRUE(test::wait_for_log("unknown debug cmd."));
    send(206, wire().zeros(24).u32(0).zeros(4).u32(1));
    EXPECT_TRUE(test::wait_for_log("scclib debug close."));
    expect_nothing_more();
    EXPECT_EQ(scc_lib_debug.load(), 0);
    EXPECT_FALSE(test::logged("dump ss list."));
}

// A name's column is 15 wide; the star stands where something awaits its result.
TEST_F(IdMap, TheDumpShowsEveryCounterPairAndMarksTheOpenOnes) {
    start_with_all_handlers();
    send(149, wire().u32(5).u32(1).u32(1), 21);
    called(16);
    send(154, wire().u32(1).u32(0).u32(2).u32(1).zeros(88));
    called(21);
    _scc_ss_save_idtype(6, 1);
    scc_ss_acl_operation record{};
    record.id = 6;
    _scc_ss_acl_op_ret_callback(&record, sizeof record);
    daemon.read_item(side::async);
    expect_nothing_more();
    // Counted after its answer, so another message must follow.
    send(213, wire().zeros(520));
    called(13);
    const auto texts = dumped_lines();
    ASSERT_EQ(texts.size(), first_id_line + 1);
    EXPECT_EQ(texts[0], "ss-stat: recv_cnt(4) callback_cnt(2).");
    EXPECT_EQ(texts[1], "fun(recover        ) : rcv(1), cb(1).  ");
    EXPECT_EQ(texts[2], "fun(debug          ) : rcv(0), cb(0).  ");
    EXPECT_EQ(texts[3], "fun(acl            ) : rcv(0), cb(1). *");
    EXPECT_EQ(texts[15], "fun(app            ) : rcv(0), cb(0).  ");
    EXPECT_EQ(texts[16], "fun(def_read       ) : rcv(1), cb(0). *");
    EXPECT_EQ(texts[20], "fun(user_reinstall ) : rcv(0), cb(0).  ");
    EXPECT_EQ(texts[21], "fun(app_recover    ) : rcv(1), cb(1).  ");
    EXPECT_EQ(texts[24], "fun(test_cmd       ) : rcv(0), cb(0).  ");
    EXPECT_EQ(texts[first_id_line - 1], "dump ss list.");
    EXPECT_EQ(texts[first_id_line], "[id:5] ");
}

TEST_F(IdMap, TheDumpNamesThePairsInTheirOrder) {
    const auto texts = dumped_lines();
    ASSERT_EQ(texts.size(), first_id_line);
    for (std::size_t i = 0; i < pairs; ++i) {
        EXPECT_TRUE(texts[i + 1].starts_with("fun(" + std::string(pair_names[i]))) << texts[i + 1];
        EXPECT_EQ(texts[i + 1].substr(19), ") : rcv(0), cb(0).  ");
    }
}

// ---- its shape

int height(const scc::rb_node* node) {
    return node == nullptr ? 0 : 1 + std::max(height(node->left), height(node->right));
}

// The daemon counts its ids upwards, which is the worst order for a tree.
TEST_F(IdMap, StaysFlatWhenIdsComeInTheirOrder) {
    for (std::uint32_t id = 1; id <= 1000; ++id) {
        _scc_ss_save_idtype(id, 5);
    }
    EXPECT_LE(height(g_ss_id_map_root.node), 20);  // twice the logarithm of 1001
}

}  // namespace
