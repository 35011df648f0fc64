// What a rule does, in the kernel's expressions: conditions that a packet has to meet one after the other,
// and then what becomes of it. Pure; any thread.
#pragma once

#include <linux/netfilter/nf_tables.h>

#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "linux/attribute_buffer.h"

namespace scc::kernel {

struct number_range {
    u16 first = 0;
    u16 last = 0;
};

// What is loaded is compared in this register.
inline constexpr u32 work_register = NFT_REG_1;
// The key of a map is loaded into this register and those that follow it, each field at one of its own.
inline constexpr u32 key_register = NFT_REG32_00;
inline constexpr std::size_t register_bytes = 4;
inline constexpr std::size_t key_bytes_max = 16 * register_bytes;

class expressions {
  public:
    // Each of these is compared by the call that follows, unless it is part of a key.
    expressions& payload(nft_payload_bases base, u32 offset, u32 len, u32 to = work_register);
    expressions& meta(nft_meta_keys key, u32 to = work_register);
    // The field of an extension header of IPv6, or whether there is such a header: 1 or 0.
    expressions& extension(u8 header, u32 offset, u32 len);
    expressions& has_extension(u8 header);

    // Clears the bits that the mask does not have.
    expressions& mask(std::string_view bits, u32 in = work_register);
    expressions& equals(std::string_view value) { return compare(NFT_CMP_EQ, value); }
    expressions& differs(std::string_view value) { return compare(NFT_CMP_NEQ, value); }
    // Of 16 bits; ranges ascend and do not touch each other.
    expressions& lies_in(const std::vector<number_range>& ranges);

    // What follows happens only while there are more packets than that.
    expressions& above(u64 packets_per_second) { return limit(packets_per_second, NFT_LIMIT_F_INV); }
    // While there are no more.
    expressions& up_to(u64 packets_per_second) { return limit(packets_per_second, 0); }
    // Tells the reader of this group of the kernel's packet log of each packet at once.
    expressions& log_to(u16 group);
    expressions& count();
    expressions& count_in(std::string_view counter);
    // In the counter that the map has for the key. What follows happens only if it has one.
    expressions& count_in_map(std::string_view map);
    expressions& drop() { return decide(0, {}); }
    expressions& leave_chain() { return decide(static_cast<u32>(NFT_RETURN), {}); }
    expressions& jump(std::string_view chain) { return decide(static_cast<u32>(NFT_JUMP), chain); }
    expressions& go_to(std::string_view chain) { return decide(static_cast<u32>(NFT_GOTO), chain); }

    expressions& operator+=(const expressions& more);
    friend expressions operator+(expressions first, const expressions& more) { return first += more; }

    // The list's elements. Each set's number within a transaction is at its place in them.
    struct value_set {
        std::size_t number_at = 0;
        std::vector<number_range> ranges;
    };
    [[nodiscard]] const std::string& bytes() const { return list_.bytes(); }
    [[nodiscard]] const std::vector<value_set>& sets() const { return sets_; }
    [[nodiscard]] u64 fingerprint() const;

  private:
    expressions& compare(nft_cmp_ops how, std::string_view value);
    expressions& limit(u64 packets_per_second, u32 flags);
    expressions& decide(u32 verdict, std::string_view chain);
    // One expression, whose attributes fill() puts.
    template <class Fill>
    expressions& add(std::string_view name, Fill fill);

    attribute_buffer list_;
    std::vector<value_set> sets_;
};

// In network byte order.
[[nodiscard]] std::string bytes_of(u16 number);

}  // namespace scc::kernel
