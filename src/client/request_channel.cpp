// See request_channel.h.
//
// The batch is one message, built in place: header, then one item a request, up to 8192 bytes of items.
// scc_send_buf_lock guards it and every write on the asynchronous socket from here and the checker.
#include "client/request_channel.h"

#include <time.h>

#include <cstdlib>
#include <cstring>

#include "client/acl_cache.h"
#include "client/control_block.h"
#include "client/diagnostics.h"
#include "client/locks.h"
#include "client/log.h"
#include "client/message_queue.h"
#include "client/pending_calls.h"
#include "msg/bytes.h"
#include "msg/message.h"
#include "msg/result_codes.h"
#include "scclib.h"

using namespace scc;

namespace scc {

constinit std::atomic<void (*)(u32)> g_agent_recovery{nullptr};

namespace {

struct batch {
    u32 count;
    u32 capacity;
    u32 used;
    u32 epoch;  // of the connection that the waiting requests belong to
    u8 message[wire::header_bytes + wire::batch_capacity_bytes];
    u8 reserve[8];
};

static_assert(sizeof(batch) == wire::batch_block_bytes);

}  // namespace
}  // namespace scc

extern "C" {
constinit pthread_rwlock_t scc_send_buf_lock = PTHREAD_RWLOCK_INITIALIZER;
constinit batch* g_scc_msg_send_q = nullptr;
}

