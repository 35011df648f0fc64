#include "sweep/shim.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <qx_thread.h>
#include <stdarg.h>
#include <sys/prctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysinfo.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>

extern "C" const char __ehdr_start;

namespace sweep {
namespace {

struct block_origin {
    const char* call;
    std::uintptr_t site;
};

struct record {
    std::mutex mutex;
    fault wanted;
    bool armed = false;
    bool active = false;
    bool tearing = false;  // the torn call was made; the next one of the site fails
    std::map<std::pair<std::uintptr_t, std::string>, unsigned> calls;
    std::map<void*, block_origin> live;
    unsigned strange = 0;
    std::atomic<bool> met{false};
    std::atomic<int> streams{0};
};

// Never destroyed: the library's threads live as long as the process.
record& the_record() {
    static auto* one = new record;
    return *one;
}

struct verdict {
    bool fails = false;
    effect what = effect::error;
    int error = 0;
};

// Decides the outcome of the call. Leaves errno alone.
verdict pass(const char* call, const void* from) {
    const int kept = errno;
    const auto site =
        reinterpret_cast<std::uintptr_t>(from) - reinterpret_cast<std::uintptr_t>(&__ehdr_start);
    record& all = the_record();
    verdict out;
    {
        const std::lock_guard guard(all.mutex);
        if (all.active) {
            const unsigned number = ++all.calls[{site, call}];
            const fault& wanted = all.wanted;
            if (all.armed && wanted.site == site && wanted.call == call) {
                if (wanted.what == effect::torn) {
                    out.fails = number == wanted.nth || all.tearing;
                    out.what = all.tearing ? effect::error : effect::torn;
                    all.tearing = number == wanted.nth;
                } else {
                    out.fails = wanted.onwards ? number >= wanted.nth : number == wanted.nth;
                    out.what = wanted.what;
                }
                out.error = wanted.error;
                if (out.fails) {
                    all.met = true;
                }
            }
        }
    }
    errno = kept;
    return out;
}

// Whether the call fails; if so, sets errno.
bool fails(const char* call, const void* from) {
    const verdict out = pass(call, from);
    if (out.fails) {
        errno = out.error;
    }
    return out.fails;
}

void* keep(const char* call, const void* from, void* block) {
    if (block != nullptr) {
        const int kept = errno;
        record& all = the_record();
        const std::lock_guard guard(all.mutex);
        all.live[block] = {
            call, reinterpret_cast<std::uintptr_t>(from) - reinterpret_cast<std::uintptr_t>(&__ehdr_start)};
        errno = kept;
    }
    return block;
}

void forget(void* block) {
    if (block == nullptr) {
        return;
    }
    const int kept = errno;
    record& all = the_record();
    const std::lock_guard guard(all.mutex);
    all.strange += all.live.erase(block) == 0 ? 1 : 0;
    errno = kept;
}

long shortened_us(long microseconds) {
    return microseconds <= 0 ? microseconds : std::max(microseconds / time_factor, 1000L);
}

void sleep_us(long microseconds) {
    const timespec pause{microseconds / 1000000, microseconds % 1000000 * 1000};
    nanosleep(&pause, nullptr);
}

// How much a transfer moves; -1 if it fails or ends instead, as `result` then says.
ssize_t transfer_length(const verdict& out, std::size_t length, ssize_t& result) {
    if (!out.fails) {
        return static_cast<ssize_t>(length);
    }
    switch (out.what) {
        case effect::shortened:
            return static_cast<ssize_t>(std::min<std::size_t>(length, 1));
        case effect::torn:
            return static_cast<ssize_t>((length + 1) / 2);
        case effect::end:
            result = 0;
            return -1;
        case effect::error:
            break;
    }
    errno = out.error;
    result = -1;
    return -1;
}

}  // namespace

void arm(const fault& wanted) {
    the_record().wanted = wanted;
    the_record().armed = true;
}

void begin_faults() {
    const std::lock_guard guard(the_record().mutex);
    the_record().active = true;
}

void end_faults() {
    const std::lock_guard guard(the_record().mutex);
    the_record().active = false;
}

void end_lasting_fault() {
    const std::lock_guard guard(the_record().mutex);
    the_record().armed = the_record().armed && !the_record().wanted.onwards;
}

bool is_met() {
    return the_record().met;
}

std::vector<site_calls> counted_calls() {
    const std::lock_guard guard(the_record().mutex);
    std::vector<site_calls> out;
    for (const auto& [key, calls] : the_record().calls) {
        out.push_back({key.second, key.first, calls});
    }
    return out;
}

std::vector<live_blocks> blocks() {
    const std::lock_guard guard(the_record().mutex);
    std::map<std::uintptr_t, live_blocks> by_site;
    for (const auto& [block, origin] : the_record().live) {
        live_blocks& entry = by_site[origin.site];
        entry = {origin.call, origin.site, entry.blocks + 1};
    }
    std::vector<live_blocks> out;
    for (const auto& [site, entry] : by_site) {
        out.push_back(entry);
    }
    return out;
}

unsigned block_count() {
    const std::lock_guard guard(the_record().mutex);
    return static_cast<unsigned>(the_record().live.size());
}

int open_streams() {
    return the_record().streams;
}

void free_block(void* block) {
    forget(block);
    std::free(block);
}

unsigned strange_frees() {
    const std::lock_guard guard(the_record().mutex);
    return the_record().strange;
}

}  // namespace sweep

