// A connection whose other end is the test's: no thread of the library, and no read that waits.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include "client/connection.h"
#include "client/descriptors.h"
#include "client/lifetime.h"
#include "client/message_reader.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"
#include "support/wire_bytes.h"

namespace test {

class connected_pair : public ::testing::Test {
  protected:
    connected_pair() { connect(); }
    ~connected_pair() override { lose(); }

    void connect() {
        int ends[2] = {-1, -1};
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends), 0);
        ASSERT_TRUE(scc::install_descriptor(scc::channel::sync, ends[0], scc::begin_generation()));
        peer_ = ends[1];
    }

    void lose() {
        EXPECT_EQ(_scc_lib_client_close(), 0);
        close(peer_);
    }

    void arrive(const bytes& some) const {
        ASSERT_EQ(send(peer_, some.data(), some.size(), MSG_NOSIGNAL), static_cast<ssize_t>(some.size()));
    }

    void end_stream() const { shutdown(peer_, SHUT_WR); }

    static scc::received_message receive() {
        return scc::receive_message(scc::channel::sync, scc::connection_epoch());
    }

    static void expect_refused(const scc::received_message& received, std::uint32_t error,
                               scc::message_end end) {
        EXPECT_EQ(received.error, error);
        EXPECT_EQ(received.message, nullptr);
        EXPECT_EQ(received.end, end);
    }

    static void expect_whole(const bytes& expected) {
        const scc::received_message received = receive();
        EXPECT_EQ(received.error, 0U);
        EXPECT_EQ(received.end, scc::message_end::whole);
        ASSERT_NE(received.message, nullptr);
        const auto* at = static_cast<const std::uint8_t*>(received.message);
        EXPECT_EQ(bytes(at, at + expected.size()), expected);
        std::free(received.message);
    }

    const bytes good = message_bytes({item_bytes(77, wire().u32(5))});
    temp_dir directory;

  private:
    int peer_ = -1;
};

}  // namespace test
