// Preloaded into the tests and into every process that they start: a thread may be delayed wherever it
// starts, waits, talks to a socket or gives a lock back, as on a machine that is too busy to run it. What is
// delayed is random; no result changes.
//
// SCC_DELAY_PERMILLE: how many of 1,000 calls are delayed (20). SCC_DELAY_US: the longest delay in
// microseconds (10,000). A process is delayed by two seconds in all, so that a test of 100,000 messages still
// ends.
#include <dlfcn.h>
#include <poll.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <ctime>

namespace {

struct settings {
    unsigned permille;
    long most_us;
};

// How often, in thousandths of SCC_DELAY_PERMILLE: locks are returned far more often than threads start.
enum class share : unsigned { lock = 100, call = 1000, start = 20'000 };

constinit std::atomic<long> g_left_us{2'000'000};

unsigned long number_from(const char* name, unsigned long otherwise) {
    const char* const text = getenv(name);
    return text == nullptr ? otherwise : strtoul(text, nullptr, 10);
}

const settings& chosen() {
    static const settings once{static_cast<unsigned>(number_from("SCC_DELAY_PERMILLE", 20)),
                               static_cast<long>(number_from("SCC_DELAY_US", 10'000))};
    return once;
}

// xorshift: an engine of the C++ library would be large for each thread.
std::uint64_t next_random() {
    thread_local std::uint64_t state = 0;
    if (state == 0) {
        timespec now{};
        clock_gettime(CLOCK_MONOTONIC, &now);
        state = (static_cast<std::uint64_t>(now.tv_nsec) << 20 ^ static_cast<std::uint64_t>(gettid())) | 1;
    }
    state ^= state << 13;
    state ^= state >> 7;
    state ^= state << 17;
    return state;
}

void maybe_delay(share of) {
    const int error = errno;
    const std::uint64_t random = next_random();
    if (random % 1'000'000 < std::uint64_t{chosen().permille} * static_cast<unsigned>(of)) {
        const long us = static_cast<long>((random >> 32) % static_cast<unsigned long>(chosen().most_us + 1));
        if (g_left_us.fetch_sub(us, std::memory_order_relaxed) > us) {
            const timespec pause{us / 1'000'000, us % 1'000'000 * 1000};
            nanosleep(&pause, nullptr);
        } else {
            g_left_us.store(0, std::memory_order_relaxed);
        }
    }
    errno = error;
}

template <class Function>
Function* original(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

template <class Function, class... Arguments>
auto delayed(Function* real, Arguments... arguments) {
    maybe_delay(share::call);
    const auto result = real(arguments...);
    maybe_delay(share::call);
    return result;
}

struct thread_start {
    void* (*body)(void*);
    void* argument;
};

void* run_delayed(void* given) {
    const thread_start start = *static_cast<thread_start*>(given);
    delete static_cast<thread_start*>(given);
    maybe_delay(share::start);
    return start.body(start.argument);
}

}  // namespace

extern "C" {

int poll(pollfd* watched, nfds_t count, int timeout) {
    static auto* const real = original<decltype(poll)>("poll");
    return delayed(real, watched, count, timeout);
}

int epoll_wait(int fd, epoll_event* events, int most, int timeout) {
    static auto* const real = original<decltype(epoll_wait)>("epoll_wait");
    return delayed(real, fd, events, most, timeout);
}

ssize_t recv(int fd, void* into, size_t bytes, int flags) {
    static auto* const real = original<decltype(recv)>("recv");
    return delayed(real, fd, into, bytes, flags);
}

ssize_t send(int fd, const void* from, size_t bytes, int flags) {
    static auto* const real = original<decltype(send)>("send");
    return delayed(real, fd, from, bytes, flags);
}

int connect(int fd, const sockaddr* to, socklen_t bytes) {
    static auto* const real = original<decltype(connect)>("connect");
    return delayed(real, fd, to, bytes);
}

int close(int fd) {
    static auto* const real = original<decltype(close)>("close");
    return delayed(real, fd);
}

int pthread_mutex_unlock(pthread_mutex_t* mutex) noexcept {
    static auto* const real = original<decltype(pthread_mutex_unlock)>("pthread_mutex_unlock");
    const int result = real(mutex);
    maybe_delay(share::lock);
    return result;
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                   void* argument) noexcept {
    static auto* const real = original<decltype(pthread_create)>("pthread_create");
    auto* const start = new thread_start{body, argument};
    const int result = real(thread, attributes, run_delayed, start);
    if (result != 0) {
        delete start;
    }
    maybe_delay(share::start);
    return result;
}

}  // extern "C"
