// The event-loop agent: an application's connection as tasks on its own event loop. Handlers run on the
// loop's thread under no library lock. The checker thread and requests of other threads may start a recovery
// at the same time; the connection's epoch admits one.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "agent/agent_tasks.h"
#include "client/client_data.h"
#include "client/connection.h"
#include "client/connection_scope.h"
#include "client/control_block.h"
#include "client/diagnostics.h"
#include "client/dispatch.h"
#include "client/handlers.h"
#include "client/locks.h"
#include "client/log.h"
#include "client/message_reader.h"
#include "client/request_channel.h"
#include "client/send_checker.h"
#include "client/start.h"
#include "client/threads.h"
#include "msg/bytes.h"
#include "msg/message.h"
#include "msg/result_codes.h"
#include "scclib.h"

using namespace scc;

namespace scc {
namespace {

constinit std::atomic<void (*)()> g_connect_callback{nullptr};

void call_connect_callback() {
    if (const auto callback = g_connect_callback.load(relaxed); callback != nullptr) {
        callback();
    }
}

// Ends the named connection, drops its calls and schedules the reconnection; does nothing when the
// connection has ended already. Logs in the name of function.
void recover(u32 epoch, const char* function) {
    u32 disconnected = any_epoch;
    // After this, no request can save a call.
    if (end_connection(epoch, disconnected)) {
        _scc_lib_data_free();
        SCC_LOG_FROM(function, "scc client start to try re-reg.");
        schedule_reconnect(disconnected);
    }
}

constexpr agent_hooks hooks{recover, cancel_all_tasks};

void handle_task_error(u32 error, u32 epoch, const char* function) {
    if (app_id_now() == 0) {
        set_idle_of(epoch);
    } else if (_scc_connect_should_reset(error)) {
        recover(epoch, function);
    }
}

// The status handler may end the registration; then there is no callback.
void announce_registration(u32 generation) {
    notify_status(1, generation);
    if (is_current(generation)) {
        call_connect_callback();
    }
}

// Serialises overlapping starts; each replaces the one before.
constinit mutex g_start_mutex SCC_ACQUIRED_BEFORE(g_connection_mutex);

u32 start_agent(const scc_reg_info& info, scc_reg_info* copy, void* master) SCC_EXCLUDES(g_start_mutex) {
    constexpr const char* function = "scc_agent_init";
    const mutex_guard guard(g_start_mutex);
    u32 generation = 0;
    if (!take_identity({info.app_id, info.option, start_kind::agent}, generation, function)) {
        std::free(copy);
        return result::ok;
    }
    cancel_all_tasks();  // an earlier start may wait for its reconnect timer
    _scc_lib_handler_set(&info);
    _scc_lib_data_init();
    set_master(master);
    set_agent_hooks(&hooks);
    const u32 error = start_thread(_scc_lib_send_buf_chk_thread, nullptr);
    if (error != result::ok) {
        SCC_LOG_FROM(function, "(app id:%d, pid:%d)create scclib thread error!", info.app_id, pid_now());
        undo_start(_scc_lib_handler_clear);
        std::free(copy);
        return error;
    }
    schedule_connect(copy);
    return result::ok;
}

}  // namespace
}  // namespace scc

