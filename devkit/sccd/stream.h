// A connected, non-blocking Unix socket with an input buffer and an output queue, for clients and control
// sessions. Output is never refused: what the peer does not accept is queued. A peer whose queue exceeds a
// limit is not read until it has taken half of it, so a peer that never reads cannot grow the queue
// without bound.
#pragma once

#include <event2/buffer.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>

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

    // Valid until the next call that changes the stream.
    [[nodiscard]] devkit::byte_view input() const;
    [[nodiscard]] std::size_t input_bytes() const { return ::evbuffer_get_length(input_.get()); }
    // Where the first such byte at or after `from` is.
    [[nodiscard]] std::optional<std::size_t> find_input(u8 byte, std::size_t from) const;
    // Takes the first bytes out of the input.
    [[nodiscard]] std::string take_text(std::size_t len);
    void consume(std::size_t len);
    void send(devkit::byte_view bytes);
    void close();
    // Reads nothing for this time.
    void pause(std::chrono::milliseconds time);
    // Reads nothing until it is released.
    void hold(bool held);
    [[nodiscard]] bool open() const { return descriptor_ >= 0; }
    // Whether the peer has closed the connection, even if its end of stream has not been read yet.
    [[nodiscard]] bool peer_gone() const;
    [[nodiscard]] std::size_t queued_bytes() const { return ::evbuffer_get_length(output_.get()); }

  private:
    struct buffer_closer {
        void operator()(evbuffer* ended) const { ::evbuffer_free(ended); }
    };
    using owned_buffer = std::unique_ptr<evbuffer, buffer_closer>;

    void end_connection();
    void read_some();
    [[nodiscard]] ssize_t receive();
    void write_some();
    void watch_what_is_wanted();

    event_loop& loop_;
    int descriptor_;
    stream_events events_;
    owned_event readable_;
    owned_event writable_;
    owned_buffer input_;
    owned_buffer output_;
    bool reading_ = true;
    bool held_ = false;
    std::optional<event_loop::timer_id> paused_;  // until this timer ends
};

}  // namespace scc::sccd
