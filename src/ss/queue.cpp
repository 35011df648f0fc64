// The processing thread: takes messages from the queue in order of arrival and dispatches them. Only the
// receive thread receives, so a slow handler does not hold it up.
#include <atomic>
#include <cstdlib>

#include "client/control_block.h"
#include "client/dispatch.h"
#include "client/lifetime.h"
#include "client/log.h"
#include "client/message_queue.h"
#include "client/threads.h"
#include "msg/bytes.h"
#include "msg/message.h"
#include "ss/service.h"

using namespace scc;

namespace scc {
namespace {

// One thread per process, even when a start fails after creating it and is repeated.
constinit std::atomic<bool> g_processing{false};

constexpr const char* function = "_scc_lib_msgq_proc_thread";

void dispatch(void* message) {
    const delivery_turn turn(current_generation());
    const u16 items = load<u16>(message, 5);
    const void* first = static_cast<const u8*>(message) + wire::header_bytes;
    SCC_LOG_FROM(function, "lib proc msg(num:%u, len:%u).", items, load<u32>(message));
    if (g_scc_client_cb.app_id.load(relaxed) == limits::service_app_id) {
        _scc_ss_async_msg_proc(items, first);
    } else {
        _scc_lib_async_msg_proc(items, first);
    }
    SCC_LOG_FROM(function, "lib proc msg done.\n");
}

}  // namespace
}  // namespace scc

extern "C" void* _scc_lib_msgq_proc_thread(void* /*argument*/) {
    detach_and_name("scc-lib-msgq");
    if (g_processing.exchange(true)) {
        return nullptr;
    }
    for (;;) {
        scc_lib_msg_node* node = dequeue_message();
        if (node == nullptr) {
            continue;
        }
        dispatch(node->message);
        _scc_msg_free(&node->message);
        std::free(node);
    }
}
