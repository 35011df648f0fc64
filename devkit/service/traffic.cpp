#include "service/traffic.h"

#include <algorithm>
#include <cstring>

#include "common/records.h"

namespace scc::service {
namespace {

constexpr u64 microseconds_per_second = 1'000'000;
constexpr ace::ip_bytes no_address{};

bool is_group_address(const ace::mac_bytes& mac) {
    return (mac[0] & 1) != 0;
}

void set_place(scc_flow_user& user, const ace::mac_bytes& mac, const station& where) {
    std::memcpy(user.mac, mac.data(), sizeof user.mac);
    user.ifx = where.ifx;
    user.vid = where.vid;
}

nac_user user_seen_in(const packet& packet, const station& where) {
    nac_user user;
    user.ifx = where.ifx;
    user.vid = where.vid;
    user.mac = packet.source_mac;
    user.is_ipv6 = packet.network == network_kind::ipv6;
    user.ip = packet.source_ip;
    std::fill_n(user.mask.begin(), user.is_ipv6 ? user.mask.size() : 4, u8{0xFF});
    return user;
}

}  // namespace

scc_flow_user flow_user_of(const nac_user& from) {
    scc_flow_user user{};
    set_place(user, from.mac, {from.ifx, from.vid});
    std::memcpy(user.address, from.ip.data(), sizeof user.address);
    std::memcpy(user.mask, from.mask.data(), sizeof user.mask);
    user.family = from.is_ipv6 ? devkit::flow_user::family_ipv6 : devkit::flow_user::family_ipv4;
    return user;
}

traffic_meter::traffic_meter(const std::vector<nac_user>& users, const offline_detection& detection)
    : users_are_given_(!users.empty()),
      interval_us_(detection.open ? detection.interval_seconds * microseconds_per_second : 0) {
    for (const nac_user& user : users) {
        places_.emplace(source(user.mac, no_address), users_.size());
        users_.push_back({{flow_user_of(user), 0, 0}, 0});
    }
}

void traffic_meter::count(const packet& packet, const station& where, u64 time_us, u64 len_bytes) {
    if (!first_us_) {
        first_us_ = time_us;
        for (metered_user& user : users_) {
            user.last_us = time_us;
        }
    }
    last_us_ = std::max(last_us_, time_us);
    if (is_group_address(packet.source_mac)) {
        return;
    }

    note_station(packet.source_mac, where);
    metered_user* user = user_of(packet, where, time_us);
    if (user == nullptr) {
        return;
    }
    note_silence(*user, time_us);
    user->last_us = std::max(user->last_us, time_us);
    ++user->counted.packets;
    user->counted.bytes += len_bytes;
    set_place(user->counted.user, packet.source_mac, where);
}

void traffic_meter::finish() {
    for (const metered_user& user : users_) {
        note_silence(user, last_us_);
    }
    std::stable_sort(silences_.begin(), silences_.end(),
                     [](const silence& a, const silence& b) { return a.time_us < b.time_us; });
}

void traffic_meter::note_station(const ace::mac_bytes& mac, const station& where) {
    const auto [known, is_new] = stations_.try_emplace(mac, where);
    if (is_new || known->second == where) {
        return;
    }
    scc_address_move move{where.ifx, where.vid, known->second.vid, where.vid, {}};
    std::memcpy(move.mac, mac.data(), sizeof move.mac);
    moves_.push_back(move);
    known->second = where;
}

traffic_meter::metered_user* traffic_meter::user_of(const packet& packet, const station& where, u64 time_us) {
    const source from(packet.source_mac, users_are_given_ ? no_address : packet.source_ip);
    const auto known = places_.find(from);
    if (known != places_.end()) {
        return &users_[known->second];
    }
    if (users_are_given_) {
        return nullptr;
    }
    places_.emplace(from, users_.size());
    users_.push_back({{flow_user_of(user_seen_in(packet, where)), 0, 0}, time_us});
    return &users_.back();
}

void traffic_meter::note_silence(const metered_user& user, u64 until_us) {
    if (interval_us_ == 0 || until_us < user.last_us + interval_us_) {
        return;
    }
    silences_.push_back({user.counted.user, user.counted.packets, user.last_us + interval_us_});
}

std::optional<station> traffic_meter::last_seen(const ace::mac_bytes& mac) const {
    const auto known = stations_.find(mac);
    if (known == stations_.end()) {
        return std::nullopt;
    }
    return known->second;
}

std::vector<flow> traffic_meter::flows() const {
    std::vector<flow> all;
    for (const metered_user& user : users_) {
        all.push_back(user.counted);
    }
    return all;
}

}  // namespace scc::service
