// Builds the attributes of a netlink message. Pure; any thread.
#pragma once

#include <endian.h>
#include <linux/netlink.h>

#include <cstddef>
#include <cstring>
#include <limits>
#include <string>
#include <string_view>

#include "common/bytes.h"

namespace scc::kernel {

class attribute_buffer {
  public:
    void put(unsigned type, std::string_view payload) {
        check(sizeof(nlattr) + payload.size());
        const nlattr header{static_cast<u16>(sizeof(nlattr) + payload.size()), static_cast<u16>(type)};
        bytes_.append(reinterpret_cast<const char*>(&header), sizeof header);
        bytes_ += payload;
        align();
    }
    // Text ends with a 0; numbers are in network byte order.
    void put_text(unsigned type, std::string_view text) { put(type, std::string(text) + '\0'); }
    void put_u32(unsigned type, u32 number) {
        const u32 ordered = htobe32(number);
        put(type, {reinterpret_cast<const char*>(&ordered), sizeof ordered});
    }
    void put_u64(unsigned type, u64 number) {
        const u64 ordered = htobe64(number);
        put(type, {reinterpret_cast<const char*>(&ordered), sizeof ordered});
    }

    // What fill() puts is nested in an attribute of this type.
    template <class Fill>
    void nest(unsigned type, Fill fill) {
        const std::size_t begin = bytes_.size();
        put(type | NLA_F_NESTED, {});
        fill();
        check(bytes_.size() - begin);
        const auto len = static_cast<u16>(bytes_.size() - begin);
        std::memcpy(bytes_.data() + begin, &len, sizeof len);
    }

    void append(std::string_view attributes) { bytes_ += attributes; }
    // Whether no attribute is longer than its header can say.
    [[nodiscard]] bool fits() const { return fits_; }
    [[nodiscard]] const std::string& bytes() const { return bytes_; }
    [[nodiscard]] std::string& bytes() { return bytes_; }

  private:
    void check(std::size_t size) { fits_ = fits_ && size <= std::numeric_limits<u16>::max(); }
    void align() { bytes_.resize((bytes_.size() + NLA_ALIGNTO - 1) / NLA_ALIGNTO * NLA_ALIGNTO); }

    std::string bytes_;
    bool fits_ = true;
};

}  // namespace scc::kernel
