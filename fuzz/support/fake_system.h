// Answers the system calls of the code under test in memory: sockets, the runtime directory, threads and
// sleeping. The linker redirects the calls here (--wrap, see CMakeLists.txt); those on other descriptors,
// paths and threads are passed on to the system, since the fuzzing engine makes some, too.
//
// A fake socket has no peer: recv returns what deliver() put there, and what is sent is passed to the hook.
// Everything runs on the fuzzer's thread.
#pragma once

#include <span>
#include <vector>

#include "msg/protocol.h"

namespace scc::fuzz {

struct fake_socket {
    std::vector<u8> incoming;
    std::size_t read = 0;
    bool open = false;
    bool shut = false;
    bool hung_up = false;  // by the peer
    int owner = 0;         // the fuzzer's own mark
};

// A fuzzer's decisions. A null hook gives the most common outcome.
struct system_hooks {
    int (*connected)(int fd) = nullptr;           // 0 or an errno value
    int (*nothing_to_receive)(int fd) = nullptr;  // may deliver; else an errno value, 0 for the end
    int (*before_send)(int fd) = nullptr;         // 0 or an errno value
    void (*sent)(int fd, std::span<const u8>) = nullptr;
    void (*waiting)() = nullptr;  // in poll and sleep
    void (*listening)(int fd) = nullptr;
    int (*accepting)(int listener) = nullptr;         // a descriptor, or -1 for none
    int (*events)(void* events, int most) = nullptr;  // epoll_wait
    void (*thread)(void* (*body)(void*), void* argument) = nullptr;
};

// This thread uses the fake system while the object exists; the destructor requires that everything was
// closed. Standard output is discarded meanwhile.
class system_in_use {
  public:
    explicit system_in_use(const system_hooks& hooks);
    ~system_in_use();
    system_in_use(const system_in_use&) = delete;
    system_in_use& operator=(const system_in_use&) = delete;
};

[[nodiscard]] int open_fake_socket();
[[nodiscard]] fake_socket& socket_of(int fd);
[[nodiscard]] bool is_fake(int fd);
void deliver(int fd, std::span<const u8> bytes);
void hang_up(int fd);
// What a descriptor was registered for with epoll_ctl; 0 for nothing.
[[nodiscard]] u64 epoll_data_of(int fd);
[[nodiscard]] u32 epoll_events_of(int fd);
// Longest transfer of one call; 0 for any length.
void limit_transfers(std::size_t bytes);

}  // namespace scc::fuzz
