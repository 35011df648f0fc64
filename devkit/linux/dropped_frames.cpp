#include "linux/dropped_frames.h"

#include <endian.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_log.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <optional>

#include "linux/attributes.h"

namespace scc::kernel {
namespace {

constexpr std::size_t buffer_bytes = 64 * 1024;
constexpr std::size_t source_offset = 6;  // in an Ethernet header
constexpr u16 vid_mask = 0x0FFF;
constexpr std::chrono::seconds interval{1};
constexpr u32 has_reader = EPERM;  // the kernel's answer to another process
constexpr const char* another_reader = "another process reads them";

// Makes this socket the reader of the group. Returns 0 or an errno value.
u32 bind_group(mnl_socket* socket, u16 group) {
    alignas(nlmsghdr) std::array<char, 256> buffer{};
    nlmsghdr* const request = mnl_nlmsg_put_header(buffer.data());
    request->nlmsg_type = NFNL_SUBSYS_ULOG << 8 | NFULNL_MSG_CONFIG;
    request->nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK;
    auto* const header = static_cast<nfgenmsg*>(mnl_nlmsg_put_extra_header(request, sizeof(nfgenmsg)));
    header->nfgen_family = AF_UNSPEC;
    header->version = NFNETLINK_V0;
    header->res_id = htobe16(group);
    const nfulnl_msg_config_cmd command{NFULNL_CFG_CMD_BIND};
    mnl_attr_put(request, NFULA_CFG_CMD, sizeof command, &command);
    // The headers are enough.
    nfulnl_msg_config_mode mode{};
    mode.copy_mode = NFULNL_COPY_META;
    mnl_attr_put(request, NFULA_CFG_MODE, sizeof mode, &mode);
    if (mnl_socket_sendto(socket, request, request->nlmsg_len) < 0) {
        return static_cast<u32>(errno);
    }
    // Frames may come before the answer.
    alignas(nlmsghdr) std::array<char, buffer_bytes> answer;
    for (;;) {
        const ssize_t received = mnl_socket_recvfrom(socket, answer.data(), answer.size());
        if (received < 0) {
            return static_cast<u32>(errno);
        }
        const auto* message = reinterpret_cast<const nlmsghdr*>(answer.data());
        if (mnl_nlmsg_ok(message, static_cast<int>(received)) && message->nlmsg_type == NLMSG_ERROR) {
            return static_cast<u32>(-static_cast<const nlmsgerr*>(mnl_nlmsg_get_payload(message))->error);
        }
    }
}

u16 vid_in(const nlattr* vlan) {
    u16 tag = 0;
    for_each_nested(vlan, [&](const nlattr* attribute) {
        if (mnl_attr_get_type(attribute) == NFULA_VLAN_TCI &&
            mnl_attr_get_payload_len(attribute) == sizeof tag) {
            std::memcpy(&tag, mnl_attr_get_payload(attribute), sizeof tag);
        }
    });
    return be16toh(tag) & vid_mask;
}

// Empty for anything but a frame with an Ethernet header.
std::optional<dropped_frame> frame_in(const nlmsghdr* message) {
    if (message->nlmsg_type != (NFNL_SUBSYS_ULOG << 8 | NFULNL_MSG_PACKET) ||
        mnl_nlmsg_get_payload_len(message) < sizeof(nfgenmsg)) {
        return std::nullopt;
    }
    dropped_frame frame;
    bool has_source = false;
    for_each_attribute(message, sizeof(nfgenmsg), [&](const nlattr* attribute) {
        const auto* bytes = static_cast<const u8*>(mnl_attr_get_payload(attribute));
        const u16 len = mnl_attr_get_payload_len(attribute);
        switch (mnl_attr_get_type(attribute)) {
            case NFULA_IFINDEX_INDEV:
                frame.kernel_index = len == sizeof(u32) ? be32toh(mnl_attr_get_u32(attribute)) : 0;
                break;
            case NFULA_HWHEADER:
                has_source = len >= source_offset + frame.source.size();
                std::copy_n(bytes + source_offset, has_source ? frame.source.size() : 0,
                            frame.source.begin());
                break;
            case NFULA_VLAN:
                frame.vid = vid_in(attribute);
                break;
            default:
                break;
        }
    });
    return has_source ? std::optional(frame) : std::nullopt;
}

}  // namespace

void dropped_frames::socket_closer::operator()(mnl_socket* socket) const {
    mnl_socket_close(socket);
}

dropped_frames::dropped_frames() : socket_(mnl_socket_open2(NETLINK_NETFILTER, SOCK_CLOEXEC)) {
    u32 error = 0;
    if (!socket_ || mnl_socket_bind(socket_.get(), 0, MNL_SOCKET_AUTOPID) < 0) {
        error = static_cast<u32>(errno);
    } else {
        error = bind_group(socket_.get(), dropped_group);
    }
    if (error != 0) {
        problem_ = error == has_reader ? another_reader : std::strerror(static_cast<int>(error));
        socket_.reset();
    }
}

bool dropped_frames::are_told() {
    const dropped_frames log;
    return log.socket_ || log.problem_ == another_reader;
}

int dropped_frames::descriptor() const {
    return socket_ ? mnl_socket_get_fd(socket_.get()) : -1;
}

std::vector<dropped_frame> dropped_frames::take() {
    std::vector<dropped_frame> frames;
    alignas(nlmsghdr) std::array<char, buffer_bytes> buffer;
    while (socket_) {
        const ssize_t received = ::recv(descriptor(), buffer.data(), buffer.size(), MSG_DONTWAIT);
        if (received < 0 && (errno == EINTR || errno == ENOBUFS)) {
            continue;  // what did not fit into the socket is lost; the station sends again
        }
        if (received <= 0) {
            break;
        }
        int rest = static_cast<int>(received);
        for (auto* message = reinterpret_cast<nlmsghdr*>(buffer.data()); mnl_nlmsg_ok(message, rest);
             message = mnl_nlmsg_next(message, &rest)) {
            if (const auto frame = frame_in(message)) {
                frames.push_back(*frame);
            }
        }
    }
    return frames;
}

bool once_a_second::allows(u32 ifx, const ace::mac_bytes& mac, clock::time_point now) {
    if (now >= next_cleaning_) {
        next_cleaning_ = now + interval;
        std::erase_if(latest_, [now](const auto& entry) { return now - entry.second >= interval; });
    }
    const auto [known, is_new] = latest_.try_emplace({ifx, mac}, now);
    if (!is_new && now - known->second < interval) {
        return false;
    }
    known->second = now;
    return true;
}

}  // namespace scc::kernel
