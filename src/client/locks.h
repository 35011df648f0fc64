// The library's read-write locks, each always taken for writing, and their scoped guard.
// scc_lib_lock is taken first. Behind it one of the others at a time, with two exceptions: an oversized
// value is sent under scc_send_buf_lock, and its failure drops the pending calls and the cache; and the
// mutex of descriptors.cpp is held while the data of a broken connection is dropped.
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
    // A thread that holds the lock already (a handler that the library calls under it, and that calls the
    // library) goes on under its own hold, and does not give it back early.
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