using sweep::fails;
using sweep::keep;

#define CALLER __builtin_return_address(0)
#define NAME (&__func__[sizeof "sweep_" - 1])

// A call that fails with -1 and an error number.
#define FAILS_WITH_MINUS_ONE(type, name, parameters, arguments) \
    type sweep_##name parameters {                              \
        return fails(#name, CALLER) ? -1 : name arguments;      \
    }
// A call that fails with a null pointer.
#define FAILS_WITH_NULL(type, name, parameters, arguments)      \
    type sweep_##name parameters {                              \
        return fails(#name, CALLER) ? nullptr : name arguments; \
    }

// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {

void* sweep_malloc(size_t size) {
    return fails(NAME, CALLER) ? nullptr : keep(NAME, CALLER, std::malloc(size));
}

void* sweep_calloc(size_t count, size_t size) {
    return fails(NAME, CALLER) ? nullptr : keep(NAME, CALLER, std::calloc(count, size));
}

void* sweep_realloc(void* block, size_t size) {
    if (fails(NAME, CALLER)) {
        return nullptr;
    }
    sweep::forget(block);
    return keep(NAME, CALLER, std::realloc(block, size));
}

void sweep_free(void* block) {
    sweep::forget(block);
    std::free(block);
}

FAILS_WITH_MINUS_ONE(int, socket, (int domain, int type, int protocol), (domain, type, protocol))
FAILS_WITH_MINUS_ONE(int, bind, (int fd, const sockaddr* address, socklen_t length), (fd, address, length))
FAILS_WITH_MINUS_ONE(int, connect, (int fd, const sockaddr* address, socklen_t length), (fd, address, length))
FAILS_WITH_MINUS_ONE(int, shutdown, (int fd, int how), (fd, how))
FAILS_WITH_MINUS_ONE(int, getsockopt, (int fd, int level, int name, void* value, socklen_t* length),
                     (fd, level, name, value, length))
FAILS_WITH_MINUS_ONE(int, openat, (int directory, const char* path, int flags, mode_t mode),
                     (directory, path, flags, mode))
