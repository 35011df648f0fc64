// A message of the asynchronous socket for which there is no memory is skipped.
#include "client/message_stream.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>

#include "support/faults.h"
#include "support/wire_bytes.h"

using test::wire;

namespace {

TEST(MessageStreamFaults, AMessageWithoutMemoryIs12AndTheNextIsRead) {
    int ends[2] = {-1, -1};
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    const test::bytes message = test::message_bytes({test::item_bytes(77, wire().u32(5))});
    const test::bytes both = wire().add(message).add(message);
    ASSERT_EQ(send(ends[1], both.data(), both.size(), 0), 40);
    scc::message_stream stream;
    ASSERT_EQ(stream.fill(ends[0]), 0U);
    void* next = nullptr;
    test::fail_allocations_of(20);
    EXPECT_EQ(stream.next(&next), 12U);
    EXPECT_TRUE(test::end_faults());
    EXPECT_EQ(next, nullptr);
    EXPECT_EQ(stream.next(&next), 0U);
    EXPECT_NE(next, nullptr);
    std::free(next);
    close(ends[0]);
    close(ends[1]);
}

}  // namespace
