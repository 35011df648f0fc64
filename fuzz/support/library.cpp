#include "support/library.h"

#include <cstdlib>

#include "client/acl_cache.h"
#include "client/client_data.h"
#include "client/control_block.h"
#include "client/descriptors.h"
#include "client/handlers.h"
#include "client/log.h"
#include "client/pending_calls.h"
#include "client/request_channel.h"
#include "ss/id_map.h"
#include "support/application.h"

namespace scc::fuzz {
namespace {

constexpr u32 application_id = 7;

void take_connection(int async_fd, int sync_fd, u32 app_id) {
    g_scc_client_cb.app_id.store(app_id);
    g_scc_client_cb.pid.store(4711);
    g_scc_client_cb.thread_mode.store(1);
    g_scc_client_cb.last_call_id.store(0);
    g_scc_client_cb.async_fd.store(async_fd);
    g_scc_client_cb.sync_fd.store(sync_fd);
    g_scc_client_cb.state.store(state_registered);
    scc_lib_rereg.store(0);
}

// Like _scc_lib_data_free, which visits every bucket even if all are empty.
void drop_data() {
    if (pending_calls() != 0) {
        free_pending_calls();
    }
    if (cached_acl_count() != 0) {
        free_acl_cache();
    }
}

}  // namespace

bool prepare_library() {
    // The runtime directory is never created: only the fake system sees its paths.
    setenv("TMPDIR", "/tmp", 1);
    unsetenv("DATA_QXOS_DIR");
    _scc_lib_data_init();
    return true;
}

void register_by_hand(int async_fd, int sync_fd, u8 option) {
    scc_reg_info info{application_id, option, reading_handlers()};
    _scc_lib_handler_set(&info);
    g_scc_client_cb.option.store(option);
    take_connection(async_fd, sync_fd, application_id);
}

void register_service_by_hand(int async_fd, int sync_fd) {
    g_scc_client_cb.option.store(0);
    take_connection(async_fd, sync_fd, limits::service_app_id);
}

void unregister_by_hand() {
    g_scc_client_cb.state.store(state_idle);
    (void)close_descriptors();
    drop_data();
    _scc_lib_send_buff_init();
    _scc_lib_handler_clear();
    empty_id_map();
    drop_spare_blocks();
    g_scc_client_cb.app_id.store(0);
    scc_lib_debug.store(0);
}

void drop_spare_blocks() {
    // The blocks are freed once no request has taken one since the last call.
    free_idle_blocks();
    free_idle_blocks();
}

}  // namespace scc::fuzz
