// Proves that a client sent nothing: a marker message, which would follow anything sent earlier, arrives
// first.
#pragma once

#include <gtest/gtest.h>

#include "client/request_channel.h"
#include "support/scripted_daemon.h"

namespace test {

// The marker is sent like a request, so anything waiting in the batch precedes it. The client must be
// registered and not in the middle of a query.
inline void expect_nothing_was_sent(scripted_daemon& daemon, side where) {
    constexpr std::uint16_t mark = 60000;
    ASSERT_EQ(_scc_lib_msg_send(mark, nullptr, 0, where == side::sync ? 1 : 0), 0U);
    EXPECT_EQ(daemon.read_item(where).type, mark) << "something else was sent";
}

}  // namespace test
