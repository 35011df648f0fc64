// The start and end of an application in thread mode.
#include <sys/stat.h>

#include "client/client_data.h"
#include "client/connection.h"
#include "client/control_block.h"
#include "client/handlers.h"
#include "client/locks.h"
#include "client/log.h"
#include "client/receive.h"
#include "client/send_checker.h"
#include "client/start.h"
#include "client/threads.h"
#include "msg/result_codes.h"
#include "scclib.h"

using namespace scc;

namespace scc {
namespace {

u32 start_threads(const scc_reg_info& info, u32 generation) {
    u32 error = start_thread(_scc_lib_thread, thread_argument(generation));
    if (error == result::ok) {
        error = start_thread(_scc_lib_send_buf_chk_thread, nullptr);
    }
    if (error != result::ok) {
        SCC_LOG_FROM("scc_svr_reg", "(app id:%d, pid:%d)create scclib thread error!", info.app_id, pid_now());
        undo_start(_scc_lib_handler_clear);
    }
    return error;
}

}  // namespace
}  // namespace scc

extern "C" {

uint32_t scc_svr_reg(const struct scc_reg_info* info) {
    if (info == nullptr) {
        SCC_LOG("input param is null!.");
        return result::invalid;
    }
    if (info->app_id == 0 || info->app_id > limits::app_id_max) {
        SCC_LOG("app id is invalid in register param!");
        return result::invalid;
    }
    umask(0);
    const write_guard guard(lib_lock);
    const start_identity identity{info->app_id, info->option, start_kind::thread};
    if (is_already_started(identity, __func__)) {
        return result::ok;
    }
    if (const u32 error = make_runtime_directory(info->app_id, __func__); error != result::ok) {
        return error;
    }
    open_runtime_directory();
    u32 generation = 0;
    if (!take_identity(identity, generation, __func__)) {
        return result::ok;
    }
    _scc_lib_handler_set(info);
    _scc_lib_data_init();
    return start_threads(*info, generation);
}

uint32_t scc_svr_unreg(void) {
    const write_guard guard(lib_lock);
    return unregister_client(__func__);
}
}
