// See descriptors.h. One small mutex guards lending, installing and closing; nothing blocks under it, but
// for dropping the data of a connection, which takes scc_call_data_lock and scc_acl_lock in turn.
#include "client/descriptors.h"

#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "client/control_block.h"
#include "client/locks.h"
#include "client/log.h"
#include "client/request_channel.h"
#include "msg/paths.h"

namespace scc {
namespace {

struct loan {
    int fd = -1;
    u32 users = 0;
    bool doomed = false;  // closed by the last borrower
};

constinit pthread_mutex_t g_connection_mutex = PTHREAD_MUTEX_INITIALIZER;
constinit pthread_cond_t g_unregistration_over = PTHREAD_COND_INITIALIZER;

// Guarded by g_connection_mutex; the two numbers are also read without it.
constinit std::array<loan, 32> g_loans{};
constinit std::atomic<u32> g_epoch{1};
constinit std::atomic<u32> g_generation{0};
constinit bool g_unregistering = false;

std::atomic<i32>& slot_of(channel which) {
    return which == channel::sync ? g_scc_client_cb.sync_fd : g_scc_client_cb.async_fd;
}

loan* find_loan(int fd) {
    for (loan& entry : g_loans) {
        if (entry.users > 0 && !entry.doomed && entry.fd == fd) {
            return &entry;
        }
    }
    return nullptr;
}

loan* free_loan() {
    for (loan& entry : g_loans) {
        if (entry.users == 0) {
            return &entry;
        }
    }
    return nullptr;
}

bool lend(int fd) {
    loan* entry = find_loan(fd);
    if (entry == nullptr) {
        entry = free_loan();
        if (entry == nullptr) {
            return false;
        }
        *entry = {fd, 0, false};
    }
    ++entry->users;
    return true;
}

// Releases a blocked borrower, then closes, at once or with the last borrower.
int close_or_doom(int fd) {
    shutdown(fd, SHUT_RDWR);
    if (loan* entry = find_loan(fd); entry != nullptr) {
        entry->doomed = true;
        return 0;
    }
    return close(fd);
}

// A descriptor of 0 is never closed: it is taken for the host's own.
bool close_slot(channel which, const char* text) {
    std::atomic<i32>& slot = slot_of(which);
    const int fd = slot.load(relaxed);
    if (fd <= 0) {
        return true;
    }
    slot.store(-1, relaxed);
    if (close_or_doom(fd) == 0) {
        return true;
    }
    SCC_LOG("%s", text);
    SCC_LOG("reason:%s", std::strerror(errno));
    slot.store(fd, relaxed);
    return false;
}

bool remove_socket_file(const char* suffix) {
    path_buffer prefix;
    if (!make_path(prefix, suffix)) {
        return false;
    }
    path_buffer path;
    const int length = std::snprintf(path.text, sizeof path.text, "%s%d", prefix.text,
                                     static_cast<int>(g_scc_client_cb.pid.load(relaxed)));
    if (length < static_cast<int>(sizeof path.text)) {
        unlink(path.text);
    }
    return true;
}

int close_both_locked() {
    g_epoch.fetch_add(1, std::memory_order_release);
    const bool sync_closed = close_slot(channel::sync, "close sync socket failed!!!");
    const bool async_closed = close_slot(channel::async, "close async socket failed!!!");
    if (!sync_closed || !async_closed) {
        return -1;
    }
    if (!remove_socket_file(sync_socket_suffix) || !remove_socket_file(async_socket_suffix)) {
        return 1;
    }
    scc_lib_rereg.store(1, relaxed);
    return 0;
}

}  // namespace

u32 connection_epoch() {
    return g_epoch.load(std::memory_order_acquire);
}

borrowed_descriptor::borrowed_descriptor(channel which, u32 epoch) : fd_(-1), epoch_(0) {
    const mutex_guard guard(g_connection_mutex);
    epoch_ = g_epoch.load(relaxed);
    if (epoch != any_epoch && epoch != epoch_) {
        epoch_ = epoch;
        return;
    }
    const int fd = slot_of(which).load(relaxed);
    if (fd >= 0 && lend(fd)) {
        fd_ = fd;
    }
}

borrowed_descriptor::~borrowed_descriptor() {
    if (fd_ < 0) {
        return;
    }
    const mutex_guard guard(g_connection_mutex);
    for (loan& entry : g_loans) {
        // A number cannot be handed out again while it is lent, so there is one loan of it.
        if (entry.users > 0 && entry.fd == fd_) {
            if (--entry.users == 0 && entry.doomed) {
                close(entry.fd);
            }
            return;
        }
    }
}

u32 begin_generation() {
    const mutex_guard guard(g_connection_mutex);
    return g_generation.fetch_add(1, relaxed) + 1;
}

void end_generation() {
    const mutex_guard guard(g_connection_mutex);
    g_generation.fetch_add(1, relaxed);
}

bool is_current(u32 generation) {
    return g_generation.load(relaxed) == generation;
}

u32 current_generation() {
    return g_generation.load(relaxed);
}

u32 epoch_of(u32 generation) {
    const mutex_guard guard(g_connection_mutex);
    return is_current(generation) ? g_epoch.load(relaxed) : any_epoch;
}

bool set_state_of(u32 generation, u32 state) {
    const mutex_guard guard(g_connection_mutex);
    if (!is_current(generation)) {
        return false;
    }
    _scc_client_state_set(state);
    return true;
}

bool install_descriptor(channel which, int fd, u32 generation) {
    const mutex_guard guard(g_connection_mutex);
    if (!is_current(generation)) {
        close(fd);
        return false;
    }
    slot_of(which).store(fd, relaxed);
    return true;
}

int close_descriptors() {
    const mutex_guard guard(g_connection_mutex);
    return close_both_locked();
}

bool close_descriptors_of(u32 epoch) {
    const mutex_guard guard(g_connection_mutex);
    if (g_epoch.load(relaxed) != epoch) {
        return false;
    }
    (void)close_both_locked();
    return true;
}

bool end_connection_of(u32 epoch, u32 next_state) {
    const mutex_guard guard(g_connection_mutex);
    if (g_epoch.load(relaxed) != epoch) {
        return false;
    }
    _scc_client_state_set(next_state);
    (void)close_both_locked();
    return true;
}

bool reset_connection(u32 generation) {
    const mutex_guard guard(g_connection_mutex);
    if (!is_current(generation)) {
        return false;
    }
    _scc_client_state_set(state_failed);
    (void)close_both_locked();
    // Last: a request that saved its call under the old epoch either sees the new one, and drops its call,
    // or saved it in front of this.
    _scc_lib_data_free();
    return true;
}

void report_broken(u32 epoch) {
    const mutex_guard guard(g_connection_mutex);
    if (g_epoch.load(relaxed) != epoch || client_state_now() != state_registered) {
        return;
    }
    for (const channel which : {channel::sync, channel::async}) {
        const int fd = slot_of(which).load(relaxed);
        if (fd > 0) {
            shutdown(fd, SHUT_RDWR);
        }
    }
    scc_lib_rereg.store(1, relaxed);
}

void notify_status(u32 status, u32 generation) {
    pthread_mutex_lock(&g_connection_mutex);
    const auto handler =
        is_current(generation) ? load_handler(g_scc_client_cb.handlers.server_status) : nullptr;
    pthread_mutex_unlock(&g_connection_mutex);
    if (handler != nullptr) {
        handler(status);
    }
}

void unregistration_begins() {
    const mutex_guard guard(g_connection_mutex);
    g_unregistering = true;
}

void unregistration_is_over() {
    const mutex_guard guard(g_connection_mutex);
    g_unregistering = false;
    pthread_cond_broadcast(&g_unregistration_over);
}

bool survives_unregistration(u32 generation) {
    const mutex_guard guard(g_connection_mutex);
    while (g_unregistering && is_current(generation)) {
        pthread_cond_wait(&g_unregistration_over, &g_connection_mutex);
    }
    return is_current(generation);
}

}  // namespace scc
