// The library's read-write locks, each always taken for writing, and the scoped guards.
// scc_lib_lock is taken first, then one of the others at a time. Two exceptions: an oversized value is sent
// under scc_send_buf_lock, and a failure drops the pending calls and the cache there; the data of a broken
// connection is dropped under g_connection_mutex.
#pragma once

#include <pthread.h>

#include "util/thread_annotations.h"

// Debuggers and tests know these by name and type. A pthread type is no capability for clang's analysis, so
// write_guard is not annotated; a named_lock stands for such a lock where the analysis covers it.
extern "C" {
extern pthread_rwlock_t scc_lib_lock;        // registration, every API call, synchronous exchanges
extern pthread_rwlock_t scc_call_data_lock;  // pending calls
extern pthread_rwlock_t scc_send_buf_lock;   // the batch, and writing on the asynchronous socket
extern pthread_rwlock_t scc_acl_lock;        // the ACL cache
}

namespace scc {

class write_guard {
  public:
    // A handler that runs under scc_lib_lock must not call what takes it (docs/service-authors.md). If one
    // does, the C library returns EDEADLK; rather than harm the host, the guard goes on under the existing
    // hold and leaves the unlocking to its owner.
    explicit write_guard(pthread_rwlock_t& lock)
        : lock_(pthread_rwlock_wrlock(&lock) == 0 ? &lock : nullptr) {}
    ~write_guard() { release(); }
    write_guard(const write_guard&) = delete;
    write_guard& operator=(const write_guard&) = delete;

    void release() {
        if (lock_ != nullptr) {
            pthread_rwlock_unlock(lock_);
            lock_ = nullptr;
        }
    }

  private:
    pthread_rwlock_t* lock_;
};

struct SCC_CAPABILITY("mutex") mutex {
    pthread_mutex_t handle = PTHREAD_MUTEX_INITIALIZER;
};

struct SCC_CAPABILITY("mutex") named_mutex {
    pthread_mutex_t& handle;
};

struct SCC_CAPABILITY("lock") named_lock {
    pthread_rwlock_t& handle;
};

class SCC_SCOPED_CAPABILITY named_lock_guard {
  public:
    explicit named_lock_guard(const named_lock& lock) SCC_ACQUIRE(lock) : guard_(lock.handle) {}
    ~named_lock_guard() SCC_RELEASE() { guard_.release(); }
    named_lock_guard(const named_lock_guard&) = delete;
    named_lock_guard& operator=(const named_lock_guard&) = delete;

  private:
    write_guard guard_;
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
