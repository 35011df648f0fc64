// See batch.h.
//
// The batch is one message, built in place: header, then one item per request.
// scc_send_buf_lock guards it, and every write to the asynchronous socket from here.
#include "client/batch.h"

#include <time.h>

#include <cstdlib>
#include <span>

#include "client/connection_scope.h"
#include "client/control_block.h"
#include "client/locks.h"
#include "client/log.h"
#include "msg/bytes.h"
#include "msg/message.h"
#include "msg/result_codes.h"
#include "scclib.h"

using namespace scc;

namespace scc {
namespace {

struct batch {
    u32 count;
    u32 capacity;
    u32 used;
    u32 epoch;  // of the connection that the waiting requests belong to
    u8 message[wire::header_bytes + wire::batch_capacity_bytes];
    u8 reserve[8];
};

static_assert(sizeof(batch) == wire::batch_capacity_bytes + 32);
static_assert(wire::batch_capacity_bytes > wire::header_bytes + wire::item_header_bytes);
static_assert(wire::oversized_value_bytes - 1 + wire::item_header_bytes <= wire::batch_capacity_bytes,
              "the largest batched value fits into an empty batch");
static_assert(wire::batch_capacity_bytes / wire::item_header_bytes <= UINT16_MAX, "u16 counts the items");

}  // namespace
}  // namespace scc

extern "C" {
constinit pthread_rwlock_t scc_send_buf_lock = PTHREAD_RWLOCK_INITIALIZER;
constinit batch* g_scc_msg_send_q SCC_GUARDED_BY(batch_lock) = nullptr;
}

