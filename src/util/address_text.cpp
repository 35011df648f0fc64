// The formatters for log lines, and the exported ones with their static buffers.
#include "util/address_text.h"

#include <arpa/inet.h>

#include <cstdio>
#include <cstring>
#include <initializer_list>

#include "scclib.h"

namespace scc {

address_text ipv4_text(u32 network_order) {
    const u32 host = ntohl(network_order);
    address_text out{};
    std::snprintf(out.text, sizeof out.text, "%u.%u.%u.%u", host >> 24U, (host >> 16U) & 0xFFU,
                  (host >> 8U) & 0xFFU, host & 0xFFU);
    return out;
}

address_text ipv6_text(const in6_addr& address) {
    address_text out{};
    inet_ntop(AF_INET6, &address, out.text, sizeof out.text);
    return out;
}

address_text mac_text(const u8* mac) {
    address_text out{};
    std::snprintf(out.text, sizeof out.text, "%02x%02x.%02x%02x.%02x%02x", mac[0], mac[1], mac[2], mac[3],
                  mac[4], mac[5]);
    return out;
}

namespace {

// One buffer per formatter: a text stays valid until the formatter's next call.
struct static_text {
    char text[128];
};

const char* keep(static_text& buffer, const address_text& shown) {
    std::memcpy(buffer.text, shown.text, sizeof shown.text);
    return buffer.text;
}

constinit static_text g_ip_text{};
constinit static_text g_mask_text{};
constinit static_text g_ipv6_text{};
constinit static_text g_ipv6_mask_text{};
constinit static_text g_mac_text{};

}  // namespace
}  // namespace scc

using namespace scc;

extern "C" {

const char* ip_show(uint32_t ip) {
    return keep(g_ip_text, ipv4_text(ip));
}

const char* mask_show(uint32_t mask) {
    return keep(g_mask_text, ipv4_text(mask));
}

const char* ipv6_show(struct in6_addr address) {
    return keep(g_ipv6_text, ipv6_text(address));
}

const char* ipv6_mask_show(struct in6_addr mask) {
    return keep(g_ipv6_mask_text, ipv6_text(mask));
}

const char* mac_show(const uint8_t* mac) {
    return keep(g_mac_text, mac == nullptr ? address_text{} : mac_text(mac));
}

uint32_t ip_set(int a, int b, int c, int d) {
    for (const int part : {a, b, c, d}) {
        if (part < 0 || part > 255) {
            return 0;
        }
    }
    return static_cast<uint32_t>(a) << 24U | static_cast<uint32_t>(b) << 16U |
           static_cast<uint32_t>(c) << 8U | static_cast<uint32_t>(d);
}

int mask_count(uint32_t mask) {
    const uint32_t zeros = ~ntohl(mask);
    return zeros == 0 ? 32 : __builtin_clz(zeros);
}
}
