// The event-loop agent: the connection of an application as tasks on its own event loop. Handlers run on
// the loop's thread and take no library lock; the checker thread, and requests from other threads, meet
// them in the recovery, which the connection's epoch lets through once.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "agent/agent_tasks.h"
#include "client/connection.h"
#include "client/control_block.h"
#include "client/diagnostics.h"
#include "client/dispatch.h"
#include "client/handlers.h"
#include "client/log.h"
#include "client/receive.h"
#include "client/request_channel.h"
#include "client/send_checker.h"
#include "client/start.h"
#include "client/threads.h"
#include "msg/bytes.h"
#include "msg/message.h"
#include "msg/paths.h"
#include "msg/result_codes.h"

using namespace scc;

namespace scc {
namespace {

constinit std::atomic<void (*)()> g_connect_callback{nullptr};

u32 app_id_now() {
    return g_scc_client_cb.app_id.load(relaxed);
}

int pid_now() {
    return static_cast<int>(g_scc_client_cb.pid.load(relaxed));
}

bool can_form_paths() {
    path_buffer path;
    return make_path(path, sync_socket_suffix) && make_path(path, async_socket_suffix);
}

void call_connect_callback() {
    if (const auto callback = g_connect_callback.load(relaxed); callback != nullptr) {
        callback();
    }
}

// Ends the named connection, drops its calls and starts over; whoever comes second finds it gone and does
// nothing. Behind the end, no request can save a call for it any more.
void recover(u32 epoch) {
    u32 gap = any_epoch;
    if (end_connection(epoch, gap)) {
        _scc_lib_data_free();
        SCC_LOG("scc client start to try re-reg.");
        schedule_reconnect(gap);
    }
}

// What the read and the write task do with an error.
void handle_task_error(u32 error, u32 epoch) {
    if (app_id_now() == 0) {
        _scc_client_state_set(state_idle);
    } else if (_scc_connect_should_reset(error)) {
        recover(epoch);
    }
}

u32 start_agent(const scc_reg_info& info, scc_reg_info* copy, void* master) {
    (void)take_identity({info.app_id, info.option, 0});
    _scc_lib_handler_set(&info);
    _scc_lib_data_init();
    set_master(master);
    g_agent_recovery.store(recover, relaxed);
    const u32 error = start_thread(_scc_lib_send_buf_chk_thread, nullptr);
    if (error != result::ok) {
        SCC_LOG("(app id:%d, pid:%d)create scclib thread error!", info.app_id, pid_now());
        undo_start(_scc_lib_handler_clear);
        return error;
    }
    cancel_all_tasks();  // an earlier start may wait for its reconnect timer
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
    if (is_started(info->app_id)) {
        return result::ok;
    }
    umask(0);
    auto* copy = static_cast<scc_reg_info*>(std::malloc(sizeof(scc_reg_info)));
    if (copy == nullptr) {
        return result::no_memory;
    }
    std::memcpy(copy, info, sizeof *copy);
    u32 error = make_runtime_directory(info->app_id);
    if (error == result::ok) {
        error = start_agent(*info, copy, master);
    }
    if (error != result::ok) {
        std::free(copy);
    }
    return error;
}

uint32_t scc_agent_finish(void) {
    if (client_state_now() != state_registered) {
        SCC_LOG("(pid:%d) already unregistered or not registered!", pid_now());
        return result::ok;
    }
    return unregister_client(cancel_all_tasks);
}

void scc_agent_set_connect_callback(void (*callback)(void)) {
    g_connect_callback.store(callback, relaxed);
}

int _scc_lib_agent_connect(struct qx_thread* task) {
    auto* record = static_cast<scc_reg_info*>(qx_thread_arg(task));
    forget_task(task_connect);
    if (!can_form_paths()) {
        std::free(record);
        return 1;
    }
    const u32 generation = current_generation();
    const u32 epoch = connection_epoch();  // before another thread may send, and lose it again
    const registration_identity identity{record->app_id, record->option};
    const u32 error = connect_and_register(identity, generation);
    if (error == result::ok) {
        _scc_client_state_set(state_registered);
        SCC_LOG("(app id:%d, pid:%d)register to sccd success!", app_id_now(), pid_now());
        schedule_read(epoch);
        notify_status(1, generation);
        call_connect_callback();
    } else {
        recover(connection_epoch());
    }
    std::free(record);
    return static_cast<int>(error);
}

int _scc_lib_agent_reconnect(struct qx_thread* /*task*/) {
    forget_task(task_reconnect);
    if (!can_form_paths()) {
        return 1;
    }
    const u32 generation = current_generation();
    if (client_state_now() != state_failed) {
        notify_status(0, generation);
    }
    const u32 epoch = connection_epoch();  // before another thread may send, and lose it again
    const u32 error = connect_and_register(identity_of_control_block(), generation);
    if (error == result::ok) {
        _scc_client_state_set(state_registered);
        SCC_LOG("register to sccd success!");
        _scc_lib_func_stat_reset();
        notify_status(1, generation);
        schedule_read(epoch);
        call_connect_callback();
        return 0;
    }
    if (app_id_now() == 0) {
        return 0;
    }
    cancel_all_tasks();
    (void)_scc_lib_client_close();
    _scc_client_state_set(state_failed);
    schedule_reconnect(connection_epoch());
    return static_cast<int>(error);
}

int _scc_lib_agent_read(struct qx_thread* /*task*/) {
    forget_task(task_read);
    const u32 epoch = connection_epoch();
    void* message = nullptr;
    const u32 error = _scc_lib_msg_recv(&message, 0);
    if (error == result::ok) {
        _scc_lib_async_msg_proc(load<u16>(message, 5), static_cast<u8*>(message) + wire::header_bytes);
        _scc_msg_free(&message);
        schedule_read(epoch);  // unless a handler ended the registration, or found the connection dead
        return 0;
    }
    // An error that does not end the connection ends the reading all the same, until something reconnects.
    SCC_LOG("scc msg recv error. rv=%d, %s", error, scc_strerror(static_cast<i32>(error)));
    handle_task_error(error, epoch);
    return static_cast<int>(error);
}

// Forgets the read task, not itself: deliberate, and harmless since every recovery cancels all four.
int _scc_lib_agent_write(struct qx_thread* task) {
    auto* request = static_cast<write_request*>(qx_thread_arg(task));
    forget_task(task_read);
    const u32 epoch = connection_epoch();
    SCC_LOG("type:%d, len:%d", request->type, request->value_bytes);
    const u32 error = _scc_lib_msg_send(static_cast<u16>(request->type), request->value(),
                                        static_cast<int>(request->value_bytes), 0);
    std::free(request);
    if (error != result::ok) {
        SCC_LOG("scc msg send error. rv=%d, %s", error, scc_strerror(static_cast<i32>(error)));
        handle_task_error(error, epoch);
    }
    return 0;
}
}
