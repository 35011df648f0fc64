// What the service reports unasked, each through the library's notification for it:
//
//   hits of ACEs        by the kernel's counters, of each ACL whose counters changed since the last report
//   flows of users      by the counters of the rules that admit them, likewise
//   users without flow  while offline detection is open: the threshold's packets or fewer in an interval
//   moved addresses     when a bridge learns an address on another interface than before
//   strangers           as addresses that moved to an interface that port security closes to them, each
//                       once a second; the daemon knows that this is a violation
//
// How many frames access control drops is logged. Also makes the kernel like the tables again when an
// interface of the map comes or goes.
//
// Main thread only.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "linux/dropped_frames.h"
#include "linux/kernel_back_end.h"
#include "service/traffic.h"

struct mnl_socket;

namespace scc::kernel {

class reports {
  public:
    using log_handler = std::function<void(const std::string&)>;

    reports(service::forwarding_table& table, kernel_back_end& carrier, interface_map map,
            u32 interval_seconds, log_handler log);
    ~reports();
    reports(const reports&) = delete;
    reports& operator=(const reports&) = delete;

    // Readable when a bridge learns an address or a stranger's frame is dropped; -1 without descriptors.
    [[nodiscard]] int descriptor() const { return events_; }
    // Handles what happened and what is due. Call at least once a second.
    void pass();

  private:
    using clock = std::chrono::steady_clock;
    struct user_state {
        u64 packets = 0;   // at the last report
        u64 quiet_at = 0;  // packets when the silence began
        clock::time_point quiet_since;
        bool is_silent = false;
    };

    void check_interfaces();
    void take_learned();
    void learn(const ace::mac_bytes& mac, const service::station& where);
    void take_dropped();
    void report_move(const ace::mac_bytes& mac, const service::station& where, const std::string& what);
    // The daemon's index of an interface of the kernel; 0 if it is not in the map.
    [[nodiscard]] u32 ifx_of(unsigned kernel_index) const;
    void watch(int descriptor) const;
    void report_hits();
    void report_flows(const std::vector<service::nac_user>& users,
                      const std::map<std::string, counted>& counters);
    void report_silence(const std::vector<service::nac_user>& users,
                        const service::offline_detection& detection,
                        const std::map<std::string, counted>& counters);
    void report_drops(const std::map<std::string, counted>& counters);
    void note(const std::string& what, u32 result);

    service::forwarding_table& table_;
    kernel_back_end& back_end_;
    const interface_map map_;
    const std::chrono::seconds interval_;
    const log_handler log_;
    std::unique_ptr<mnl_socket, void (*)(mnl_socket*)> learned_;
    dropped_frames dropped_;
    once_a_second strangers_;
    const int events_;                      // of both
    std::map<u32, unsigned> kernel_index_;  // by interface index of the daemon
    std::map<ace::mac_bytes, service::station> stations_;
    std::map<std::string, u64> reported_;  // packets by counter
    std::map<std::string, user_state> users_;
    clock::time_point next_report_;
    clock::time_point next_check_;
};

}  // namespace scc::kernel
