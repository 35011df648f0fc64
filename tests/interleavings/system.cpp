// See system.h.
#include "system.h"

#include <pthread.h>
#include <sys/socket.h>
#include <sys/types.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <vector>

#include "memory.h"

namespace interleavings {
namespace {

#define CODE __builtin_return_address(0)

constexpr unsigned nobody = most_threads;

// Locks

struct lock_record {
    const void* lock = nullptr;
    unsigned owner = nobody;
    vector_clock released{};
};

struct waiter {
    const void* condition = nullptr;  // null when the thread does not wait
    const void* mutex = nullptr;
    bool signalled = false;
    bool timed = false;
};

std::vector<lock_record> g_locks;
std::array<waiter, most_threads> g_waiters;
unsigned g_waits_timed_out = 0;
const char g_wakeups = 0;  // stands for the number of spurious wake-ups so far

lock_record& record_of(const void* lock) {
    for (lock_record& each : g_locks) {
        if (each.lock == lock) {
            return each;
        }
    }
    g_locks.push_back({.lock = lock});
    return g_locks.back();
}

readiness is_free(const void* lock, unsigned /*thread*/) {
    return record_of(lock).owner == nobody ? readiness::yes : readiness::no;
}

void take(const void* lock) {
    lock_record& record = record_of(lock);
    record.owner = current_thread();
    join_clock(record.released);
    full_barrier();
}

void lock(const void* what, const char* name, const void* code) {
    before({.name = name, .touches = {what, barriers()}, .ready = is_free, .subject = what, .code = code});
    take(what);
}

void give(const void* what) {
    lock_record& record = record_of(what);
    if (record.owner != current_thread()) {
        violate("A thread unlocks what it does not hold.");
    }
    record.owner = nobody;
    record.released = current_clock();
    advance_clock();
}

// Under a bound on preemptions no thread is interrupted here: the next operation that others see comes later.
void unlock(const void* what, const char* name, const void* code) {
    before({.name = name, .touches = {what}, .interrupts = false, .code = code});
    give(what);
}

readiness may_wake(const void* /*subject*/, unsigned thread) {
    const waiter& self = g_waiters[thread];
    if (record_of(self.mutex).owner != nobody) {
        return readiness::no;
    }
    if (self.signalled) {
        return readiness::yes;
    }
    const readiness without = may_wake_spuriously() ? readiness::spuriously : readiness::no;
    return self.timed ? without | readiness::when_nothing_else_is : without;
}

int wait(const void* condition, const void* mutex, bool timed, const void* code) {
    // Releasing the mutex and starting to wait are one step.
    before({.name = "begins to wait", .touches = {mutex, condition}, .interrupts = false, .code = code});
    give(mutex);
    waiter& self = g_waiters[current_thread()];
    self = {.condition = condition, .mutex = mutex, .timed = timed};
    before({.name = "wakes",
            .touches = {mutex, condition, &g_wakeups, barriers()},
            .ready = may_wake,
            .code = code});
    const bool signalled = self.signalled;
    self = {};
    if (!signalled && nothing_else_goes_on()) {
        ++g_waits_timed_out;
        note(" when its time is over");
    } else if (!signalled) {
        wake_spuriously();
        note(" without a signal");
    }
    take(mutex);
    return signalled || !timed ? 0 : ETIMEDOUT;
}

void signal(const void* condition, bool all, const void* code) {
    before({.name = all ? "wakes all" : "wakes one", .touches = {condition}, .code = code});
    for (waiter& each : g_waiters) {
        if (each.condition == condition && !each.signalled) {
            each.signalled = true;
            if (!all) {
                return;
            }
        }
    }
}

// Memory: blocks are not reused within an execution, so each access belongs to exactly one block.

constexpr std::size_t arena_bytes = std::size_t{1} << 18;
constexpr std::size_t grain = 16;
alignas(grain) std::array<std::uint8_t, arena_bytes> g_arena;

struct block {
    std::size_t begin;
    std::size_t size;
    bool live;
};
std::vector<block> g_blocks;
std::array<std::uint16_t, arena_bytes / grain> g_block_at;
std::size_t g_arena_used = 0;

bool is_in_arena(const volatile void* at) {
    const auto address = reinterpret_cast<std::uintptr_t>(at);
    const auto begin = reinterpret_cast<std::uintptr_t>(g_arena.data());
    return address >= begin && address < begin + arena_bytes;
}

std::size_t offset_of(const volatile void* at) {
    return reinterpret_cast<std::uintptr_t>(at) - reinterpret_cast<std::uintptr_t>(g_arena.data());
}

void* allocate(std::size_t size) {
    const std::size_t taken =
        (size + grain) / grain * grain;  // at least one byte more, so that blocks do not touch
    if (g_arena_used + taken > arena_bytes) {
        violate("The program allocates more than the model has room for.");
        return nullptr;
    }
    g_blocks.push_back({g_arena_used, size, true});
    for (std::size_t at = g_arena_used; at < g_arena_used + taken; at += grain) {
        g_block_at[at / grain] = static_cast<std::uint16_t>(g_blocks.size() - 1);
    }
    void* result = g_arena.data() + g_arena_used;
    std::memset(result, 0xA5, size);
    g_arena_used += taken;
    return result;
}

void free_block(void* at) {
    if (at == nullptr) {
        return;
    }
    const std::size_t offset = is_in_arena(at) ? offset_of(at) : arena_bytes;
    if (offset >= g_arena_used || g_blocks[g_block_at[offset / grain]].begin != offset) {
        violate("Something is freed that was not allocated.");
        return;
    }
    block& freed = g_blocks[g_block_at[offset / grain]];
    if (!freed.live) {
        violate("A block is freed twice.");
        return;
    }
    plain_access(at, freed.size, true, nullptr);  // no access may race with it
    freed.live = false;
}

// Sockets

struct socket_record {
    unsigned connection = 0;  // 0: closed
    bool shut = false;
};

constexpr int first_number = 3;
std::array<socket_record, 16> g_sockets;
const char g_numbers = 0;  // stands for the set of free numbers
std::vector<sent_bytes> g_sent;
std::vector<std::vector<std::uint8_t>> g_sent_copies;

socket_record* record_of_socket(int fd) {
    return fd >= 0 && fd < static_cast<int>(g_sockets.size()) ? &g_sockets[static_cast<std::size_t>(fd)]
                                                              : nullptr;
}

// The socket of a system call, which must be open.
socket_record* used_socket(int fd, const char* name, bool frees, const void* code) {
    socket_record* record = record_of_socket(fd);
    before({.name = name, .touches = {record, frees ? &g_numbers : nullptr}, .code = code});
    note(" %d", fd);
    if (record == nullptr || record->connection == 0) {
        violate("%s: descriptor %d is not open.", name, fd);
        return nullptr;
    }
    return record;
}

}  // namespace

int open_socket(unsigned connection) {
    before({.name = "opens a socket", .touches = {&g_numbers}, .code = CODE});
    for (int fd = first_number;; ++fd) {
        socket_record* record = record_of_socket(fd);
        if (record == nullptr) {
            violate("No number is left for a socket.");
            return -1;
        }
        if (record->connection == 0) {
            *record = {.connection = connection};
            note(" %d", fd);
            return fd;
        }
    }
}

unsigned connection_of(int fd) {
    const socket_record* record = record_of_socket(fd);
    return record == nullptr ? 0 : record->connection;
}

bool is_shut_down(int fd) {
    const socket_record* record = record_of_socket(fd);
    return record != nullptr && record->shut;
}

unsigned open_sockets() {
    unsigned count = 0;
    for (const socket_record& each : g_sockets) {
        count += each.connection != 0 ? 1 : 0;
    }
    return count;
}

std::span<const sent_bytes> sent() {
    return g_sent;
}

unsigned waits_timed_out() {
    return g_waits_timed_out;
}

unsigned live_blocks() {
    unsigned count = 0;
    for (const block& each : g_blocks) {
        count += each.live ? 1 : 0;
    }
    return count;
}

void check_heap(const volatile void* at, std::size_t size) {
    if (!is_in_arena(at)) {
        return;
    }
    const std::size_t offset = offset_of(at);
    if (offset >= g_arena_used) {
        violate("An access past the last block.");
        return;
    }
    const block& meant = g_blocks[g_block_at[offset / grain]];
    if (!meant.live) {
        violate("A block is used after it was freed.");
    } else if (offset + size > meant.begin + meant.size) {
        violate("An access past the end of a block.");
    }
}

void reset_system() {
    g_locks.clear();
    g_waiters = {};
    g_waits_timed_out = 0;
    g_blocks.clear();
    g_arena_used = 0;
    g_sockets = {};
    g_sent.clear();
    g_sent_copies.clear();
}

extern "C" {

int woven_pthread_mutex_lock(pthread_mutex_t* mutex) {
    lock(mutex, "locks a mutex", CODE);
    return 0;
}
int woven_pthread_mutex_unlock(pthread_mutex_t* mutex) {
    unlock(mutex, "unlocks a mutex", CODE);
    return 0;
}
int woven_pthread_rwlock_wrlock(pthread_rwlock_t* lock_) {
    if (record_of(lock_).owner == current_thread()) {
        return EDEADLK;
    }
    lock(lock_, "locks", CODE);
    return 0;
}
int woven_pthread_rwlock_trywrlock(pthread_rwlock_t* lock_) {
    before({.name = "tries to lock", .touches = {lock_, barriers()}, .code = CODE});
    if (record_of(lock_).owner != nobody) {
        return EBUSY;
    }
    take(lock_);
    return 0;
}
int woven_pthread_rwlock_unlock(pthread_rwlock_t* lock_) {
    unlock(lock_, "unlocks", CODE);
    return 0;
}
int woven_pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex) {
    return wait(condition, mutex, false, CODE);
}
int woven_pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                 const timespec* /*deadline*/) {
    return wait(condition, mutex, true, CODE);
}
int woven_pthread_cond_signal(pthread_cond_t* condition) {
    signal(condition, false, CODE);
    return 0;
}
int woven_pthread_cond_broadcast(pthread_cond_t* condition) {
    signal(condition, true, CODE);
    return 0;
}
int woven_pthread_cond_init(pthread_cond_t* condition, const pthread_condattr_t* /*attributes*/) {
    for (const waiter& each : g_waiters) {
        if (each.condition == condition) {
            violate("A condition that a thread waits for is initialised.");
        }
    }
    return 0;
}

