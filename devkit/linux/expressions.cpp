#include "linux/expressions.h"

#include <endian.h>

namespace scc::kernel {
namespace {

u64 hash_of(std::string_view text, u64 hash) {
    for (const char c : text) {
        hash = (hash ^ static_cast<u8>(c)) * 0x100000001B3;
    }
    return hash;
}

}  // namespace

std::string bytes_of(u16 number) {
    return {static_cast<char>(number >> 8), static_cast<char>(number & 0xFF)};
}

template <class Fill>
expressions& expressions::add(std::string_view name, Fill fill) {
    list_.nest(NFTA_LIST_ELEM, [&] {
        list_.put_text(NFTA_EXPR_NAME, name);
        list_.nest(NFTA_EXPR_DATA, fill);
    });
    return *this;
}

expressions& expressions::payload(nft_payload_bases base, u32 offset, u32 len, u32 to) {
    return add("payload", [&] {
        list_.put_u32(NFTA_PAYLOAD_DREG, to);
        list_.put_u32(NFTA_PAYLOAD_BASE, base);
        list_.put_u32(NFTA_PAYLOAD_OFFSET, offset);
        list_.put_u32(NFTA_PAYLOAD_LEN, len);
    });
}

expressions& expressions::meta(nft_meta_keys key, u32 to) {
    return add("meta", [&] {
        list_.put_u32(NFTA_META_KEY, key);
        list_.put_u32(NFTA_META_DREG, to);
    });
}

expressions& expressions::extension(u8 header, u32 offset, u32 len) {
    return add("exthdr", [&] {
        list_.put_u32(NFTA_EXTHDR_DREG, work_register);
        list_.put(NFTA_EXTHDR_TYPE, {reinterpret_cast<const char*>(&header), 1});
        list_.put_u32(NFTA_EXTHDR_OFFSET, offset);
        list_.put_u32(NFTA_EXTHDR_LEN, len);
    });
}

expressions& expressions::has_extension(u8 header) {
    return add("exthdr", [&] {
        list_.put_u32(NFTA_EXTHDR_DREG, work_register);
        list_.put(NFTA_EXTHDR_TYPE, {reinterpret_cast<const char*>(&header), 1});
        list_.put_u32(NFTA_EXTHDR_OFFSET, 0);
        list_.put_u32(NFTA_EXTHDR_LEN, 1);
        list_.put_u32(NFTA_EXTHDR_FLAGS, NFT_EXTHDR_F_PRESENT);
    });
}

expressions& expressions::mask(std::string_view bits, u32 in) {
    return add("bitwise", [&] {
        list_.put_u32(NFTA_BITWISE_SREG, in);
        list_.put_u32(NFTA_BITWISE_DREG, in);
        list_.put_u32(NFTA_BITWISE_LEN, static_cast<u32>(bits.size()));
        list_.nest(NFTA_BITWISE_MASK, [&] { list_.put(NFTA_DATA_VALUE, bits); });
        list_.nest(NFTA_BITWISE_XOR, [&] { list_.put(NFTA_DATA_VALUE, std::string(bits.size(), '\0')); });
    });
}

expressions& expressions::compare(nft_cmp_ops how, std::string_view value) {
    return add("cmp", [&] {
        list_.put_u32(NFTA_CMP_SREG, work_register);
        list_.put_u32(NFTA_CMP_OP, how);
        list_.nest(NFTA_CMP_DATA, [&] { list_.put(NFTA_DATA_VALUE, value); });
    });
}

expressions& expressions::lies_in(const std::vector<number_range>& ranges) {
    if (ranges.size() == 1 && ranges[0].first == ranges[0].last) {
        return equals(bytes_of(ranges[0].first));
    }
    if (ranges.size() == 1) {
        return add("range", [&] {
            list_.put_u32(NFTA_RANGE_SREG, work_register);
            list_.put_u32(NFTA_RANGE_OP, NFT_RANGE_EQ);
            list_.nest(NFTA_RANGE_FROM_DATA, [&] { list_.put(NFTA_DATA_VALUE, bytes_of(ranges[0].first)); });
            list_.nest(NFTA_RANGE_TO_DATA, [&] { list_.put(NFTA_DATA_VALUE, bytes_of(ranges[0].last)); });
        });
    }
    return add("lookup", [&] {
        list_.put_text(NFTA_LOOKUP_SET, "__set%d");
        list_.put_u32(NFTA_LOOKUP_SREG, work_register);
        sets_.push_back({list_.bytes().size() + sizeof(nlattr), ranges});
        list_.put_u32(NFTA_LOOKUP_SET_ID, 0);
    });
}

expressions& expressions::limit(u64 packets_per_second, u32 flags) {
    constexpr u32 burst = 5;
    return add("limit", [&] {
        list_.put_u64(NFTA_LIMIT_RATE, packets_per_second);
        list_.put_u64(NFTA_LIMIT_UNIT, 1);
        list_.put_u32(NFTA_LIMIT_BURST, burst);
        list_.put_u32(NFTA_LIMIT_TYPE, NFT_LIMIT_PKTS);
        list_.put_u32(NFTA_LIMIT_FLAGS, flags);
    });
}

expressions& expressions::log_to(u16 group) {
    return add("log", [&] {
        list_.put(NFTA_LOG_GROUP, bytes_of(group));
        list_.put(NFTA_LOG_QTHRESHOLD, bytes_of(1));
    });
}

expressions& expressions::count() {
    return add("counter", [&] {
        list_.put_u64(NFTA_COUNTER_BYTES, 0);
        list_.put_u64(NFTA_COUNTER_PACKETS, 0);
    });
}

expressions& expressions::count_in(std::string_view counter) {
    return add("objref", [&] {
        list_.put_u32(NFTA_OBJREF_IMM_TYPE, NFT_OBJECT_COUNTER);
        list_.put_text(NFTA_OBJREF_IMM_NAME, counter);
    });
}

expressions& expressions::count_in_map(std::string_view map) {
    return add("objref", [&] {
        list_.put_u32(NFTA_OBJREF_SET_SREG, key_register);
        list_.put_text(NFTA_OBJREF_SET_NAME, map);
    });
}

expressions& expressions::decide(u32 verdict, std::string_view chain) {
    return add("immediate", [&] {
        list_.put_u32(NFTA_IMMEDIATE_DREG, NFT_REG_VERDICT);
        list_.nest(NFTA_IMMEDIATE_DATA, [&] {
            list_.nest(NFTA_DATA_VERDICT, [&] {
                list_.put_u32(NFTA_VERDICT_CODE, verdict);
                if (!chain.empty()) {
                    list_.put_text(NFTA_VERDICT_CHAIN, chain);
                }
            });
        });
    });
}

expressions& expressions::operator+=(const expressions& more) {
    for (const value_set& set : more.sets_) {
        sets_.push_back({list_.bytes().size() + set.number_at, set.ranges});
    }
    list_.append(more.bytes());
    return *this;
}

u64 expressions::fingerprint() const {
    u64 hash = hash_of(bytes(), 0xCBF29CE484222325);
    for (const value_set& set : sets_) {
        for (const number_range& range : set.ranges) {
            hash = hash_of(bytes_of(range.first) + bytes_of(range.last), hash);
        }
    }
    return hash;
}

}  // namespace scc::kernel
