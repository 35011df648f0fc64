#include "service/capture.h"

#include <fmt/format.h>
#include <pcap/pcap.h>

#include <array>
#include <ctime>
#include <memory>

namespace scc::service {
namespace {

constexpr u64 microseconds_per_second = 1'000'000;

struct capture_closer {
    void operator()(pcap_t* capture) const { pcap_close(capture); }
};

using capture_file = std::unique_ptr<pcap_t, capture_closer>;

// If the file is not an Ethernet capture, returns null and sets the problem.
capture_file open_capture(const std::string& path, std::string& problem) {
    std::array<char, PCAP_ERRBUF_SIZE> error{};
    capture_file capture(pcap_open_offline(path.c_str(), error.data()));
    if (!capture) {
        problem = path + ": " + error.data();
    } else if (pcap_datalink(capture.get()) != DLT_EN10MB) {
        problem = path + ": not an Ethernet capture";
        capture.reset();
    }
    return capture;
}

u64 microseconds_of(const timeval& time) {
    return static_cast<u64>(time.tv_sec) * microseconds_per_second + static_cast<u64>(time.tv_usec);
}

day_time local_time_of(u64 time_us) {
    const auto seconds = static_cast<std::time_t>(time_us / microseconds_per_second);
    std::tm local{};
    localtime_r(&seconds, &local);
    return {static_cast<u8>(local.tm_wday), static_cast<u16>(local.tm_hour * 60 + local.tm_min)};
}

void note_logged(capture_report& report, const verdict& verdict, u64 time_us) {
    for (const std::string& line : verdict.logged) {
        if (report.logged.size() == log_lines_max) {
            ++report.unlogged;
            continue;
        }
        report.logged.push_back(fmt::format("packet {} at {}.{:06}: {}", report.packets,
                                            time_us / microseconds_per_second,
                                            time_us % microseconds_per_second, line));
    }
}

}  // namespace

std::string capture_problem(const std::string& path) {
    std::string problem;
    (void)open_capture(path, problem);
    return problem;
}

std::string read_capture(const std::string& path, const std::function<void(const captured_frame&)>& handle) {
    std::string problem;
    const capture_file capture = open_capture(path, problem);
    if (!capture) {
        return problem;
    }

    pcap_pkthdr* header = nullptr;
    const u_char* bytes = nullptr;
    int state = 0;
    while ((state = pcap_next_ex(capture.get(), &header, &bytes)) == 1) {
        handle({microseconds_of(header->ts), header->len, byte_view(bytes, header->caplen)});
    }
    return state == PCAP_ERROR ? pcap_geterr(capture.get()) : std::string();
}

u32 ingress_map::ifx_of(u16 vid) const {
    const auto known = ifx_of_vlan.find(vid);
    return known == ifx_of_vlan.end() ? default_ifx : known->second;
}

capture_report run_capture(const std::string& path, const ingress_map& ingress, forwarding_table& table) {
    capture_report report;
    traffic_meter meter = table.locked([](const forwarding_table::contents& held) {
        return traffic_meter(held.nac.users(), held.nac.detection());
    });

    report.error = read_capture(path, [&](const captured_frame& frame) {
        ++report.packets;
        std::optional<packet> packet = parse_packet(frame.bytes);
        if (!packet) {
            ++report.unreadable;
            return;
        }
        packet->captured = local_time_of(frame.time_us);
        const station where{ingress.ifx_of(packet->vid), packet->vid};
        meter.count(*packet, where, frame.time_us, frame.len_bytes);
        const u32 egress_ifx = meter.last_seen(packet->destination_mac).value_or(station{}).ifx;
        const verdict verdict = table.locked([&](forwarding_table::contents& held) {
            return held.acls.classify(*packet, {where.ifx, egress_ifx});
        });
        if (verdict.matches != 0) {
            ++report.matched;
        }
        if (verdict.denied) {
            ++report.denied;
        }
        note_logged(report, verdict, frame.time_us);
    });

    meter.finish();
    report.acls =
        table.locked([](const forwarding_table::contents& held) { return held.acls.applied_counters(); });
    report.flows = meter.flows();
    report.moves = meter.moves();
    report.silences = meter.silences();
    return report;
}

}  // namespace scc::service
