// What a session makes of the results of calls.
#include <gtest/gtest.h>

#include <cerrno>

#include "scclib.h"
#include "session.h"

namespace scc::ctl {
namespace {

TEST(CtlSession, ALossIsToldWhoeverNoticesItFirst) {
    for (const int error : {EPIPE, ECONNRESET, ENOTCONN, EBADF}) {
        EXPECT_TRUE(tells_of_loss(static_cast<std::uint32_t>(error))) << error;
    }
}

TEST(CtlSession, AnAnswerOfTheDaemonTellsOfNoLoss) {
    for (const std::uint32_t result : {0U, 12U, 22U, SCC_E_UNAVAILABLE, SCC_E_NO_ACL, SCC_E_FORMAT}) {
        EXPECT_FALSE(tells_of_loss(result)) << result;
    }
}

}  // namespace
}  // namespace scc::ctl
