// A request and its reply: queries, registration and unregistration.
//
// The daemon answers each request once, in order. An exchange that a signal handler of the host interrupts
// between the two leaves its reply owed; the next one skips the owed replies, so a reply never answers
// another request.
#pragma once

#include <span>

#include "client/message_reader.h"
#include "client/send.h"
#include "msg/protocol.h"

namespace scc {

// Holds the channel's lock for its lifetime: one exchange at a time on a channel.
class exchange {
  public:
    explicit exchange(channel which);
    ~exchange();
    exchange(const exchange&) = delete;
    exchange& operator=(const exchange&) = delete;

    // The outcome, which a request hides from its caller. When it is not 0, no reply will come.
    [[nodiscard]] send_outcome send(u16 type, std::span<const u8> value);
    // The reply to what was sent, which the exchange owns; error 0, 2007, 12, 32 or that of receiving.
    [[nodiscard]] u32 receive();

    // The first item's value; empty before a reply has come.
    [[nodiscard]] std::span<const u8> value() const { return value_; }
    [[nodiscard]] u16 type() const { return type_; }
    [[nodiscard]] bool has_reply() const { return reply_ != nullptr; }
    [[nodiscard]] u32 epoch() const { return epoch_; }

  private:
    // The constructor took the lock, which the analysis of another member function does not see.
    void has_lock() const SCC_ASSERT_HELD(state_.lock) {}

    channel which_;
    channel_state& state_;
    u32 epoch_;
    void* reply_ = nullptr;
    std::span<const u8> value_;
    u16 type_ = 0;
};

}  // namespace scc
