#include "linux/netlink_socket.h"

#include <linux/netlink.h>
#include <sys/resource.h>

#include <fstream>

#include "kernel_support.h"

namespace scc::kernel {
namespace {

using namespace testing;

// Asks for the generation of the kernel's rules, and for an answer.
std::string request(std::size_t padding = 0) {
    std::string text(20 + padding, '\0');
    const nlmsghdr header{static_cast<u32>(text.size()), 10 << 8 | 16, NLM_F_REQUEST | NLM_F_ACK, 77, 0};
    std::memcpy(text.data(), &header, sizeof header);
    return text;
}

std::string received(netlink_socket& socket) {
    std::array<char, 8192> buffer{};
    const ssize_t size = socket.receive(buffer);
    return size < 0 ? std::string() : std::string(buffer.data(), static_cast<std::size_t>(size));
}

u16 type_of(const std::string& message) {
    nlmsghdr header{};
    std::memcpy(&header, message.data(), sizeof header);
    return message.size() < sizeof header ? 0 : header.nlmsg_type;
}

u32 port_of(const std::string& message) {
    nlmsghdr header{};
    std::memcpy(&header, message.data(), sizeof header);
    return header.nlmsg_pid;
}

TEST(NetlinkSocket, HasTheKernelsAnswersWhenARequestIsSent) {
    NEED_A_NAMESPACE();
    const auto socket = open_netlink_socket();
    ASSERT_NE(socket, nullptr);
    EXPECT_EQ(socket->send(request()), 20);
    EXPECT_EQ(type_of(received(*socket)), 10 << 8 | 15);
    EXPECT_EQ(type_of(received(*socket)), NLMSG_ERROR);
    EXPECT_EQ(received(*socket), "");
    EXPECT_EQ(errno, EAGAIN);
}

TEST(NetlinkSocket, TellsTheSizeOfAMessageThatTheBufferCutsOff) {
    NEED_A_NAMESPACE();
    const auto socket = open_netlink_socket();
    ASSERT_NE(socket, nullptr);
    EXPECT_EQ(socket->send(request()), 20);
    std::array<char, 4> small{};
    EXPECT_GT(socket->receive(small), 20);
}

TEST(NetlinkSocket, SendsMoreThanTheKernelBuffersOtherwise) {
    NEED_A_NAMESPACE();
    const auto socket = open_netlink_socket();
    ASSERT_NE(socket, nullptr);
    std::size_t size = 0;
    ASSERT_TRUE(std::ifstream("/proc/sys/net/core/wmem_max") >> size);
    size = 2 * size + 4096;
    EXPECT_EQ(socket->send(request(size)), 20 + static_cast<ssize_t>(size)) << std::strerror(errno);
}

TEST(NetlinkSocket, DoesNotHearOtherProcesses) {
    NEED_A_NAMESPACE();
    const auto socket = open_netlink_socket();
    ASSERT_NE(socket, nullptr);
    EXPECT_EQ(socket->send(request()), 20);
    const u32 port = port_of(received(*socket));
    EXPECT_EQ(type_of(received(*socket)), NLMSG_ERROR);
    const int other = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_NETFILTER);
    sockaddr_nl to{};
    to.nl_family = AF_NETLINK;
    to.nl_pid = port;
    const std::string forged = request();
    EXPECT_EQ(
        ::sendto(other, forged.data(), forged.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof to),
        20)
        << std::strerror(errno);
    EXPECT_EQ(received(*socket), "");
    EXPECT_EQ(socket->send(request()), 20);
    EXPECT_EQ(type_of(received(*socket)), 10 << 8 | 15);
    ::close(other);
}

TEST(NetlinkSocket, IsMissingWhenNoDescriptorIsLeft) {
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit none{0, before.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    const auto socket = open_netlink_socket();
    const int error = errno;
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_EQ(socket, nullptr);
    EXPECT_EQ(error, EMFILE);
}

}  // namespace
}  // namespace scc::kernel
