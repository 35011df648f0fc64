// The result of each kind of request: its handler and arguments, and what is counted and cached.
#include "client/results.h"

#include "client/connection.h"
#include "client/control_block.h"
#include "client/results_support.h"

using test::bytes;
using test::handler_call;
using test::key_bytes;
using test::pointer_to;
using test::Results;
using test::slice;
using test::wire;

namespace {

// Distinct bytes, so that a wrong offset or length shows.
bytes distinct(std::size_t count) {
    bytes all(count);
    for (std::size_t i = 0; i < count; ++i) {
        all[i] = static_cast<std::uint8_t>(i * 7 + i / 251 + 1);
    }
    return all;
}

struct result_case {
    std::uint32_t kind;
    int position;
    bytes data;
    std::vector<std::string> arguments;
};

// Kinds whose handler gets only a pointer to the data.
std::vector<result_case> whole_record_cases() {
    struct place {
        std::uint32_t kind;
        int position;
        std::size_t length;
    };
    const place places[] = {
        {1, 1, 736},   {2, 2, 736},   {3, 3, 736},   {4, 4, 736},   {5, 5, 736},   {6, 6, 736},
        {7, 7, 736},   {10, 11, 736}, {16, 17, 736}, {17, 18, 736}, {18, 19, 736}, {19, 20, 736},
        {20, 21, 736}, {21, 22, 736}, {22, 23, 736}, {25, 26, 736}, {26, 27, 736}, {27, 28, 736},
        {29, 30, 736}, {31, 32, 16},  {32, 33, 16},  {35, 36, 232}, {36, 37, 232}, {37, 38, 208},
        {38, 39, 208}, {39, 40, 16},  {41, 42, 16},  {42, 43, 16},  {51, 51, 736}, {52, 52, 736},
        {53, 53, 736}, {55, 58, 736}, {56, 59, 736}, {59, 68, 736}, {60, 69, 736},
    };
    std::vector<result_case> cases;
    for (const place& place : places) {
        const bytes data = distinct(place.length);
        cases.push_back({place.kind, place.position, data, {pointer_to(data)}});
    }
    return cases;
}

std::vector<result_case> packed_cases() {
    const bytes key = key_bytes(3);
    const bytes ace = distinct(912);
    const bytes vlans = distinct(512);
    const bytes neighbour = distinct(912);
    const bytes key_and_ace = wire().add(key).add(ace);
    return {
        {8, 8, wire().u8(0xFE), {"8:254"}},
        {9, 9, wire().u8(1), {"8:1"}},
        {11, 12, wire().u16(8080).u8(0x81), {"16:8080", "8:129"}},
        {12,
         13,
         wire().u32(0x0A000001).u32(0x00FFFFFF).u8(3).u32(0x80000005).u8(9),
         {"32:167772161", "32:16777215", "8:3", "32:2147483653", "8:9"}},
        {13, 14, wire().u32(0xFFFFFFFF).u8(2), {"32:4294967295", "8:2"}},
        {14, 15, wire().u32(70000).u32(80000).u8(4).u8(5), {"32:70000", "32:80000", "8:4", "8:5"}},
        {15, 16, wire().u32(70000).u32(80000).u8(1).u8(6), {"32:70000", "32:80000", "8:6"}},
        {23, 24, wire().u32(65535).u8(1), {"32:65535", "8:1"}},
        {24, 25, wire().u32(5).add(key).u8(7), {"32:5", pointer_to(key), "8:7"}},
        {28, 29, wire().u32(11).u32(12).u8(13), {"32:11", "32:12", "8:13"}},
        {30, 31, wire().add(neighbour).u8(200), {pointer_to(neighbour), "8:200"}},
        {33, 34, key_and_ace, {pointer_to(key), pointer_to(ace)}},
        {34, 35, key_and_ace, {pointer_to(key), pointer_to(ace)}},
        {40, 41, wire().add(key).u32(100).u32(10), {pointer_to(key), "32:100", "32:10"}},
        {43, 44, wire().add(key).u64(0x1122334455667788), {pointer_to(key), "64:1234605616436508552"}},
        {44, 45, wire().u32(77).u8(1), {"32:77", "8:1"}},
        {45, 46, wire().u8(3), {"8:3"}},
        {50, 50, wire().text("efacl 11byt"), {pointer_to(wire().text("efacl 11")), "i32:11"}},
        {54, 54, wire().u32(21).u8(1), {"32:21", "8:1"}},
        {57, 60, wire().u32(0xAAAAAAAA).u8(0xC1).zeros(3).u32(30).u32(40), {"8:193", "32:30", "32:40"}},
        {58, 62, wire().u32(0xAAAAAAAA).u8(0xD2).zeros(3).add(vlans), {"8:210", pointer_to(vlans)}},
    };
}

std::vector<result_case> all_cases() {
    std::vector<result_case> cases = whole_record_cases();
    for (result_case& packed : packed_cases()) {
        cases.push_back(std::move(packed));
    }
    return cases;
}

using counts = std::vector<std::vector<std::uint32_t>>;

TEST_F(Results, EachOfTheFiftySixKindsReachesItsHandlerAloneWithItsArguments) {
    const std::vector<result_case> cases = all_cases();
    EXPECT_EQ(cases.size(), 56U);
    for (const result_case& row : cases) {
        SCOPED_TRACE(row.kind);
        save(1000 + row.kind, row.kind, row.data);
        deliver(1000 + row.kind, 5);
        std::vector<std::string> expected{"32:5", "32:" + std::to_string(1000 + row.kind)};
        expected.insert(expected.end(), row.arguments.begin(), row.arguments.end());
        EXPECT_EQ(test::taken_calls(), std::vector<handler_call>({{row.position, expected}}));
        EXPECT_EQ(scc::pending_calls(), 0U);
    }
}

TEST_F(Results, AMissingHandlerDropsTheResultInSilenceAndFreesTheCall) {
    test::use_handlers(scc_handlers{});
    const test::debugging on;
    for (const result_case& row : all_cases()) {
        SCOPED_TRACE(row.kind);
        save(9, row.kind, row.data);
        deliver(9, 5);
        EXPECT_EQ(scc::pending_calls(), 0U);
    }
    EXPECT_TRUE(test::taken_calls().empty());
    EXPECT_TRUE(test::captured_log().empty());
}

TEST_F(Results, KindsOutsideTheTableAreLoggedAsUnknownAndTheirCallsAreFreed) {
    for (const std::uint32_t kind : {0U, 46U, 47U, 48U, 49U, 61U, 62U, 100U, 0x7FFFFFFFU}) {
        SCOPED_TRACE(kind);
        const test::debugging on;
        save(9, kind, distinct(736));
        deliver(9, 0);
        EXPECT_EQ(test::log_texts(),
                  std::vector<std::string>{"unknown scclib call ret id(" + std::to_string(kind) + ")."});
        EXPECT_EQ(scc::pending_calls(), 0U);
    }
    EXPECT_TRUE(test::taken_calls().empty());
    EXPECT_EQ(counted(), counts{});
}

TEST_F(Results, ASuccessfulResultOfAnUnknownKindStillReachesTheCacheWhenItIsEnabled) {
    const test::debugging on;
    g_scc_client_cb.option.store(1);
    save(9, 47, key_bytes(1));
    deliver(9, 0);
    EXPECT_EQ(test::log_texts(),
              (std::vector<std::string>{"unknown scclib call ret id(47).", "unknown scclib call id(47)"}));
    EXPECT_EQ(held_acls(), 0U);
}

TEST_F(Results, IdsAndKindsAreLoggedAsSignedNumbers) {
    const test::debugging on;
    g_scc_client_cb.option.store(1);
    deliver(0xFFFFFFFF, 0);
    save(0x80000000, 0xFFFFFFFE, key_bytes(1));
    deliver(0x80000000, 0);
    EXPECT_EQ(test::log_texts(),
              (std::vector<std::string>{"no such call id:-1 in scc lib", "unknown scclib call ret id(-2).",
                                        "unknown scclib call id(-2)"}));
}

TEST_F(Results, AFailureOfAnUnknownKindDoesNotReachTheCache) {
    const test::debugging on;
    g_scc_client_cb.option.store(1);
    save(9, 47, key_bytes(1));
    deliver(9, 1);
    EXPECT_EQ(test::log_texts(), std::vector<std::string>{"unknown scclib call ret id(47)."});
}

TEST_F(Results, TheCacheLogsEachSuccessThatChangesNoAclUnlessTheOptionIsZero) {
    for (const result_case& row : all_cases()) {
        if ((row.kind >= 31 && row.kind <= 34) || row.kind == 40) {
            continue;
        }
        SCOPED_TRACE(row.kind);
        const std::vector<std::string> unknown{"unknown scclib call id(" + std::to_string(row.kind) + ")"};
        const auto logged_under = [&row](std::uint8_t option, std::uint32_t result) {
            const test::debugging on;
            g_scc_client_cb.option.store(option);
            save(9, row.kind, row.data);
            deliver(9, result);
            return test::log_texts();
        };
        EXPECT_EQ(logged_under(1, 0), unknown);
        EXPECT_EQ(logged_under(2, 0), unknown);
        EXPECT_TRUE(logged_under(1, 2005).empty());
        EXPECT_TRUE(logged_under(0, 0).empty());
    }
    EXPECT_EQ(held_acls(), 0U);
}

TEST_F(Results, AnIdThatWasNeverIssuedIsLoggedAndNothingElseHappens) {
    const test::debugging on;
    save(9, 31, key_bytes(1));
    deliver(10, 0);
    EXPECT_EQ(test::log_texts(), std::vector<std::string>{"no such call id:10 in scc lib"});
    EXPECT_TRUE(test::taken_calls().empty());
    EXPECT_EQ(scc::pending_calls(), 1U);
    EXPECT_EQ(counted(), counts{});
}

TEST_F(Results, ASecondResultUnderTheSameIdFindsNoCall) {
    const test::debugging on;
    save(9, 45, wire().u8(1));
    deliver(9, 0);
    deliver(9, 0);
    EXPECT_EQ(test::taken_calls(), std::vector<handler_call>({{46, {"32:0", "32:9", "8:1"}}}));
    EXPECT_EQ(test::log_texts(), std::vector<std::string>{"no such call id:9 in scc lib"});
}

TEST_F(Results, OfSeveralCallsUnderOneIdTheOldestIsDeliveredFirst) {
    save(9, 45, wire().u8(1));
    save(9, 45, wire().u8(2));
    deliver(9, 0);
    deliver(9, 0);
    EXPECT_EQ(test::taken_calls(),
              (std::vector<handler_call>{{46, {"32:0", "32:9", "8:1"}}, {46, {"32:0", "32:9", "8:2"}}}));
}

TEST_F(Results, AclAndAceKindsCountTheirOutcomeWithAndWithoutAHandler) {
    struct counted_kind {
        std::uint32_t kind, index;
        std::size_t length;
    };
    const counted_kind kinds[] = {{31, 0, 16},  {32, 1, 16},  {33, 2, 928},
                                  {34, 3, 928}, {35, 4, 232}, {36, 5, 232}};
    for (const bool with_handler : {true, false}) {
        test::use_handlers(with_handler ? test::recording_handlers() : scc_handlers{});
        for (const counted_kind& row : kinds) {
            SCOPED_TRACE(row.kind);
            save(1, row.kind, distinct(row.length));
            deliver(1, 0);
            EXPECT_EQ(counted(), (counts{{row.index, 1, 0}}));
            save(2, row.kind, distinct(row.length));
            deliver(2, 2005);
            EXPECT_EQ(counted(), (counts{{row.index, 0, 1}}));
        }
    }
}

test::event_queue<scc::call_statistics>& counts_inside() {
    static auto* queue = new test::event_queue<scc::call_statistics>;
    return *queue;
}

TEST_F(Results, TheOutcomeIsCountedBeforeTheHandlerRuns) {
    scc_handlers handlers{};
    handlers.acl_create = [](std::uint32_t, std::uint32_t, const scc_acl_key*) {
        counts_inside().push(scc::read_statistics(0));
    };
    handlers.nac_user = [](std::uint32_t, std::uint32_t, const scc_user_record*) {
        counts_inside().push(scc::read_statistics(7));
    };
    test::use_handlers(handlers);
    save(1, 31, key_bytes(1));
    deliver(1, 0);
    save(2, 27, wire().zeros(24).u32(3).to(736));
    deliver(2, 1);
    const auto created = counts_inside().wait();
    const auto deleted = counts_inside().wait();
    ASSERT_TRUE(created && deleted);
    EXPECT_EQ(created->callback_successes, 1U);
    EXPECT_EQ(deleted->callback_failures, 1U);
}

TEST_F(Results, NacUsersAreCountedByTheSavedOperation) {
    for (const bool with_handler : {true, false}) {
        test::use_handlers(with_handler ? test::recording_handlers() : scc_handlers{});
        const auto count = [](std::uint32_t operation, std::uint32_t result) {
            save(1, 27, wire().zeros(24).u32(operation).to(736));
            deliver(1, result);
            return counted();
        };
        EXPECT_EQ(count(1, 0), (counts{{6, 1, 0}}));
        EXPECT_EQ(count(1, 12), (counts{{6, 0, 1}}));
        EXPECT_EQ(count(3, 0), (counts{{7, 1, 0}}));
        EXPECT_EQ(count(3, 12), (counts{{7, 0, 1}}));
        for (const std::uint32_t operation : {0U, 2U, 4U, 0x0100U, 0xFFFFFFFFU}) {
            EXPECT_EQ(count(operation, 0), counts{});
            EXPECT_EQ(count(operation, 12), counts{});
        }
    }
}

TEST_F(Results, NoOtherKindIsCounted) {
    for (const result_case& row : all_cases()) {
        if (row.kind == 27 || (row.kind >= 31 && row.kind <= 36)) {
            continue;
        }
        SCOPED_TRACE(row.kind);
        for (const std::uint32_t result : {0U, 1U}) {
            save(1, row.kind, row.data);
            deliver(1, result);
            EXPECT_EQ(counted(), counts{});
        }
    }
}

TEST_F(Results, TheCacheFollowsASuccessUnderAnyOptionButZero) {
    for (const std::uint8_t option : {std::uint8_t{1}, std::uint8_t{2}, std::uint8_t{255}}) {
        g_scc_client_cb.option.store(option);
        save(1, 31, key_bytes(option));
        deliver(1, 0);
    }
    EXPECT_EQ(held_acls(), 3U);
    save(1, 32, key_bytes(2));
    deliver(1, 0);
    EXPECT_EQ(held_acls(), 2U);
}

TEST_F(Results, TheCacheIsLeftAloneByAFailureAndUnderOptionZero) {
    g_scc_client_cb.option.store(1);
    save(1, 31, key_bytes(1));
    deliver(1, 2010);
    EXPECT_EQ(held_acls(), 0U);
    g_scc_client_cb.option.store(0);
    save(2, 31, key_bytes(1));
    deliver(2, 0);
    EXPECT_EQ(held_acls(), 0U);
}

TEST_F(Results, TheCacheFollowsWithoutAHandlerToo) {
    test::use_handlers(scc_handlers{});
    g_scc_client_cb.option.store(1);
    save(1, 31, key_bytes(1));
    deliver(1, 0);
    EXPECT_EQ(held_acls(), 1U);
}

test::event_queue<std::size_t>& counts_seen() {
    static auto* queue = new test::event_queue<std::size_t>;
    return *queue;
}

// Inside a handler: takes both locks, and makes a call itself.
void look_around(std::uint32_t /*result*/, std::uint32_t call_id, const scc_acl_key* /*key*/) {
    {
        const scc::write_guard guard(scc::acl_lock);
        counts_seen().push(scc::cached_acl_count());
    }
    counts_seen().push(scc::pending_calls());
    const std::uint8_t value = 1;
    EXPECT_EQ(_scc_lib_save_call_data(call_id, 45, &value, 1), 0U);
}

TEST_F(Results, TheHandlerRunsWithoutLocksAndBeforeTheCacheIsUpdated) {
    scc_handlers handlers{};
    handlers.acl_create = look_around;
    test::use_handlers(handlers);
    g_scc_client_cb.option.store(1);
    save(1, 31, key_bytes(1));
    deliver(1, 0);
    EXPECT_EQ(counts_seen().wait(), 0U) << "the cache was updated before the handler ran";
    EXPECT_EQ(counts_seen().wait(), 0U) << "the call was still in the list";
    EXPECT_EQ(held_acls(), 1U);
    EXPECT_EQ(scc::pending_calls(), 1U) << "the handler's own call is gone";
}

// Inside a handler: what an unregistration does, or a query on an event loop that finds the daemon gone.
void end_the_connection(std::uint32_t /*result*/, std::uint32_t /*call_id*/, const scc_acl_key* /*key*/) {
    EXPECT_GE(_scc_lib_client_close(), 0);
    _scc_lib_data_free();
}

TEST_F(Results, TheCacheTakesNothingFromAConnectionThatItsHandlerHasEnded) {
    scc_handlers handlers{};
    handlers.acl_create = end_the_connection;
    test::use_handlers(handlers);
    g_scc_client_cb.option.store(1);
    save(1, 31, key_bytes(1));
    deliver(1, 0);
    EXPECT_EQ(held_acls(), 0U);
}

TEST_F(Results, OfSavedDataThatIsTooShortAreNeitherReadNorCounted) {
    scc_handlers handlers{};
    handlers.addr_learning = [](std::uint32_t, std::uint32_t, std::uint32_t, std::uint8_t) {
        ADD_FAILURE() << "delivered";
    };
    test::use_handlers(handlers);
    save(1, 27, wire().zeros(24));
    save(2, 23, wire().zeros(4));
    for (const std::uint32_t id : {1U, 2U}) {
        const bytes item = wire().u32(id).u32(0);
        _scc_lib_call_ret_proc(item.data());
    }
    for (std::uint32_t code = 0; code <= 12; ++code) {
        EXPECT_EQ(scc::read_statistics(code).callback_successes, 0U) << code;
    }
    EXPECT_EQ(scc::pending_calls(), 0U);
}

TEST_F(Results, OfAnUnknownKindLogNothingWhileTheSwitchIsOff) {
    test::clear_log();
    save(1, 47, wire().zeros(4));
    const bytes item = wire().u32(1).u32(0);
    _scc_lib_call_ret_proc(item.data());
    EXPECT_EQ(test::log_texts(), std::vector<std::string>{});
    EXPECT_EQ(scc::pending_calls(), 0U);
}

// What was saved ends before, in or right after the operation at offset 24.
TEST_F(Results, AUserWhoseOperationWasNotSavedWholeIsNotCounted) {
    test::use_handlers(scc_handlers{});
    for (const int size : {0, 23, 24, 27, 28}) {
        SCOPED_TRACE(size);
        const bytes whole = wire().zeros(24).u32(1);
        // The bytes after the saved ones may be anything: here, an operation.
        ASSERT_EQ(_scc_lib_save_call_data(1, 27, whole.data(), 28), 0U);
        deliver(1, 0);
        EXPECT_EQ(counted(), (counts{{6, 1, 0}}));
        ASSERT_EQ(_scc_lib_save_call_data(1, 27, whole.data(), size), 0U);
        deliver(1, 0);
        EXPECT_EQ(counted(), size == 28 ? (counts{{6, 1, 0}}) : counts{});
    }
}

TEST_F(Results, ACallWithLessThanItsHandlerTakesIsNotDelivered) {
    for (const result_case& row : packed_cases()) {
        if (row.kind == 50) {
            continue;  // takes data of any length
        }
        save(1, row.kind, {});
        deliver(1, 12);
        EXPECT_TRUE(test::taken_calls().empty()) << row.kind;
    }
    EXPECT_EQ(scc::pending_calls(), 0U);
}

}  // namespace
