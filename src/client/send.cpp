// See send.h.
#include "client/send.h"

#include <atomic>

#include "client/connection_scope.h"
#include "client/control_block.h"
#include "client/log.h"
#include "msg/bytes.h"
#include "msg/message.h"
#include "msg/result_codes.h"

using namespace scc;

namespace scc {
namespace {

constinit std::atomic<const agent_hooks*> g_agent_hooks{nullptr};

}  // namespace

void set_agent_hooks(const agent_hooks* hooks) {
    g_agent_hooks.store(hooks, relaxed);
}

const agent_hooks* active_agent_hooks() {
    return is_thread_mode() ? nullptr : g_agent_hooks.load(relaxed);
}

send_outcome send_bytes(channel which, u32 epoch, std::span<const u8> bytes) {
    const borrowed_descriptor borrowed(which, epoch);
    std::size_t sent = 0;
    const u32 error = send_counted(borrowed.fd(), bytes, sent);
    return {.error = error, .in_part = error != result::ok && sent != 0};
}

send_outcome send_one_item(channel which, u32 epoch, u16 sub_id, u16 type, const value_parts& value) {
    constexpr const char* function = "_scc_lib_msg_send_rt";
    const auto value_bytes = static_cast<u32>(value.size());
    const u32 total = value_bytes + wire::header_bytes + wire::item_header_bytes;
    void* message = nullptr;
    if (_scc_msg_alloc(&message, total) != result::ok) {
        SCC_LOG_FROM(function, "(app id:%d, pid:%d)alloc memory error!", app_id_now(), pid_now());
        return {.error = result::no_memory, .built = false};
    }
    write_header(message, 1, total);
    auto* at = static_cast<u8*>(message) + wire::header_bytes;
    write_item_header(at, value_bytes, sub_id, type);
    value.copy_to(at + wire::item_header_bytes);
    const send_outcome outcome = send_bytes(which, epoch, {static_cast<const u8*>(message), total});
    _scc_msg_free(&message);
    if (outcome.error != result::ok) {
        SCC_LOG_FROM(function, "(app id:%d, pid:%d)send %s message error(rv:%d)!", app_id_now(), pid_now(),
                     which == channel::sync ? "sync" : "async", outcome.error);
    }
    return outcome;
}

void recover_from_failed_send(const send_outcome& outcome, u32 epoch, const char* function) {
    if (app_id_now() == 0) {
        set_idle_of(epoch);
        return;
    }
    if (!_scc_connect_should_reset(outcome.error) && !outcome.in_part) {
        return;
    }
    drop_data_of(epoch);
    if (const agent_hooks* agent = active_agent_hooks(); agent != nullptr) {
        agent->recover(epoch, function);
    } else {
        report_broken(epoch);
    }
}

}  // namespace scc

extern "C" u32 _scc_lib_msg_send_rt(u16 sub_id, u16 type, const void* value, int len, int sync) {
    const u32 epoch = epoch_of_this_thread();
    const send_outcome outcome = send_one_item(channel_of(sync), epoch, sub_id, type, value_of(value, len));
    if (outcome.built && outcome.error != result::ok) {
        recover_from_failed_send(outcome, epoch, __func__);
    }
    return outcome.reported();
}
