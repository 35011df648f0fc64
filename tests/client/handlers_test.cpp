// The handler table of the control block: what a registration copies in, and what clearing it leaves.
#include "client/handlers.h"

#include "client/control_block.h"
#include "client/handler_recorder.h"
#include "support/registered_client.h"

namespace {

using slot = void (*)();

constexpr std::size_t positions = 70;

// The block's handler at a position, as bytes rather than through the record's type.
slot installed(std::size_t position) {
    slot handler = nullptr;
    std::memcpy(&handler, reinterpret_cast<const char*>(&g_scc_client_cb.handlers) + position * 8, 8);
    return handler;
}

slot supplied(const scc_reg_info& info, std::size_t position) {
    slot handler = nullptr;
    std::memcpy(&handler, reinterpret_cast<const char*>(&info) + 8 + position * 8, 8);
    return handler;
}

scc_reg_info full_record() {
    scc_reg_info info{};
    info.handlers = test::recording_handlers();
    return info;
}

TEST(ControlBlock, BeginsUnregisteredWithoutDescriptorsAndHandlers) {
    EXPECT_EQ(g_scc_client_cb.sync_fd.load(), -1);
    EXPECT_EQ(g_scc_client_cb.async_fd.load(), -1);
    EXPECT_EQ(g_scc_client_cb.last_call_id.load(), 0U);
    EXPECT_EQ(g_scc_client_cb.app_id.load(), 0U);
    EXPECT_EQ(g_scc_client_cb.pid.load(), 0U);
    EXPECT_STREQ(g_scc_client_cb.process_name, "");
    EXPECT_EQ(sizeof g_scc_client_cb.process_name, 108U);
    EXPECT_EQ(g_scc_client_cb.option.load(), 0U);
    EXPECT_EQ(g_scc_client_cb.state.load(), 1U);
    EXPECT_EQ(g_scc_client_cb.thread_mode.load(), 0U);
    EXPECT_EQ(scc_lib_rereg.load(), 0U);
    EXPECT_FALSE(_scc_lib_client_is_connected());
    for (std::size_t i = 0; i < positions; ++i) {
        EXPECT_EQ(installed(i), nullptr) << i;
    }
}

TEST(ControlBlock, HoldsItsFieldsInTheirOrder) {
    const auto offset_of = [](const auto& field) {
        return reinterpret_cast<const char*>(&field) - reinterpret_cast<const char*>(&g_scc_client_cb);
    };
    EXPECT_EQ(offset_of(g_scc_client_cb.sync_fd), 0);
    EXPECT_EQ(offset_of(g_scc_client_cb.async_fd), 4);
    EXPECT_EQ(offset_of(g_scc_client_cb.last_call_id), 8);
    EXPECT_EQ(offset_of(g_scc_client_cb.app_id), 12);
    EXPECT_EQ(offset_of(g_scc_client_cb.pid), 16);
    EXPECT_EQ(offset_of(g_scc_client_cb.process_name), 20);
    EXPECT_EQ(offset_of(g_scc_client_cb.option), 128);
    EXPECT_EQ(offset_of(g_scc_client_cb.state), 132);
    EXPECT_EQ(offset_of(g_scc_client_cb.thread_mode), 136);
    EXPECT_EQ(offset_of(g_scc_client_cb.handlers), 144);
    EXPECT_EQ(sizeof g_scc_client_cb.handlers, positions * 8);
    EXPECT_EQ(sizeof g_scc_client_cb, 144 + positions * 8);
}

TEST(ControlBlock, IsConnectedWhenBothDescriptorsAreNotNegative) {
    g_scc_client_cb.sync_fd.store(0);
    EXPECT_FALSE(_scc_lib_client_is_connected());
    g_scc_client_cb.async_fd.store(0);
    EXPECT_TRUE(_scc_lib_client_is_connected());
    g_scc_client_cb.sync_fd.store(-1);
    EXPECT_FALSE(_scc_lib_client_is_connected());
}

TEST(ControlBlock, KeepsTheStateThatIsSet) {
    for (const std::uint32_t state : {2U, 3U, 4U, 5U, 1U}) {
        _scc_client_state_set(state);
        EXPECT_EQ(g_scc_client_cb.state.load(), state);
    }
}

TEST(Handlers, TheRegistrationRecordHasAPointerForEachPositionFromOffset8) {
    EXPECT_EQ(sizeof(scc_reg_info), 8 + positions * 8);
    EXPECT_EQ(offsetof(scc_reg_info, app_id), 0U);
    EXPECT_EQ(offsetof(scc_reg_info, option), 4U);
    EXPECT_EQ(offsetof(scc_reg_info, handlers), 8U);
}

TEST(Handlers, SettingCopiesEveryPositionButTheWaterLines) {
    const scc_reg_info info = full_record();
    _scc_lib_handler_set(&info);
    for (std::size_t i = 0; i < positions; ++i) {
        ASSERT_NE(supplied(info, i), nullptr) << i;
        EXPECT_EQ(installed(i), i == 67 ? nullptr : supplied(info, i)) << i;
    }
}

TEST(Handlers, SettingReplacesWhatWasThereAlsoWithNothing) {
    const scc_reg_info info = full_record();
    _scc_lib_handler_set(&info);
    g_scc_client_cb.handlers.water_line = info.handlers.water_line;
    const scc_reg_info empty{};
    _scc_lib_handler_set(&empty);
    for (std::size_t i = 0; i < positions; ++i) {
        EXPECT_EQ(installed(i), i == 67 ? supplied(info, 67) : nullptr) << i;
    }
}

TEST(Handlers, ClearingLeavesPositions42And67) {
    const scc_reg_info info = full_record();
    _scc_lib_handler_set(&info);
    g_scc_client_cb.handlers.water_line = info.handlers.water_line;
    _scc_lib_handler_clear();
    for (std::size_t i = 0; i < positions; ++i) {
        EXPECT_EQ(installed(i), i == 42 || i == 67 ? supplied(info, i) : nullptr) << i;
    }
}

using RegisteredHandlers = test::registered_client;

TEST_F(RegisteredHandlers, AreTheRecordsAndAfterUnregistrationOnlyPosition42IsLeft) {
    info.handlers = test::recording_handlers();
    start();
    for (std::size_t i = 0; i < positions; ++i) {
        EXPECT_EQ(installed(i), i == 67 ? nullptr : supplied(info, i)) << i;
    }
    stop();
    for (std::size_t i = 0; i < positions; ++i) {
        EXPECT_EQ(installed(i), i == 42 ? supplied(info, 42) : nullptr) << i;
    }
}

}  // namespace