FAILS_WITH_MINUS_ONE(int, open, (const char* path, int flags, mode_t mode), (path, flags, mode))
FAILS_WITH_MINUS_ONE(int, fcntl, (int fd, int command, long value), (fd, command, value))
FAILS_WITH_MINUS_ONE(int, stat, (const char* path, struct stat* out), (path, out))
FAILS_WITH_MINUS_ONE(int, lstat, (const char* path, struct stat* out), (path, out))
FAILS_WITH_MINUS_ONE(int, fstat, (int fd, struct stat* out), (fd, out))
FAILS_WITH_MINUS_ONE(int, fstatat, (int directory, const char* path, struct stat* out, int flags),
                     (directory, path, out, flags))
FAILS_WITH_MINUS_ONE(int, chmod, (const char* path, mode_t mode), (path, mode))
FAILS_WITH_MINUS_ONE(int, fchmod, (int fd, mode_t mode), (fd, mode))
FAILS_WITH_MINUS_ONE(int, fchmodat, (int directory, const char* path, mode_t mode, int flags),
                     (directory, path, mode, flags))
FAILS_WITH_MINUS_ONE(int, mkdir, (const char* path, mode_t mode), (path, mode))
FAILS_WITH_MINUS_ONE(int, mkdirat, (int directory, const char* path, mode_t mode), (directory, path, mode))
FAILS_WITH_MINUS_ONE(int, unlink, (const char* path), (path))
FAILS_WITH_MINUS_ONE(int, unlinkat, (int directory, const char* path, int flags), (directory, path, flags))
FAILS_WITH_MINUS_ONE(int, rename, (const char* from, const char* to), (from, to))
FAILS_WITH_MINUS_ONE(ssize_t, read, (int fd, void* bytes, size_t length), (fd, bytes, length))
FAILS_WITH_MINUS_ONE(int, prctl,
                     (int option, unsigned long a, unsigned long b, unsigned long c, unsigned long d),
                     (option, a, b, c, d))
FAILS_WITH_MINUS_ONE(int, sysinfo, (struct sysinfo * out), (out))
FAILS_WITH_NULL(char*, getcwd, (char* out, size_t size), (out, size))
FAILS_WITH_NULL(char*, fgets, (char* out, int size, FILE* stream), (out, size, stream))
FAILS_WITH_NULL(qx_thread*, qx_thread_add_event_withname,
                (qx_thread_master * master, qx_thread_handler handler, void* arg, int value,
                 const char* name),
                (master, handler, arg, value, name))
FAILS_WITH_NULL(qx_thread*, qx_thread_add_read_high_withname,
                (qx_thread_master * master, qx_thread_handler handler, void* arg, int fd, const char* name),
                (master, handler, arg, fd, name))
FAILS_WITH_NULL(qx_thread*, qx_thread_add_write_withname,
                (qx_thread_master * master, qx_thread_handler handler, void* arg, int fd, const char* name),
                (master, handler, arg, fd, name))

// The loop's timers count whole seconds, so they expire at once here.
qx_thread* sweep_qx_thread_add_timer_withname(qx_thread_master* master, qx_thread_handler handler, void* arg,
                                              long seconds, const char* name) {
    return fails(NAME, CALLER)
               ? nullptr
               : qx_thread_add_timer_withname(master, handler, arg, seconds / sweep::time_factor, name);
}

int sweep_setsockopt(int fd, int level, int name, const void* value, socklen_t length) {
    if (fails(NAME, CALLER)) {
        return -1;
    }
    if (level == SOL_SOCKET && (name == SO_SNDTIMEO || name == SO_RCVTIMEO) && length == sizeof(timeval)) {
        timeval wanted;
        std::memcpy(&wanted, value, sizeof wanted);
        const long left = sweep::shortened_us(wanted.tv_sec * 1000000 + wanted.tv_usec);
        const timeval shorter{left / 1000000, left % 1000000};
        return setsockopt(fd, level, name, &shorter, sizeof shorter);
    }
    return setsockopt(fd, level, name, value, length);
}

