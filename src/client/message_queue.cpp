#include "client/message_queue.h"

#include <malloc.h>

#include <cstdlib>
#include <ctime>

#include "client/locks.h"
#include "client/tuning.h"

using namespace scc;

namespace scc {
namespace {

constexpr named_mutex queue_lock{g_scc_lib_msg_mutex};

}  // namespace
}  // namespace scc

extern "C" {
constinit pthread_mutex_t g_scc_lib_msg_mutex = PTHREAD_MUTEX_INITIALIZER;
constinit pthread_cond_t g_scc_lib_msg_cond = PTHREAD_COND_INITIALIZER;
constinit list_node g_scc_lib_msg_q SCC_GUARDED_BY(queue_lock){};
}

namespace scc {
namespace {

constinit u32 g_waiting SCC_GUARDED_BY(queue_lock) = 0;
constinit bool g_was_long SCC_GUARDED_BY(queue_lock) = false;

// Once only, since a processing thread may already wait on the condition. The threads call it too: they run
// even when a start had no memory for the batch and so skipped init_message_queue.
void make_queue_once() SCC_REQUIRES(queue_lock) {
    if (g_scc_lib_msg_q.next != nullptr) {
        return;
    }
    INIT_LIST_HEAD(&g_scc_lib_msg_q);
    pthread_condattr_t attributes;
    if (pthread_condattr_init(&attributes) == 0) {
        pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
        pthread_cond_init(&g_scc_lib_msg_cond, &attributes);
        pthread_condattr_destroy(&attributes);
    }
}

// Whether a long queue has been emptied since the last call.
bool has_become_short() {
    const mutex_guard guard(queue_lock);
    if (!g_was_long || g_waiting != 0) {
        return false;
    }
    g_was_long = false;
    return true;
}

}  // namespace

void init_message_queue() {
    const mutex_guard guard(queue_lock);
    make_queue_once();
}

bool enqueue_message(i32 fd, void* message) {
    auto* node = static_cast<scc_lib_msg_node*>(std::malloc(sizeof(scc_lib_msg_node)));
    if (node == nullptr) {
        return false;
    }
    node->fd = fd;
    node->message = message;
    const mutex_guard guard(queue_lock);
    make_queue_once();
    list_add_tail(&node->link, &g_scc_lib_msg_q);
    g_was_long |= ++g_waiting == tuning::long_queue_messages;
    pthread_cond_signal(&g_scc_lib_msg_cond);
    return true;
}

scc_lib_msg_node* dequeue_message() {
    const mutex_guard guard(queue_lock);
    make_queue_once();
    timespec deadline{};
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += limits::queue_wait_seconds;
    if (list_empty(&g_scc_lib_msg_q)) {
        pthread_cond_timedwait(&g_scc_lib_msg_cond, &g_scc_lib_msg_mutex, &deadline);
    }
    if (list_empty(&g_scc_lib_msg_q)) {
        return nullptr;
    }
    auto* node = reinterpret_cast<scc_lib_msg_node*>(g_scc_lib_msg_q.next);
    list_del(&node->link);
    --g_waiting;
    return node;
}

// Small blocks that another thread freed stay in malloc's lists. Freeing a large block makes malloc coalesce
// and trim the heap of the calling thread; malloc_trim returns the free pages in between. The compiler would
// leave out both calls if the block were not volatile.
void give_queue_memory_back() {
    if (!has_become_short()) {
        return;
    }
    void* volatile block = std::malloc(tuning::coalescing_block_bytes);
    std::free(block);
#ifdef __GLIBC__
    malloc_trim(0);
#endif
}

}  // namespace scc
