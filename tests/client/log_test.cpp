// The debug switch: while it is off nothing is logged, whatever happens.
#include "client/log.h"

#include <sys/socket.h>

#include <array>

#include "client/acl_cache.h"
#include "client/channel_support.h"
#include "client/connection.h"
#include "client/dispatch.h"
#include "client/handler_recorder.h"
#include "client/request_channel.h"

using test::bytes;
using test::side;
using test::wire;

namespace {

constexpr scc_acl_key absent_acl = {1, 1, 9, 0};
constexpr int result_of_mark = 24;  // the handler of scc_addr_learning

class Log : public test::runtime_test {
  protected:
    // Everything earlier on the asynchronous socket has been delivered.
    void pass_mark() {
        std::uint32_t call_id = 0;
        ASSERT_EQ(scc_addr_learning(1, 1, &call_id), 0U);
        while (daemon.read_item(side::async).type != 123) {
        }
        daemon.send_result(call_id, 0);
        for (;;) {
            const auto call = test::handler_calls().wait();
            ASSERT_TRUE(call.has_value());
            if (call->position == result_of_mark) {
                return;
            }
        }
    }

    void make_mistakes() {
        EXPECT_EQ(scc_svr_reg(nullptr), 22U);
        scc_reg_info wrong{};
        wrong.app_id = 20;
        EXPECT_EQ(scc_svr_reg(&wrong), 22U);
        EXPECT_EQ(scc_svr_unreg(), 0U);
        EXPECT_EQ(scc_addr_learning(1, 1, nullptr), 2004U);
        EXPECT_EQ(scc_d1x_port_open(nullptr, nullptr), 22U);
        EXPECT_EQ(scc_acl_create(nullptr, nullptr), 22U);
        EXPECT_EQ(scc_mac_query(nullptr, nullptr), 22U);
        EXPECT_EQ(scc_efacl_ctrl(nullptr, 1, nullptr), 22U);
    }

    void make_requests() {
        scc_acl_key key = {1, 2, 3, 4};
        const scc_ace_record ace{};
        scc_user_record user{};
        user.operation = 1;
        user.flags = 0x202;
        const bytes large(8176);
        EXPECT_EQ(scc_nac_user_set(&user, nullptr), 0U);
        EXPECT_EQ(scc_acl_create(&key, nullptr), 0U);
        daemon.send_result(g_scc_client_cb.last_call_id, 0);
        EXPECT_EQ(scc_acl_add_ace(&key, &ace, nullptr), 0U);
        daemon.send_result(g_scc_client_cb.last_call_id, 0);
        EXPECT_EQ(scc_acl_delete_ace(&key, &ace, nullptr), 0U);
        daemon.send_result(g_scc_client_cb.last_call_id, 0);
        EXPECT_EQ(scc_acl_delete(&key, nullptr), 0U);
        daemon.send_result(g_scc_client_cb.last_call_id, 0);
        daemon.send_result(4000, 0);
        EXPECT_EQ(scc_warterline_notify(1), 0U);
        EXPECT_EQ(_scc_lib_msg_send_bt(0, 900, large.data(), 8176, 0), 22U);
        pass_mark();
        EXPECT_EQ(scc_acl_cls_get(&key), 2005U);
    }

    void make_a_query() {
        EXPECT_EQ(daemon.read_item(side::sync).type, 220);
        std::thread answering([this] {
            EXPECT_EQ(daemon.read_item(side::sync).type, 315);
            daemon.send_item(side::sync, 1, wire().u32(0));
        });
        const std::uint8_t mac[6] = {};
        std::uint32_t address = 0;
        EXPECT_EQ(scc_mac_query(mac, &address), 2007U);
        answering.join();
    }

    void send_everything() {
        for (const std::uint16_t type :
             std::to_array<std::uint16_t>({110, 127, 206, 209, 210, 211, 212, 213, 214, 216, 217, 219, 220,
                                           318, 319, 406, 407, 401, 999})) {
            daemon.send_item(side::async, type, bytes(1000));
            daemon.send_item(side::async, type, bytes(3));
        }
        daemon.send(side::async, wire().u32(8).u8(1).u16(1).u8(0));
        daemon.send(side::async, wire().u32(20).u8(1).u16(1).u8(0).u32(5).u16(0).u16(401).u32(0));
        pass_mark();
        for (int answer = 0; answer < 4; ++answer) {
            (void)daemon.read_item(side::sync);  // two of each probe
        }
    }

