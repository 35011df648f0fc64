// Results of asynchronous requests: item 401 to the handler of the request's kind.
#pragma once

#include <array>
#include <cstddef>

#include "client/pending_calls.h"
#include "msg/bytes.h"

extern "C" void _scc_lib_call_ret_proc(const void* value);

namespace scc {

inline constexpr std::size_t result_bytes = 8;

// Consecutive results, delivered in order. Their calls are looked up under one lock, with the same outcome as
// one lookup before each delivery. They are dropped once the registration that they belong to has ended: call
// ids restart with each, so they could match other calls.
class result_run {
  public:
    explicit result_run(u32 generation) : generation_(generation) {}

    [[nodiscard]] u32 generation() const { return generation_; }
    // Copies the value of item 401. Delivers when the run is full.
    void add(const u8* value);
    void deliver();

  private:
    static constexpr std::size_t longest = calls_in_hand::most;
    std::array<u32, longest> call_ids_;
    std::array<u32, longest> results_;
    std::size_t count_ = 0;
    u32 generation_;
};

}  // namespace scc
