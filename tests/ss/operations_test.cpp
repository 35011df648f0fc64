// Each operation of the daemon as the service's handler gets it: the record byte for byte, the log, and the
// answer in place of a missing handler.
#include "ss/operations.h"

#include <sys/time.h>

#include "client/diagnostics.h"
#include "ss/callbacks.h"
#include "ss/service_fixture.h"

using test::bytes;
using test::handler_call;
using test::pattern;
using test::side;
using test::slice;
using test::wire;
using test::with_u32;

namespace {

using Operations = test::registered_service;
using callback = void (*)(const void*, std::uint32_t);

// One operation as it arrives, and its expected effects.
struct operation_row {
    std::uint16_t type;
    bytes value;
    int slot;               // of the registration record
    std::string log;        // when the operation begins
    std::string handler;    // its name in the log
    callback answers_with;  // the record's callback
    bytes tail;             // of the record, from offset 25 to its end
    bool logs_success;
    std::uint32_t missing_type_word;  // of the answer in place of the handler
    bytes missing;                    // the whole value of that answer
    side missing_goes = side::async;
};

bytes id_then_pattern(std::size_t size, std::uint32_t id) {
    return with_u32(pattern(size, 0x11), 0, id);
}

// Bytes 4 to 19 of a value: the key, after the flag and three zeros.
wire key_tail(const bytes& value) {
    wire tail;
    tail.zeros(3).add(slice(value, 4, 16));
    return tail;
}

bytes plain_answer(std::uint32_t id, std::uint32_t type_word) {
    return wire().u32(id).u32(0).u32(type_word);
}

operation_row acl_row(std::uint32_t choice, int slot, const char* word, const char* handler) {
    const bytes value = with_u32(id_then_pattern(140, 0xA1A2A3A4), 136, choice);
    return {131,
            value,
            slot,
            std::string("call _scc_ss_acl_op ") + word,
            handler,
            _scc_ss_acl_op_ret_callback,
            key_tail(value).zeros(4),
            true,
            131,
            plain_answer(0xA1A2A3A4, 131)};
}

operation_row ace_row(std::uint32_t choice, int slot, const char* word, const char* handler) {
    const bytes value = with_u32(id_then_pattern(940, 0xB1B2B3B4), 936, choice);
    return {132,
            value,
            slot,
            std::string("call _scc_ss_ace_op ") + word,
            handler,
            _scc_ss_ace_op_ret_callback,
            key_tail(value).zeros(4).add(slice(value, 24, 912)),
            true,
            132,
            plain_answer(0xB1B2B3B4, 132)};
}

operation_row apply_row(std::uint32_t choice, int slot, const char* word, const char* handler) {
    const bytes value = with_u32(id_then_pattern(244, 0xC1C2C3C4), 240, choice);
    return {133,
            value,
            slot,
            std::string("call _scc_ss_acl_apply_op ") + word,
            handler,
            _scc_ss_acl_apply_op_ret_callback,
            key_tail(value).zeros(4).add(slice(value, 8, 232)),
            false,
            133,
            plain_answer(0xC1C2C3C4, 133)};
}

operation_row reseq_row() {
    const bytes value = wire().u32(0xD1).u32(1).u32(5).u32(300).u32(9).u32(100).u32(20);
    return {138,
            value,
            7,
            "call _scc_ss_acl_reseq_op acl(id:300, type:5), sn_start:100, sn_inc:20",
            "ss_acl_reseq_handler",
            _scc_ss_acl_reseq_op_ret_callback,
            wire().zeros(3).u32(1).u32(5).u32(300).u32(9).u32(100).u32(20).zeros(4),
            false,
            138,
            plain_answer(0xD1, 138)};
}

operation_row svi_row(std::uint32_t open, const char* word) {
    return {143,
            wire().u32(0xE1).u32(open),
            8,
            std::string("call _scc_ss_svi_router_acl_op (") + word + ")",
            "ss_svi_router_acl_handler",
            _scc_ss_svi_router_acl_op_ret_callback,
            wire().zeros(3).u32(open).zeros(8),
            false,
            143,
            plain_answer(0xE1, 143)};
}

bytes counter_value(std::uint32_t id, std::uint32_t choice) {
    return wire().u32(id).u32(1).u32(5).u32(300).u32(9).u32(0xEEEEEEEE).u64(0x1122334455667788).u32(choice);
}

operation_row acl_counter_row(std::uint16_t type, std::uint32_t choice, const char* word) {
    return {type,
            counter_value(0xF1, choice),
            9,
            std::string("call _scc_ss_acl_counter_op (") + word + ")",
            "ss_acl_counter_handler",
            _scc_ss_acl_counter_op_ret_callback,
            wire().zeros(3).u32(1).u32(5).u32(300).u32(9).zeros(4).zeros(8).zeros(8).u32(choice).zeros(4),
            false,
            0,
            wire().u32(0xF1).zeros(44),
            choice == 1 ? side::sync : side::async};
}

operation_row ace_counter_row(std::uint16_t type, std::uint32_t choice, const char* word) {
    return {type,
            counter_value(0xF2, choice),
            10,
            std::string("call _scc_ss_ace_counter_op (") + word + ")",
            "ss_ace_counter_handler",
            _scc_ss_ace_counter_op_ret_callback,
            wire()
                .zeros(3)
                .u32(1)
                .u32(5)
                .u32(300)
                .u32(9)
                .zeros(4)
                .u64(0x1122334455667788)
                .zeros(8)
                .u32(choice)
                .zeros(4),
            false,
            0,
            wire().u32(0xF2).u32(1).u32(5).u32(300).u32(9).zeros(4).u64(0x1122334455667788).zeros(16),
            choice == 1 ? side::sync : side::async};
}

operation_row eport_row(std::uint32_t set, const char* word) {
    return {142,
            wire().u32(0x21).u32(0x4C).u32(set),
            11,
            std::string("call _scc_ss_global_eport (") + word + ", type:76)",
            "ss_uplink_handler",
            _scc_ss_global_eport_ret_callback,
            wire().zeros(3).u32(0x4C).u32(set).zeros(12),
            false,
            142,
            plain_answer(0x21, 142)};
}

operation_row cpp_row(std::uint32_t set, const char* word) {
    return {163,
            wire().u32(0x22).u32(set).u32(0x4D),
            12,
            std::string("call _scc_ss_cpp_op (") + word + ")",
            "ss_cpp_handler",
            _scc_ss_cpp_ret_callback,
            wire().zeros(3).u32(set).u32(0x4D).zeros(4),
            false,
            163,
            plain_answer(0x22, 163)};
}

std::vector<operation_row> every_operation() {
    return {
        acl_row(1, 1, "create", "ss_acl_create_handler"),
        acl_row(0, 2, "delete", "ss_acl_delete_handler"),
        acl_row(2, 2, "delete", "ss_acl_delete_handler"),
        ace_row(1, 3, "add", "ss_acl_add_ace_handler"),
        ace_row(0, 4, "del", "ss_acl_del_ace_handler"),
        ace_row(0x101, 4, "del", "ss_acl_del_ace_handler"),
        apply_row(1, 5, "apply", "ss_acl_apply_handler"),
        apply_row(0, 6, "unapply", "ss_acl_unapply_handler"),
        apply_row(3, 6, "unapply", "ss_acl_unapply_handler"),
        reseq_row(),
        svi_row(1, "open"),
        svi_row(0, "close"),
        svi_row(0x80000000, "open"),
        acl_counter_row(140, 0, "set"),
        acl_counter_row(312, 1, "query"),
        acl_counter_row(140, 2, "query"),
        ace_counter_row(141, 0, "set"),
        ace_counter_row(313, 1, "query"),
        ace_counter_row(313, 0x100, "query"),
        eport_row(1, "set"),
        eport_row(0, "unset"),
        eport_row(5, "set"),
        cpp_row(1, "set"),
        cpp_row(0, "unset"),
        cpp_row(7, "set"),
    };
}

// The whole record as a handler sees it: id, callback, ret, op, flag, and the operation's own fields.
bytes record_for(const operation_row& row) {
    const auto address = reinterpret_cast<std::uintptr_t>(row.answers_with);
    wire record;
    record.u32(test::u32_at(row.value, 0)).zeros(4).u64(address).u32(0).u32(0).u8(1);
    return record.add(row.tail);
}

std::size_t record_size(std::uint16_t type) {
    switch (type) {
        case 131:
            return 48;
        case 132:
            return 960;
        case 133:
            return 280;
        case 138:
            return 56;
        case 143:
        case 163:
            return 40;
        case 142:
            return 48;
        default:
            return 72;  // the counters
    }
}

TEST_F(Operations, HandTheirHandlersARecordOfTheRightSizeWithEveryFieldInItsPlace) {
    start_with_all_handlers();
    for (const operation_row& row : every_operation()) {
        SCOPED_TRACE(row.log);
        send(row.type, row.value);
        const bytes seen = called(row.slot);
        EXPECT_EQ(seen.size(), record_size(row.type));
        EXPECT_EQ(seen, record_for(row));
    }
    expect_nothing_more();
}

TEST_F(Operations, LogWhatTheyAreAndOnlyAclAndAceLogSuccess) {
    start_with_all_handlers();
    for (const operation_row& row : every_operation()) {
        SCOPED_TRACE(row.log);
        const test::debugging on;
        send(row.type, row.value);
        EXPECT_TRUE(test::wait_for_log("lib proc msg done.\n"));
        EXPECT_TRUE(test::logged(row.log));
        EXPECT_EQ(test::logged("call " + row.handler + " success."), row.logs_success);
    }
}

TEST_F(Operations, OnlyLogAHandlersFailure) {
    start_with_all_handlers();
    test::script().returns = -7;
    for (const operation_row& row : every_operation()) {
        SCOPED_TRACE(row.log);
        const test::debugging on;
        send(row.type, row.value);
        EXPECT_TRUE(test::wait_for_log("lib proc msg done.\n"));
        EXPECT_TRUE(test::logged("call " + row.handler + " failed. -7."));
        EXPECT_FALSE(test::logged("call " + row.handler + " success."));
        called(row.slot);
    }
    expect_nothing_more();
}

TEST_F(Operations, AreAnsweredWithSuccessWhenTheHandlerIsMissing) {
    start();
    std::uint16_t scc_type = 500;
    for (const operation_row& row : every_operation()) {
        SCOPED_TRACE(row.log);
        const test::debugging on;
        send(row.type, row.value, ++scc_type);
        expect_result(scc_type, row.missing, row.missing_goes);
        EXPECT_TRUE(test::wait_for_log("lib proc msg done.\n"));
        EXPECT_TRUE(test::logged(row.handler + " is NULL"));
    }
    expect_nothing_more();
}

// The operation code of the answer in place of a handler appears only in the log.
TEST_F(Operations, PutTheirOperationCodeIntoTheAnswerForAMissingHandler) {
    start();
    const test::debugging on;
    const auto expect_log = [this](const operation_row& row, const std::string& text) {
        send(row.type, row.value, 3);
        EXPECT_TRUE(test::wait_for_log(text)) << text;
    };
    const std::string head = " send scc_type:3, type:402, call_id:";
    const std::string acl = std::to_string(static_cast<std::int32_t>(0xA1A2A3A4));
    const std::string ace = std::to_string(static_cast<std::int32_t>(0xB1B2B3B4));
    const std::string apply = std::to_string(static_cast<std::int32_t>(0xC1C2C3C4));
    expect_log(acl_row(1, 1, "", ""), "_scc_ss_acl_op_ret_callback" + head + acl + ", ret:0, lib op type:0");
    expect_log(acl_row(0, 2, "", ""), "_scc_ss_acl_op_ret_callback" + head + acl + ", ret:0, lib op type:1");
    expect_log(ace_row(1, 3, "", ""), "_scc_ss_ace_op_ret_callback" + head + ace + ", ret:0, lib op type:2.");
    expect_log(ace_row(0, 4, "", ""), "_scc_ss_ace_op_ret_callback" + head + ace + ", ret:0, lib op type:3.");
    expect_log(apply_row(1, 5, "", ""), "_scc_ss_acl_apply_ret_callback" + head + apply + ", ret:0, op:4");
    expect_log(apply_row(0, 6, "", ""), "_scc_ss_acl_apply_ret_callback" + head + apply + ", ret:0, op:5");
    expect_log(reseq_row(), "_scc_ss_acl_reseq_op_ret_callback" + head + "209, ret:0, op:6");
    expect_log(svi_row(1, ""), "_scc_ss_svi_router_acl_op_ret_callback" + head + "225, ret:0, op:7");
    expect_log(eport_row(1, ""), "_scc_ss_global_eport_ret_callback" + head + "33, ret:0, op:8");
    expect_log(cpp_row(1, ""), "_scc_ss_cpp_ret_callback" + head + "34, ret:0, op:11");
}

TEST_F(Operations, CountTheirCallUnderTheOperationCode) {
    start_with_all_handlers();
    for (const operation_row& row :
         {acl_row(1, 1, "", ""), acl_row(0, 2, "", ""), ace_row(1, 3, "", ""), ace_row(0, 4, "", ""),
          apply_row(1, 5, "", ""), apply_row(0, 6, "", ""), reseq_row(), svi_row(1, ""), eport_row(1, ""),
          cpp_row(1, ""), acl_counter_row(140, 0, ""), ace_counter_row(141, 0, "")}) {
        send(row.type, row.value);
        called(row.slot);
    }
    expect_nothing_more();
    for (std::uint32_t code = 0; code <= 12; ++code) {
        const scc::call_statistics counted = scc::read_statistics(code);
        EXPECT_EQ(counted.calls, code < 6 ? 1U : 0U) << code;
        EXPECT_EQ(counted.call_successes, code < 6 ? 1U : 0U) << code;
        EXPECT_EQ(counted.callback_successes + counted.callback_failures, 0U) << code;
    }
}

TEST_F(Operations, ReturnTheHandlersResult) {
    start_with_all_handlers();
    test::script().returns = 12345;
    EXPECT_EQ(_scc_ss_svi_router_acl_op(1, bytes(wire().u32(1).u32(1)).data()), 12345);
    EXPECT_EQ(_scc_ss_data_recover_op(1, bytes(wire().u32(1).u32(1).u8(1)).data()), 12345);
    EXPECT_EQ(_scc_offline_detect_cfg_op(1, bytes(wire().u32(1).u32(1).u32(1).u32(1)).data()), 12345);
}

struct recovery_row {
    std::uint8_t byte;
    const char* word;
};

TEST_F(Operations, DataRecoveryIsAnsweredAtOnceWithTheHandlersResult) {
    start_with_all_handlers();
    for (const recovery_row& row :
         {recovery_row{1, "start"}, recovery_row{0, "end"}, recovery_row{2, "end"}}) {
        for (const int result : {0, 5, -3}) {
            SCOPED_TRACE(row.word + std::to_string(result));
            test::script().returns = result;
            const test::debugging on;
            send(201, wire().u32(0x77).u32(7).u8(row.byte), 44);
            EXPECT_EQ(called(24), bytes{row.byte});
            // No scc-type is saved for it, and its type word is 0.
            expect_result(0, wire().u32(0x77).u32(static_cast<std::uint32_t>(result)).u32(0));
            EXPECT_TRUE(test::wait_for_log("lib proc msg done.\n"));
            EXPECT_TRUE(
                test::logged(std::string("call _scc_ss_data_recover_op (appid:7, oper:") + row.word + ")"));
            EXPECT_TRUE(test::logged(result == 0 ? "call ss_data_recover_handler success."
                                                 : "call ss_data_recover_handler failed. " +
                                                       std::to_string(result) + "."));
            EXPECT_TRUE(test::logged("_scc_ss_data_recover_callback send type:402, call_id:119, ret:" +
                                     std::to_string(result)));
            EXPECT_FALSE(test::logged("save type node id:119 type:44."));
        }
    }
}

TEST_F(Operations, DataRecoveryWithoutAHandlerIsAnsweredWithZero) {
    start();
    const test::debugging on;
    send(201, wire().u32(0x77).u32(7).u8(1), 44);
    expect_result(0, wire().u32(0x77).u32(0).u32(0));
    EXPECT_TRUE(test::wait_for_log("lib proc msg done.\n"));
    EXPECT_TRUE(test::logged("ss_data_recover_handler is NULL."));
}

TEST_F(Operations, OfflineDetectionGivesIdSwitchIntervalAndThreshold) {
    start_with_all_handlers();
    const test::debugging on;
    send(209, wire().u32(0x51).u8(1).fill(3, 0xEE).u32(60).u32(1000));
    EXPECT_EQ(called(25), bytes(wire().u32(0x51).u8(1).u32(60).u32(1000)));
    EXPECT_TRUE(test::wait_for_log("call _scc_offline_detect_cfg_op (open,inter:60, th:1000)"));
    send(209, wire().u32(0x52).u8(0).fill(3, 0xEE).u32(0xFFFFFFFF).u32(0));
    EXPECT_EQ(called(25), bytes(wire().u32(0x52).u8(0).u32(0xFFFFFFFF).u32(0)));
    EXPECT_TRUE(test::wait_for_log("call _scc_offline_detect_cfg_op (close,inter:4294967295, th:0)"));
    test::script().returns = 9;
    send(209, wire().u32(0x53).u8(7).fill(3, 0xEE).u32(1).u32(2));
    EXPECT_EQ(called(25), bytes(wire().u32(0x53).u8(7).u32(1).u32(2)));
    EXPECT_TRUE(test::wait_for_log("call _scc_offline_detect_cfg_op (open,inter:1, th:2)"));
    EXPECT_TRUE(test::wait_for_log("call offline_detect_cfg_handler failed. 9."));
    expect_nothing_more();
}

TEST_F(Operations, OfflineDetectionWithoutAHandlerIsAnsweredWithSuccess) {
    start();
    const test::debugging on;
    send(209, wire().u32(0x51).u8(1).zeros(3).u32(60).u32(1000), 17);
    expect_result(17, wire().u32(0x51).u32(0).u32(209));
    EXPECT_TRUE(test::wait_for_log("lib proc msg done.\n"));
    EXPECT_TRUE(test::logged("offline_detect_cfg_handler is NULL"));
    EXPECT_TRUE(test::logged("send scc_type:17, type:402, call_id:81, ret:0"));
}

int answers_offline_detection(std::uint32_t call_id, std::uint8_t open, std::uint32_t interval,
                              std::uint32_t threshold) {
    return static_cast<int>(scc_offline_detect_cfg_ret_callback(6, call_id, open, interval, threshold));
}

// Its handler runs without the library's lock, which the reply takes.
TEST_F(Operations, OfflineDetectionCanBeAnsweredFromInsideItsHandler) {
    info.offline_detect_cfg = answers_offline_detection;
    start();
    send(209, wire().u32(0x51).u8(1).zeros(3).u32(60).u32(1000), 17);
    expect_result(17, wire().u32(0x51).u32(6).u32(209));
}

std::uint32_t microseconds_now() {
    timeval now{};
    gettimeofday(&now, nullptr);
    return static_cast<std::uint32_t>(now.tv_sec) * 1000000U + static_cast<std::uint32_t>(now.tv_usec);
}

TEST_F(Operations, TheTestCommandLogsTheTimeWithoutAPrefix) {
    start();
    const test::debugging on;
    const std::uint32_t before = microseconds_now();
    send(205, wire().u32(0));
    EXPECT_TRUE(test::wait_for_log("lib proc msg done.\n"));
    const std::uint32_t after = microseconds_now();
    const std::string head = "scc test for ss end:";
    std::vector<std::string> found;
    for (const test::log_line& line : test::captured_log()) {
        if (line.whole.starts_with(head)) {
            found.push_back(line.whole);
        }
    }
    ASSERT_EQ(found.size(), 1U);
    ASSERT_EQ(found[0].back(), '.');
    const auto shown = static_cast<std::uint32_t>(std::stoul(found[0].substr(head.size())));
    EXPECT_LE(shown - before, after - before);
}

TEST_F(Operations, TheTestCommandDoesNothingForAnyOtherValue) {
    start();
    const test::debugging on;
    send(205, wire().u32(1));
    EXPECT_TRUE(test::wait_for_log("lib proc msg done.\n"));
    for (const test::log_line& line : test::captured_log()) {
        EXPECT_FALSE(line.text.starts_with("scc test for ss end")) << line.text;
    }
    expect_nothing_more();
}

using operation_function = scc::i32 (*)(std::uint16_t scc_type, const void* value);

operation_function function_of(std::uint16_t type) {
    switch (type) {
        case 131:
            return _scc_ss_acl_op;
        case 132:
            return _scc_ss_ace_op;
        case 133:
            return _scc_ss_acl_apply_op;
        case 138:
            return _scc_ss_acl_reseq_op;
        case 142:
            return _scc_ss_global_eport_op;
        case 143:
            return _scc_ss_svi_router_acl_op;
        case 163:
            return _scc_ss_cpp_op;
        case 140:
        case 312:
            return _scc_ss_acl_counter_op;
        default:
            return _scc_ss_ace_counter_op;
    }
}

TEST_F(Operations, EachReturnsTheResultOfItsHandler) {
    start_with_all_handlers();
    for (const std::int32_t result : {-7, 0, 12345}) {
        test::script().returns = result;
        for (const operation_row& row : every_operation()) {
            SCOPED_TRACE(row.log);
            EXPECT_EQ(function_of(row.type)(1, row.value.data()), result);
            called(row.slot);
        }
    }
}

TEST_F(Operations, EachReturnsZeroWithoutAHandler) {
    start();
    for (const operation_row& row : every_operation()) {
        SCOPED_TRACE(row.log);
        EXPECT_EQ(function_of(row.type)(1, row.value.data()), 0);
    }
    EXPECT_EQ(_scc_offline_detect_cfg_op(1, bytes(wire().u32(1).u32(1).u32(1).u32(1)).data()), 0);
    EXPECT_EQ(_scc_ss_test_cmd_proc(1, bytes(wire().u32(0)).data()), 0);
}

}  // namespace
