// Results of asynchronous requests: item 401 to the handler of the request's kind.
#pragma once

#include <array>
#include <cstddef>

#include "client/pending_calls.h"
#include "msg/bytes.h"

extern "C" void _scc_lib_call_ret_proc(const void* value);

namespace scc {

inline constexpr std::size_t result_bytes = 8;

// Results that arrived together, with nothing else between them, delivered in their order. Their calls are
// found under one lock, and seen as if each were looked up when its turn comes. Those of a registration that
// ended meanwhile are dropped.
class result_run {
  public:
    // Takes a result's value; delivers when that many have come.
    void add(const u8* value);
    // Delivers what has been added.
    void deliver();

  private:
    static constexpr std::size_t longest = calls_in_hand::most;
    std::array<u32, longest> call_ids_;
    std::array<u32, longest> results_;
    std::size_t count_ = 0;
    u32 generation_ = 0;  // of the registration that they belong to
};

}  // namespace scc
