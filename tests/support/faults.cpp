#include "support/faults.h"

#include <poll.h>
#include <pthread.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>

namespace test {
namespace {

struct fault {
    std::atomic<int> calls{0};
    std::atomic<int> nth{0};
    std::atomic<int> error{0};
    std::atomic<bool> onwards{false};
    std::atomic<void (*)()> act{nullptr};
};

constinit fault g_faults[static_cast<int>(call::count)];
constinit std::atomic<int> g_allocations{0};
constinit std::atomic<int> g_failing_allocation{0};
constinit std::atomic<bool> g_met{false};
constinit std::atomic<int> g_limit{0};
constinit std::atomic<long> g_live_blocks{0};
constinit std::atomic<std::size_t> g_failing_size{0};
constinit std::atomic<int> g_most_polled{0};
constinit std::atomic<void (*)()> g_on_state_set{nullptr};
constinit std::atomic<void (*)()> g_on_calls_freed{nullptr};

void do_once(std::atomic<void (*)()>& what) {
    if (const auto act = what.exchange(nullptr); act != nullptr) {
        act();
    }
}

// Never destroyed: the library's threads live as long as the process.
struct gate {
    std::mutex mutex;
    std::condition_variable opened;
    bool closed = false;
};

gate& the_gate() {
    static auto* one = new gate;
    return *one;
}

struct held_thread {
    void* (*body)(void*);
    void* argument;
};

void* run_when_released(void* held) {
    const held_thread one = *static_cast<held_thread*>(held);
    delete static_cast<held_thread*>(held);
    {
        std::unique_lock guard(the_gate().mutex);
        the_gate().opened.wait(guard, [] { return !the_gate().closed; });
    }
    return one.body(one.argument);
}

fault& of(call which) {
    return g_faults[static_cast<int>(which)];
}

// Whether this call has to fail; errno is then set.
bool fails(call which) {
    fault& one = of(which);
    do_once(one.act);
    const int number = ++one.calls;
    const int nth = one.nth;
    if (nth == 0 || (one.onwards ? number < nth : number != nth)) {
        return false;
    }
    g_met = true;
    errno = one.error;
    return true;
}

bool allocation_fails(call which, std::size_t size) {
    const bool in_turn = ++g_allocations == g_failing_allocation;
    const bool this_one = in_turn || (size != 0 && size == g_failing_size);
    if (this_one) {
        g_met = true;
        errno = ENOMEM;
    }
    return fails(which) || this_one;
}

void* counted(void* block) {
    g_live_blocks += block == nullptr ? 0 : 1;
    return block;
}

std::size_t limited(std::size_t length) {
    const auto limit = static_cast<std::size_t>(g_limit.load());
    return limit != 0 && length > limit ? limit : length;
}

}  // namespace

void fail_call(call which, int nth, int error) {
    fault& one = of(which);
    one.nth = 0;
    one.calls = 0;
    one.error = error;
    one.onwards = false;
    one.nth = nth;
}

void fail_calls_from(call which, int nth, int error) {
    fail_call(which, 0, error);
    of(which).onwards = true;
    of(which).nth = nth;
}

void fail_allocation(int nth) {
    g_allocations = 0;
    g_failing_allocation = nth;
}

void fail_allocations_of(int bytes) {
    g_failing_size = static_cast<std::size_t>(bytes);
}

void on_call(call which, void (*act)()) {
    of(which).act = act;
}

void on_state_set(void (*act)()) {
    g_on_state_set = act;
}

void on_calls_freed(void (*act)()) {
    g_on_calls_freed = act;
}

bool end_faults() {
    g_on_state_set = nullptr;
    g_on_calls_freed = nullptr;
    for (fault& one : g_faults) {
        one.act = nullptr;
        one.nth = 0;
        one.calls = 0;
    }
    g_failing_allocation = 0;
    g_failing_size = 0;
    g_most_polled = 0;
    g_limit = 0;
    return g_met.exchange(false);
}

int calls(call which) {
    return of(which).calls;
}

int most_polled() {
    return g_most_polled;
}

void hold_new_threads() {
    const std::lock_guard guard(the_gate().mutex);
    the_gate().closed = true;
}

void release_new_threads() {
    const std::lock_guard guard(the_gate().mutex);
    the_gate().closed = false;
    the_gate().opened.notify_all();
}

long live_blocks() {
    return g_live_blocks;
}

void limit_transfer(int bytes) {
    g_limit = bytes;
}

}  // namespace test

using test::call;