namespace scc {
namespace {

constinit bool g_started SCC_GUARDED_BY(batch_lock) = false;

constexpr const char* send_function = "_scc_lib_msg_send_bt";
constexpr const char* checker_function = "_scc_lib_send_buf_chk_thread";

std::span<const u8> batch_message() SCC_REQUIRES(batch_lock) {
    return {g_scc_msg_send_q->message, wire::header_bytes + g_scc_msg_send_q->used};
}

// When a start had no memory for the block, the next request allocates it. Before a start there is none.
bool has_block() SCC_REQUIRES(batch_lock) {
    if (g_scc_msg_send_q == nullptr && g_started) [[unlikely]] {
        g_scc_msg_send_q = static_cast<batch*>(std::calloc(1, sizeof(batch)));
        if (g_scc_msg_send_q == nullptr) {
            return false;
        }
        g_scc_msg_send_q->capacity = wire::batch_capacity_bytes;
    }
    return g_scc_msg_send_q != nullptr;
}

// Appends an item that fits. Returns where its value goes.
u8* append_item(batch& waiting, u16 sub_id, u16 type, u32 value_bytes) SCC_REQUIRES(batch_lock) {
    u8* const at = waiting.message + wire::header_bytes + waiting.used;
    const u32 count = waiting.count + 1;
    const u32 used = waiting.used + value_bytes + wire::item_header_bytes;
    waiting.count = count;
    waiting.used = used;
    write_header(waiting.message, static_cast<u16>(count), wire::header_bytes + used);
    write_item_header(at, value_bytes, sub_id, type);
    return at + wire::item_header_bytes;
}

void append(u16 sub_id, u16 type, const value_parts& value) SCC_REQUIRES(batch_lock) {
    value.copy_to(append_item(*g_scc_msg_send_q, sub_id, type, static_cast<u32>(value.size())));
}

// On a connection that the checker has shut down nothing waits: an event loop that no longer reads would
// not notice its end, so the request's own send has to fail.
bool may_wait() SCC_REQUIRES(batch_lock) {
    const batch& waiting = *g_scc_msg_send_q;
    return client_state_now() == state_registered && waiting.used < waiting.capacity &&
           !is_shut_down(waiting.epoch);
}

void log_flush(const char* function, const char* who) SCC_REQUIRES(batch_lock) {
    const batch& waiting = *g_scc_msg_send_q;
    SCC_LOG_FROM(function, "%s msg(len:%d, ver:%d, num:%u) send len:%d, uselen:%d. total len:%d.", who,
                 load<u32>(waiting.message), waiting.message[4], load<u16>(waiting.message, 5),
                 wire::header_bytes + waiting.used, waiting.used, waiting.capacity);
}

// The requests of a lost connection are dropped, as their calls were.
void drop_batch_of_lost_connection(u32 epoch) SCC_REQUIRES(batch_lock) {
    if (g_scc_msg_send_q->count != 0 && g_scc_msg_send_q->epoch != epoch) {
        _scc_lib_send_buff_init();
    }
}

// What is rare or costs a system call is not inlined, so that a request which only joins the batch saves few
// registers.

// Flushes as often as needed. A request that did not fit is appended and sent again after every flush outside
// the registered state, until a send fails or the state is registered: deliberate, and brief, since only a
// change of state leads there.
[[gnu::noinline]] send_outcome flush_now(u16 sub_id, u16 type, const value_parts& value, int sync,
                                         bool overflow) SCC_REQUIRES(batch_lock) {
    batch& waiting = *g_scc_msg_send_q;
    for (;;) {
        if (sync != 1) {
            log_flush(send_function, "bt send");
        }
        const send_outcome outcome = send_bytes(channel_of(sync), waiting.epoch, batch_message());
        if (outcome.error != result::ok) {
            SCC_LOG_FROM(send_function, "(app id:%d, pid:%d)send %s message error(rv:%d)!", app_id_now(),
                         pid_now(), sync == 1 ? "sync" : "async", outcome.error);
        }
        _scc_lib_send_buff_init();
        if (outcome.error != result::ok || !overflow) {
            return outcome;
        }
        append(sub_id, type, value);
        if (may_wait()) {
            return {};
        }
    }
}

[[gnu::noinline]] u32 send_oversized(u16 sub_id, u16 type, const value_parts& value, int sync) {
    SCC_LOG_FROM(send_function, "msg is larger than sendbuf. val_size:%d.", static_cast<int>(value.size()));
    const u32 epoch = epoch_of_this_thread();
    const write_guard guard(batch_lock);
    const send_outcome outcome = send_one_item(channel_of(sync), epoch, sub_id, type, value);
    if (outcome.built && outcome.error != result::ok) {
        recover_from_failed_send(outcome, epoch, "_scc_lib_msg_send_rt");
    }
    return result::invalid;  // Report 22 whether or not the send succeeded.
}

[[gnu::noinline]] void recover(const send_outcome& outcome, u32 epoch) {
    if (app_id_now() != 0) {
        SCC_LOG_FROM(send_function, "!!!!_scc_lib_msg_send_rt rv :%d !!!!.", outcome.error);
    }
    recover_from_failed_send(outcome, epoch, send_function);
}

// For what does not simply join the waiting requests. 12 without memory; outcome is that of a flush.
[[gnu::noinline]] u32 append_or_flush(u16 sub_id, u16 type, const value_parts& value, int sync, u32 epoch,
                                      send_outcome& outcome) SCC_REQUIRES(batch_lock) {
    if (!has_block()) {
        SCC_LOG_FROM(send_function, "(app id:%d, pid:%d)alloc memory error!", app_id_now(), pid_now());
        return result::no_memory;
    }
    if (epoch != connection_epoch()) {
        return result::ok;  // lost with its connection; the batch may be the next one's
    }
    drop_batch_of_lost_connection(epoch);
    batch& waiting = *g_scc_msg_send_q;
    waiting.epoch = epoch;
    const u32 entry = static_cast<u32>(value.size()) + wire::item_header_bytes;
    const bool overflow = waiting.capacity - waiting.used < entry;
    if (!overflow) {
        append(sub_id, type, value);
        if (may_wait()) {
            return result::ok;
        }
    }
    outcome = flush_now(sub_id, type, value, sync, overflow);
    return result::ok;
}

u32 send_by_batch(u16 sub_id, u16 type, const value_parts& value, int sync) {
    if (value.size() >= wire::oversized_value_bytes) {
        return send_oversized(sub_id, type, value, sync);
    }
    const u32 epoch = epoch_of_this_thread();
    send_outcome outcome;
    u32 error = result::ok;
    {
        const write_guard guard(batch_lock);
        if (u8* const at = join_batch(sub_id, type, static_cast<u32>(value.size())); at != nullptr)
            [[likely]] {
            value.copy_to(at);
            return result::ok;
        }
        error = append_or_flush(sub_id, type, value, sync, epoch, outcome);
    }
    if (outcome.error != result::ok) {
        recover(outcome, epoch);
    }
    return error;
}

void sleep_us(long microseconds) {
    const timespec pause{microseconds / 1000000, microseconds % 1000000 * 1000};
    nanosleep(&pause, nullptr);
}

// Sends the batch with the checker's retries. After a time-out only the unsent rest is sent again: bytes sent
// twice would put the daemon's stream out of step. Returns the error that ends the connection, or 0.
u32 send_with_retries(u32 epoch) SCC_REQUIRES(batch_lock) {
    std::span<const u8> rest = batch_message();
    for (u32 retries = 1;; ++retries) {
        std::size_t sent = 0;
        u32 error = result::ok;
        {
            const borrowed_descriptor borrowed(channel::async, epoch);
            error = send_counted(borrowed.fd(), rest, sent);
        }
        if (error == result::ok) {
            return error;
        }
        rest = rest.subspan(sent);
        if (error != result::try_again) {
            SCC_LOG_FROM(checker_function, "(app id:%d, pid:%d)send  message error,ret:%d!", app_id_now(),
                         pid_now(), error);
            return error;
        }
        if (retries > limits::send_retries) {
            SCC_LOG_FROM(checker_function, "_scc_msg_send retry %d times. Reason:%s(%d).", retries,
                         scc_strerror(static_cast<i32>(error)), error);
            return rest.size() == batch_message().size() ? result::ok : error;
        }
        SCC_LOG_FROM(checker_function, "_scc_msg_send retry to send %d times. Reason:%s(%d).", retries,
                     scc_strerror(static_cast<i32>(error)), error);
        sleep_us(limits::send_retry_us);
    }
}

// Returns the error that ends the connection, which epoch then names, or 0.
u32 flush(u32& epoch) {
    const write_guard guard(batch_lock);
    if (g_scc_msg_send_q == nullptr || g_scc_msg_send_q->count == 0) {
        return result::ok;
    }
    epoch = g_scc_msg_send_q->epoch;
    u32 error = result::ok;
    if (epoch == connection_epoch()) {
        log_flush(checker_function, "thread");
        error = send_with_retries(epoch);
    }
    _scc_lib_send_buff_init();
    return error;
}

}  // namespace

u8* join_batch(u16 sub_id, u16 type, u32 value_bytes) {
    if (g_scc_msg_send_q == nullptr) {
        return nullptr;
    }
    batch& waiting = *g_scc_msg_send_q;
    const u32 epoch = epoch_of_this_thread();
    const bool leads_elsewhere =
        epoch != connection_epoch() || is_shut_down(epoch) || (waiting.count != 0 && waiting.epoch != epoch);
    const bool fills_it = waiting.capacity - waiting.used <= value_bytes + wire::item_header_bytes;
    if (leads_elsewhere || fills_it || client_state_now() != state_registered) [[unlikely]] {
        return nullptr;
    }
    waiting.epoch = epoch;
    return append_item(waiting, sub_id, type, value_bytes);
}

u32 send_in_batch(u16 sub_id, u16 type, const value_parts& value) {
    return send_by_batch(sub_id, type, value, 0);
}

bool prepare_batch() {
    const write_guard guard(batch_lock);
    g_started = true;
    if (!has_block()) {
        return false;
    }
    _scc_lib_send_buff_init();
    return true;
}

// In thread mode, closing makes the receive thread register again. An event loop would not notice a closed
// descriptor, and this thread must not cancel its tasks: after a shutdown its read task finds end-of-file.
void flush_waiting_batch() {
    u32 epoch = any_epoch;
    if (flush(epoch) == result::ok) {
        return;
    }
    if (active_agent_hooks() == nullptr) {
        (void)close_descriptors_of(epoch);
    } else {
        shut_down_connection(epoch);
    }
}

}  // namespace scc

extern "C" {

void _scc_lib_send_buff_init() {
    g_scc_msg_send_q->count = 0;
    g_scc_msg_send_q->used = 0;
    write_header(g_scc_msg_send_q->message, 0, wire::header_bytes);
}

u32 _scc_lib_msg_send_bt(u16 sub_id, u16 type, const void* value, int len, int sync) {
    return send_by_batch(sub_id, type, value_of(value, len), sync);
}
}
