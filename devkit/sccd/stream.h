// A connected, non-blocking Unix socket with an input buffer and an output queue, for clients and control
// sessions. Output is never refused: what the peer does not accept is queued. A peer whose queue exceeds a
// limit is not read until it has taken half of it, so a peer that never reads cannot grow the queue
// without bound.
#pragma once

#include <deque>
#include <functional>

#include "common/bytes.h"
#include "sccd/event_loop.h"

namespace scc::sccd {

class socket_stream {
  public:
    struct stream_events {
        std::function<void(socket_stream&)> input;   // input() has new bytes
        std::function<void(socket_stream&)> closed;  // at the end of the turn; may destroy the stream
    };

    // Takes ownership of the descriptor.
    socket_stream(event_loop& loop, int descriptor, stream_events events);
    ~socket_stream();
    socket_stream(const socket_stream&) = delete;
    socket_stream& operator=(const socket_stream&) = delete;

    [[nodiscard]] devkit::byte_view input() const;
    void consume(std::size_t len) { consumed_ += len; }
    void send(devkit::byte_buffer bytes);
    void close();
    [[nodiscard]] bool open() const { return descriptor_ >= 0; }
    // Whether the peer has closed the connection, even if its end of stream has not been read yet.
    [[nodiscard]] bool peer_gone() const;
    [[nodiscard]] std::size_t queued_bytes() const { return queued_bytes_; }

  private:
    void ready(std::uint32_t events);
    void read_some();
    void write_some();
    void watch_what_is_wanted();
    void forget_consumed();

    event_loop& loop_;
    int descriptor_;
    stream_events events_;
    event_loop::watch_id watch_ = 0;
    std::uint32_t watched_ = 0;
    devkit::byte_buffer input_;
    std::size_t consumed_ = 0;
    std::deque<devkit::byte_buffer> output_;
    std::size_t front_sent_ = 0;  // bytes of output_.front() already sent
    std::size_t queued_bytes_ = 0;
    bool reading_ = true;
};

}  // namespace scc::sccd
