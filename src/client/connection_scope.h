// Which connection a thread's sends and receives belong to.
#pragma once

#include "msg/protocol.h"

namespace scc {

// During its lifetime the thread's sends and receives belong to the named connection, by default the one at
// its construction: a request accepted on one connection never goes out on the next, before its registration.
class connection_scope {
  public:
    connection_scope();
    explicit connection_scope(u32 epoch);
    ~connection_scope();
    connection_scope(const connection_scope&) = delete;
    connection_scope& operator=(const connection_scope&) = delete;

  private:
    u32 before_;
};

// The epoch of the thread's scope, or without one of the current connection.
[[nodiscard]] u32 epoch_of_this_thread();

}  // namespace scc
