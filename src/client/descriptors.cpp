// See descriptors.h. g_connection_mutex guards lending, installing and closing.
#include "client/descriptors.h"

#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "client/client_data.h"
#include "client/control_block.h"
#include "client/locks.h"
#include "client/log.h"
#include "msg/paths.h"

namespace scc {
namespace {

struct loan {
    int fd = -1;
    u32 users = 0;
    bool doomed = false;  // closed by the last borrower
};

constinit std::array<loan, 32> g_loans SCC_GUARDED_BY(g_connection_mutex){};
// Written under g_connection_mutex, and read without it.
constinit std::atomic<u32> g_epoch{1};
constinit std::atomic<u32> g_shut_down_epoch{any_epoch};

std::atomic<i32>& slot_of(channel which) {
    return which == channel::sync ? g_scc_client_cb.sync_fd : g_scc_client_cb.async_fd;
}

// The kernel cannot reuse a number that is still open, so there is one loan of it.
loan* find_loan(int fd) SCC_REQUIRES(g_connection_mutex) {
    for (loan& entry : g_loans) {
        if (entry.users > 0 && entry.fd == fd) {
            return &entry;
        }
    }
    return nullptr;
}

loan* free_loan() SCC_REQUIRES(g_connection_mutex) {
    for (loan& entry : g_loans) {
        if (entry.users == 0) {
            return &entry;
        }
    }
    return nullptr;
}

bool lend(int fd) SCC_REQUIRES(g_connection_mutex) {
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

// Wakes a blocked borrower, then closes at once or leaves that to the last borrower.
int close_or_doom(int fd) SCC_REQUIRES(g_connection_mutex) {
    shutdown(fd, SHUT_RDWR);
    if (loan* entry = find_loan(fd); entry != nullptr) {
        entry->doomed = true;
        return 0;
    }
    return close(fd);
}

constexpr const char* close_function = "_scc_lib_client_close";

// Descriptor 0 is never closed: it is assumed to be the host's.
bool close_slot(channel which, const char* text) SCC_REQUIRES(g_connection_mutex) {
    std::atomic<i32>& slot = slot_of(which);
    const int fd = slot.load(relaxed);
    if (fd <= 0) {
        return true;
    }
    slot.store(-1, relaxed);
    if (close_or_doom(fd) == 0) {
        return true;
    }
    [[maybe_unused]] const int error = errno;
    SCC_LOG_FROM(close_function, "%s", text);
    SCC_LOG_FROM(close_function, "reason:%s", std::strerror(error));
    slot.store(fd, relaxed);
    return false;
}

bool remove_socket_file(const char* suffix) {
    path_buffer prefix;
    if (!make_path(prefix, suffix)) {
        return false;
    }
    path_buffer path;
    const int length = std::snprintf(path.text, sizeof path.text, "%s%d", prefix.text, pid_now());
    if (length < static_cast<int>(sizeof path.text)) {
        unlink(path.text);
    }
    return true;
}

bool end_epoch() SCC_REQUIRES(g_connection_mutex) {
    g_epoch.fetch_add(1, std::memory_order_release);
    const bool sync_closed = close_slot(channel::sync, "close sync socket failed!!!");
    const bool async_closed = close_slot(channel::async, "close async socket failed!!!");
    return sync_closed && async_closed;
}

int close_both() SCC_REQUIRES(g_connection_mutex) {
    if (!end_epoch()) {
        return -1;
    }
    if (!remove_socket_file(sync_socket_suffix) || !remove_socket_file(async_socket_suffix)) {
        return 1;
    }
    scc_lib_rereg.store(1, relaxed);
    return 0;
}

void shut_down_both() SCC_REQUIRES(g_connection_mutex) {
    for (const channel which : {channel::sync, channel::async}) {
        const int fd = slot_of(which).load(relaxed);
        if (fd > 0) {
            shutdown(fd, SHUT_RDWR);
        }
    }
}

bool something_lives(start_kind kind) SCC_REQUIRES(g_connection_mutex) {
    const start_kind living = locked::living_start();
    const bool replaces = living == start_kind::agent && kind == start_kind::agent;
    return _scc_lib_client_is_connected() || client_state_now() != state_idle || locked::is_unregistering() ||
           (living != start_kind::none && !replaces);
}

}  // namespace

u32 connection_epoch() {
    return g_epoch.load(std::memory_order_acquire);
}

borrowed_descriptor::borrowed_descriptor(channel which, u32 epoch) : fd_(-1), epoch_(0) {
    const mutex_guard guard(g_connection_mutex);
    epoch_ = g_epoch.load(relaxed);
    if (epoch != any_epoch && epoch != epoch_) {
        return;
    }
    const int fd = slot_of(which).load(relaxed);
    if (fd >= 0 && lend(fd)) {
        fd_ = fd;
    }
}

borrowed_descriptor::~borrowed_descriptor() {
    const mutex_guard guard(g_connection_mutex);
    if (loan* entry = find_loan(fd_); entry != nullptr && --entry->users == 0 && entry->doomed) {
        close(fd_);
    }
}

bool is_started(start_kind kind) {
    const mutex_guard guard(g_connection_mutex);
    return something_lives(kind);
}

bool claim_start(start_kind kind, u32& generation) {
    const mutex_guard guard(g_connection_mutex);
    if (something_lives(kind)) {
        return false;
    }
    // Close what an attempt that this start replaces has opened, and drop what it would still send.
    (void)end_epoch();
    generation = locked::begin_generation(kind);
    return true;
}

u32 epoch_of(u32 generation) {
    const mutex_guard guard(g_connection_mutex);
    return is_current(generation) ? g_epoch.load(relaxed) : any_epoch;
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
    return close_both();
}

bool close_descriptors_of(u32 epoch) {
    const mutex_guard guard(g_connection_mutex);
    if (g_epoch.load(relaxed) != epoch) {
        return false;
    }
    (void)close_both();
    return true;
}

bool end_connection_of(u32 epoch, u32 next_state) {
    const mutex_guard guard(g_connection_mutex);
    if (g_epoch.load(relaxed) != epoch) {
        return false;
    }
    _scc_client_state_set(next_state);
    (void)close_both();
    return true;
}

bool reset_connection(u32 generation) {
    const mutex_guard guard(g_connection_mutex);
    // No unregistration can begin in state 5, so the app id stays until the next registration.
    if (!locked::survives_unregistration(generation)) {
        return false;
    }
    _scc_client_state_set(state_failed);
    (void)close_both();
    // Last: a request of the old epoch either saved its call before this, or sees the new epoch and drops
    // its call.
    _scc_lib_data_free();
    return true;
}

void report_broken(u32 epoch) {
    const mutex_guard guard(g_connection_mutex);
    if (g_epoch.load(relaxed) == epoch && client_state_now() == state_registered) {
        shut_down_both();
        scc_lib_rereg.store(1, relaxed);
    }
}

void shut_down_connection(u32 epoch) {
    const mutex_guard guard(g_connection_mutex);
    if (g_epoch.load(relaxed) == epoch) {
        g_shut_down_epoch.store(epoch, relaxed);
        shut_down_both();
    }
}

bool is_shut_down(u32 epoch) {
    return g_shut_down_epoch.load(relaxed) == epoch;
}

void drop_data_of(u32 epoch) {
    const mutex_guard guard(g_connection_mutex);
    if (g_epoch.load(relaxed) == epoch) {
        _scc_lib_data_free();
    }
}

void set_idle_of(u32 epoch) {
    const mutex_guard guard(g_connection_mutex);
    if (g_epoch.load(relaxed) == epoch && app_id_now() == 0) {
        _scc_client_state_set(state_idle);
    }
}

}  // namespace scc
