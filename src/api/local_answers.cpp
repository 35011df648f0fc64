// Calls that the library answers itself. Any thread.
#include <array>
#include <cstring>

#include "api/request.h"

using namespace scc;

namespace scc {
namespace {

constexpr u64 no_user_counter_bit = 0x20;  // set: the device does not count

struct owner_name {
    u32 bit;
    const char* name;
};

// In the order of the text, not of the bits.
constexpr std::array<owner_name, 6> owner_names = {{
    {0x02, "AAA ip-auth-mode"},
    {0x10, "address-bind"},
    {0x80, "VRB"},
    {0x20, "DHCP snooping"},
    {0x04, "port-security"},
    {0x08, "web-authen"},
}};

}  // namespace
}  // namespace scc

extern "C" {

// Appends a name, after a slash if need_separator. Returns the new length, or all ones when the name does
// not fit; the slash then stays.
u32 _app_string_add(char* buf, const char* name, bool need_separator, int size) {
    const std::size_t before = std::strlen(buf);
    const auto capacity = static_cast<std::size_t>(size);
    std::size_t length = before;
    if (need_separator) {
        if (length + 1 >= capacity) {
            return result::all_ones;
        }
        buf[length++] = '/';
        buf[length] = '\0';
    }
    const std::size_t name_length = std::strlen(name);
    if (before + name_length + 1 >= capacity) {
        return result::all_ones;
    }
    std::memcpy(buf + length, name, name_length + 1);
    return static_cast<u32>(length + name_length);
}

void scc_bind_user_name_get(int mask, char* buf, int size) {
    if (buf == nullptr || size < 1) {
        return;
    }
    buf[0] = '\0';
    u32 length = 0;
    for (const owner_name& owner : owner_names) {
        if ((static_cast<u32>(mask) & owner.bit) == 0) {
            continue;
        }
        length = _app_string_add(buf, owner.name, length != 0, size);
        if (length == result::all_ones) {
            return;
        }
    }
}

uint32_t scc_get_nac_max_user(int kind, uint64_t* a, uint64_t* b, uint64_t* c) {
    const bool many = kind == 1 || (kind >= 4 && kind <= 7);
    if (a != nullptr) {
        *a = many ? 4096 : 128;
    }
    if (b != nullptr) {
        *b = many ? 3000 : 128;
    }
    if (c != nullptr) {
        *c = many ? 3000 : 128;
    }
    return result::ok;
}

uint32_t scc_nac_user_counter_support(uint8_t* supported) {
    if (supported == nullptr) {
        SCC_LOG("scclib param invalid.");
        return result::invalid;
    }
    locked_call call;
    if (!call.is_registered()) {
        return result::unavailable;
    }
    *supported = (capability_word() & no_user_counter_bit) != 0 ? 0 : 1;
    return result::ok;
}
}
