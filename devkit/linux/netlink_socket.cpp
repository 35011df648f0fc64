#include "linux/netlink_socket.h"

#include <libmnl/libmnl.h>
#include <linux/netlink.h>
#include <sys/socket.h>

namespace scc::kernel {
namespace {

struct socket_closer {
    void operator()(mnl_socket* socket) const { mnl_socket_close(socket); }
};
using socket_pointer = std::unique_ptr<mnl_socket, socket_closer>;

class kernel_socket : public netlink_socket {
  public:
    explicit kernel_socket(socket_pointer socket) : socket_(std::move(socket)) {}

    ssize_t send(std::string_view messages) override {
        // The kernel takes a transaction as a whole, however long it is.
        const int len = static_cast<int>(messages.size());
        (void)::setsockopt(descriptor(), SOL_SOCKET, SO_SNDBUFFORCE, &len, sizeof len);
        return mnl_socket_sendto(socket_.get(), messages.data(), messages.size());
    }

    ssize_t receive(std::span<char> buffer) override {
        for (;;) {
            sockaddr_nl from{};
            socklen_t from_len = sizeof from;
            const ssize_t received =
                ::recvfrom(descriptor(), buffer.data(), buffer.size(), MSG_TRUNC | MSG_DONTWAIT,
                           reinterpret_cast<sockaddr*>(&from), &from_len);
            // Other processes can send to the socket, too. The kernel is port 0.
            if (received < 0 || from.nl_pid == 0) {
                return received;
            }
        }
    }

  private:
    [[nodiscard]] int descriptor() const { return mnl_socket_get_fd(socket_.get()); }

    socket_pointer socket_;
};

}  // namespace

std::unique_ptr<netlink_socket> open_netlink_socket() {
    socket_pointer socket(mnl_socket_open2(NETLINK_NETFILTER, SOCK_CLOEXEC));
    if (!socket) {
        return nullptr;
    }
    // An error need not repeat the message that it is about.
    const int on = 1;
    (void)mnl_socket_setsockopt(socket.get(), NETLINK_CAP_ACK, const_cast<int*>(&on), sizeof on);
    if (mnl_socket_bind(socket.get(), 0, MNL_SOCKET_AUTOPID) < 0) {
        return nullptr;
    }
    return std::make_unique<kernel_socket>(std::move(socket));
}

}  // namespace scc::kernel
