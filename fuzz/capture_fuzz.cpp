// Capture files: the input is the file or, if its first byte is odd, the records of one with a correct
// header.
//
// No file is written: the linker redirects the opening of the file here, and libpcap reads the input itself.
#include <pcap/pcap.h>

#include <cstdio>
#include <cstring>
#include <vector>

#include "service/capture.h"
#include "support/fail.h"
#include "support/input.h"

using namespace scc;
using namespace scc::fuzz;

namespace {

std::vector<u8> g_file;

constexpr u8 ethernet_header[24] = {0xD4, 0xC3, 0xB2, 0xA1, 2, 0, 4, 0, 0, 0, 0, 0,
                                    0,    0,    0,    0,    0, 0, 4, 0, 1, 0, 0, 0};

template <class T>
void put(T value) {
    const auto* bytes = reinterpret_cast<const u8*>(&value);
    g_file.insert(g_file.end(), bytes, bytes + sizeof value);
}

// Records with correct lengths: seconds (u8), length (u8), bytes.
void write_records(input& from) {
    g_file.assign(std::begin(ethernet_header), std::end(ethernet_header));
    while (!from.empty()) {
        const u8 seconds = from.byte();
        const auto frame = from.bytes(from.byte());
        put<u32>(seconds);
        put<u32>(seconds * 1000u);
        put<u32>(static_cast<u32>(frame.size()));
        put<u32>(static_cast<u32>(frame.size() + seconds));
        g_file.insert(g_file.end(), frame.begin(), frame.end());
    }
}

}  // namespace

// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" pcap_t* __wrap_pcap_open_offline(const char* path, char* error);
extern "C" pcap_t* __wrap_pcap_open_offline(const char* /*path*/, char* error) {
    std::FILE* file = fmemopen(g_file.data(), g_file.size(), "r");
    pcap_t* capture = pcap_fopen_offline(file, error);
    if (capture == nullptr) {
        std::fclose(file);
    }
    return capture;
}
// NOLINTEND(bugprone-reserved-identifier)

extern "C" int LLVMFuzzerTestOneInput(const u8* data, std::size_t size) {
    if (size < 2) {
        return 0;
    }
    input from(data, size);
    if (from.byte() % 2 == 1) {
        write_records(from);
    } else {
        const auto rest = from.rest();
        g_file.assign(rest.begin(), rest.end());
    }
    service::forwarding_table table;
    service::ingress_map ingress;
    ingress.ifx_of_vlan[5] = 9;
    const service::capture_report report = service::run_capture("capture", ingress, table);
    FUZZ_EXPECT(report.unreadable <= report.packets && report.denied <= report.matched);
    FUZZ_EXPECT(report.packets <= size);
    const std::string problem = service::capture_problem("capture");
    FUZZ_EXPECT(problem.empty() || !report.error.empty());
    return 0;
}
