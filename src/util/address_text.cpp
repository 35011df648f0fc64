// Addresses as text for log lines. Each formatter has one buffer a thread: two calls of the same one in a
// statement show the later text, so callers take different formatters for two addresses.
#include <arpa/inet.h>

#include <cstdio>
#include <cstring>
#include <initializer_list>

#include "msg/protocol.h"
#include "scclib.h"

namespace {

struct text_buffer {
    char text[128];
};

const char* show_ipv4(text_buffer& out, scc::u32 address)
{
    const scc::u32 host = ntohl(address);
    std::memset(out.text, 0, sizeof out.text);
    std::snprintf(out.text, sizeof out.text, "%u.%u.%u.%u", host >> 24U, (host >> 16U) & 0xFFU,
                  (host >> 8U) & 0xFFU, host & 0xFFU);
    return out.text;
}

const char* show_ipv6(text_buffer& out, const in6_addr& address)
{
    std::memset(out.text, 0, sizeof out.text);
    inet_ntop(AF_INET6, &address, out.text, INET6_ADDRSTRLEN);
    return out.text;
}

}  // namespace

extern "C" {

const char* ip_show(uint32_t ip)
{
    thread_local constinit text_buffer buffer{};
    return show_ipv4(buffer, ip);
}

const char* mask_show(uint32_t mask)
{
    thread_local constinit text_buffer buffer{};
    return show_ipv4(buffer, mask);
}

const char* ipv6_show(struct in6_addr address)
{
    thread_local constinit text_buffer buffer{};
    return show_ipv6(buffer, address);
}

const char* ipv6_mask_show(struct in6_addr mask)
{
    thread_local constinit text_buffer buffer{};
    return show_ipv6(buffer, mask);
}

const char* mac_show(const uint8_t* mac)
{
    thread_local constinit text_buffer buffer{};
    std::memset(buffer.text, 0, sizeof buffer.text);
    if (mac != nullptr) {
        std::snprintf(buffer.text, sizeof buffer.text, "%02x%02x.%02x%02x.%02x%02x", mac[0], mac[1], mac[2],
                      mac[3], mac[4], mac[5]);
    }
    return buffer.text;
}

uint32_t ip_set(int a, int b, int c, int d)
{
    for (const int part : {a, b, c, d}) {
        if (part < 0 || part > 255) {
            return 0;
        }
    }
    return static_cast<uint32_t>(a) << 24U | static_cast<uint32_t>(b) << 16U |
           static_cast<uint32_t>(c) << 8U | static_cast<uint32_t>(d);
}

int mask_count(uint32_t mask)
{
    const uint32_t zeros = ~ntohl(mask);
    return zeros == 0 ? 32 : __builtin_clz(zeros);
}
}
