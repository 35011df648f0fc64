// Fuzzes messages of a hostile daemon: a whole message, as the receive path reads it from a socket, goes
// through the application's and the service's dispatchers. Calls of every kind are pending; one handler is
// set.
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>

#include "client/client_data.h"
#include "client/control_block.h"
#include "client/descriptors.h"
#include "client/dispatch.h"
#include "client/kinds.h"
#include "client/message_reader.h"
#include "client/pending_calls.h"
#include "client/request_channel.h"
#include "msg/bytes.h"
#include "msg/message.h"
#include "ss/id_map.h"
#include "ss/service.h"

using namespace scc;

namespace {

// A handler that reads everything that its arguments promise.
std::uint64_t g_sum = 0;

void add_bytes(const void* bytes, std::size_t count) {
    const auto* at = static_cast<const u8*>(bytes);
    for (std::size_t i = 0; i < count; ++i) {
        g_sum += at[i];
    }
}

void on_noflow(const scc_flow_user* user, u64, u64, const void* extra, u32 extra_bytes) {
    add_bytes(user, sizeof *user);
    add_bytes(extra, extra_bytes);
}

void on_counters(const scc_acl_key* key, u32 count, const scc_ace_counter* counters) {
    add_bytes(key, sizeof *key);
    add_bytes(counters, std::size_t{count} * sizeof *counters);
}

void on_violation(u8, const scc_port_violation* violation) {
    add_bytes(violation, sizeof *violation);
}

void on_roll(const scc_user_roll* roll) {
    add_bytes(roll, sizeof *roll);
}

int on_user(u32, u8, const scc_ss_user* user) {
    add_bytes(user, sizeof *user);
    return 0;
}

void set_up() {
    static bool done = false;
    if (!done) {
        done = true;
        _scc_lib_data_init();
        g_scc_client_cb.option.store(1);
        g_scc_client_cb.thread_mode.store(1);
        g_scc_client_cb.handlers.noflow_offline = on_noflow;
        g_scc_client_cb.handlers.ace_counters = on_counters;
        g_scc_client_cb.handlers.port_violate_notify = on_violation;
        g_scc_client_cb.handlers.user_roll = on_roll;
        g_scc_ss_cb.user_op = on_user;
    }
    static const u8 saved[1024] = {};
    for (u32 kind = 1; kind <= kind::last; ++kind) {
        (void)_scc_lib_save_call_data(kind, kind, saved, static_cast<int>(kind % 3 == 0 ? 1024 : kind));
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 1 || size > 60000) {
        return 0;
    }
    set_up();
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) {
        return 0;
    }
    g_scc_client_cb.async_fd.store(ends[0]);
    (void)!write(ends[1], data + 1, size - 1);
    close(ends[1]);
    void* message = nullptr;
    while (_scc_lib_msg_recv(&message, 0) == 0) {
        const u16 items = load<u16>(message, 5);
        const void* first = static_cast<const u8*>(message) + wire::header_bytes;
        if (data[0] % 2 == 0) {
            _scc_lib_async_msg_proc(items, first);
        } else {
            _scc_ss_async_msg_proc(items, first);
        }
        _scc_msg_free(&message);
    }
    g_scc_client_cb.async_fd.store(-1);
    close(ends[0]);
    _scc_lib_data_free();
    empty_id_map();
    return 0;
}
