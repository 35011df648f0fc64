// Apart from client_data.cpp, which the connection uses: this file needs the batch, which needs the
// connection.
#include "client/acl_cache.h"
#include "client/batch.h"
#include "client/client_data.h"
#include "client/control_block.h"
#include "client/diagnostics.h"
#include "client/log.h"
#include "client/message_queue.h"
#include "client/pending_calls.h"

using namespace scc;

extern "C" void _scc_lib_data_init() {
    init_pending_calls();
    init_acl_cache();
    if (!prepare_batch()) {
        SCC_LOG("(app id:%d, pid:%d)alloc memory error!", app_id_now(), pid_now());
        return;
    }
    _scc_lib_func_stat_reset();
    init_message_queue();
}
