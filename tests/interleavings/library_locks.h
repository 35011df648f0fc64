// The library's locks and heap, for programs that act as its callers.
#pragma once

#include <pthread.h>

#include <cstddef>

#include "client/locks.h"

extern "C" {
int woven_pthread_rwlock_wrlock(pthread_rwlock_t* lock);
int woven_pthread_rwlock_unlock(pthread_rwlock_t* lock);
void* woven_malloc(std::size_t size);
void woven_free(void* at);
}

namespace interleavings {

// The lock that each call of the interface holds.
class lib_lock {
  public:
    lib_lock() { woven_pthread_rwlock_wrlock(&scc_lib_lock); }
    ~lib_lock() { woven_pthread_rwlock_unlock(&scc_lib_lock); }
    lib_lock(const lib_lock&) = delete;
    lib_lock& operator=(const lib_lock&) = delete;
};

}  // namespace interleavings