extern "C" {

void* __real_malloc(size_t size);
void* __real_calloc(size_t count, size_t size);
void __real_free(void* block);
int __real_pthread_rwlock_trywrlock(pthread_rwlock_t* lock);
int __real_malloc_trim(size_t pad);
int __real_socket(int domain, int type, int protocol);
int __real_bind(int fd, const sockaddr* address, socklen_t length);
int __real_connect(int fd, const sockaddr* address, socklen_t length);
int __real_setsockopt(int fd, int level, int name, const void* value, socklen_t length);
ssize_t __real_send(int fd, const void* bytes, size_t length, int flags);
ssize_t __real_recv(int fd, void* bytes, size_t length, int flags);
int __real_poll(pollfd* watched, nfds_t count, int timeout);
int __real_select(int count, fd_set* reading, fd_set* writing, fd_set* excepting, timeval* timeout);
int __real_close(int fd);
int __real_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                          void* argument);
int __real_mkdir(const char* path, mode_t mode);

void __real__scc_client_state_set(std::uint32_t state);

void __wrap__scc_client_state_set(std::uint32_t state) {
    test::do_once(test::g_on_state_set);
    __real__scc_client_state_set(state);
}

// scc::free_pending_calls()
void __real__ZN3scc18free_pending_callsEv();

void __wrap__ZN3scc18free_pending_callsEv() {
    test::do_once(test::g_on_calls_freed);
    __real__ZN3scc18free_pending_callsEv();
}

void* __wrap_malloc(size_t size) {
    return test::allocation_fails(call::malloc, size) ? nullptr : test::counted(__real_malloc(size));
}

void* __wrap_calloc(size_t count, size_t size) {
    return test::allocation_fails(call::calloc, count * size) ? nullptr
                                                              : test::counted(__real_calloc(count, size));
}

void __wrap_free(void* block) {
    test::g_live_blocks -= block == nullptr ? 0 : 1;
    __real_free(block);
}

int __wrap_pthread_rwlock_trywrlock(pthread_rwlock_t* lock) {
    return test::fails(call::trywrlock) ? EBUSY : __real_pthread_rwlock_trywrlock(lock);
}

int __wrap_malloc_trim(size_t pad) {
    return test::fails(call::malloc_trim) ? 0 : __real_malloc_trim(pad);
}

int __wrap_socket(int domain, int type, int protocol) {
    return test::fails(call::socket) ? -1 : __real_socket(domain, type, protocol);
}

int __wrap_bind(int fd, const sockaddr* address, socklen_t length) {
    return test::fails(call::bind) ? -1 : __real_bind(fd, address, length);
}

int __wrap_connect(int fd, const sockaddr* address, socklen_t length) {
    return test::fails(call::connect) ? -1 : __real_connect(fd, address, length);
}

int __wrap_setsockopt(int fd, int level, int name, const void* value, socklen_t length) {
    return test::fails(call::setsockopt) ? -1 : __real_setsockopt(fd, level, name, value, length);
}

ssize_t __wrap_send(int fd, const void* bytes, size_t length, int flags) {
    if (test::fails(call::send)) {
        return errno == 0 ? 0 : -1;
    }
    return __real_send(fd, bytes, test::limited(length), flags);
}

ssize_t __wrap_recv(int fd, void* bytes, size_t length, int flags) {
    return test::fails(call::recv) ? -1 : __real_recv(fd, bytes, test::limited(length), flags);
}

int __wrap_poll(pollfd* watched, nfds_t count, int timeout) {
    test::g_most_polled = std::max(test::g_most_polled.load(), static_cast<int>(count));
    return test::fails(call::poll) ? -1 : __real_poll(watched, count, timeout);
}

int __wrap_select(int count, fd_set* reading, fd_set* writing, fd_set* excepting, timeval* timeout) {
    return test::fails(call::select) ? -1 : __real_select(count, reading, writing, excepting, timeout);
}

// The descriptor is closed all the same, as the kernel does.
int __wrap_close(int fd) {
    if (test::fails(call::close)) {
        const int error = errno;
        __real_close(fd);
        errno = error;
        return -1;
    }
    return __real_close(fd);
}

int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                          void* argument) {
    if (test::fails(call::pthread_create)) {
        return errno;
    }
    auto* held = new test::held_thread{body, argument};
    const int error = __real_pthread_create(thread, attributes, test::run_when_released, held);
    if (error != 0) {
        delete held;
    }
    return error;
}

int __wrap_mkdir(const char* path, mode_t mode) {
    return test::fails(call::mkdir) ? -1 : __real_mkdir(path, mode);
}
}
