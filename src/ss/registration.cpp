// The registration of the security service, and its receive thread. Any thread may register; scc_lib_lock is
// held meanwhile.
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>

#include "client/client_data.h"
#include "client/connection.h"
#include "client/control_block.h"
#include "client/locked_call.h"
#include "client/log.h"
#include "client/message_queue.h"
#include "client/pending_calls.h"
#include "client/receive.h"
#include "client/request_channel.h"
#include "client/send_checker.h"
#include "client/start.h"
#include "client/threads.h"
#include "msg/bytes.h"
#include "msg/message.h"
#include "msg/result_codes.h"
#include "ss/id_map.h"
#include "ss/service.h"

using namespace scc;

extern "C" {
constinit service_handlers g_scc_ss_cb{};
}

namespace scc {
namespace {

void install(const scc_ss_reg_info& info) {
#define SCC_INSTALL(slot) store_handler(g_scc_ss_cb.slot, info.slot)
    SCC_FOR_EACH_SLOT(SCC_INSTALL)
#undef SCC_INSTALL
    store_handler(g_scc_client_cb.handlers.server_status, info.server_status);
    store_handler(g_scc_client_cb.handlers.direct_vlan_notify, info.direct_vlan_notify);
    store_handler(g_scc_client_cb.handlers.authmode, info.authmode);
}

void queue_or_drop(i32 fd, void* message, result_run& /*results*/) {
    if (!enqueue_message(fd, message)) {
        SCC_LOG_FROM("_scc_ss_lib_thread", "malloc data buffer error. ignore this proc msg.");
        _scc_msg_free(&message);
    }
}

bool allocate_statistics() {
    if (ss_stat == nullptr) {
        auto* block = static_cast<service_statistics*>(std::calloc(1, sizeof(service_statistics)));
        if (block == nullptr) {
            return false;
        }
        __atomic_store_n(&ss_stat, block, __ATOMIC_RELAXED);
    }
    reset_service_statistics();
    return true;
}

u32 start_threads(u32 generation) {
    struct thread_row {
        thread_body body;
        const char* name;  // in the log of a failed start
    };
    constexpr thread_row rows[] = {
        {_scc_lib_msgq_proc_thread, " msgq"}, {_scc_ss_lib_thread, ""}, {_scc_lib_send_buf_chk_thread, ""}};
    for (const thread_row& row : rows) {
        const u32 error = start_thread(row.body, thread_argument(generation));
        if (error != result::ok) {
            SCC_LOG_FROM("scc_ss_reg", "(app id:%d, pid:%d)create scclib%s thread error!",
                         static_cast<int>(limits::service_app_id), pid_now(), row.name);
            undo_start(_scc_ss_handler_clear);
            return error;
        }
    }
    return result::ok;
}

}  // namespace
}  // namespace scc

extern "C" {

void _scc_ss_handler_set(const scc_ss_reg_info* info) {
    install(*info);
}

void _scc_ss_handler_clear() {
    install(scc_ss_reg_info{});
}

void* _scc_ss_lib_thread(void* generation) {
    detach_and_name("scc-lib-ss");
    run_receive_loop(static_cast<u32>(reinterpret_cast<std::uintptr_t>(generation)),
                     {__func__, queue_or_drop, give_queue_memory_back});
    return nullptr;
}

uint32_t scc_ss_reg(const struct scc_ss_reg_info* info) {
    if (info == nullptr) {
        SCC_LOG("input param is null!.");
        return result::invalid;
    }
    umask(0);
    const write_guard guard(lib_lock);
    constexpr start_identity identity{limits::service_app_id, 0, start_kind::thread};
    if (is_already_started(identity, __func__)) {
        return result::ok;
    }
    if (const u32 error = make_runtime_directory(identity.app_id, __func__); error != result::ok) {
        return error;
    }
    open_runtime_directory();
    u32 generation = 0;
    if (!take_identity(identity, generation, __func__)) {
        return result::ok;
    }
    empty_id_map();
    _scc_ss_handler_set(info);
    _scc_lib_data_init();
    if (!allocate_statistics()) {
        leave_generation(generation);
        return result::no_memory;  // handlers and identity stay: deliberate
    }
    return start_threads(generation);
}

uint32_t scc_ss_fetch_func(void) {
    const locked_call call;
    if (!call.is_registered()) {
        return result::unavailable;
    }
    const u32 request[] = {_scc_lib_call_id_get(), g_scc_client_cb.app_id.load(relaxed)};
    const u32 error = _scc_lib_msg_send(msg::fetch, request, sizeof request, 1);
    if (error != result::ok) {
        SCC_LOG("call _scc_lib_msg_send failed. rv:%d.", error);
    }
    return error;
}
}
