// The longest that a lock is held while an index grows, which is how long a thread that needs it may wait.
// The processor time of the holder counts: the load of the machine is not the library's. Linked so that the
// library's calls of the lock pass through here.
#include <pthread.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <string>

#include "client/acl_cache.h"
#include "client/client_data.h"
#include "client/pending_calls.h"
#include "client/request_channel.h"
#include "rounds.h"

namespace {

using namespace scc;

pthread_rwlock_t* g_watched = nullptr;
double g_since = 0;
double g_longest = 0;

double thread_us() {
    timespec used{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
    return static_cast<double>(used.tv_sec) * 1e6 + static_cast<double>(used.tv_nsec) / 1e3;
}

void begin_hold(const pthread_rwlock_t* lock) {
    if (lock == g_watched) {
        g_since = thread_us();
    }
}

void end_hold(const pthread_rwlock_t* lock) {
    if (lock == g_watched) {
        g_longest = std::max(g_longest, thread_us() - g_since);
    }
}

}  // namespace

extern "C" {
int __real_pthread_rwlock_wrlock(pthread_rwlock_t* lock);
int __real_pthread_rwlock_trywrlock(pthread_rwlock_t* lock);
int __real_pthread_rwlock_unlock(pthread_rwlock_t* lock);

int __wrap_pthread_rwlock_wrlock(pthread_rwlock_t* lock) {
    const int error = __real_pthread_rwlock_wrlock(lock);
    begin_hold(lock);
    return error;
}

int __wrap_pthread_rwlock_trywrlock(pthread_rwlock_t* lock) {
    const int error = __real_pthread_rwlock_trywrlock(lock);
    if (error == 0) {
        begin_hold(lock);
    }
    return error;
}

int __wrap_pthread_rwlock_unlock(pthread_rwlock_t* lock) {
    end_hold(lock);
    return __real_pthread_rwlock_unlock(lock);
}
}

namespace {

// Some of what the daemon confirms, or an application requests, between two passes of the checker.
constexpr u32 a_pass = 4096;
// Passes that finish the last growth.
constexpr int last_passes = 200;

template <class Add>
bench::figure longest_hold(pthread_rwlock_t& lock, u32 count, Add add, void (*grow)()) {
    _scc_lib_data_init();
    g_watched = &lock;
    for (u32 i = 0; i < count; ++i) {
        add(i);
        if (i % a_pass == 0) {
            grow();
        }
    }
    for (int i = 0; i < last_passes; ++i) {
        grow();
    }
    g_watched = nullptr;
    return g_longest;
}

void add_acl(u32 number) {
    constexpr u32 ids_of_a_type = 32768;
    const scc_acl_key key{0, 1 + number / ids_of_a_type, 1 + number % ids_of_a_type, 0};
    _scc_lib_acl_add(&key);
}

void add_call(u32 number) {
    const u8 saved[5] = {};
    const write_guard guard(lib_lock);
    if (_scc_lib_save_call_data(number, 23, saved, sizeof saved) != 0) {
        std::exit(1);
    }
}

}  // namespace

// pause_bench [rounds]
int main(int argc, char** argv) {
    const int rounds = argc > 1 ? std::atoi(argv[1]) : 5;
    constexpr u32 all_acls = 32768 * 58;
    constexpr u32 million = 1000000;
    const auto held = bench::medians(
        {{"ACLs", [] { return longest_hold(scc_acl_lock, all_acls, add_acl, grow_acl_index); }},
         {"calls", [] { return longest_hold(scc_call_data_lock, million, add_call, grow_pending_index); }}},
        rounds);
    bench::print_ratio("longest hold of the ACL cache's lock, up to 1,900,544 ACLs", held[0], held[0], "us",
                       "at most 1000");
    bench::print_ratio("longest hold of the lock of pending calls, up to 1,000,000", held[1], held[1], "us",
                       "at most 1000");
    return 0;
}
