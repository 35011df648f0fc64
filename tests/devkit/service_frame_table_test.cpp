// 200 frames that scapy made and dissected (data/make_frames.py): the parser finds the same fields, and rules
// match by each field.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "service/classify.h"
#include "service_frames.h"

namespace scc::service {
namespace {

using namespace testing;
using nlohmann::json;

const std::vector<json>& frames() {
    static const std::vector<json> all = [] {
        std::vector<json> read;
        std::ifstream file(TEST_DATA_DIR "/frames.json");
        for (std::string line; std::getline(file, line);) {
            read.push_back(json::parse(line));
        }
        return read;
    }();
    return all;
}

packet parsed(const json& frame) {
    return packet_of(devkit::parse_hex(frame.at("bytes").get<std::string>()).value());
}

std::string address_text(const packet& from, const ace::ip_bytes& address) {
    char text[INET6_ADDRSTRLEN] = "";
    inet_ntop(from.network == network_kind::ipv6 ? AF_INET6 : AF_INET, address.data(), text, sizeof text);
    return text;
}

// The fields of a packet as the table names them.
json fields_of(const packet& from) {
    json tags = json::array();
    if (from.tags > 0) {
        tags.push_back({{"vid", from.vid}, {"cos", from.cos}});
    }
    if (from.tags > 1) {
        tags.push_back({{"vid", from.inner_vid}});
    }
    constexpr const char* networks[] = {"other", "ipv4", "ipv6", "arp"};
    json found = {{"src_mac", ace::print_mac(from.source_mac)},
                  {"dst_mac", ace::print_mac(from.destination_mac)},
                  {"tags", tags},
                  {"ethertype", from.ether_type},
                  {"network", networks[static_cast<std::size_t>(from.network)]}};
    if (from.network != network_kind::other) {
        found["src"] = address_text(from, from.source_ip);
        found["dst"] = address_text(from, from.destination_ip);
    }
    if (from.network == network_kind::ipv4 || from.network == network_kind::ipv6) {
        found["dscp"] = from.dscp;
        found["protocol"] = from.protocol;
        found["later_fragment"] = from.later_fragment;
    }
    if (from.has_ports) {
        found["sport"] = from.source_port;
        found["dport"] = from.destination_port;
    }
    if (from.has_tcp_flags) {
        found["tcp_flags"] = from.tcp_flags;
    }
    if (from.has_icmp) {
        found["icmp_type"] = from.icmp_type;
        found["icmp_code"] = from.icmp_code;
    }
    return found;
}

// The parser does not read the class of service of an inner tag: no rule compares it.
json expected_fields(const json& frame) {
    json fields = frame.at("fields");
    if (fields["tags"].size() > 1) {
        fields["tags"][1].erase("cos");
    }
    return fields;
}

TEST(ServiceFrameTable, HasTwoHundredFramesOfEveryKind) {
    ASSERT_EQ(frames().size(), 200u);
    for (const char* kind : {"ipv4", "ipv6", "arp", "other"}) {
        EXPECT_TRUE(std::any_of(frames().begin(), frames().end(), [&](const json& frame) {
            return frame.at("fields").at("network") == kind;
        })) << kind;
    }
    for (const char* field : {"sport", "tcp_flags", "icmp_type"}) {
        EXPECT_TRUE(std::any_of(frames().begin(), frames().end(), [&](const json& frame) {
            return frame.at("fields").contains(field);
        })) << field;
    }
}

TEST(ServiceFrameTable, TheParserFindsWhatScapyFinds) {
    for (const json& frame : frames()) {
        EXPECT_EQ(fields_of(parsed(frame)), expected_fields(frame)) << frame.at("bytes");
    }
}

TEST(ServiceFrameTable, ARuleWithEveryFieldOfAFrameMatchesIt) {
    for (const json& frame : frames()) {
        const auto rule = rule_of(frame.at("rules").at("matches").get<std::string>());
        EXPECT_TRUE(matches(rule, parsed(frame))) << frame.at("rules").at("matches");
    }
}

TEST(ServiceFrameTable, ARuleWithOneOtherFieldDoesNotMatch) {
    for (const json& frame : frames()) {
        for (const json& text : frame.at("rules").at("fails")) {
            EXPECT_FALSE(matches(rule_of(text.get<std::string>()), parsed(frame)))
                << text << frame.at("bytes");
        }
    }
}

}  // namespace
}  // namespace scc::service
