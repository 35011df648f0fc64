// Captured frames: decoded, matched against a rule, counted by the traffic meter and classified by a table of
// ACLs that the input fills.
//
//   input := settings {count byte{count}}
//     settings: bits 0 and 1 the rule's family, bit 2 users are given, bit 3 detection of silence
//     the first block is a rule (the record's bytes from 20 on), the others are frames
#include <cstdlib>
#include <cstring>
#include <vector>

#include "common/records.h"
#include "service/classify.h"
#include "service/forwarding_table.h"
#include "service/traffic.h"
#include "support/fail.h"
#include "support/input.h"

using namespace scc;
using namespace scc::fuzz;

namespace {

constexpr u32 ifx = 3;

scc_ace_record record_of(std::span<const u8> bytes) {
    scc_ace_record record{};
    const u32 marker = ace::layout_marker;
    std::memcpy(record.match, &marker, sizeof marker);
    const std::size_t count = std::min(bytes.size(), sizeof record.match - sizeof marker);
    std::memcpy(record.match + sizeof marker, bytes.data(), count);
    record.sn = 10;
    return record;
}

scc_acl_apply_record applied_to(const scc_acl_key& key) {
    scc_acl_apply_record record{};
    record.key = key;
    std::memcpy(reinterpret_cast<u8*>(&record) + devkit::apply_record::ifx, &ifx, sizeof ifx);
    record.apply_type = key.app_type;
    return record;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const u8* data, std::size_t size) {
    input from(data, size);
    const u8 settings = from.byte();
    const scc_ace_record record = record_of(from.bytes(from.byte()));
    const auto rule = ace::decode(record);

    const scc_acl_key key{0, 1, 7, 0};
    service::acl_table table;
    FUZZ_EXPECT(table.create(key) == 0 && table.add_ace(key, record) == 0 &&
                table.apply(applied_to(key)) == 0);

    std::vector<service::nac_user> users((settings & 4u) != 0 ? 1 : 0);
    service::traffic_meter meter(users, {(settings & 8u) != 0, 1, 1});
    u64 time_us = 0;
    u64 matched = 0;
    while (!from.empty()) {
        time_us += from.word() * u64{1000};
        const auto given = from.bytes(from.byte());
        // A block of exactly the frame's size, so that a byte read past it is found.
        auto* exact = static_cast<u8*>(std::malloc(given.size() + 1));
        std::memcpy(exact + 1, given.data(), given.size());
        const auto packet = service::parse_packet({exact + 1, given.size()});
        FUZZ_EXPECT(packet.has_value() == (given.size() >= 14));
        if (packet) {
            FUZZ_EXPECT(packet->vid < 4096 && packet->dscp < 64);
            FUZZ_EXPECT(!packet->has_ports || ace::has_ports(packet->protocol));
            const bool met = rule && service::matches(*rule, *packet);
            const service::verdict verdict = table.classify(*packet, {ifx, 0});
            FUZZ_EXPECT((verdict.matches != 0) == met);
            FUZZ_EXPECT(verdict.denied == (met && rule->denies()));
            matched += met ? 1 : 0;
            meter.count(*packet, {ifx, packet->vid}, time_us, given.size());
        }
        std::free(exact);
    }
    u64 counter = 0;
    FUZZ_EXPECT(table.read_counter(key, counter) == 0 && counter == matched);
    meter.finish();
    u64 packets = 0;
    for (const service::flow& each : meter.flows()) {
        packets += each.packets;
    }
    FUZZ_EXPECT(packets <= size);
    return 0;
}
