#include "client/send_checker.h"

#include <sys/select.h>

#include <atomic>
#include <cerrno>

#include "client/acl_cache.h"
#include "client/control_block.h"
#include "client/log.h"
#include "client/pending_calls.h"
#include "client/request_channel.h"
#include "client/threads.h"
#include "client/tuning.h"

using namespace scc;

namespace scc {
namespace {

bool wait_one_interval() {
    timeval interval{0, limits::batch_interval_us};
    if (select(0, nullptr, nullptr, nullptr, &interval) < 0) {
        SCC_LOG_FROM("_scc_lib_send_buf_chk_thread", "select error! errno:%d.", errno);
        return false;
    }
    return true;
}

}  // namespace
}  // namespace scc

extern "C" {

constinit std::atomic<u8> g_send_buf_chk_enabled{0};

void* _scc_lib_send_buf_chk_thread(void* /*argument*/) {
    detach_and_name_with_pid();
    if (g_send_buf_chk_enabled.exchange(1) != 0) {
        return nullptr;
    }
    for (u32 pass = 1;; ++pass) {
        if (!wait_one_interval()) {
            continue;
        }
        flush_waiting_batch();
        grow_pending_index();
        grow_acl_index();
        if (pass % tuning::passes_between_maintenance == 0) {
            free_idle_blocks();
        }
    }
}
}
