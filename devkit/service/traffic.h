// Per-user statistics of a capture: traffic, moves between VLANs and interfaces, and silence. All times are
// the capture's. Not thread-safe.
#pragma once

#include <map>
#include <optional>
#include <utility>
#include <vector>

#include "service/nac_table.h"
#include "service/packet.h"

namespace scc::service {

// Where an address was last seen.
struct station {
    u32 ifx = 0;
    u16 vid = 0;
    bool operator==(const station&) const = default;
};

struct flow {
    scc_flow_user user{};
    u64 packets = 0;
    u64 bytes = 0;
};

// A user without a packet for the interval of offline detection, and the time when the interval expired.
struct silence {
    scc_flow_user user{};
    u64 packets = 0;
    u64 time_us = 0;
};

// The user as the reports name it.
[[nodiscard]] scc_flow_user flow_user_of(const nac_user& from);

class traffic_meter {
  public:
    // If there are no users, each pair of source MAC address and source IP address counts as one.
    traffic_meter(const std::vector<nac_user>& users, const offline_detection& detection);

    // Packets must be in chronological order.
    void count(const packet& packet, const station& where, u64 time_us, u64 len_bytes);
    // Ends the capture: finds the users that were silent until its end.
    void finish();

    // Where a MAC address was seen last.
    [[nodiscard]] std::optional<station> last_seen(const ace::mac_bytes& mac) const;

    [[nodiscard]] std::vector<flow> flows() const;
    [[nodiscard]] const std::vector<scc_address_move>& moves() const { return moves_; }
    // In chronological order.
    [[nodiscard]] const std::vector<silence>& silences() const { return silences_; }

  private:
    struct metered_user {
        flow counted;
        u64 last_us = 0;
    };
    using source = std::pair<ace::mac_bytes, ace::ip_bytes>;

    void note_station(const ace::mac_bytes& mac, const station& where);
    [[nodiscard]] metered_user* user_of(const packet& packet, const station& where, u64 time_us);
    void note_silence(const metered_user& user, u64 until_us);

    bool users_are_given_;
    u64 interval_us_;  // 0: offline detection is off
    std::vector<metered_user> users_;
    std::map<source, std::size_t> places_;  // indices into users_; the address of given users is ignored
    std::map<ace::mac_bytes, station> stations_;
    std::vector<scc_address_move> moves_;
    std::vector<silence> silences_;
    std::optional<u64> first_us_;
    u64 last_us_ = 0;
};

}  // namespace scc::service
