// The queue of received messages between the security service's receive and processing threads: first in,
// first out. The queue owns its entries; the caller of dequeue_message frees what it gets.
#pragma once

#include <pthread.h>

#include <cstddef>

#include "msg/protocol.h"
#include "util/list.h"

namespace scc {

struct scc_lib_msg_node {
    list_node link;
    i32 fd;         // the socket it was read from
    void* message;  // whole, as _scc_lib_msg_recv returns it
};

void init_message_queue();
// False when no entry could be allocated; the message is then still the caller's.
[[nodiscard]] bool enqueue_message(i32 fd, void* message);
// Waits once, up to 3 seconds by the monotonic clock; null when nothing came.
[[nodiscard]] scc_lib_msg_node* dequeue_message();
// For the enqueuing thread when it is idle: returns the memory of a queue that was long, and is empty now, to
// the system.
void give_queue_memory_back();

}  // namespace scc

extern "C" {
extern pthread_mutex_t g_scc_lib_msg_mutex;  // guards the queue alone
extern pthread_cond_t g_scc_lib_msg_cond;    // signalled once per message
extern scc::list_node g_scc_lib_msg_q;
}
