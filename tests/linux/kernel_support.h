// A network namespace of the test's own, and what the tests of the back end do in it. Each case runs in a
// process of its own, so nothing is left when it ends.
#pragma once

#include <gtest/gtest.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "ace/ace_text.h"
#include "linux/dropped_frames.h"
#include "linux/kernel_back_end.h"

namespace scc::kernel::testing {

using frame_bytes = std::vector<u8>;

// Skips the test unless it may make a network namespace and use the packet filter in it.
#define NEED_A_NAMESPACE()                                                         \
    do {                                                                           \
        if (::unshare(CLONE_NEWNET) != 0 || std::system("ip link set lo up") != 0) \
            GTEST_SKIP() << "needs the right to make a network namespace";         \
    } while (false)

// Skips the test unless the kernel has a packet log. Binding to it loads the module.
#define NEED_THE_PACKET_LOG()                                                          \
    do {                                                                               \
        if (!scc::kernel::dropped_frames::are_told() &&                                \
            !std::filesystem::exists("/proc/thread-self/net/netfilter/nfnetlink_log")) \
            GTEST_SKIP() << "needs CONFIG_NETFILTER_NETLINK_LOG";                      \
    } while (false)

inline void command(const std::string& text) {
    ASSERT_EQ(std::system(text.c_str()), 0) << text;
}

// What a command prints.
inline std::string output_of(const std::string& text) {
    std::string output;
    std::FILE* const pipe = ::popen(text.c_str(), "r");
    for (int c = std::fgetc(pipe); c != EOF; c = std::fgetc(pipe)) {
        output += static_cast<char>(c);
    }
    ::pclose(pipe);
    return output;
}

// Returns when the bridge forwards what the port gets, in both directions. A thread of the kernel sees to
// that some time after the port and its other end are up; until then the bridge neither learns nor forwards,
// and drops frames without a trace.
inline void wait_until_forwarding(const std::string& port) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    const auto forwards = [&port] {
        const std::string link = output_of("ip -d -o link show dev " + port);
        return link.find("state UP") != std::string::npos &&
               link.find("bridge_slave state forwarding") != std::string::npos;
    };
    while (!forwards()) {
        ASSERT_LT(std::chrono::steady_clock::now(), end) << port << " does not forward";
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

// Frames that one processor sends one after the other are also delivered in that order, and have been counted
// when a later one arrives. For this thread, and for all that it starts from now on.
inline void stay_on_one_processor() {
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(static_cast<unsigned>(sched_getcpu()), &one);
    ASSERT_EQ(sched_setaffinity(0, sizeof one, &one), 0);
}

// A bridge with the ports a0, b0 and c0, whose other ends are a1, b1 and c1. No frame goes but those that a
// test sends.
inline void make_bridge() {
    const auto silence = [](const std::string& name) {
        return " && sysctl -qw net.ipv6.conf." + name + ".disable_ipv6=1";
    };
    command("ip link add br0 type bridge mcast_snooping 0" + silence("br0") + " && ip link set br0 up");
    for (const std::string port : {"a", "b", "c"}) {
        command("ip link add " + port + "0 type veth peer name " + port + "1" + silence(port + "0") +
                silence(port + "1") + " && ip link set " + port + "0 master br0 up && ip link set " + port +
                "1 up");
    }
    for (const std::string port : {"a0", "b0", "c0"}) {
        wait_until_forwarding(port);
    }
}

inline scc_acl_key key_of(u32 acl_id) {
    return {0, 3, acl_id, 0};
}

inline scc_ace_record ace_of(const std::string& text) {
    std::string error;
    const auto ace = ace::parse_ace(text, error);
    EXPECT_TRUE(ace.has_value()) << text << ": " << error;
    return ace.value_or(scc_ace_record{});
}

inline scc_acl_apply_record application_of(u32 acl_id, u32 ifx, u32 direction = 0) {
    scc_records_application fields{};
    fields.key = key_of(acl_id);
    fields.ifx = ifx;
    fields.direction = direction;
    scc_acl_apply_record record{};
    EXPECT_EQ(scc_records_encode_application(&fields, &record, nullptr), 0u);
    return record;
}

// A whole IPv4 packet without content: a bridge may check its header. Addresses are 02:00:00:00:00:MAC and
// 10.0.0.IP.
inline frame_bytes ipv4_frame(u8 from_mac, u8 from_ip, u8 to_mac, u8 to_ip) {
    // A sum of ones, less the checksum itself.
    const unsigned sum = 0x4500 + 20 + 1 + 0x4000 + 2 * 0x0A00 + from_ip + to_ip;
    const unsigned checksum = ~(sum % 0x10000 + sum / 0x10000);
    return {2,
            0,
            0,
            0,
            0,
            to_mac,
            2,
            0,
            0,
            0,
            0,
            from_mac,
            8,
            0,
            0x45,
            0,
            0,
            20,
            0,
            1,
            0,
            0,
            64,
            0,
            static_cast<u8>(checksum >> 8),
            static_cast<u8>(checksum),
            10,
            0,
            0,
            from_ip,
            10,
            0,
            0,
            to_ip};
}

// Sends and receives whole frames.
class raw_socket {
  public:
    explicit raw_socket(const std::string& interface) {
        // Without a protocol it receives nothing before it is bound, when it would hear all interfaces.
        descriptor_ = ::socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0);
        sockaddr_ll address{};
        address.sll_family = AF_PACKET;
        address.sll_protocol = htons(ETH_P_ALL);
        address.sll_ifindex = static_cast<int>(::if_nametoindex(interface.c_str()));
        EXPECT_EQ(::bind(descriptor_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        // A tag comes beside the frame, unless it is asked for.
        const int on = 1;
        EXPECT_EQ(::setsockopt(descriptor_, SOL_PACKET, PACKET_AUXDATA, &on, sizeof on), 0);
    }
    ~raw_socket() { ::close(descriptor_); }
    raw_socket(const raw_socket&) = delete;
    raw_socket& operator=(const raw_socket&) = delete;

    void send(const frame_bytes& frame) const {
        ASSERT_EQ(::send(descriptor_, frame.data(), frame.size(), 0), static_cast<ssize_t>(frame.size()));
    }

    // The next frame that was received and not sent; empty after `wait_ms` without one.
    frame_bytes receive(int wait_ms) const {
        for (;;) {
            pollfd ready{descriptor_, POLLIN, 0};
            if (::poll(&ready, 1, wait_ms) != 1) {
                return {};
            }
            frame_bytes frame(2048);
            std::array<char, CMSG_SPACE(sizeof(tpacket_auxdata))> control{};
            iovec part{frame.data(), frame.size()};
            sockaddr_ll from{};
            msghdr message{};
            message.msg_name = &from;
            message.msg_namelen = sizeof from;
            message.msg_iov = &part;
            message.msg_iovlen = 1;
            message.msg_control = control.data();
            message.msg_controllen = control.size();
            const ssize_t size = ::recvmsg(descriptor_, &message, 0);
            if (size < 0 || from.sll_pkttype == PACKET_OUTGOING) {
                continue;
            }
            frame.resize(static_cast<std::size_t>(size));
            put_tag_back(message, frame);
            return frame;
        }
    }

  private:
    static void put_tag_back(msghdr& message, frame_bytes& frame) {
        const cmsghdr* const header = CMSG_FIRSTHDR(&message);
        if (header == nullptr || header->cmsg_type != PACKET_AUXDATA) {
            return;
        }
        tpacket_auxdata data{};
        std::memcpy(&data, CMSG_DATA(header), sizeof data);
        if ((data.tp_status & TP_STATUS_VLAN_VALID) != 0) {
            const u8 tag[] = {static_cast<u8>(data.tp_vlan_tpid >> 8), static_cast<u8>(data.tp_vlan_tpid),
                              static_cast<u8>(data.tp_vlan_tci >> 8), static_cast<u8>(data.tp_vlan_tci)};
            frame.insert(frame.begin() + 12, std::begin(tag), std::end(tag));
        }
    }

    int descriptor_ = -1;
};

// A back end on the namespace's kernel, or on a filter of the test's.
class back_end_bench {
  public:
    explicit back_end_bench(const std::string& map_text) : back_end_bench(map_text, nullptr) {}
    back_end_bench(const std::string& map_text, packet_filter* filter, const list_limits& limits = {},
                   const pace_limits& pace = {}) {
        std::string error;
        const auto map = parse_interface_map(map_text, error);
        EXPECT_TRUE(map.has_value()) << error;
        if (filter == nullptr) {
            own_ = open_packet_filter(error);
            EXPECT_NE(own_, nullptr) << error;
            filter = own_.get();
        }
        filter_ = filter;
        back_end_ = std::make_unique<kernel_back_end>(
            table_, *map, *filter, [this](const std::string& line) { log_.push_back(line); }, limits, pace);
        EXPECT_EQ(back_end_->start(), 0u);
    }

    // As after a registration with a daemon that knows nothing.
    void recover_nothing() {
        change([](contents& held) { held.begin_recovery(); });
        change([](contents& held) { held.end_recovery(); });
    }

    template <class Work>
    void change(Work work) {
        (void)back_end_->run(service::work_kind::change, [work](contents& held) {
            work(held);
            return 0u;
        });
    }

    // Hands over an operation and returns its result when it is in force.
    template <class Work>
    u32 result_of(Work work) {
        return back_end_->run(service::work_kind::change, work);
    }
    u32 create(u32 acl) {
        return result_of([acl](contents& held) { return held.acls.create(key_of(acl)); });
    }
    u32 remove(u32 acl) {
        return result_of([acl](contents& held) { return held.acls.remove(key_of(acl)); });
    }
    u32 add(u32 acl, const std::string& ace) {
        return result_of(
            [acl, record = ace_of(ace)](contents& held) { return held.acls.add_ace(key_of(acl), record); });
    }
    u32 apply(u32 acl, u32 ifx, u32 direction = 0) {
        return result_of([record = application_of(acl, ifx, direction)](contents& held) {
            return held.acls.apply(record);
        });
    }
    u64 packets_of(u32 acl) {
        u64 packets = 0;
        EXPECT_EQ(
            back_end_->run(service::work_kind::query,
                           [&](contents& held) { return held.acls.read_counter(key_of(acl), packets); }),
            0u);
        return packets;
    }
    u64 packets_of(u32 acl, u64 ace) {
        u64 packets = 0;
        EXPECT_EQ(back_end_->run(
                      service::work_kind::query,
                      [&](contents& held) { return held.acls.read_ace_counter(key_of(acl), ace, packets); }),
                  0u);
        return packets;
    }

    kernel_back_end& operator*() { return *back_end_; }
    packet_filter& filter() { return *filter_; }
    const std::vector<std::string>& log() const { return log_; }

    // As after SIGKILL: the kernel's tables stay.
    void kill() { back_end_.reset(); }

  private:
    service::forwarding_table table_;
    std::unique_ptr<packet_filter> own_;
    packet_filter* filter_ = nullptr;
    std::vector<std::string> log_;
    std::unique_ptr<kernel_back_end> back_end_;
};

}  // namespace scc::kernel::testing