namespace scc {
namespace {

// Four bytes of the initial TLS block, so that no call into the dynamic linker is needed.
[[gnu::tls_model("initial-exec")]] thread_local constinit u32 t_epoch = any_epoch;

int pid_now() {
    return static_cast<int>(g_scc_client_cb.pid.load(relaxed));
}

u32 app_id_now() {
    return g_scc_client_cb.app_id.load(relaxed);
}

// What a request does after its send failed. The caller holds no lock of the send path.
void recover_from_send_failure(u32 error, u32 epoch) {
    if (app_id_now() == 0) {
        _scc_client_state_set(state_idle);
        return;
    }
    if (!_scc_connect_should_reset(error)) {
        return;
    }
    // A connection that has gone meanwhile took its calls with it; the next one's are not ours to drop.
    if (epoch == connection_epoch()) {
        _scc_lib_data_free();
    }
    if (g_scc_client_cb.thread_mode.load(relaxed) == 1) {
        report_broken(epoch);
        return;
    }
    if (const auto recover = g_agent_recovery.load(relaxed); recover != nullptr) {
        recover(epoch);
    }
}

u32 send_on(channel which, u32 epoch, const void* bytes, u32 length) {
    const borrowed_descriptor borrowed(which, epoch);
    return _scc_msg_send(borrowed.fd(), bytes, static_cast<int>(length));
}

void append(u16 sub_id, u16 type, const value_parts& value) {
    batch& waiting = *g_scc_msg_send_q;
    const auto length = static_cast<u32>(value.size());
    u8* at = waiting.message + wire::header_bytes + waiting.used;
    write_item_header(at, length, sub_id, type);
    value.copy_to(at + wire::item_header_bytes);
    ++waiting.count;
    waiting.used += length + wire::item_header_bytes;
    write_header(waiting.message, static_cast<u16>(waiting.count), wire::header_bytes + waiting.used);
}

bool may_wait() {
    return client_state_now() == state_registered && g_scc_msg_send_q->used < g_scc_msg_send_q->capacity;
}

void log_flush(const char* who) {
    const batch& waiting = *g_scc_msg_send_q;
    SCC_LOG("%s msg(len:%d, ver:%d, num:%u) send len:%d, uselen:%d. total len:%d.", who,
            load<u32>(waiting.message), waiting.message[4], load<u16>(waiting.message, 5),
            wire::header_bytes + waiting.used, waiting.used, waiting.capacity);
}

// The requests of a connection that has gone are dropped, as their calls were.
void drop_batch_of_lost_connection(u32 epoch) {
    if (g_scc_msg_send_q->count != 0 && g_scc_msg_send_q->epoch != epoch) {
        _scc_lib_send_buff_init();
    }
}

// Appends, and flushes as often as it takes. Under scc_send_buf_lock. Once a request did not fit, every
// flush outside the registered state is followed by the same request again, until a send fails or the
// state is registered: deliberate, and over in a moment since only a change of state leads there.
u32 append_and_flush(u16 sub_id, u16 type, const value_parts& value, int sync) {
    const u32 entry = static_cast<u32>(value.size()) + wire::item_header_bytes;
    batch& waiting = *g_scc_msg_send_q;
    bool overflow = waiting.capacity - waiting.used < entry;
    if (!overflow) {
        append(sub_id, type, value);
        if (may_wait()) {
            return result::ok;
        }
    }
    for (;;) {
        if (sync != 1) {
            log_flush("bt send");
        }
        const u32 error =
            send_on(channel_of(sync), waiting.epoch, waiting.message, wire::header_bytes + waiting.used);
        if (error != result::ok) {
            SCC_LOG("(app id:%d, pid:%d)send %s message error(rv:%d)!", app_id_now(), pid_now(),
                    sync == 1 ? "sync" : "async", error);
            _scc_lib_send_buff_init();
            return error;
        }
        _scc_lib_send_buff_init();
        if (!overflow) {
            return result::ok;
        }
        append(sub_id, type, value);
        if (may_wait()) {
            return result::ok;
        }
    }
}

u32 send_at_once(u16 sub_id, u16 type, const value_parts& value, int sync) {
    const auto value_bytes = static_cast<u32>(value.size());
    const u32 total = value_bytes + wire::header_bytes + wire::item_header_bytes;
    void* message = nullptr;
    if (_scc_msg_alloc(&message, total) != result::ok) {
        SCC_LOG("(app id:%d, pid:%d)alloc memory error!", app_id_now(), pid_now());
        return result::no_memory;
    }
    write_header(message, 1, total);
    auto* at = static_cast<u8*>(message) + wire::header_bytes;
    write_item_header(at, value_bytes, sub_id, type);
    value.copy_to(at + wire::item_header_bytes);
    const u32 epoch = epoch_of_this_thread();
    const u32 error = send_on(channel_of(sync), epoch, message, total);
    _scc_msg_free(&message);
    if (error != result::ok) {
        SCC_LOG("(app id:%d, pid:%d)send %s message error(rv:%d)!", app_id_now(), pid_now(),
                sync == 1 ? "sync" : "async", error);
        recover_from_send_failure(error, epoch);
    }
    return result::ok;
}

u32 send_oversized(u16 sub_id, u16 type, const value_parts& value, int sync) {
    SCC_LOG("msg is larger than sendbuf. val_size:%d.", static_cast<int>(value.size()));
    const write_guard guard(scc_send_buf_lock);
    // The caller hears that the value is too large whatever became of it.
    (void)send_at_once(sub_id, type, value, sync);
    return result::invalid;
}

u32 send_by_batch(u16 sub_id, u16 type, const value_parts& value, int sync) {
    if (value.size() >= wire::oversized_value_bytes) {
        return send_oversized(sub_id, type, value, sync);
    }
    const u32 epoch = epoch_of_this_thread();
    u32 error = result::ok;
    {
        const write_guard guard(scc_send_buf_lock);
        if (g_scc_msg_send_q == nullptr) {
            SCC_LOG("(app id:%d, pid:%d)alloc memory error!", app_id_now(), pid_now());
            return result::no_memory;
        }
        if (epoch != connection_epoch()) {
            return result::ok;  // lost with its connection; what waits may be the next one's
        }
        drop_batch_of_lost_connection(epoch);
        g_scc_msg_send_q->epoch = epoch;
        error = append_and_flush(sub_id, type, value, sync);
    }
    if (error != result::ok) {
        if (app_id_now() != 0) {
            SCC_LOG("!!!!_scc_lib_msg_send_rt rv :%d !!!!.", error);
        }
        recover_from_send_failure(error, epoch);
    }
    return result::ok;
}

value_parts value_of(const void* value, int len) {
    return {{static_cast<const u8*>(value), len > 0 ? static_cast<std::size_t>(len) : 0}};
}

void sleep_us(long microseconds) {
    const timespec pause{microseconds / 1000000, microseconds % 1000000 * 1000};
    nanosleep(&pause, nullptr);
}

// Reads past a body for which there is no memory, so that the next message is found.
u32 discard_body(int fd, u32 length) {
    u8 scrap[512];
    while (length > 0) {
        const u32 part = length < sizeof scrap ? length : static_cast<u32>(sizeof scrap);
        if (const u32 error = _scc_msg_body_recv(fd, scrap, static_cast<long>(part)); error != result::ok) {
            return error;
        }
        length -= part;
    }
    return result::ok;
}

u32 receive_body(int fd, const u8* header, u32 length, void** out) {
    auto* message = static_cast<u8*>(std::malloc(length));
    if (message == nullptr) {
        SCC_LOG("alloc memory failed.");
        (void)discard_body(fd, length - wire::header_bytes);
        return result::no_memory;
    }
    std::memcpy(message, header, wire::header_bytes);
    const u32 error =
        _scc_msg_body_recv(fd, message + wire::header_bytes, static_cast<long>(length - wire::header_bytes));
    if (error != result::ok) {
        SCC_LOG("recv msg body error! errno:%d.", error);
        std::free(message);
        return error;
    }
    if (!items_fit({message, length})) {
        SCC_LOG("msg format error,items exceed msg. len:%u.", length);
        std::free(message);
        return result::format;
    }
    *out = message;
    return result::ok;
}

}  // namespace

void value_parts::copy_to(u8* at) const {
    if (!head.empty()) {
        std::memcpy(at, head.data(), head.size());
    }
    if (!tail.empty()) {
        std::memcpy(at + head.size(), tail.data(), tail.size());
    }
}

u32 send_in_batch(u16 sub_id, u16 type, const value_parts& value) {
    return send_by_batch(sub_id, type, value, 0);
}

u32 epoch_of_this_thread() {
    return t_epoch != any_epoch ? t_epoch : connection_epoch();
}

connection_scope::connection_scope() : connection_scope(connection_epoch()) {}

connection_scope::connection_scope(u32 epoch) : before_(t_epoch) {
    t_epoch = epoch;
}

connection_scope::~connection_scope() {
    t_epoch = before_;
}

namespace {

// Sends the batch with the checker's patience; the error that ended the connection, or 0.
u32 flush_patiently(u32& epoch) {
    const write_guard guard(scc_send_buf_lock);
    if (g_scc_msg_send_q == nullptr || g_scc_msg_send_q->count == 0) {
        return result::ok;
    }
    epoch = g_scc_msg_send_q->epoch;
    if (epoch != connection_epoch()) {
        _scc_lib_send_buff_init();
        return result::ok;
    }
    log_flush("thread");
    u32 retries = 0;
    u32 error = result::ok;
    for (;;) {
        error = send_on(channel::async, epoch, g_scc_msg_send_q->message,
                        wire::header_bytes + g_scc_msg_send_q->used);
        if (error == result::try_again) {
            if (++retries > limits::send_retries) {
                SCC_LOG("_scc_msg_send retry %d times. Reason:%s(%d).", retries,
                        scc_strerror(static_cast<i32>(error)), error);
                error = result::ok;
                break;
            }
            SCC_LOG("_scc_msg_send retry to send %d times. Reason:%s(%d).", retries,
                    scc_strerror(static_cast<i32>(error)), error);
            sleep_us(limits::send_retry_us);
            continue;
        }
        if (error != result::ok) {
            SCC_LOG("(app id:%d, pid:%d)send  message error,ret:%d!", app_id_now(), pid_now(), error);
        }
        break;
    }
    _scc_lib_send_buff_init();
    return error;
}

}  // namespace

// Closing makes the receive thread register again. An event loop would not notice a descriptor that was
// closed under it, so the agent is told.
void flush_waiting_batch() {
    u32 epoch = any_epoch;
    if (flush_patiently(epoch) == result::ok) {
        return;
    }
    const auto recover = g_agent_recovery.load(relaxed);
    if (g_scc_client_cb.thread_mode.load(relaxed) == 1 || recover == nullptr) {
        (void)close_descriptors_of(epoch);
    } else if (app_id_now() != 0) {
        recover(epoch);
    }
}

}  // namespace scc

