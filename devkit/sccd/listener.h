// A listening Unix socket. A stale socket file is replaced; if another process still listens on the path,
// that is an error. The destructor removes the file.
#pragma once

#include <event2/listener.h>
#include <sys/types.h>

#include <functional>
#include <memory>
#include <string>

#include "sccd/event_loop.h"

namespace scc::sccd {

class socket_listener {
  public:
    // `accepted` takes ownership of each connected, non-blocking descriptor. The socket has the mode `mode`
    // from the moment it exists. Throws std::runtime_error.
    socket_listener(event_loop& loop, std::string path, mode_t mode,
                    std::function<void(int descriptor)> accepted);
    ~socket_listener();
    socket_listener(const socket_listener&) = delete;
    socket_listener& operator=(const socket_listener&) = delete;

  private:
    struct listener_closer {
        void operator()(evconnlistener* ended) const { ::evconnlistener_free(ended); }
    };

    void refuse_one();

    std::string path_;
    std::function<void(int)> accepted_;
    std::unique_ptr<evconnlistener, listener_closer> listener_;  // closes its descriptor
    int reserve_ = -1;  // closed for a moment, to accept and refuse a client when descriptors run out
};

}  // namespace scc::sccd
