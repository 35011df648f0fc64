// The library's read-write locks, each always taken for writing, and the scoped guards.
// scc_lib_lock is taken first, then one of the others at a time. Two exceptions: an oversized value is sent
// under scc_send_buf_lock, and a failure drops the pending calls and the cache there; the data of a broken
// connection is dropped under g_connection_mutex.
#pragma once

#include <pthread.h>

extern "C" {
extern pthread_rwlock_t scc_lib_lock;        // registration, every API call, synchronous exchanges
extern pthread_rwlock_t scc_call_data_lock;  // pending calls
extern pthread_rwlock_t scc_send_buf_lock;   // the batch, and writing on the asynchronous socket
extern pthread_rwlock_t scc_acl_lock;        // the ACL cache
}

namespace scc {

class write_guard {
  public:
    // Handlers that run under scc_lib_lock must not call the library. One that does gets EDEADLK from the C
    // library; rather than hang or kill the host, the guard goes on under the existing hold and leaves the
    // unlocking to its owner.
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

class mutex_guard {
  public:
    explicit mutex_guard(pthread_mutex_t& mutex) : mutex_(&mutex) { pthread_mutex_lock(mutex_); }
    ~mutex_guard() { pthread_mutex_unlock(mutex_); }
    mutex_guard(const mutex_guard&) = delete;
    mutex_guard& operator=(const mutex_guard&) = delete;

  private:
    pthread_mutex_t* mutex_;
};

}  // namespace scc
