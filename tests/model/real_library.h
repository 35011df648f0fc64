// The library itself, with a process around it and a daemon at the other ends of its sockets, all on one
// thread and in memory. The body of the receive thread is called once the library has created it, and
// whenever it would wait, the next act happens. So nothing blocks and nothing runs concurrently.
#pragma once

#include <deque>

#include "model/library_model.h"
#include "support/fake_system.h"

namespace model {

class real_library {
  public:
    explicit real_library(void (*waiting)());
    ~real_library();
    real_library(const real_library&) = delete;
    real_library& operator=(const real_library&) = delete;

    events seen;

    // The process's acts.
    void start(const act& how);
    void unregister();
    void make_request(u8 which, u8 seed, u8 how);
    void make_query(u8 which, u8 seed, u8 how);
    void read_cache(u8 which, u8 seed, u8 how);
    void react(const act& with) { reaction_ = with; }
    void answer_operation(u8 which, u8 seed);

    // The library's other threads.
    void check();
    [[nodiscard]] bool has_thread() const { return !threads_.empty(); }
    void run_thread();
    void process_queue();
    // There is something to read, or the end.
    [[nodiscard]] bool has_something_to_read() const;

    // The daemon's acts.
    void deliver(const bytes& stream);
    void lose();

    bool daemon_is_there = true;
    std::optional<u8> refuses_registration;
    bool refuses_unregistration = false;
    // A service's operations wait in a queue, where an unregistration would overtake them, so its handlers
    // only answer.
    bool is_service = false;
    // Whether the operations that were sent are answered by their handlers, in order.
    std::deque<bool> answers_at_once;

    // Counts and closes the descriptors that are open although nobody is registered.
    [[nodiscard]] std::size_t leaked_descriptors();

    // Called by the handlers.
    void heard(u32 position, bytes arguments);
    void asked(u32 handler, const void* record, std::size_t record_bytes, bytes arguments);

  private:
    struct link_end {
        int fd = -1;
        bytes sent;  // as far as no message is whole
    };
    struct thread_to_run {
        void* (*body)(void*);
        void* argument;
    };

    static int on_connect(int fd);
    static void on_sent(int fd, std::span<const u8> sent);
    static void on_thread(void* (*body)(void*), void* argument);
    void take_sent(link_end& from, const char* name);
    void answer(int fd, const bytes& message);
    void returned(u32 error, const bytes& out);
    [[nodiscard]] bool is_open(const link_end& at) const;

    scc::fuzz::system_hooks hooks_;
    scc::fuzz::system_in_use system_;
    link_end sync_;
    link_end async_;
    std::vector<int> descriptors_;
    std::deque<thread_to_run> threads_;
    bytes next_reply_;         // to a query
    std::vector<bytes> kept_;  // records of operations
    std::optional<act> reaction_;
};

// Where the lines of the cache's display go.
void display_to(events* to);

}  // namespace model
