#include "linux/reports.h"

#include <fmt/format.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <span>

#include "ace/ace_text.h"
#include "linux/attributes.h"
#include "service/report.h"

namespace scc::kernel {
namespace {

using service::nac_user;
using service::station;

constexpr std::chrono::seconds check_interval{1};
constexpr std::size_t buffer_bytes = 64 * 1024;

void close_socket(mnl_socket* socket) {
    if (socket != nullptr) {
        mnl_socket_close(socket);
    }
}

mnl_socket* open_learned() {
    mnl_socket* const socket = mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (socket != nullptr && mnl_socket_bind(socket, RTMGRP_NEIGH, MNL_SOCKET_AUTOPID) < 0) {
        mnl_socket_close(socket);
        return nullptr;
    }
    return socket;
}

struct learned_address {
    ace::mac_bytes mac{};
    unsigned kernel_index = 0;
    u16 vid = 0;
};

// Empty for anything but an address that a bridge learned from a frame.
std::optional<learned_address> learned_in(const nlmsghdr* message) {
    if (message->nlmsg_type != RTM_NEWNEIGH || mnl_nlmsg_get_payload_len(message) < sizeof(ndmsg)) {
        return std::nullopt;
    }
    ndmsg neighbour{};
    std::memcpy(&neighbour, mnl_nlmsg_get_payload(message), sizeof neighbour);
    if (neighbour.ndm_family != AF_BRIDGE || (neighbour.ndm_state & NUD_PERMANENT) != 0) {
        return std::nullopt;
    }
    learned_address learned;
    learned.kernel_index = static_cast<unsigned>(neighbour.ndm_ifindex);
    bool has_address = false;
    for_each_attribute(message, sizeof(ndmsg), [&](const nlattr* attribute) {
        const u16 len = mnl_attr_get_payload_len(attribute);
        if (mnl_attr_get_type(attribute) == NDA_LLADDR && len == learned.mac.size()) {
            std::memcpy(learned.mac.data(), mnl_attr_get_payload(attribute), len);
            has_address = true;
        }
        if (mnl_attr_get_type(attribute) == NDA_VLAN && len == sizeof learned.vid) {
            std::memcpy(&learned.vid, mnl_attr_get_payload(attribute), len);
        }
    });
    return has_address ? std::optional(learned) : std::nullopt;
}

counted counter_in(const std::map<std::string, counted>& counters, const std::string& name) {
    const auto found = counters.find(name);
    return found == counters.end() ? counted{} : found->second;
}

}  // namespace

reports::reports(service::forwarding_table& table, kernel_back_end& carrier, interface_map map,
                 u32 interval_seconds, log_handler log)
    : table_(table),
      back_end_(carrier),
      map_(std::move(map)),
      interval_(interval_seconds),
      log_(std::move(log)),
      learned_(open_learned(), close_socket),
      events_(::epoll_create1(EPOLL_CLOEXEC)),
      next_report_(clock::now() + interval_),
      next_check_(clock::now() + check_interval) {
    for (const auto& [ifx, interface] : map_.interfaces) {
        kernel_index_[ifx] = if_nametoindex(interface.name.c_str());
    }
    if (!dropped_.problem().empty()) {
        log_("violations of port security are not reported: " + dropped_.problem());
    }
    watch(learned_ ? mnl_socket_get_fd(learned_.get()) : -1);
    watch(dropped_.descriptor());
}

reports::~reports() {
    ::close(events_);
}

void reports::watch(int descriptor) const {
    epoll_event event{};
    event.events = EPOLLIN;
    (void)::epoll_ctl(events_, EPOLL_CTL_ADD, descriptor, &event);
}

void reports::pass() {
    take_learned();
    take_dropped();
    if (clock::now() >= next_check_) {
        next_check_ = clock::now() + check_interval;
        check_interfaces();
    }
    if (interval_.count() != 0 && clock::now() >= next_report_) {
        next_report_ = clock::now() + interval_;
        report_hits();
    }
}

void reports::check_interfaces() {
    bool changed = false;
    for (auto& [ifx, index] : kernel_index_) {
        const unsigned now = if_nametoindex(map_.interfaces.at(ifx).name.c_str());
        if (now != index) {
            log_(fmt::format("interface {} {}", map_.interfaces.at(ifx).name,
                             now == 0 ? "is gone" : "is there"));
            index = now;
            changed = true;
        }
    }
    if (changed) {
        back_end_.restore();
    }
}

void reports::take_learned() {
    alignas(nlmsghdr) std::array<char, buffer_bytes> buffer;
    while (learned_) {
        const ssize_t received = mnl_socket_recvfrom(learned_.get(), buffer.data(), buffer.size());
        if (received <= 0) {
            return;
        }
        int rest = static_cast<int>(received);
        for (auto* message = reinterpret_cast<nlmsghdr*>(buffer.data()); mnl_nlmsg_ok(message, rest);
             message = mnl_nlmsg_next(message, &rest)) {
            const auto learned = learned_in(message);
            const u32 ifx = learned ? ifx_of(learned->kernel_index) : 0;
            if (ifx != 0) {
                learn(learned->mac, {ifx, learned->vid});
            }
        }
    }
}

u32 reports::ifx_of(unsigned kernel_index) const {
    const auto found = std::ranges::find_if(kernel_index_, [kernel_index](const auto& entry) {
        return entry.second != 0 && entry.second == kernel_index;
    });
    return found == kernel_index_.end() ? 0 : found->first;
}

void reports::learn(const ace::mac_bytes& mac, const station& where) {
    const auto [known, is_new] = stations_.try_emplace(mac, where);
    if (is_new || known->second == where) {
        return;
    }
    report_move(mac, where, "moved to");
    known->second = where;
}

void reports::report_move(const ace::mac_bytes& mac, const station& where, const std::string& what) {
    const auto known = stations_.find(mac);
    const u16 vid_before = known == stations_.end() ? u16{0} : known->second.vid;
    scc_address_move move{where.ifx, where.vid, vid_before, where.vid, {}};
    std::memcpy(move.mac, mac.data(), sizeof move.mac);
    note(fmt::format("{} {} interface {}", ace::print_mac(mac), what, where.ifx),
         scc_ss_move_addr_notify(1, &move));
}

// A user whose frames are dropped for their IP address is no stranger.
void reports::take_dropped() {
    const std::vector<dropped_frame> frames = dropped_.take();
    if (frames.empty()) {
        return;
    }
    const std::vector<nac_user> users = table_.locked([](const contents& held) { return held.nac.users(); });
    for (const dropped_frame& frame : frames) {
        const station where{ifx_of(frame.kernel_index), frame.vid};
        const bool is_user = std::ranges::any_of(users, [&](const nac_user& user) {
            return user.mac == frame.source && user.ifx == where.ifx &&
                   (user.vid == 0 || user.vid == where.vid);
        });
        if (where.ifx != 0 && !is_user && strangers_.allows(where.ifx, frame.source, clock::now())) {
            report_move(frame.source, where, "is a stranger on");
        }
    }
}

void reports::report_hits() {
    std::map<std::string, counted> counters;
    if (back_end_.refresh_counters(counters) != 0) {
        return;
    }
    std::vector<service::acl_counters> acls;
    std::vector<nac_user> users;
    service::offline_detection detection;
    table_.locked([&](const contents& held) {
        acls = held.acls.applied_counters();
        users = held.nac.users();
        detection = held.nac.detection();
    });
    for (const service::acl_counters& acl : acls) {
        u64 packets = 0;
        for (const scc_ace_counter& ace : acl.aces) {
            packets += ace.packets;
        }
        const std::string name = fmt::format("{}-{}-{}", acl.key.vdev_id, acl.key.app_type, acl.key.acl_id);
        u64& before = reported_[name];
        if (before != packets) {
            before = packets;
            service::report_outcome outcome;
            service::send_counters(acl, outcome);
            note(fmt::format("hits of acl {}", name), outcome.last_error);
        }
    }
    report_flows(users, counters);
    report_silence(users, detection, counters);
    report_drops(counters);
}

void reports::report_flows(const std::vector<nac_user>& users,
                           const std::map<std::string, counted>& counters) {
    for (const nac_user& user : users) {
        const std::string name = user_counter(user);
        const counted now = counter_in(counters, name);
        u64& before = reported_[name];
        if (before != now.packets) {
            before = now.packets;
            const scc_flow_user record = service::flow_user_of(user);
            note("flow of " + service::text_of(user), scc_flow_notify(&record, now.packets, now.bytes));
        }
    }
}

// A user who was silent is reported once, until it sends again.
void reports::report_silence(const std::vector<nac_user>& users, const service::offline_detection& detection,
                             const std::map<std::string, counted>& counters) {
    if (!detection.open) {
        users_.clear();
        return;
    }
    for (const nac_user& user : users) {
        const u64 packets = counter_in(counters, user_counter(user)).packets;
        const auto [state, is_new] = users_.try_emplace(user_counter(user));
        user_state& known = state->second;
        if (is_new || packets - known.quiet_at > detection.threshold) {
            known = {packets, packets, clock::now(), false};
            continue;
        }
        const bool is_due =
            clock::now() - known.quiet_since >= std::chrono::seconds(detection.interval_seconds);
        if (is_due && !known.is_silent) {
            known.is_silent = true;
            const scc_flow_user record = service::flow_user_of(user);
            note("no flow of " + service::text_of(user),
                 scc_noflow_offline_notify(&record, packets, detection.interval_seconds, nullptr, 0));
        }
    }
}

void reports::report_drops(const std::map<std::string, counted>& counters) {
    for (const auto& [ifx, interface] : map_.interfaces) {
        const std::string name = access_counter(ifx);
        const u64 packets = counter_in(counters, name).packets;
        u64& before = reported_[name];
        if (packets > before) {
            log_(fmt::format("access control dropped {} frames on interface {}", packets - before, ifx));
        }
        before = packets;
    }
}

void reports::note(const std::string& what, u32 result) {
    log_(result == 0 ? "reported: " + what
                     : fmt::format("not reported: {} ({})", what, scc_strerror(static_cast<i32>(result))));
}

}  // namespace scc::kernel
