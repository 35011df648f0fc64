// Requests and results at full speed against a single-threaded daemon that blocks in its own sends: neither
// side may wait for the other forever, whatever the order of the results.
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <semaphore>
#include <thread>
#include <vector>

#include "client/channel_support.h"

using test::bytes;
using test::side;
using test::wire;

namespace {

constexpr std::uint32_t requests = 8192;

std::binary_semaphore g_gate{0};
std::atomic<std::uint32_t> g_made{0};
std::atomic<std::uint32_t> g_answered{0};
std::atomic<std::uint8_t> g_answers[requests + 1];

// The first result waits at the gate, and everything after it.
void on_record(std::uint32_t result, std::uint32_t call_id, const scc_config_record*) {
    if (g_answered.load() == 0) {
        g_gate.acquire();
    }
    if (result == 0 && call_id <= requests) {
        ++g_answers[call_id];
    }
    ++g_answered;
}

void make_requests() {
    static const scc_config_record record{};
    for (std::uint32_t i = 0; i < requests; ++i) {
        EXPECT_EQ(scc_d1x_port_open(&record, nullptr), 0U);
        ++g_made;
    }
}

class Flow : public test::registered_client {
  protected:
    // Each result is a message of its own, the last request's first.
    static bytes results_in_reverse(const test::received_message& message) {
        wire out;
        for (auto item = message.items.rbegin(); item != message.items.rend(); ++item) {
            const std::uint32_t call_id = test::u32_at(item->value, 0);
            out.u32(24).u8(1).u16(1).u8(0).u32(8).u16(0).u16(401).u32(call_id).u32(0);
        }
        return out;
    }

    [[nodiscard]] bool would_block(const bytes& out) const {
        const ssize_t sent =
            ::send(daemon.fd(side::async), out.data(), out.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        EXPECT_TRUE(sent == static_cast<ssize_t>(out.size()) || (sent < 0 && errno == EAGAIN));
        return sent < 0;
    }

    // The requesting thread has filled its side, too, and makes no further request.
    static void wait_until_the_sender_is_stuck() {
        std::uint32_t before = requests + 1;
        while (before != g_made.load()) {
            before = g_made.load();
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
    }
};

TEST_F(Flow, ADaemonThatBlocksInItsSendsWhileASenderIsBlockedStallsNothing) {
    info.handlers.d1x_port_open = on_record;
    start();
    std::jthread sender(make_requests);
    bool met = false;
    for (std::uint32_t read = 0; read < requests;) {
        const test::received_message message = daemon.read(side::async);
        ASSERT_FALSE(message.items.empty());
        read += static_cast<std::uint32_t>(message.items.size());
        const bytes out = results_in_reverse(message);
        if (met) {
            daemon.send(side::async, out);
        } else if (would_block(out)) {
            met = true;
            wait_until_the_sender_is_stuck();
            EXPECT_LT(g_made.load(), requests);
            g_gate.release();
            daemon.send(side::async, out);
        }
    }
    sender.join();
    EXPECT_TRUE(met) << "the daemon never blocked";
    EXPECT_TRUE(test::eventually([] { return g_answered.load() == requests; })) << g_answered.load();
    EXPECT_TRUE(std::ranges::all_of(g_answers + 1, g_answers + requests + 1,
                                    [](const auto& count) { return count.load() == 1; }));
    EXPECT_EQ(test::statuses().size(), 0U);
    stop();
}

}  // namespace
