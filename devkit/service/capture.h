// Runs a capture file through the forwarding table. Blocking; main thread only.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "service/forwarding_table.h"
#include "service/traffic.h"

namespace scc::service {

struct captured_frame {
    u64 time_us = 0;
    u64 len_bytes = 0;  // on the wire; the capture may hold fewer
    byte_view bytes;    // valid during the call
};

// Why the file is not an Ethernet capture; empty if it is one.
[[nodiscard]] std::string capture_problem(const std::string& path);

// Calls back for every frame of an Ethernet capture. Returns what is wrong with the file, if anything.
[[nodiscard]] std::string read_capture(const std::string& path,
                                       const std::function<void(const captured_frame&)>& handle);

// The interface by which a packet of the capture entered: chosen by its VLAN, else the default.
struct ingress_map {
    u32 default_ifx = 1;
    std::map<u16, u32> ifx_of_vlan;

    [[nodiscard]] u32 ifx_of(u16 vid) const;
};

inline constexpr std::size_t log_lines_max = 1000;

// The results of one capture.
struct capture_report {
    std::string error;  // of the file; packets before it are still counted
    u64 packets = 0;
    u64 unreadable = 0;               // shorter than an Ethernet header
    u64 matched = 0;                  // packets that matched an ACE
    u64 denied = 0;                   // of these, packets that matched a denying ACE
    std::vector<std::string> logged;  // a line for each match of an ACE with "log", at most log_lines_max
    u64 unlogged = 0;                 // matches after these
    std::vector<acl_counters> acls;
    std::vector<flow> flows;
    std::vector<scc_address_move> moves;
    std::vector<silence> silences;
};

// Rules with a time range compare the local time at which a frame was captured.
[[nodiscard]] capture_report run_capture(const std::string& path, const ingress_map& ingress,
                                         forwarding_table& table);

}  // namespace scc::service
