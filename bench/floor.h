// The floor: a minimal client that moves the same bytes in the same batches, with two threads and without
// locks, pending calls or handlers.
#pragma once

#include <cstdint>

#include "rounds.h"

namespace bench {

// What the floor does for each request beside moving its bytes.
enum class duties {
    none,
    locks,   // holds two read-write locks, taken for writing, which nobody else holds
    calls,   // that, copies the caller's value to the batch and to a slot, and calls a handler with the slot
    search,  // that, but the copy is in a block of its own, which the result's number is searched for
    shared,  // that, prepared for threads that may send the batch, drop requests or end the connection at any
             // time
};

// Requests per second, with values of value_bytes and a limited number outstanding.
figure floor_rate(std::uint32_t value_bytes, std::uint64_t requests, std::uint64_t outstanding,
                  duties of_a_request = duties::none);

// The same with all duties, from several threads that make equal shares of the requests.
figure floor_rate_from_threads(std::uint32_t value_bytes, std::uint64_t requests, std::uint64_t outstanding,
                               std::uint64_t threads);

// Seconds of the median round trip of a 168-byte message and its 52-byte reply.
double floor_round_trip(int rounds);

// Median latency of one result, in seconds: requested on one socket, received by the other socket's thread.
double floor_one_result(int rounds);

// Limits how far a sender may run ahead of the answers.
class window {
  public:
    explicit window(std::uint64_t width) : width_(width) {}
    void wait_for_space(std::uint64_t sent);
    void wait_for_all(std::uint64_t sent);
    void answered(std::uint64_t count);
    std::uint64_t count() const;

  private:
    std::uint64_t width_;
    std::uint64_t step_ = 256;
    alignas(64) std::uint64_t done_ = 0;
    alignas(64) std::uint32_t bell_ = 0;
};

}  // namespace bench
