// Running a capture file through the forwarding table. Blocking; the main thread.
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
    u64 len_bytes = 0;  // on the wire; the bytes kept may be fewer
    byte_view bytes;    // valid during the call
};

// Why the file is no Ethernet capture; empty when it is one.
[[nodiscard]] std::string capture_problem(const std::string& path);

// Hands every frame of an Ethernet capture on. Returns an empty text, or what is wrong with the file.
[[nodiscard]] std::string read_capture(const std::string& path,
                                       const std::function<void(const captured_frame&)>& handle);

// The interface on which a packet of the capture came in: by its VLAN, else the default.
struct ingress_map {
    u32 default_ifx = 1;
    std::map<u16, u32> ifx_of_vlan;

    [[nodiscard]] u32 ifx_of(u16 vid) const;
};

// Everything there is to report of one capture.
struct capture_report {
    std::string error;  // of the file; what was read before it is still counted
    u64 packets = 0;
    u64 unreadable = 0;  // shorter than an Ethernet header
    u64 matched = 0;     // packets that met an ACE somewhere
    u64 denied = 0;      // of these, packets that met a denying one
    std::vector<acl_counters> acls;
    std::vector<flow> flows;
    std::vector<scc_address_move> moves;
    std::vector<silence> silences;
};

[[nodiscard]] capture_report run_capture(const std::string& path, const ingress_map& ingress,
                                         forwarding_table& table);

}  // namespace scc::service
