// The scalar operations of network access control and the entry points that answer them.
#include <thread>

#include "client/diagnostics.h"
#include "ss/callbacks.h"
#include "ss/id_map.h"
#include "ss/operations.h"
#include "ss/service_fixture.h"

using test::bytes;
using test::pattern;
using test::script;
using test::side;
using test::slice;
using test::wire;
using test::with_u32;

namespace {

using Nacm = test::registered_service;

struct operation_row {
    std::uint16_t type;
    bytes value;
    int slot;
    bytes arguments;
    std::string log;
    std::string handler;
    std::uint32_t type_word;  // of the answer in place of the handler
};

bytes user_entry() {
    bytes entry = with_u32(pattern(88, 0x31), 0, 76);
    const bytes mac{0x00, 0x1A, 0x2B, 0x3C, 0x4D, 0x5E};
    std::copy(mac.begin(), mac.end(), entry.begin() + 8);
    const bytes address{192, 168, 1, 10};
    std::copy(address.begin(), address.end(), entry.begin() + 24);
    return entry;
}

bytes user_value(std::uint32_t id, std::uint8_t add) {
    return wire().u32(id).u8(add).fill(3, 0xEE).add(user_entry());
}

std::vector<operation_row> answered_operations() {
    return {
        {148, wire().u32(0x41).u32(76).u32(2).u32(9), 15, wire().u32(0x41).u32(2).u32(76).u32(9),
         "call _scc_nacm_app_op ifx:76, op:2, type:Ipv4 Source Guard", "ssc_nacm_app_set_handler", 9},
        {148, wire().u32(0x42).u32(77).u32(0xFFFFFFFF).u32(38), 15,
         wire().u32(0x42).u32(0xFFFFFFFF).u32(77).u32(38),
         "call _scc_nacm_app_op ifx:77, op:-1, type:Other Type", "ssc_nacm_app_set_handler", 38},
        {158, wire().u32(0x43).u32(76).u32(2).u32(1).u32(0xEEEEEEEE).u32(100), 23,
         wire().u32(0x43).u32(2).u32(76).u32(100).u32(1),
         "call _scc_nacm_app_op ifx:76, op:2, type:IEEE 802.1X MAC", "ssc_nacm_app_set_with_vid_handler", 1},
        {149, wire().u32(0x44).u32(76).u32(3), 16, wire().u32(0x44).u32(76).u32(3),
         "call _scc_nacm_def_read ifx:76, type:3", "ssc_nacm_def_read_handler", 149},
        // The log shows eight bytes of the port, the handler gets four.
        {150, wire().u32(0x45).u32(0xEEEEEEEE).u32(8080).u32(1).u32(5), 17, wire().u32(0x45).u32(5).u32(8080),
         "call _scc_nacm_l4port_op op:add, port:4294975376", "ssc_nacm_http_l4port_set_handler", 150},
        {150, wire().u32(0x46).u32(0xEEEEEEEE).u32(80).u32(0).u32(0), 17, wire().u32(0x46).u32(0).u32(80),
         "call _scc_nacm_l4port_op op:del, port:80", "ssc_nacm_http_l4port_set_handler", 150},
        {151, user_value(0x47, 1), 18, wire().u32(0x47).u8(1).add(user_entry()),
         "call _scc_nacm_user_op op:add, user(ifx:76,ip:192.168.1.10,mac:001a.2b3c.4d5e)",
         "ssc_nacm_user_op_handler", 151},
        {151, user_value(0x48, 0), 18, wire().u32(0x48).u8(0).add(user_entry()),
         "call _scc_nacm_user_op op:del, user(ifx:76,ip:192.168.1.10,mac:001a.2b3c.4d5e)",
         "ssc_nacm_user_op_handler", 151},
        {151, user_value(0x49, 9), 18, wire().u32(0x49).u8(9).add(user_entry()),
         "call _scc_nacm_user_op op:add, user(ifx:76,ip:192.168.1.10,mac:001a.2b3c.4d5e)",
         "ssc_nacm_user_op_handler", 151},
        {151, user_value(0x4C, 2), 18, wire().u32(0x4C).u8(2).add(user_entry()),
         "call _scc_nacm_user_op op:add, user(ifx:76,ip:192.168.1.10,mac:001a.2b3c.4d5e)",
         "ssc_nacm_user_op_handler", 151},
        {153, wire().u32(0x4A).u32(76).u32(1), 20, wire().u32(0x4A).u32(1).u32(76),
         "call _scc_nacm_user_reinstall_op op:start ifx:76", "ssc_nacm_user_reinstall_handler", 153},
        {153, wire().u32(0x4D).u32(76).u32(0x100), 20, wire().u32(0x4D).u32(0x100).u32(76),
         "call _scc_nacm_user_reinstall_op op:start ifx:76", "ssc_nacm_user_reinstall_handler", 153},
        {153, wire().u32(0x4B).u32(76).u32(0), 20, wire().u32(0x4B).u32(0).u32(76),
         "call _scc_nacm_user_reinstall_op op:end ifx:76", "ssc_nacm_user_reinstall_handler", 153},
    };
}

TEST_F(Nacm, OperationsGiveTheirHandlersTheirArgumentsAndSendNothing) {
    start_with_all_handlers();
    for (const operation_row& row : answered_operations()) {
        SCOPED_TRACE(row.log);
        const test::debugging on;
        send(row.type, row.value, 600);
        EXPECT_EQ(called(row.slot), row.arguments);
        EXPECT_TRUE(test::wait_for_log("lib proc msg done.\n"));
        EXPECT_TRUE(test::logged(row.log));
        EXPECT_EQ(_scc_ss_get_type(test::u32_at(row.value, 0)), 600);
    }
    expect_nothing_more();
}

TEST_F(Nacm, OperationsOnlyLogAHandlersFailure) {
    start_with_all_handlers();
    script().returns = 22;
    for (const operation_row& row : answered_operations()) {
        SCOPED_TRACE(row.log);
        const test::debugging on;
        send(row.type, row.value, 600);
        called(row.slot);
        EXPECT_TRUE(test::wait_for_log("lib proc msg done.\n"));
        EXPECT_TRUE(test::logged("call " + row.handler + " failed. 22."));
    }
    expect_nothing_more();
}

TEST_F(Nacm, OperationsWithoutAHandlerAreAnsweredWithSuccess) {
    start();
    std::uint16_t scc_type = 600;
    for (const operation_row& row : answered_operations()) {
        SCOPED_TRACE(row.log);
        const test::debugging on;
        send(row.type, row.value, ++scc_type);
        expect_result(scc_type, wire().u32(test::u32_at(row.value, 0)).u32(0).u32(row.type_word));
        EXPECT_TRUE(test::wait_for_log("lib proc msg done.\n"));
        EXPECT_TRUE(test::logged(row.handler + " is NULL"));
    }
    expect_nothing_more();
}

TEST_F(Nacm, OperationsReturnTheHandlersResult) {
    start_with_all_handlers();
    script().returns = 77;
    EXPECT_EQ(_scc_nacm_app_op(1, bytes(wire().u32(1).u32(1).u32(1).u32(38)).data()), 77);
    EXPECT_EQ(_scc_nacm_def_read(1, bytes(wire().u32(1).u32(1).u32(1)).data()), 77);
    EXPECT_EQ(_scc_nacm_user_reinstall_op(1, bytes(wire().u32(1).u32(1).u32(1)).data()), 77);
}

TEST_F(Nacm, AnApplicationTypeOf39AndMoreIsDroppedInSilence) {
    start_with_all_handlers();
    for (const std::uint32_t type : {39U, 40U, 0x80000000U, 0xFFFFFFFFU}) {
        for (const std::uint16_t operation : std::initializer_list<std::uint16_t>{148, 158}) {
            const bytes value = wire().u32(0x41).u32(76).u32(2).u32(type).u32(0).u32(100);
            const test::debugging on;
            send(operation, value, 600);
            EXPECT_TRUE(test::wait_for_log("lib proc msg done.\n"));
            EXPECT_EQ(test::log_texts().size(), 3U);  // only the dispatcher's lines for every message
        }
    }
    EXPECT_EQ(_scc_nacm_app_op(1, bytes(wire().u32(1).u32(1).u32(1).u32(39)).data()), 22);
    EXPECT_EQ(_scc_nacm_app_withvid_op(1, bytes(wire().u32(1).u32(1).u32(1).u32(39).zeros(8)).data()), 22);
    EXPECT_EQ(_scc_ss_get_type(0x41), 0);
    EXPECT_EQ(test::handler_calls().size(), 0U);
    expect_nothing_more();
}

TEST_F(Nacm, EveryApplicationTypeHasItsName) {
    constexpr const char* names[39] = {
        "None",
        "IEEE 802.1X MAC",
        "IEEE 802.1X Port Static",
        "IEEE 802.1X Port Move",
        "IEEE 802.1X Port Single",
        "IEEE 802.1X MAB",
        "Port security",
        "IEEE 802.1X Author",
        "Port security Ipv4 Bind",
        "Ipv4 Source Guard",
        "WFB Bind",
        "Global Ipv4 Bind",
        "Port security Ipv6 Bind",
        "Ipv6 Source Guard",
        "ND Snooping",
        "Global Ipv6 Bind",
        "WEB Authentication",
        "WEB Authentication Ipv6",
        "Safe channel",
        "WEB Direct",
        "VVLAN",
        "Ipv6 Loose",
        "Ipv6 Strict",
        "Ipv6 Compatible",
        "ND Snp None",
        "ND Snp Loose",
        "ND Snp Strict",
        "ND Snp HW Check",
        "IEEE 802.1X Port Open",
        "IEEE 802.1X Port MAX",
        "IEEE 802.1X KW2",
        "Port security Violation",
        "Arp Check",
        "Close learning",
        "Safe channel Export",
        "Global Ip+MAC Export",
        "Sta Address Move",
        "Direct Vlan",
        "Other Type",
    };
    start_with_all_handlers();
    const test::debugging on;
    for (std::uint32_t type = 0; type < 39; ++type) {
        send(148, wire().u32(type).u32(1).u32(0).u32(type), 5);
        called(15);
        EXPECT_TRUE(test::logged(std::string("call _scc_nacm_app_op ifx:1, op:0, type:") + names[type]));
        EXPECT_EQ(_scc_ss_get_type(type), 5);
    }
}

TEST_F(Nacm, AUserOperationIsCountedUnderSixOrSevenBeforeItsHandler) {
    start_with_all_handlers();
    send(151, user_value(1, 1));
    called(18);
    EXPECT_EQ(scc::read_statistics(6).call_successes, 1U);
    EXPECT_EQ(scc::read_statistics(7).calls, 0U);
    send(151, user_value(2, 0));
    called(18);
    send(151, user_value(3, 0));
    called(18);
    EXPECT_EQ(scc::read_statistics(6).calls, 1U);
    EXPECT_EQ(scc::read_statistics(7).calls, 2U);
    EXPECT_EQ(scc::read_statistics(7).call_successes, 2U);
}

// ---- the user read

int completes_the_user(std::uint32_t call_id, scc_ss_user* user) {
    test::handler_calls().push({19, wire().u32(call_id).add(test::record_bytes(*user))});
    user->tail[59] = 0x5A;
    user->ifx = 0x01020304;
    return script().returns;
}

TEST_F(Nacm, AUserReadIsAnsweredWithTheCompletedEntryUnderAFreshId) {
    info.user_read = completes_the_user;
    start();
    const test::debugging on;
    for (std::uint32_t fresh = 1; fresh <= 2; ++fresh) {
        send(152, wire().u32(0xDEAD).zeros(4).add(user_entry()), 600);
        EXPECT_EQ(called(19), bytes(wire().u32(fresh).add(user_entry())));
        bytes completed = with_u32(user_entry(), 0, 0x01020304);
        completed[87] = 0x5A;
        expect_result(0, wire().u32(fresh).zeros(4).add(completed).u32(0).zeros(4));
    }
    EXPECT_TRUE(test::logged("call _scc_nacm_user_read user(ifx:76,ip:192.168.1.10,mac:001a.2b3c.4d5e)"));
    EXPECT_EQ(_scc_ss_get_type(0xDEAD), 0);
    EXPECT_EQ(_scc_ss_get_type(1), 0);
    EXPECT_EQ(scc_ss_fetch_func(), 0U);
    EXPECT_EQ(daemon.read_item(side::sync).value, bytes(wire().u32(3).u32(16)));
}

TEST_F(Nacm, AUserReadWhoseHandlerFailsIsAnsweredWithZeroBytesAndTheResult) {
    info.user_read = completes_the_user;
    start();
    std::uint32_t fresh = 0;
    for (const int outcome : {-5, 5}) {
        script().returns = outcome;
        const test::debugging on;
        send(152, wire().u32(0xDEAD).zeros(4).add(user_entry()), 600);
        expect_result(0, wire().u32(++fresh).zeros(92).u32(static_cast<std::uint32_t>(outcome)).zeros(4));
        EXPECT_TRUE(test::logged("call ssc_nacm_user_read_handler failed. " + std::to_string(outcome) + "."));
    }
}

TEST_F(Nacm, AUserReadWithoutAHandlerGivesTheEntryBackAsItCame) {
    start();
    const test::debugging on;
    send(152, wire().u32(0xDEAD).zeros(4).add(user_entry()), 600);
    expect_result(0, wire().u32(1).zeros(4).add(user_entry()).u32(0).zeros(4));
    EXPECT_TRUE(test::logged("ssc_nacm_user_read_handler is NULL"));
}

// ---- recoveries

TEST_F(Nacm, RecoveriesHandTheirListsThroughAndAreNeverAnswered) {
    start_with_all_handlers();
    const bytes users = pattern(3 * 88, 0x51);
    const bytes ports = pattern(6 * 4, 0x52);
    const test::debugging on;
    for (const int result : {0, 8}) {
        script().returns = result;
        send(154, wire().u32(0x1F).u32(0xEEEEEEEE).u32(76).u32(3).add(users));
        EXPECT_EQ(called(21), bytes(wire().u32(76).u32(0x1F).u32(3).add(users)));
        send(155, wire().u32(6).add(ports));
        EXPECT_EQ(called(22), bytes(wire().u32(6).add(ports)));
    }
    EXPECT_TRUE(test::wait_for_log("call ssc_nacm_l4port_recover_handler failed. 8."));
    EXPECT_TRUE(test::logged("call ssc_nacm_app_user_recover_handler failed. 8."));
    EXPECT_TRUE(test::logged("call ssc_nacm_app_user_recover_handler ifx:76, app:1f, usernum:3"));
    EXPECT_TRUE(test::logged("call ssc_nacm_l4port_recover_handler l4port:6"));
    EXPECT_EQ(_scc_ss_get_type(0x1F), 0);
    script().returns = 0;
    expect_nothing_more();
}

TEST_F(Nacm, RecoveriesWithoutAHandlerAreNotAnsweredEither) {
    start();
    const test::debugging on;
    send(154, wire().u32(0x1F).u32(0).u32(76).u32(0));
    send(155, wire().u32(0));
    expect_nothing_more();
    EXPECT_TRUE(test::logged("ssc_nacm_app_user_recover_handler is NULL"));
    EXPECT_TRUE(test::logged("ssc_nacm_l4port_recover_handler is NULL"));
}

// ---- reply entry points

TEST_F(Nacm, ReplyEntryPointsSendTheSavedTypeTheResultAndTheirTypeWord) {
    start();
    const auto expect_reply = [this](std::uint32_t sent, std::uint32_t type_word) {
        EXPECT_EQ(sent, 0U);
        expect_result(0x0708, wire().u32(91).u32(2020).u32(type_word));
        _scc_ss_save_idtype(91, 0x0708);
    };
    _scc_ss_save_idtype(91, 0x0708);
    expect_reply(scc_ssc_nacm_app_op_callback(2020, 91, 1, 2, 37), 37);
    expect_reply(scc_ssc_nacm_app_op_with_vid_callback(2020, 91, 1, 2, 3, 36), 36);
    expect_reply(scc_ssc_nacm_app_op_callback(2020, 91, 1, 2, 39), 39);
    expect_reply(scc_ssc_nacm_def_read_callback(2020, 91, 1, 2), 149);
    expect_reply(scc_ssc_nacm_http_l4port_set_callback(2020, 91, 1, 2), 150);
    expect_reply(scc_ssc_nacm_user_op_callback(2020, 91, 1, nullptr), 151);
    expect_reply(scc_ssc_nacm_user_reinstall_callback(2020, 91, 1, 2), 153);
    expect_reply(scc_offline_detect_cfg_ret_callback(2020, 91, 1, 2, 3), 209);
}

TEST_F(Nacm, AReplyToAnUnknownIdGoesUpWithSccTypeZero) {
    start();
    const test::debugging on;
    EXPECT_EQ(scc_ssc_nacm_def_read_callback(0, 92, 1, 2), 0U);
    expect_result(0, wire().u32(92).u32(0).u32(149));
    EXPECT_TRUE(test::logged("no idtype_node."));
    EXPECT_TRUE(test::logged("send scc_type:0, type:402, call_id:92, ret:0"));
}

int answers_app_set(std::uint32_t call_id, std::uint32_t op, std::uint32_t ifx, std::uint32_t type) {
    return static_cast<int>(scc_ssc_nacm_app_op_callback(1, call_id, op, ifx, type));
}

int answers_with_vid(std::uint32_t call_id, std::uint32_t op, std::uint32_t ifx, std::uint32_t vid,
                     std::uint32_t type) {
    return static_cast<int>(scc_ssc_nacm_app_op_with_vid_callback(2, call_id, op, ifx, vid, type));
}

int answers_def_read(std::uint32_t call_id, std::uint32_t ifx, std::uint32_t type) {
    return static_cast<int>(scc_ssc_nacm_def_read_callback(3, call_id, ifx, type));
}

int answers_l4port(std::uint32_t call_id, std::uint32_t add, std::uint32_t port) {
    return static_cast<int>(scc_ssc_nacm_http_l4port_set_callback(4, call_id, add, port));
}

int answers_user_op(std::uint32_t call_id, std::uint8_t add, const scc_ss_user* user) {
    return static_cast<int>(scc_ssc_nacm_user_op_callback(5, call_id, add, user));
}

int answers_reinstall(std::uint32_t call_id, std::uint32_t start, std::uint32_t ifx) {
    return static_cast<int>(scc_ssc_nacm_user_reinstall_callback(6, call_id, start, ifx));
}

// The handlers run without the library's lock, which the entry points take.
TEST_F(Nacm, EveryHandlerMayAnswerFromInsideTheCall) {
    info.app_set = answers_app_set;
    info.app_set_with_vid = answers_with_vid;
    info.def_read = answers_def_read;
    info.http_l4port_set = answers_l4port;
    info.user_op = answers_user_op;
    info.user_reinstall = answers_reinstall;
    start();
    send(148, wire().u32(1).u32(76).u32(2).u32(9), 21);
    expect_result(21, wire().u32(1).u32(1).u32(9));
    send(158, wire().u32(2).u32(76).u32(2).u32(8).u32(0).u32(100), 22);
    expect_result(22, wire().u32(2).u32(2).u32(8));
    send(149, wire().u32(3).u32(76).u32(3), 23);
    expect_result(23, wire().u32(3).u32(3).u32(149));
    send(150, wire().u32(4).u32(0).u32(80).u32(0).u32(1), 24);
    expect_result(24, wire().u32(4).u32(4).u32(150));
    send(151, user_value(5, 1), 25);
    expect_result(25, wire().u32(5).u32(5).u32(151));
    send(153, wire().u32(6).u32(76).u32(1), 26);
    expect_result(26, wire().u32(6).u32(6).u32(153));
}

TEST_F(Nacm, EveryOperationMayBeAnsweredLaterByAnotherThreadInAnyOrder) {
    start_with_all_handlers();
    send(148, wire().u32(1).u32(76).u32(2).u32(9), 21);
    send(158, wire().u32(2).u32(76).u32(2).u32(8).u32(0).u32(100), 22);
    send(149, wire().u32(3).u32(76).u32(3), 23);
    send(150, wire().u32(4).u32(0).u32(80).u32(0).u32(1), 24);
    send(151, user_value(5, 1), 25);
    send(153, wire().u32(6).u32(76).u32(1), 26);
    send(209, wire().u32(7).u8(1).zeros(3).u32(60).u32(1000), 27);
    expect_nothing_more();
    std::thread service([] {
        EXPECT_EQ(scc_offline_detect_cfg_ret_callback(17, 7, 1, 60, 1000), 0U);
        EXPECT_EQ(scc_ssc_nacm_user_reinstall_callback(16, 6, 1, 76), 0U);
        EXPECT_EQ(scc_ssc_nacm_user_op_callback(15, 5, 1, nullptr), 0U);
        EXPECT_EQ(scc_ssc_nacm_http_l4port_set_callback(14, 4, 1, 80), 0U);
        EXPECT_EQ(scc_ssc_nacm_def_read_callback(13, 3, 76, 3), 0U);
        EXPECT_EQ(scc_ssc_nacm_app_op_with_vid_callback(12, 2, 2, 76, 100, 8), 0U);
        EXPECT_EQ(scc_ssc_nacm_app_op_callback(11, 1, 2, 76, 9), 0U);
    });
    service.join();
    expect_result(27, wire().u32(7).u32(17).u32(209));
    expect_result(26, wire().u32(6).u32(16).u32(153));
    expect_result(25, wire().u32(5).u32(15).u32(151));
    expect_result(24, wire().u32(4).u32(14).u32(150));
    expect_result(23, wire().u32(3).u32(13).u32(149));
    expect_result(22, wire().u32(2).u32(12).u32(8));
    expect_result(21, wire().u32(1).u32(11).u32(9));
    // A second answer has no type left.
    EXPECT_EQ(scc_ssc_nacm_def_read_callback(13, 3, 76, 3), 0U);
    expect_result(0, wire().u32(3).u32(13).u32(149));
    expect_nothing_more();
}

// Success and failure of the send are counted, not the service's result.
TEST_F(Nacm, AUserOperationsOutcomeIsCountedByItsSend) {
    start();
    EXPECT_EQ(scc_ssc_nacm_user_op_callback(2020, 1, 1, nullptr), 0U);
    EXPECT_EQ(scc_ssc_nacm_user_op_callback(0, 2, 0, nullptr), 0U);
    EXPECT_EQ(scc_ssc_nacm_user_op_callback(5, 3, 0, nullptr), 0U);
    EXPECT_EQ(scc::read_statistics(6).callback_successes, 1U);
    EXPECT_EQ(scc::read_statistics(7).callback_successes, 2U);
    EXPECT_EQ(scc::read_statistics(6).callback_failures, 0U);
    EXPECT_EQ(scc::read_statistics(7).callback_failures, 0U);
    EXPECT_EQ(scc::read_statistics(6).calls, 0U);
}

TEST_F(Nacm, AUserOperationIsADeletionForAZeroByteAlone) {
    start_with_all_handlers();
    std::uint32_t additions = 0;
    for (const std::uint8_t add : bytes{1, 2, 9, 128, 255}) {
        SCOPED_TRACE(static_cast<int>(add));
        const test::debugging on;
        send(151, user_value(0x50, add));
        called(18);
        EXPECT_TRUE(test::wait_for_log("lib proc msg done.\n"));
        EXPECT_EQ(scc_ssc_nacm_user_op_callback(0, 0x50, add, nullptr), 0U);
        ++additions;
        EXPECT_EQ(scc::read_statistics(6).calls, additions);
        EXPECT_EQ(scc::read_statistics(6).callback_successes, additions);
    }
    EXPECT_EQ(scc::read_statistics(7).calls, 0U);
    EXPECT_EQ(scc::read_statistics(7).callback_successes, 0U);
}

TEST_F(Nacm, EveryOtherOperationAndRecoveryReturnsTheHandlersResultToo) {
    start_with_all_handlers();
    const bytes zeros = wire().zeros(256);
    for (const std::int32_t result : {77, 0}) {
        script().returns = result;
        EXPECT_EQ(_scc_nacm_app_withvid_op(1, zeros.data()), result);
        EXPECT_EQ(_scc_nacm_l4port_op(1, zeros.data()), result);
        EXPECT_EQ(_scc_nacm_user_op(1, zeros.data()), result);
        EXPECT_EQ(_scc_nacm_app_user_recover(1, zeros.data()), result);
        EXPECT_EQ(_scc_nacm_l4port_recover(1, zeros.data()), result);
    }
}

TEST_F(Nacm, OperationsAndRecoveriesWithoutAHandlerReturnZero) {
    start();
    const bytes zeros = wire().zeros(256);
    for (const auto operation : {_scc_nacm_app_op, _scc_nacm_app_withvid_op, _scc_nacm_def_read,
                                 _scc_nacm_l4port_op, _scc_nacm_user_op, _scc_nacm_user_reinstall_op,
                                 _scc_nacm_app_user_recover, _scc_nacm_l4port_recover}) {
        EXPECT_EQ(operation(1, zeros.data()), 0);
    }
}

// ---- failures and success in the log

TEST_F(Nacm, AHandlersSuccessIsNotLoggedAsAFailureAndItsErrorOneIs) {
    info.user_read = completes_the_user;
    info.app_user_recover = test::on_user_list;
    info.l4port_recover = test::on_port_list;
    start();
    const bytes users = wire().u32(0x1F).u32(0).u32(76).u32(0);
    const bytes ports = wire().u32(0);
    const bytes read = wire().u32(1).zeros(4).add(user_entry());
    for (const int result : {0, 1}) {
        const test::debugging on;
        script().returns = result;
        EXPECT_EQ(_scc_nacm_app_user_recover(0, users.data()), result);
        EXPECT_EQ(_scc_nacm_l4port_recover(0, ports.data()), result);
        EXPECT_EQ(_scc_nacm_user_read(0, read.data()), 0);
        const std::vector<std::string> failures = {"call ssc_nacm_app_user_recover_handler failed. 1.",
                                                   "call ssc_nacm_l4port_recover_handler failed. 1.",
                                                   "call ssc_nacm_user_read_handler failed. 1."};
        EXPECT_EQ(test::logged_failures(), result == 0 ? std::vector<std::string>{} : failures);
    }
}

}  // namespace
