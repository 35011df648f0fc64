// The socket on which the kernel's packet filter is spoken to.
//
// An interface, so that tests can let it fail and answer for the kernel. One thread at a time.
#pragma once

#include <sys/types.h>

#include <functional>
#include <memory>
#include <span>
#include <string_view>

#include "common/bytes.h"

namespace scc::kernel {

class netlink_socket {
  public:
    virtual ~netlink_socket() = default;

    // Both return a number of bytes, or -1 and set errno. Everything is sent at once, or nothing.
    [[nodiscard]] virtual ssize_t send(std::string_view messages) = 0;
    // Some messages of the kernel, without waiting: it has answered when it has taken a request. The number
    // is that of all bytes, also if the buffer is too small for them.
    [[nodiscard]] virtual ssize_t receive(std::span<char> buffer) = 0;
};

// Null, with errno set, if there is none.
using socket_opener = std::function<std::unique_ptr<netlink_socket>()>;
[[nodiscard]] std::unique_ptr<netlink_socket> open_netlink_socket();

}  // namespace scc::kernel
