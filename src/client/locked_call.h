// The frame of each API call that needs a registration: scc_lib_lock and one connection for its lifetime.
#pragma once

#include "client/connection_scope.h"
#include "client/locks.h"

namespace scc {

class SCC_SCOPED_CAPABILITY locked_call {
  public:
    // Clang's analysis does not follow the guard into a member.
    locked_call() SCC_ACQUIRE(lib_lock) SCC_NO_THREAD_SAFETY_ANALYSIS : guard_(lib_lock) {}
    ~locked_call() SCC_RELEASE() SCC_NO_THREAD_SAFETY_ANALYSIS = default;
    locked_call(const locked_call&) = delete;
    locked_call& operator=(const locked_call&) = delete;

    // Logs when the application is not registered.
    [[nodiscard]] bool is_registered(const char* function = __builtin_FUNCTION(),
                                     int line = __builtin_LINE()) const SCC_ASSERT_HELD(lib_lock);
    // Tells the analysis of a class that has a locked_call that the lock is held.
    void holds_lock() const SCC_ASSERT_HELD(lib_lock) {}

  private:
    write_guard guard_;
    connection_scope scope_;
};

}  // namespace scc
