// An application whose results are queued, for the tests of what it receives.
#pragma once

#include "client/channel_support.h"

namespace test {

inline event_queue<std::uint32_t>& results() {
    static auto* queue = new event_queue<std::uint32_t>;
    return *queue;
}

inline void on_addr_learning(std::uint32_t result, std::uint32_t call_id, std::uint32_t, std::uint8_t) {
    results().push(call_id * 1000 + result);
}

class Receive : public runtime_test {
  protected:
    void start() {
        info.handlers.addr_learning = on_addr_learning;
        runtime_test::start();
    }

    // Makes requests with the call ids 1 to count.
    static void request(std::uint32_t count) {
        for (std::uint32_t i = 0; i < count; ++i) {
            ASSERT_EQ(scc_addr_learning(i, 1, nullptr), 0U);
        }
    }

    // A message of two results, 40 bytes.
    static bytes two_results(std::uint32_t first, std::uint32_t second) {
        return message_bytes(
            {item_bytes(401, wire().u32(first).u32(3)), item_bytes(401, wire().u32(second).u32(4))});
    }
};

}  // namespace test
