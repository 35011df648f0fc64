// A scripted daemon with this process registered as an application, for tests of what happens then.
#pragma once

#include <gtest/gtest.h>

#include <thread>

#include "scclib.h"
#include "support/handler_events.h"
#include "support/log_capture.h"
#include "support/scripted_daemon.h"

namespace test {

// Registers app id 7; handlers as the test sets them in info before start(), but that of the status.
class registered_client : public ::testing::Test {
  protected:
    void start(std::uint8_t option = 1) {
        info.app_id = 7;
        info.option = option;
        info.handlers.server_status = status_handler;
        ASSERT_EQ(scc_svr_reg(&info), 0U);
        daemon.accept_registration();
        ASSERT_EQ(statuses().wait(), 1U);
    }

    // Unregisters with the daemon's consent.
    void stop() {
        std::thread answering([this] { daemon.answer_unregistration(); });
        EXPECT_EQ(scc_svr_unreg(), 0U);
        answering.join();
    }

    scc_reg_info info{};
    // One of a test's own has to report to statuses() too.
    void (*status_handler)(std::uint32_t status) = on_status;
    scripted_daemon daemon;
};

}  // namespace test