// After an error that reports a lost peer, the socket stays dead.
ssize_t sweep_send(int fd, const void* bytes, size_t length, int flags) {
    ssize_t result = 0;
    const ssize_t moved = sweep::transfer_length(sweep::pass(NAME, CALLER), length, result);
    if (moved < 0 && (errno == EPIPE || errno == ECONNRESET || errno == ENOTCONN || errno == EBADF)) {
        const int error = errno;
        shutdown(fd, SHUT_RDWR);
        errno = error;
    }
    return moved < 0 ? result : send(fd, bytes, static_cast<size_t>(moved), flags);
}

ssize_t sweep_recv(int fd, void* bytes, size_t length, int flags) {
    ssize_t result = 0;
    const ssize_t moved = sweep::transfer_length(sweep::pass(NAME, CALLER), length, result);
    return moved < 0 ? result : recv(fd, bytes, static_cast<size_t>(moved), flags);
}

int sweep_poll(pollfd* watched, nfds_t count, int timeout) {
    const long shorter = timeout <= 0 ? timeout : (sweep::shortened_us(timeout * 1000L) + 999) / 1000;
    return fails(NAME, CALLER) ? -1 : poll(watched, count, static_cast<int>(shorter));
}

int sweep_select(int count, fd_set* reading, fd_set* writing, fd_set* excepting, timeval* timeout) {
    if (fails(NAME, CALLER)) {
        return -1;
    }
    if (timeout == nullptr) {
        return select(count, reading, writing, excepting, nullptr);
    }
    const long left = sweep::shortened_us(timeout->tv_sec * 1000000 + timeout->tv_usec);
    timeval shorter{left / 1000000, left % 1000000};
    return select(count, reading, writing, excepting, &shorter);
}

// A failing sleep is one that a signal ends at once.
unsigned sweep_sleep(unsigned seconds) {
    if (fails(NAME, CALLER)) {
        return seconds;
    }
    sweep::sleep_us(sweep::shortened_us(seconds * 1000000L));
    return 0;
}

int sweep_nanosleep(const timespec* wanted, timespec* left) {
    if (fails(NAME, CALLER)) {
        if (left != nullptr) {
            *left = *wanted;
        }
        return -1;
    }
    sweep::sleep_us(sweep::shortened_us(wanted->tv_sec * 1000000 + wanted->tv_nsec / 1000));
    return 0;
}

// Like the kernel, closes the descriptor even if it reports an error.
int sweep_close(int fd) {
    if (fails(NAME, CALLER)) {
        const int error = errno;
        close(fd);
        errno = error;
        return -1;
    }
    return close(fd);
}

FILE* sweep_fopen(const char* path, const char* mode) {
    FILE* stream = fails(NAME, CALLER) ? nullptr : fopen(path, mode);
    sweep::the_record().streams += stream != nullptr ? 1 : 0;
    return stream;
}

FILE* sweep_fdopen(int fd, const char* mode) {
    FILE* stream = fails(NAME, CALLER) ? nullptr : fdopen(fd, mode);
    sweep::the_record().streams += stream != nullptr ? 1 : 0;
    return stream;
}

int sweep_fclose(FILE* stream) {
    const bool failing = fails(NAME, CALLER);
    const int error = errno;
    --sweep::the_record().streams;
    const int result = fclose(stream);
    if (failing) {
        errno = error;
    }
    return failing ? EOF : result;
}

// Fails late, so that the threads of the same start, made before, have time to register.
int sweep_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                         void* argument) {
    if (!fails(NAME, CALLER)) {
        return pthread_create(thread, attributes, body, argument);
    }
    const int error = errno;
    sweep::sleep_us(100'000);
    return error;
}

int sweep_pthread_condattr_init(pthread_condattr_t* attributes) {
    return fails(NAME, CALLER) ? errno : pthread_condattr_init(attributes);
}

int sweep_pthread_cond_init(pthread_cond_t* condition, const pthread_condattr_t* attributes) {
    return fails(NAME, CALLER) ? errno : pthread_cond_init(condition, attributes);
}
}
// NOLINTEND(bugprone-reserved-identifier)