extern "C" {

uint32_t scc_agent_init(const struct scc_reg_info* info, void* master) {
    if (master == nullptr) {
        SCC_LOG("input param master is null!");
        return result::invalid;
    }
    if (info == nullptr) {
        SCC_LOG("input param scc_reg is null!");
        return result::invalid;
    }
    if (info->app_id == 0 || info->app_id > limits::app_id_max) {
        SCC_LOG("app id is invalid in register param!");
        return result::invalid;
    }
    if (is_already_started({info->app_id, info->option, start_kind::agent}, __func__)) {
        return result::ok;
    }
    umask(0);
    auto* copy = static_cast<scc_reg_info*>(std::malloc(sizeof(scc_reg_info)));
    if (copy == nullptr) {
        return result::no_memory;
    }
    std::memcpy(copy, info, sizeof *copy);
    if (const u32 error = make_runtime_directory(info->app_id, __func__); error != result::ok) {
        std::free(copy);
        return error;
    }
    return start_agent(*info, copy, master);
}

uint32_t scc_agent_finish(void) {
    return unregister_client(__func__);
}

uint32_t scc_agent_set_connect_callback(void (*callback)(void)) {
    g_connect_callback.store(callback, relaxed);
    return result::ok;
}

int _scc_lib_agent_connect(struct qx_thread* task) {
    const running_task self = take_task(task_connect, task);
    auto* record = static_cast<scc_reg_info*>(self.argument);
    if (record == nullptr) {
        return 0;
    }
    const registration_identity identity{record->app_id, record->option};
    std::free(record);
    if (!can_form_socket_paths(__func__)) {
        give_start_up(self.generation);
        return 1;
    }
    const u32 epoch = epoch_of(self.generation);  // before another thread may send, and lose it again
    const u32 error = connect_and_register(identity, self.generation, __func__);
    if (error != result::ok || !set_state_of(self.generation, state_registered)) {
        recover(epoch_of(self.generation), __func__);
        return static_cast<int>(error);
    }
    SCC_LOG("(app id:%d, pid:%d)register to sccd success!", app_id_now(), pid_now());
    schedule_read(epoch);
    announce_registration(self.generation);
    return 0;
}

int _scc_lib_agent_reconnect(struct qx_thread* task) {
    const running_task self = take_task(task_reconnect, task);
    if (!self.found) {
        return 0;
    }
    if (!can_form_socket_paths(__func__)) {
        give_start_up(self.generation);
        return 1;
    }
    if (client_state_now() != state_failed) {
        notify_status(0, self.generation);
    }
    const u32 epoch = epoch_of(self.generation);  // before another thread may send, and lose it again
    const u32 error = connect_and_register(identity_of_control_block(), self.generation, __func__);
    if (error == result::ok && set_state_of(self.generation, state_registered)) {
        SCC_LOG("register to sccd success!");
        _scc_lib_func_stat_reset();
        notify_status(1, self.generation);
        schedule_read(epoch);
        if (is_current(self.generation)) {
            call_connect_callback();
        }
        return 0;
    }
    u32 disconnected = any_epoch;
    if (!end_connection(epoch_of(self.generation), disconnected, state_failed)) {
        return 0;
    }
    schedule_reconnect(disconnected);
    return static_cast<int>(error);
}

int _scc_lib_agent_read(struct qx_thread* task) {
    const running_task self = take_task(task_read, task);
    if (!self.found) {
        return 0;
    }
    const received_message received = receive_message(channel::async, self.epoch);
    if (received.error == result::ok) {
        const delivery_turn turn(self.generation);
        if (turn.granted()) {
            _scc_lib_async_msg_proc(load<u16>(received.message, 5),
                                    static_cast<u8*>(received.message) + wire::header_bytes);
        }
        std::free(received.message);
    }
    if (received.end == message_end::whole || received.end == message_end::dropped) {
        schedule_read(self.epoch);  // does nothing if a handler ended the registration or the connection
        return 0;
    }
    // After any error, even one that leaves the connection alive, reading stops until a reconnection.
    SCC_LOG("scc msg recv error. rv=%d, %s", received.error, scc_strerror(static_cast<i32>(received.error)));
    handle_task_error(received.error, self.epoch, __func__);
    return static_cast<int>(received.error);
}

int _scc_lib_agent_write(struct qx_thread* task) {
    const running_task self = take_task(task_write, task);
    auto* request = static_cast<write_request*>(self.argument);
    if (request == nullptr) {
        return 0;
    }
    const connection_scope scope(self.epoch);
    SCC_LOG("type:%d, len:%d", request->type, request->value_bytes);
    const u32 error = _scc_lib_msg_send(static_cast<u16>(request->type), request->value(),
                                        static_cast<int>(request->value_bytes), 0);
    std::free(request);
    if (error != result::ok) {
        SCC_LOG("scc msg send error. rv=%d, %s", error, scc_strerror(static_cast<i32>(error)));
        handle_task_error(error, self.epoch, __func__);
    }
    return 0;
}
}