    void lose_the_connection() {
        daemon.stop_listening();
        daemon.close_both();
        ASSERT_EQ(test::statuses().wait(), 0U);
        daemon.listen();
        daemon.accept_both();
        daemon.answer_registration(side::sync, 2002, 4711);
        daemon.accept_registration();
        ASSERT_EQ(test::statuses().wait(), 1U);
    }

    // With every handler at first, then with none but the two that the test needs.
    void live() {
        make_mistakes();
        info.handlers = test::recording_handlers();
        start();
        EXPECT_EQ(scc_svr_reg(&info), 0U);
        make_requests();
        make_a_query();
        send_everything();
        for (std::size_t i = 1; i < sizeof(scc_handlers) / sizeof(void*); ++i) {
            if (i != result_of_mark) {
                scc::store_handler<void*>(reinterpret_cast<void**>(&g_scc_client_cb.handlers)[i], nullptr);
            }
        }
        send_everything();
        lose_the_connection();
        std::thread refusing([this] { daemon.answer_unregistration(1); });
        EXPECT_EQ(scc_svr_unreg(), 2001U);
        refusing.join();
        stop();
    }
};

TEST_F(Log, IsEmptyWhileTheSwitchIsOffWhateverHappens) {
    test::clear_log();
    _scc_lib_async_msg_proc(0, nullptr);
    EXPECT_EQ(_scc_lib_client_connect(std::string(107, 'x').c_str()), -1);
    live();
    EXPECT_TRUE(test::eventually(test::only_the_checker_is_left));
    EXPECT_EQ(test::log_texts(), std::vector<std::string>{});
}

TEST_F(Log, TellsOfTheSameLifeWhileTheSwitchIsOn) {
    const test::debugging on;
    live();
    EXPECT_GT(test::captured_log().size(), 60U);
    for (const test::log_line& line : test::captured_log()) {
        EXPECT_EQ(line.level, 7) << line.whole;
        EXPECT_EQ(line.module, "SCCLIB") << line.whole;
        EXPECT_EQ(line.submodule, "DETAIL") << line.whole;
        EXPECT_EQ(line.flag, 2) << line.whole;
        EXPECT_TRUE(line.whole.starts_with('<')) << line.whole;
    }
}

struct named_line {
    const char* text;      // a part of it
    const char* function;  // in the line's prefix
};

const named_line named_lines[] = {
    {"input param is null!.", "scc_svr_reg"},
    {"app id is invalid in register param!", "scc_svr_reg"},
    {") already registered!", "scc_svr_reg"},
    {") already unregistered or not registered!", "scc_svr_unreg"},
    {")connect to sccd success!", "_scc_lib_svr_rereg"},
    {")register to sccd success!", "_scc_lib_svr_rereg"},
    {"scc client start to try re-reg.", "_scc_lib_svr_rereg"},
    {")reg action rejected by sccd!", "_scc_lib_client_reg"},
    {"already registered by pid:4711!", "_scc_lib_client_reg"},
    {"msg is larger than sendbuf.", "_scc_lib_msg_send_bt"},
    {"thread msg(len:", "_scc_lib_send_buf_chk_thread"},
    {"recv msg hdr error!", "_scc_lib_msg_recv"},
    {"msg format error,no tlv.", "_scc_lib_msg_recv"},
    {"msg format error,items exceed msg.", "_scc_lib_msg_recv"},
    {"unknown scclib msg type(", "_scc_lib_async_msg_proc"},
    {"too short. len:", "_scc_lib_async_msg_proc"},
    {"no such call id:", "_scc_lib_call_ret_proc"},
    {"specific acl not found!!!", "_scc_lib_acl_del"},
    {"no such acl in scclib.", "scc_acl_cls_get"},
    {"send alive back.", "_scc_lib_is_alive_proc"},
    {"send libinfo collect(", "_scc_lib_info_collect_proc"},
    {")unreg action rejected by sccd!", "_scc_client_unreg"},
    {")unregistered error!", "scc_svr_unreg"},
    {") unregister to sccd success!", "scc_svr_unreg"},
};

std::string function_of(const test::log_line& line) {
    return line.whole.substr(1, line.whole.find_first_of(" >", 1) - 1);
}

TEST_F(Log, NamesTheFunctionThatEachLineStandsFor) {
    const test::debugging on;
    _scc_lib_acl_del(&absent_acl);
    live();
    for (const named_line& row : named_lines) {
        std::size_t seen = 0;
        for (const test::log_line& line : test::captured_log()) {
            if (line.text.find(row.text) != std::string::npos) {
                EXPECT_EQ(function_of(line), row.function) << line.whole;
                ++seen;
            }
        }
        EXPECT_GT(seen, 0U) << row.text;
    }
}

}  // namespace
