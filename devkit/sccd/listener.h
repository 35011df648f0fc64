// A listening Unix socket at a path of its own. A stale socket file is replaced; a path on which
// another process still listens is an error. The file is removed when the listener ends.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>

#include "sccd/event_loop.h"

namespace scc::sccd {

class Listener {
  public:
    // `accepted` takes over each connected, non-blocking descriptor. The socket has the mode `mode` as soon
    // as it is there. Throws std::runtime_error.
    Listener(EventLoop& loop, std::string path, mode_t mode, std::function<void(int descriptor)> accepted);
    ~Listener();
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

  private:
    void accept_all();
    void refuse_one();

    EventLoop& loop_;
    std::string path_;
    std::function<void(int)> accepted_;
    int descriptor_ = -1;
    int reserve_ = -1;  // given up for a moment to turn a client away when descriptors run out
    EventLoop::WatchId watch_ = 0;
};

}  // namespace scc::sccd
