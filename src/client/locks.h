// The library's locks and their scoped guards. The read-write locks are always taken for writing.
//
// The declarations below state the order, and clang checks it: scc_lib_lock first, then scc_send_buf_lock,
// then g_connection_mutex. scc_call_data_lock, scc_acl_lock and the service's scc_ss_lock come last; no two
// of these three are held together.
#pragma once

#include <pthread.h>

#include "client/tuning.h"
#include "util/thread_annotations.h"

// Debuggers and tests know these by name and type.
extern "C" {
extern pthread_rwlock_t scc_lib_lock;        // registration, every API call, synchronous exchanges
extern pthread_rwlock_t scc_call_data_lock;  // pending calls
extern pthread_rwlock_t scc_send_buf_lock;   // the batch, and writing on the asynchronous socket
extern pthread_rwlock_t scc_acl_lock;        // the ACL cache
}

namespace scc {

struct SCC_CAPABILITY("mutex") mutex {
    pthread_mutex_t handle = PTHREAD_MUTEX_INITIALIZER;
};

// A pthread type is no capability for clang's analysis, so these stand for the locks that have names.
struct SCC_CAPABILITY("mutex") named_mutex {
    pthread_mutex_t& handle;
};

struct SCC_CAPABILITY("lock") named_lock {
    pthread_rwlock_t& handle;
};

inline constexpr named_lock acl_lock{scc_acl_lock};
inline constexpr named_lock calls_lock{scc_call_data_lock};
// Guards the lifetime of registrations (lifetime.h) and the descriptors (descriptors.h). Nothing blocks under
// it but dropping a connection's data, which takes calls_lock and acl_lock in turn.
extern mutex g_connection_mutex SCC_ACQUIRED_BEFORE(calls_lock, acl_lock);
inline constexpr named_lock batch_lock SCC_ACQUIRED_BEFORE(g_connection_mutex){scc_send_buf_lock};
inline constexpr named_lock lib_lock SCC_ACQUIRED_BEFORE(batch_lock){scc_lib_lock};

[[nodiscard]] inline bool try_lock(const named_lock& lock)
    SCC_TRY_ACQUIRE(true, lock) SCC_NO_THREAD_SAFETY_ANALYSIS {
    return pthread_rwlock_trywrlock(&lock.handle) == 0;
}

// Spins briefly, for a lock whose hold times are shorter than a sleep.
[[nodiscard]] inline bool try_lock_briefly(const named_lock& lock)
    SCC_TRY_ACQUIRE(true, lock) SCC_NO_THREAD_SAFETY_ANALYSIS {
    for (int i = 0; i < tuning::lock_spins; ++i) {
        if (try_lock(lock)) {
            return true;
        }
#if defined(__x86_64__) || defined(__i386__)
        __builtin_ia32_pause();
#endif
    }
    return false;
}

#if defined(__SANITIZE_THREAD__)
#define SCC_THREAD_SANITIZER true
#elif defined(__has_feature)
#define SCC_THREAD_SANITIZER __has_feature(thread_sanitizer)
#else
#define SCC_THREAD_SANITIZER false
#endif

// A lock that is free is taken by trying, for half of the instructions. Not under the thread sanitizer, which
// learns the order of locks only from those who are ready to wait. 0, or EDEADLK when the thread holds it.
[[nodiscard]] inline int take(const named_lock& lock) SCC_NO_THREAD_SAFETY_ANALYSIS {
    if (!SCC_THREAD_SANITIZER && try_lock(lock)) {
        return 0;
    }
    return pthread_rwlock_wrlock(&lock.handle);
}

#undef SCC_THREAD_SANITIZER

inline void unlock(const named_lock& lock) SCC_RELEASE(lock) SCC_NO_THREAD_SAFETY_ANALYSIS {
    pthread_rwlock_unlock(&lock.handle);
}

class SCC_SCOPED_CAPABILITY write_guard {
  public:
    // A handler that runs under scc_lib_lock must not call functions that take it (docs/service-authors.md).
    // If one does, the C library returns EDEADLK; rather than harm the host, the guard relies on the lock
    // already held and leaves the unlocking to its owner.
    explicit write_guard(const named_lock& lock) SCC_ACQUIRE(lock)
        : lock_(take(lock) == 0 ? &lock.handle : nullptr) {}
    ~write_guard() SCC_RELEASE() {
        if (lock_ != nullptr) {
            pthread_rwlock_unlock(lock_);
        }
    }
    write_guard(const write_guard&) = delete;
    write_guard& operator=(const write_guard&) = delete;

  private:
    pthread_rwlock_t* lock_;
};

class SCC_SCOPED_CAPABILITY mutex_guard {
  public:
    explicit mutex_guard(mutex& lock) SCC_ACQUIRE(lock) : handle_(lock.handle) {
        pthread_mutex_lock(&handle_);
    }
    explicit mutex_guard(const named_mutex& lock) SCC_ACQUIRE(lock) : handle_(lock.handle) {
        pthread_mutex_lock(&handle_);
    }
    ~mutex_guard() SCC_RELEASE() { pthread_mutex_unlock(&handle_); }
    mutex_guard(const mutex_guard&) = delete;
    mutex_guard& operator=(const mutex_guard&) = delete;

  private:
    pthread_mutex_t& handle_;
};

}  // namespace scc
