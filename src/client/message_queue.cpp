#include "client/message_queue.h"

#include <atomic>
#include <cstdlib>
#include <ctime>

#include "client/locks.h"

using namespace scc;

extern "C" {
constinit pthread_mutex_t g_scc_lib_msg_mutex = PTHREAD_MUTEX_INITIALIZER;
constinit pthread_cond_t g_scc_lib_msg_cond = PTHREAD_COND_INITIALIZER;
constinit list_node g_scc_lib_msg_q{};
}

namespace scc {
namespace {

// Small blocks that one thread allocates and another frees stay in the allocator's own lists. The free of a
// large block makes it join them and give the end of its heap back to the system. So a queue that grows
// long takes such a block along, and lets it go once it is empty and its messages have been freed.
constexpr u32 long_queue_messages = 1024;
constexpr std::size_t large_block_bytes = 96 * 1024;  // large for a free, small enough not to be mapped

constinit u32 g_waiting = 0;                          // g_scc_lib_msg_mutex
constinit std::atomic<void*> g_large_block{nullptr};  // written under g_scc_lib_msg_mutex

void take_large_block() {
    if (g_large_block.load(std::memory_order_relaxed) == nullptr) {
        g_large_block.store(std::malloc(large_block_bytes), std::memory_order_relaxed);
    }
}

// For the thread that frees the messages, before it looks for the next one.
void give_memory_back() {
    if (g_large_block.load(std::memory_order_relaxed) == nullptr) {
        return;
    }
    void* block = nullptr;
    {
        const mutex_guard guard(g_scc_lib_msg_mutex);
        if (g_waiting == 0) {
            block = g_large_block.exchange(nullptr, std::memory_order_relaxed);
        }
    }
    std::free(block);
}

// The first caller makes the condition and the list; later ones find a processing thread that may be
// waiting on them, so they are left alone. A start without memory for the batch makes neither, and its
// threads run all the same: they come here, too.
void make_queue_once() {
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

}  // namespace

void init_message_queue() {
    const mutex_guard guard(g_scc_lib_msg_mutex);
    make_queue_once();
}

bool enqueue_message(i32 fd, void* message) {
    auto* node = static_cast<scc_lib_msg_node*>(std::malloc(sizeof(scc_lib_msg_node)));
    if (node == nullptr) {
        return false;
    }
    node->fd = fd;
    node->message = message;
    const mutex_guard guard(g_scc_lib_msg_mutex);
    make_queue_once();
    list_add_tail(&node->link, &g_scc_lib_msg_q);
    if (++g_waiting == long_queue_messages) {
        take_large_block();
    }
    pthread_cond_signal(&g_scc_lib_msg_cond);
    return true;
}

scc_lib_msg_node* dequeue_message() {
    give_memory_back();
    const mutex_guard guard(g_scc_lib_msg_mutex);
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

}  // namespace scc