void* woven_malloc(std::size_t size) {
    return allocate(size);
}
void* woven_calloc(std::size_t count, std::size_t size) {
    void* result = allocate(count * size);
    return result == nullptr ? nullptr : std::memset(result, 0, count * size);
}
void woven_free(void* at) {
    free_block(at);
}
void* woven_memcpy(void* to, const void* from, std::size_t size) {
    plain_access(from, size, false, CODE);
    plain_access(to, size, true, CODE);
    return std::memcpy(to, from, size);
}
void* woven_memmove(void* to, const void* from, std::size_t size) {
    plain_access(from, size, false, CODE);
    plain_access(to, size, true, CODE);
    return std::memmove(to, from, size);
}
void* woven_memset(void* to, int value, std::size_t size) {
    plain_access(to, size, true, CODE);
    return std::memset(to, value, size);
}

int woven_close(int fd) {
    socket_record* record = used_socket(fd, "closes", true, CODE);
    if (record != nullptr) {
        *record = {};
    }
    return 0;
}
int woven_shutdown(int fd, int /*how*/) {
    socket_record* record = used_socket(fd, "shuts down", false, CODE);
    if (record != nullptr) {
        record->shut = true;
    }
    return 0;
}
ssize_t woven_send(int fd, const void* bytes, std::size_t size, int /*flags*/) {
    if (fd < 0) {
        errno = EBADF;
        return -1;
    }
    const socket_record* record = used_socket(fd, "sends on", false, CODE);
    if (record == nullptr || record->shut) {
        errno = EPIPE;
        return -1;
    }
    const auto* first = static_cast<const std::uint8_t*>(bytes);
    g_sent_copies.emplace_back(first, first + size);
    g_sent.push_back({record->connection, g_sent_copies.back()});
    return static_cast<ssize_t>(size);
}

// No files, no clock: a program has only sockets, and the driver decides when waits end.
int woven_unlink(const char* /*path*/) {
    return 0;
}
FILE* woven_fopen(const char* /*path*/, const char* /*mode*/) {
    return nullptr;
}
int woven_malloc_trim(std::size_t /*pad*/) {
    return 0;
}
unsigned woven_sleep(unsigned /*seconds*/) {
    before({.name = "sleeps", .code = CODE});
    return 0;
}
}

}  // namespace interleavings