extern "C" {

void _scc_lib_data_init() {
    init_pending_calls();
    init_acl_cache();
    {
        const write_guard guard(scc_send_buf_lock);
        // A second start finds the first one's block: it is never freed.
        if (g_scc_msg_send_q == nullptr) {
            g_scc_msg_send_q = static_cast<batch*>(std::calloc(1, sizeof(batch)));
        }
        if (g_scc_msg_send_q == nullptr) {
            SCC_LOG("(app id:%d, pid:%d)alloc memory error!", app_id_now(), pid_now());
            return;
        }
        g_scc_msg_send_q->capacity = wire::batch_capacity_bytes;
        _scc_lib_send_buff_init();
    }
    _scc_lib_func_stat_reset();
    init_message_queue();
}

void _scc_lib_data_free() {
    free_pending_calls();
    free_acl_cache();
}

void _scc_lib_send_buff_init() {
    g_scc_msg_send_q->count = 0;
    g_scc_msg_send_q->used = 0;
    write_header(g_scc_msg_send_q->message, 0, wire::header_bytes);
}

u32 _scc_lib_msg_send(u16 type, const void* value, int len, int sync) {
    return _scc_lib_ss_msg_send(0, type, value, len, sync);
}

u32 _scc_lib_ss_msg_send(u16 sub_id, u16 type, const void* value, int len, int sync) {
    return sync == 1 ? _scc_lib_msg_send_rt(sub_id, type, value, len, 1)
                     : _scc_lib_msg_send_bt(sub_id, type, value, len, 0);
}

u32 _scc_lib_msg_send_rt(u16 sub_id, u16 type, const void* value, int len, int sync) {
    return send_at_once(sub_id, type, value_of(value, len), sync);
}

u32 _scc_lib_msg_send_bt(u16 sub_id, u16 type, const void* value, int len, int sync) {
    return send_by_batch(sub_id, type, value_of(value, len), sync);
}

u32 _scc_lib_msg_recv(void** out, int sync) {
    *out = nullptr;
    const borrowed_descriptor borrowed(channel_of(sync), t_epoch);
    u8 header[wire::header_bytes];
    u32 error = _scc_msg_hdr_recv(borrowed.fd(), header);
    if (error != result::ok) {
        SCC_LOG("recv msg hdr error! syn:%d errno:%d.", sync, error);
        return error;
    }
    const u32 length = load<u32>(header);
    if (load<u16>(header, 5) == 0 || length <= wire::header_bytes) {
        SCC_LOG("msg format error,no tlv.");
        return result::format;
    }
    return receive_body(borrowed.fd(), header, length, out);
}
}
