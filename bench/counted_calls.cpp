// Counts what a program asks of the C library: system calls on sockets, locks, allocations, bytes copied.
// Preloaded into `steps`, so that the library is counted as it is installed. Copies of a small fixed size are
// instructions of the program itself and are not counted.
#include "counted_calls.h"

#include <dlfcn.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>

#include <atomic>
#include <cstddef>

namespace {

constinit std::array<std::atomic<unsigned long>, bench::counted_kinds> g_counts{};

void count(bench::counted what, unsigned long number = 1) {
    g_counts[what].fetch_add(number, std::memory_order_relaxed);
}

// The C library's own function of this name.
template <class Return, class... Parameters>
class original {
  public:
    explicit constexpr original(const char* name) : name_(name) {}

    Return operator()(Parameters... arguments) {
        function* found = function_.load(std::memory_order_relaxed);
        if (found == nullptr) {
            found = reinterpret_cast<function*>(dlsym(RTLD_NEXT, name_));
            function_.store(found, std::memory_order_relaxed);
        }
        return found(arguments...);
    }

  private:
    using function = Return(Parameters...);
    const char* name_;
    std::atomic<function*> function_{nullptr};
};

constinit original<ssize_t, int, const void*, std::size_t, int> real_send{"send"};
constinit original<ssize_t, int, void*, std::size_t, int> real_recv{"recv"};
constinit original<int, pollfd*, nfds_t, int> real_poll{"poll"};
constinit original<int, pthread_rwlock_t*> real_wrlock{"pthread_rwlock_wrlock"};
constinit original<int, pthread_rwlock_t*> real_trywrlock{"pthread_rwlock_trywrlock"};
constinit original<int, pthread_mutex_t*> real_mutex_lock{"pthread_mutex_lock"};

// dlsym copies, so these do not look up the original.
void* copy_forwards(void* to, const void* from, std::size_t size) {
    void* const begin = to;
    asm volatile("rep movsb" : "+D"(to), "+S"(from), "+c"(size) : : "memory");
    return begin;
}

void copy_backwards(char* to, const char* from, std::size_t size) {
    while (size != 0) {
        --size;
        asm volatile("" ::: "memory");  // or the compiler calls memmove
        to[size] = from[size];
    }
}

}  // namespace

extern "C" {

void bench_read_counts(bench::call_counts* counts) {
    for (std::size_t i = 0; i < counts->size(); ++i) {
        (*counts)[i] = g_counts[i].load();
    }
}

ssize_t send(int fd, const void* bytes, std::size_t size, int flags) {
    count(bench::system_calls);
    return real_send(fd, bytes, size, flags);
}

ssize_t recv(int fd, void* bytes, std::size_t size, int flags) {
    count(bench::system_calls);
    return real_recv(fd, bytes, size, flags);
}

int poll(pollfd* watched, nfds_t number, int timeout) {
    count(bench::system_calls);
    return real_poll(watched, number, timeout);
}

int pthread_rwlock_wrlock(pthread_rwlock_t* lock) noexcept {
    count(bench::locks);
    return real_wrlock(lock);
}

int pthread_rwlock_trywrlock(pthread_rwlock_t* lock) noexcept {
    count(bench::locks);
    return real_trywrlock(lock);
}

int pthread_mutex_lock(pthread_mutex_t* lock) noexcept {
    count(bench::locks);
    return real_mutex_lock(lock);
}

void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t number, std::size_t size);

void* malloc(std::size_t size) noexcept {
    count(bench::allocations);
    return __libc_malloc(size);
}

void* calloc(std::size_t number, std::size_t size) noexcept {
    count(bench::allocations);
    return __libc_calloc(number, size);
}

void* memcpy(void* __restrict to, const void* __restrict from, std::size_t size) noexcept {
    count(bench::copied_bytes, size);
    return copy_forwards(to, from, size);
}

void* memmove(void* to, const void* from, std::size_t size) noexcept {
    count(bench::copied_bytes, size);
    if (to <= from) {
        return copy_forwards(to, from, size);
    }
    copy_backwards(static_cast<char*>(to), static_cast<const char*>(from), size);
    return to;
}
}
