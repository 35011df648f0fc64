// Results sent to the daemon: message 402 from inside a handler, later, twice or never.
#include "ss/callbacks.h"

#include <algorithm>
#include <thread>

#include "client/diagnostics.h"
#include "ss/id_map.h"
#include "ss/service.h"
#include "ss/service_fixture.h"

using test::bytes;
using test::script;
using test::side;
using test::wire;
using test::with_u32;

namespace {

using callback = void (*)(const void*, std::uint32_t);

struct Callbacks : test::registered_service {
    // Saves the type that the result then has to carry.
    static scc_ss_acl_operation plain(std::uint32_t id, std::uint32_t ret, std::uint32_t op) {
        scc_ss_acl_operation record{};
        record.id = id;
        record.ret = ret;
        record.op = op;
        return record;
    }

    static scc_ss_counter_operation counter(std::uint32_t id, std::uint32_t sync) {
        scc_ss_counter_operation record{};
        record.id = id;
        record.ret = 0x0A0B0C0D;
        record.op = 9;
        record.key = {1, 5, 300, 9};
        record.ace = 0x1122334455667788;
        record.counter = 0x99AABBCCDDEEFF00;
        record.sync = sync;
        return record;
    }
};

struct plain_row {
    callback function;
    std::uint32_t type_word;
    const char* log_head;
    const char* log_op;
    const char* log_end;
};

constexpr plain_row plain_rows[] = {
    {_scc_ss_acl_op_ret_callback, 131, "_scc_ss_acl_op_ret_callback", "lib op type", ""},
    {_scc_ss_ace_op_ret_callback, 132, "_scc_ss_ace_op_ret_callback", "lib op type", "."},
    {_scc_ss_acl_apply_op_ret_callback, 133, "_scc_ss_acl_apply_ret_callback", "op", ""},
    {_scc_ss_acl_reseq_op_ret_callback, 138, "_scc_ss_acl_reseq_op_ret_callback", "op", ""},
    {_scc_ss_svi_router_acl_op_ret_callback, 143, "_scc_ss_svi_router_acl_op_ret_callback", "op", ""},
    {_scc_ss_global_eport_ret_callback, 142, "_scc_ss_global_eport_ret_callback", "op", ""},
    {_scc_ss_cpp_ret_callback, 163, "_scc_ss_cpp_ret_callback", "op", ""},
};

TEST_F(Callbacks, PlainResultsAreTwelveBytesWithTheSavedTypeAndTheMembersTypeWord) {
    start();
    std::uint32_t id = 1000;
    for (const plain_row& row : plain_rows) {
        SCOPED_TRACE(row.log_head);
        const test::debugging on;
        _scc_ss_save_idtype(++id, 0xBEEF);
        const auto record = plain(id, 4294967291U, 5);
        row.function(&record, sizeof record);
        const std::string text = std::string(row.log_head) +
                                 " send scc_type:48879, type:402, call_id:" + std::to_string(id) +
                                 ", ret:-5, " + row.log_op + ":5" + row.log_end;
        EXPECT_TRUE(test::logged(text)) << text;
        const bytes value = wire().u32(id).u32(4294967291U).u32(row.type_word);
        EXPECT_EQ(daemon.read_item(side::async).value, value);
    }
    expect_nothing_more();
}

TEST_F(Callbacks, APlainResultIsOneBatchedItemOfTheAsynchronousSocket) {
    start();
    _scc_ss_save_idtype(7, 0x0506);
    const auto record = plain(7, 3, 0);
    _scc_ss_acl_op_ret_callback(&record, sizeof record);
    const bytes whole = wire().u32(28).u8(1).u16(1).u8(0).u32(12).u16(0x0506).u16(402).u32(7).u32(3).u32(131);
    EXPECT_EQ(daemon.read(side::async).raw, whole);
}

TEST_F(Callbacks, TheSizeArgumentIsNotUsed) {
    start();
    _scc_ss_save_idtype(7, 0x0506);
    const auto record = plain(7, 3, 0);
    _scc_ss_acl_op_ret_callback(&record, 0);
    expect_result(0x0506, wire().u32(7).u32(3).u32(131));
}

struct family_row {
    std::uint16_t type;
    std::size_t size;
    std::size_t choice_at;  // set to 1; 0 for none
    int slot;
    std::uint32_t type_word;
};

constexpr family_row family_rows[] = {
    {131, 140, 136, 1, 131}, {132, 940, 936, 3, 132}, {133, 244, 240, 5, 133}, {138, 28, 0, 7, 138},
    {143, 8, 4, 8, 143},     {142, 12, 8, 11, 142},   {163, 12, 4, 12, 163},
};

bytes family_value(const family_row& row, std::uint32_t id) {
    bytes value = with_u32(bytes(row.size), 0, id);
    return row.choice_at == 0 ? value : with_u32(value, row.choice_at, 1);
}

TEST_F(Callbacks, AHandlerMayAnswerFromInsideTheCall) {
    start_with_all_handlers();
    script().answers = 1;
    script().ret = 2020;
    std::uint32_t id = 0x80000000;
    for (const family_row& row : family_rows) {
        SCOPED_TRACE(row.type);
        send(row.type, family_value(row, ++id), row.type);
        expect_result(row.type, wire().u32(id).u32(2020).u32(row.type_word));
        called(row.slot);
    }
}

TEST_F(Callbacks, TheServiceMayAnswerLaterFromAnotherThreadWithACopyOfTheRecord) {
    start_with_all_handlers();
    send(131, family_value(family_rows[0], 61), 11);
    send(132, family_value(family_rows[1], 62), 12);
    send(133, family_value(family_rows[2], 63), 13);
    auto acl = test::record_of<scc_ss_acl_operation>(called(1));
    auto ace = test::record_of<scc_ss_ace_operation>(called(3));
    auto apply = test::record_of<scc_ss_apply_operation>(called(5));
    std::thread service([&] {
        apply.ret = 33;
        apply.callback(&apply, sizeof apply);
        ace.ret = 22;
        ace.callback(&ace, sizeof ace);
        acl.ret = 11;
        acl.callback(&acl, sizeof acl);
    });
    service.join();
    expect_result(13, wire().u32(63).u32(33).u32(133));
    expect_result(12, wire().u32(62).u32(22).u32(132));
    expect_result(11, wire().u32(61).u32(11).u32(131));
}

bytes svi_item(std::uint32_t id) {
    return test::item_bytes(143, wire().u32(id).u32(1), static_cast<std::uint16_t>(id));
}

TEST_F(Callbacks, ResultsFromInsideTheHandlerKeepTheOrderOfTheOperationsUnderLoad) {
    start_with_all_handlers();
    script().answers = 1;
    constexpr std::uint32_t count = 5000;
    for (std::uint32_t id = 1; id <= count; id += 50) {
        std::vector<bytes> items;
        for (std::uint32_t i = 0; i < 50; ++i) {
            items.push_back(svi_item(id + i));
        }
        daemon.send_items(side::async, items);
    }
    for (std::uint32_t id = 1; id <= count; ++id) {
        const test::received_item item = daemon.read_item(side::async);
        ASSERT_EQ(item.sub_id, id);
        ASSERT_EQ(item.value, bytes(wire().u32(id).u32(0).u32(143)));
    }
}

TEST_F(Callbacks, SeveralThreadsAnswerEachOperationOnceWithItsOwnType) {
    start_with_all_handlers();
    constexpr std::uint32_t count = 2000;
    std::vector<scc_ss_svi_operation> records;
    for (std::uint32_t id = 1; id <= count; ++id) {
        daemon.send_items(side::async, {svi_item(id)});
    }
    for (std::uint32_t id = 1; id <= count; ++id) {
        records.push_back(test::record_of<scc_ss_svi_operation>(called(8)));
    }
    std::vector<std::thread> service;
    for (std::size_t first = 0; first < 4; ++first) {
        service.emplace_back([&records, first] {
            for (std::size_t i = first; i < records.size(); i += 4) {
                records[i].ret = records[i].id + 7;
                records[i].callback(&records[i], sizeof records[i]);
            }
        });
    }
    std::vector<int> answers(count + 1);
    for (const test::received_item& item : daemon.read_items(side::async, count)) {
        const std::uint32_t id = test::u32_at(item.value, 0);
        ASSERT_LE(id, count);
        EXPECT_EQ(item.sub_id, id);
        EXPECT_EQ(item.value, bytes(wire().u32(id).u32(id + 7).u32(143)));
        ++answers[id];
    }
    for (std::thread& thread : service) {
        thread.join();
    }
    EXPECT_EQ(std::count(answers.begin() + 1, answers.end(), 1), count);
    expect_nothing_more();
}

TEST_F(Callbacks, ASecondAnswerGoesUpWithSccTypeZero) {
    start_with_all_handlers();
    script().answers = 2;
    const test::debugging on;
    send(131, family_value(family_rows[0], 61), 11);
    expect_result(11, wire().u32(61).u32(0).u32(131));
    expect_result(0, wire().u32(61).u32(0).u32(131));
    EXPECT_TRUE(test::logged("no idtype_node."));
    expect_nothing_more();
}

TEST_F(Callbacks, AnOperationThatIsNeverAnsweredSendsNothingAndStaysInTheMap) {
    start_with_all_handlers();
    send(131, family_value(family_rows[0], 61), 11);
    called(1);
    expect_nothing_more();
    EXPECT_EQ(_scc_ss_get_type(61), 11);
}

TEST_F(Callbacks, SeveralRequestsUnderOneIdGetTheirTypesBackInOrder) {
    start_with_all_handlers();
    send(131, family_value(family_rows[0], 9), 5);
    send(133, family_value(family_rows[2], 9), 7);
    send(143, family_value(family_rows[4], 9), 6);
    const auto acl = test::record_of<scc_ss_acl_operation>(called(1));
    const auto apply = test::record_of<scc_ss_apply_operation>(called(5));
    const auto svi = test::record_of<scc_ss_svi_operation>(called(8));
    // The types follow the order of the requests, whichever is answered first.
    svi.callback(&svi, sizeof svi);
    acl.callback(&acl, sizeof acl);
    apply.callback(&apply, sizeof apply);
    expect_result(5, wire().u32(9).u32(0).u32(143));
    expect_result(7, wire().u32(9).u32(0).u32(131));
    expect_result(6, wire().u32(9).u32(0).u32(133));
    const test::debugging on;
    svi.callback(&svi, sizeof svi);
    expect_result(0, wire().u32(9).u32(0).u32(143));
    EXPECT_TRUE(test::logged("no idtype_node."));
}

// ---- counters

bytes acl_counter_result(std::uint32_t id) {
    return wire().u32(id).zeros(28).u64(0x99AABBCCDDEEFF00).u32(0x0A0B0C0D).zeros(4);
}

bytes ace_counter_result(std::uint32_t id) {
    return wire()
        .u32(id)
        .u32(1)
        .u32(5)
        .u32(300)
        .u32(9)
        .zeros(4)
        .u64(0x1122334455667788)
        .u64(0x99AABBCCDDEEFF00)
        .u32(0x0A0B0C0D)
        .zeros(4);
}

struct counter_row {
    std::uint32_t sync;
    side goes;
    const char* word;
};

constexpr counter_row counter_rows[] = {
    {0, side::async, "async"},          {1, side::sync, "sync"},       {2, side::async, "async"},
    {0xFFFFFFFF, side::async, "async"}, {0x101, side::async, "async"},
};

TEST_F(Callbacks, AnAclCounterGoesUpWithoutKeyAndAceAndSynchronouslyOnlyForChoiceOne) {
    start();
    for (const counter_row& row : counter_rows) {
        SCOPED_TRACE(row.sync);
        const test::debugging on;
        _scc_ss_save_idtype(71, 21);
        const auto record = counter(71, row.sync);
        _scc_ss_acl_counter_op_ret_callback(&record, sizeof record);
        expect_result(21, acl_counter_result(71), row.goes);
        EXPECT_TRUE(
            test::logged("scclib acl counter send scc_type:21, type:402, ret:168496141, "
                         "cnt:11072869122414935808, sync:" +
                         std::string(row.word)));
    }
}

TEST_F(Callbacks, AnAceCounterGoesUpWithKeyAndAceAndSynchronouslyOnlyForChoiceOne) {
    start();
    for (const counter_row& row : counter_rows) {
        SCOPED_TRACE(row.sync);
        const test::debugging on;
        _scc_ss_save_idtype(72, 22);
        const auto record = counter(72, row.sync);
        _scc_ss_ace_counter_op_ret_callback(&record, sizeof record);
        expect_result(22, ace_counter_result(72), row.goes);
        EXPECT_TRUE(
            test::logged("scclib ace counter send scc_type:22, type:402, ret:168496141, "
                         "cnt:11072869122414935808, sync:" +
                         std::string(row.word)));
    }
}

TEST_F(Callbacks, AQueryIsAnsweredInRealTimeAsOneMessageOf64Bytes) {
    start();
    _scc_ss_save_idtype(71, 21);
    const auto record = counter(71, 1);
    _scc_ss_acl_counter_op_ret_callback(&record, sizeof record);
    const bytes whole =
        wire().u32(64).u8(1).u16(1).u8(0).u32(48).u16(21).u16(402).add(acl_counter_result(71));
    EXPECT_EQ(daemon.read(side::sync).raw, whole);
}

TEST_F(Callbacks, CountersOfTheFourOperationsTakeTheirChoiceFromTheRequest) {
    start_with_all_handlers();
    script().answers = 1;
    script().ret = 0x0A0B0C0D;
    script().counter = 0x99AABBCCDDEEFF00;
    const auto value = [](std::uint32_t choice) -> bytes {
        return wire().u32(80).u32(1).u32(5).u32(300).u32(9).u32(0xEE).u64(0x1122334455667788).u32(choice);
    };
    send(312, value(1), 31);
    expect_result(31, acl_counter_result(80), side::sync);
    send(140, value(0), 32);
    expect_result(32, acl_counter_result(80), side::async);
    send(313, value(1), 33);
    expect_result(33, ace_counter_result(80), side::sync);
    send(141, value(0), 34);
    expect_result(34, ace_counter_result(80), side::async);
    // A query by the log, but not on the socket.
    const test::debugging on;
    send(312, value(2), 35);
    expect_result(35, acl_counter_result(80), side::async);
    EXPECT_TRUE(test::logged("call _scc_ss_acl_counter_op (query)"));
}

// ---- the others

TEST_F(Callbacks, DataRecoveryLooksNothingUp) {
    start();
    const test::debugging on;
    _scc_ss_save_idtype(7, 21);
    _scc_ss_data_recover_callback(2001, 7);
    expect_result(0, wire().u32(7).u32(2001).u32(0));
    EXPECT_TRUE(test::logged("_scc_ss_data_recover_callback send type:402, call_id:7, ret:2001"));
    EXPECT_EQ(_scc_ss_get_type(7), 21);
}

TEST_F(Callbacks, TheScalarOperationsSendTheTypeWordTheyAreGiven) {
    start();
    const test::debugging on;
    _scc_ss_save_idtype(7, 21);
    EXPECT_EQ(_scc_nacm_callback_send(2020, 7, 38), 0U);
    expect_result(21, wire().u32(7).u32(2020).u32(38));
    EXPECT_TRUE(test::logged("send scc_type:21, type:402, call_id:7, ret:2020"));
    EXPECT_EQ(_scc_nacm_callback_send(1, 7, 39), 0U);
    expect_result(0, wire().u32(7).u32(1).u32(39));
    EXPECT_TRUE(test::logged("no idtype_node."));
}

// ---- counting

struct outcome {
    std::uint32_t successes;
    std::uint32_t failures;
};

outcome outcome_of(std::uint32_t code) {
    const scc::call_statistics counted = scc::read_statistics(code);
    return {counted.callback_successes, counted.callback_failures};
}

// Each member counts the outcomes of its own two codes; reseq, SVI, egress port, CPP and the counters none.
TEST_F(Callbacks, TheOutcomeIsCountedForTheMembersOwnTwoOperationCodes) {
    start();
    for (const plain_row& row : plain_rows) {
        for (std::uint32_t op = 0; op <= 13; ++op) {
            const auto success = plain(1, 0, op);
            const auto failure = plain(1, 1, op);
            row.function(&success, sizeof success);
            row.function(&failure, sizeof failure);
            row.function(&failure, sizeof failure);
        }
        const auto strange = plain(1, 0, 0xFFFFFFFF);
        row.function(&strange, sizeof strange);
    }
    for (std::uint32_t code = 0; code <= 12; ++code) {
        EXPECT_EQ(outcome_of(code).successes, code < 6 ? 1U : 0U) << code;
        EXPECT_EQ(outcome_of(code).failures, code < 6 ? 2U : 0U) << code;
    }
}

TEST_F(Callbacks, CountersCountNoOutcome) {
    start();
    for (std::uint32_t op = 0; op <= 12; ++op) {
        auto record = counter(1, 0);
        record.op = op;
        _scc_ss_acl_counter_op_ret_callback(&record, sizeof record);
        _scc_ss_ace_counter_op_ret_callback(&record, sizeof record);
    }
    for (std::uint32_t code = 0; code <= 12; ++code) {
        EXPECT_EQ(outcome_of(code).successes + outcome_of(code).failures, 0U) << code;
    }
}

// The handler is called with 0 in the op word: a service that leaves it unchanged counts a create.
TEST_F(Callbacks, ADeleteAnsweredWithoutAnOperationCodeIsCountedAsACreate) {
    start_with_all_handlers();
    script().answers = 1;
    send(131, wire().u32(61).zeros(136), 11);
    expect_result(11, wire().u32(61).u32(0).u32(131));
    called(2);
    expect_nothing_more();
    EXPECT_EQ(outcome_of(0).successes, 1U);
    EXPECT_EQ(outcome_of(1).successes, 0U);
    script().op = 1;
    send(131, wire().u32(61).zeros(136), 11);
    expect_result(11, wire().u32(61).u32(0).u32(131));
    expect_nothing_more();
    EXPECT_EQ(outcome_of(1).successes, 1U);
}

TEST_F(Callbacks, AMissingHandlerIsCountedUnderItsOwnCode) {
    start();
    send(131, wire().u32(1).zeros(136));
    send(132, wire().u32(2).zeros(936));
    send(133, wire().u32(3).zeros(240));
    daemon.read_items(side::async, 3);
    expect_nothing_more();
    for (std::uint32_t code = 0; code <= 12; ++code) {
        EXPECT_EQ(outcome_of(code).successes, code == 1 || code == 3 || code == 5 ? 1U : 0U) << code;
    }
}

TEST_F(Callbacks, TheTableOfCallbacksByOperationCode) {
    const callback expected[] = {
        _scc_ss_acl_op_ret_callback,
        _scc_ss_acl_op_ret_callback,
        _scc_ss_ace_op_ret_callback,
        _scc_ss_ace_op_ret_callback,
        _scc_ss_acl_apply_op_ret_callback,
        _scc_ss_acl_apply_op_ret_callback,
        _scc_ss_acl_reseq_op_ret_callback,
        _scc_ss_svi_router_acl_op_ret_callback,
        nullptr,
        _scc_ss_acl_counter_op_ret_callback,
        _scc_ss_acl_counter_op_ret_callback,
        _scc_ss_cpp_ret_callback,
        nullptr,
    };
    for (std::uint32_t op = 0; op <= 12; ++op) {
        EXPECT_EQ(scc_ssc_appmng_get_callback(op), expected[op]) << op;
    }
    EXPECT_EQ(scc_ssc_appmng_get_callback(13), nullptr);
    EXPECT_EQ(scc_ssc_appmng_get_callback(0xFFFFFFFF), nullptr);
}

TEST_F(Callbacks, WithoutARecordNothingIsSentOrCounted) {
    start_with_all_handlers();
    for (std::uint32_t op = 0; op <= 11; ++op) {
        if (const callback answer = scc_ssc_appmng_get_callback(op); answer != nullptr) {
            answer(nullptr, 0);
        }
    }
    _scc_ss_ace_counter_op_ret_callback(nullptr, 0);
    EXPECT_EQ(scc::read_count(0).answered, 0U);
    expect_nothing_more();
}

TEST_F(Callbacks, AResultBeforeAnyRegistrationDoesNotBreakTheHost) {
    info.server_status = test::on_service_status;
    ASSERT_EQ(scc_ss_reg(&info), 0U);
    daemon.accept_both();
    EXPECT_EQ(daemon.read_item(side::sync).type, 301);
    _scc_ss_save_idtype(7, 21);
    const auto record = plain(7, 0, 0);
    _scc_ss_acl_op_ret_callback(&record, sizeof record);
    // Outside the registered state the batch is flushed at once, so it arrives before the registration.
    expect_result(21, wire().u32(7).u32(0).u32(131));
    daemon.send_item(side::sync, 301, wire().u32(0).u32(0).u32(0));
    daemon.answer_registration(side::async);
    EXPECT_EQ(test::service_statuses().wait(), 1U);
}

// ---- a null record, a plain result beside the statistics, success

constexpr callback all_callbacks[] = {
    _scc_ss_acl_op_ret_callback,
    _scc_ss_ace_op_ret_callback,
    _scc_ss_acl_apply_op_ret_callback,
    _scc_ss_acl_reseq_op_ret_callback,
    _scc_ss_svi_router_acl_op_ret_callback,
    _scc_ss_global_eport_ret_callback,
    _scc_ss_cpp_ret_callback,
    _scc_ss_acl_counter_op_ret_callback,
    _scc_ss_ace_counter_op_ret_callback,
};

TEST_F(Callbacks, NoRecordIsNoAnswer) {
    start();
    const test::debugging on;
    for (const callback function : all_callbacks) {
        function(nullptr, 0);
    }
    EXPECT_EQ(test::log_texts(), std::vector<std::string>{});
    EXPECT_EQ(scc::read_count(0).answered, 0U);
    expect_nothing_more();
}

// Whatever operation code the service has put into the record.
TEST_F(Callbacks, OfAnOperationThatIsNotCountedLeaveTheStatisticsAlone) {
    start();
    const auto before = test::record_bytes(g_scclib_stat);
    for (const std::uint32_t op : {0U, 1U, 12U, 13U, 14U, 15U, 0xFFFFFFFFU}) {
        const auto record = plain(7, 0, op);
        for (const callback function :
             {_scc_ss_acl_reseq_op_ret_callback, _scc_ss_svi_router_acl_op_ret_callback,
              _scc_ss_global_eport_ret_callback, _scc_ss_cpp_ret_callback}) {
            function(&record, sizeof record);
        }
    }
    EXPECT_EQ(test::record_bytes(g_scclib_stat), before);
}

TEST_F(Callbacks, LogNoFailureWhenTheirAnswerIsSent) {
    start();
    const test::debugging on;
    for (const std::uint32_t sync : {0U, 1U}) {
        const auto record = counter(7, sync);
        for (const callback function : all_callbacks) {
            function(&record, sizeof record);
        }
    }
    _scc_ss_data_recover_callback(0, 7);
    EXPECT_EQ(scc_ssc_nacm_app_op_callback(0, 7, 0, 0, 5), 0U);
    EXPECT_EQ(test::logged_failures(), std::vector<std::string>{});
    (void)daemon.read_items(side::async, 18);
    (void)daemon.read_items(side::sync, 2);
}

}  // namespace
