// A request and its reply: queries, registration and unregistration.
//
// The daemon answers each request once, in order. An exchange that breaks off between the two, because a
// signal handler of the host interrupted it, leaves its reply owed; the next one reads past what is owed
// before it takes its own, so that a reply never answers another question.
#pragma once

#include <span>

#include "client/message_reader.h"
#include "client/send.h"
#include "msg/protocol.h"

namespace scc {

// One exchange at a time on a channel: an exchange holds the channel's lock while it lives.
class exchange {
  public:
    explicit exchange(channel which);
    ~exchange();
    exchange(const exchange&) = delete;
    exchange& operator=(const exchange&) = delete;

    // The outcome as it was, where a request would hide it. When it is not 0, no reply will come.
    [[nodiscard]] send_outcome send(u16 type, std::span<const u8> value);
    // The reply to what was sent, which the exchange owns; error 0, 2007, 12, 32 or that of receiving.
    [[nodiscard]] u32 receive();

    // The first item's value; empty before a reply has come.
    [[nodiscard]] std::span<const u8> value() const { return value_; }
    [[nodiscard]] u16 type() const { return type_; }
    [[nodiscard]] bool has_reply() const { return reply_ != nullptr; }
    [[nodiscard]] u32 epoch() const { return epoch_; }

  private:
    channel which_;
    channel_state& state_;
    u32 epoch_;
    void* reply_ = nullptr;
    std::span<const u8> value_;
    u16 type_ = 0;
};

}  // namespace scc
