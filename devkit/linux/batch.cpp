#include "linux/batch.h"

#include <linux/netfilter.h>
#include <linux/netfilter/nfnetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <limits>

namespace scc::kernel {
namespace {

constexpr std::string_view set_name = "__set%d";  // the kernel puts a number in its place
constexpr u32 port_type = 13;                     // nft(8) shows keys as ports
constexpr u8 comment_type = 0;                    // of user data: type, length, text with its final 0

std::string message_of(int type, unsigned flags, u8 family, u16 resource, std::string_view attributes) {
    nlmsghdr header{};
    nfgenmsg what{};
    header.nlmsg_len = static_cast<u32>(sizeof header + sizeof what + attributes.size());
    header.nlmsg_type = static_cast<u16>(type);
    header.nlmsg_flags = static_cast<u16>(NLM_F_REQUEST | flags);
    what.nfgen_family = family;
    what.version = NFNETLINK_V0;
    what.res_id = htobe16(resource);
    std::string message(reinterpret_cast<const char*>(&header), sizeof header);
    message.append(reinterpret_cast<const char*>(&what), sizeof what);
    message += attributes;
    return message;
}

// Numbers the messages and returns how many there are.
void number(std::string& messages, bool with_rules) {
    nlmsghdr header{};
    u32 next = 0;
    for (std::size_t at = 0; at < messages.size(); at += header.nlmsg_len) {
        std::memcpy(&header, messages.data() + at, sizeof header);
        header.nlmsg_seq = ++next;
        if (next == 2) {  // the first one is the beginning
            header.nlmsg_flags |= NLM_F_ACK;
        }
        if (with_rules && header.nlmsg_type == (NFNL_SUBSYS_NFTABLES << 8 | NFT_MSG_NEWRULE)) {
            header.nlmsg_flags |= NLM_F_ECHO;
        }
        std::memcpy(messages.data() + at, &header, sizeof header);
    }
}

// One element of a map, with what more() puts.
template <class More>
void put_element(attribute_buffer& to, std::string_view map, std::string_view key, More more) {
    to.put_text(NFTA_SET_ELEM_LIST_TABLE, table_name);
    to.put_text(NFTA_SET_ELEM_LIST_SET, map);
    to.nest(NFTA_SET_ELEM_LIST_ELEMENTS, [&] {
        to.nest(NFTA_LIST_ELEM, [&] {
            to.nest(NFTA_SET_ELEM_KEY, [&] { to.put(NFTA_DATA_VALUE, key); });
            more();
        });
    });
}

}  // namespace

u8 number_of(family in) {
    return in == family::netdev ? NFPROTO_NETDEV : NFPROTO_INET;
}

std::string batch::user_data_of(std::string_view comment) {
    fits_ = fits_ && comment.size() < std::numeric_limits<u8>::max();
    std::string data{static_cast<char>(comment_type), static_cast<char>(comment.size() + 1)};
    data += comment;
    data += '\0';
    return data;
}

template <class Fill>
void batch::put(stage when, int type, unsigned flags, family in, Fill fill) {
    attribute_buffer attributes;
    fill(attributes);
    fits_ = fits_ && attributes.fits();
    messages_[when] +=
        message_of(NFNL_SUBSYS_NFTABLES << 8 | type, flags, number_of(in), 0, attributes.bytes());
}

void batch::add_table(family in) {
    put(parts_added, NFT_MSG_NEWTABLE, NLM_F_CREATE, in,
        [](attribute_buffer& to) { to.put_text(NFTA_TABLE_NAME, table_name); });
}

void batch::delete_table(family in) {
    put(parts_deleted, NFT_MSG_DELTABLE, 0, in,
        [](attribute_buffer& to) { to.put_text(NFTA_TABLE_NAME, table_name); });
}

void batch::add_chain(const chain_name& chain, const std::optional<chain_hook>& hook) {
    put(chains_added, NFT_MSG_NEWCHAIN, NLM_F_CREATE, chain.in, [&](attribute_buffer& to) {
        to.put_text(NFTA_CHAIN_TABLE, table_name);
        to.put_text(NFTA_CHAIN_NAME, chain.name);
        if (!hook) {
            return;
        }
        to.put_text(NFTA_CHAIN_TYPE, "filter");
        to.put_u32(NFTA_CHAIN_POLICY, NF_ACCEPT);
        to.nest(NFTA_CHAIN_HOOK, [&] {
            to.put_u32(NFTA_HOOK_HOOKNUM, hook->number);
            to.put_u32(NFTA_HOOK_PRIORITY, 0);
            if (!hook->interface.empty()) {
                to.put_text(NFTA_HOOK_DEV, hook->interface);
            }
        });
    });
}

void batch::delete_chain(const chain_name& chain) {
    put(chains_deleted, NFT_MSG_DELCHAIN, 0, chain.in, [&](attribute_buffer& to) {
        to.put_text(NFTA_CHAIN_TABLE, table_name);
        to.put_text(NFTA_CHAIN_NAME, chain.name);
    });
}

void batch::add_counter(std::string_view name) {
    put(parts_added, NFT_MSG_NEWOBJ, NLM_F_CREATE, family::netdev, [&](attribute_buffer& to) {
        to.put_text(NFTA_OBJ_TABLE, table_name);
        to.put_text(NFTA_OBJ_NAME, name);
        to.put_u32(NFTA_OBJ_TYPE, NFT_OBJECT_COUNTER);
        to.nest(NFTA_OBJ_DATA, [&] {
            to.put_u64(NFTA_COUNTER_BYTES, 0);
            to.put_u64(NFTA_COUNTER_PACKETS, 0);
        });
    });
}

void batch::delete_counter(std::string_view name) {
    put(parts_deleted, NFT_MSG_DELOBJ, 0, family::netdev, [&](attribute_buffer& to) {
        to.put_text(NFTA_OBJ_TABLE, table_name);
        to.put_text(NFTA_OBJ_NAME, name);
        to.put_u32(NFTA_OBJ_TYPE, NFT_OBJECT_COUNTER);
    });
}

void batch::add_map(std::string_view name, std::size_t key_len, u32 key_type) {
    put(parts_added, NFT_MSG_NEWSET, NLM_F_CREATE, family::netdev, [&](attribute_buffer& to) {
        to.put_text(NFTA_SET_TABLE, table_name);
        to.put_text(NFTA_SET_NAME, name);
        to.put_u32(NFTA_SET_FLAGS, NFT_SET_OBJECT);
        to.put_u32(NFTA_SET_KEY_TYPE, key_type);
        to.put_u32(NFTA_SET_KEY_LEN, static_cast<u32>(key_len));
        to.put_u32(NFTA_SET_OBJ_TYPE, NFT_OBJECT_COUNTER);
        to.put_u32(NFTA_SET_ID, ++sets_);
    });
}

void batch::delete_map(std::string_view name) {
    put(parts_deleted, NFT_MSG_DELSET, 0, family::netdev, [&](attribute_buffer& to) {
        to.put_text(NFTA_SET_TABLE, table_name);
        to.put_text(NFTA_SET_NAME, name);
    });
}

void batch::add_element(std::string_view map, std::string_view key, std::string_view counter,
                        std::string_view comment) {
    put(rules_changed, NFT_MSG_NEWSETELEM, NLM_F_CREATE, family::netdev, [&](attribute_buffer& to) {
        put_element(to, map, key, [&] {
            to.put_text(NFTA_SET_ELEM_OBJREF, counter);
            to.put(NFTA_SET_ELEM_USERDATA, user_data_of(comment));
        });
    });
}

void batch::delete_element(std::string_view map, std::string_view key) {
    put(rules_changed, NFT_MSG_DELSETELEM, 0, family::netdev,
        [&](attribute_buffer& to) { put_element(to, map, key, [] {}); });
}

void batch::flush_chain(const chain_name& chain) {
    put(rules_changed, NFT_MSG_DELRULE, 0, chain.in, [&](attribute_buffer& to) {
        to.put_text(NFTA_RULE_TABLE, table_name);
        to.put_text(NFTA_RULE_CHAIN, chain.name);
    });
}

void batch::delete_rule(const chain_name& chain, u64 handle) {
    put(rules_changed, NFT_MSG_DELRULE, 0, chain.in, [&](attribute_buffer& to) {
        to.put_text(NFTA_RULE_TABLE, table_name);
        to.put_text(NFTA_RULE_CHAIN, chain.name);
        to.put_u64(NFTA_RULE_HANDLE, handle);
    });
}

void batch::add_rule(const chain_name& chain, u64 before, std::string_view comment, const expressions& what) {
    std::string list = what.bytes();
    for (const expressions::value_set& set : what.sets()) {
        const u32 number = ++sets_;
        add_set(chain.in, number, set.ranges);
        const u32 ordered = htobe32(number);
        std::memcpy(list.data() + set.number_at, &ordered, sizeof ordered);
    }
    ++added_rules_;
    put(rules_changed, NFT_MSG_NEWRULE, NLM_F_CREATE | (before == 0 ? NLM_F_APPEND : 0u), chain.in,
        [&](attribute_buffer& to) {
            to.put_text(NFTA_RULE_TABLE, table_name);
            to.put_text(NFTA_RULE_CHAIN, chain.name);
            if (before != 0) {
                to.put_u64(NFTA_RULE_POSITION, before);
            }
            to.put(NFTA_RULE_EXPRESSIONS | NLA_F_NESTED, list);
            to.put(NFTA_RULE_USERDATA, user_data_of(comment));
        });
}

// It goes with the rule that uses it.
void batch::add_set(family in, u32 number, const std::vector<number_range>& ranges) {
    const bool single = std::all_of(ranges.begin(), ranges.end(),
                                    [](const number_range& range) { return range.first == range.last; });
    const u32 flags = NFT_SET_ANONYMOUS | NFT_SET_CONSTANT | (single ? 0u : u32{NFT_SET_INTERVAL});
    put(rules_changed, NFT_MSG_NEWSET, NLM_F_CREATE, in, [&](attribute_buffer& to) {
        to.put_text(NFTA_SET_TABLE, table_name);
        to.put_text(NFTA_SET_NAME, set_name);
        to.put_u32(NFTA_SET_FLAGS, flags);
        to.put_u32(NFTA_SET_KEY_TYPE, port_type);
        to.put_u32(NFTA_SET_KEY_LEN, sizeof(u16));
        to.put_u32(NFTA_SET_ID, number);
    });
    const auto element = [](attribute_buffer& to, u16 key, bool ends) {
        to.nest(NFTA_LIST_ELEM, [&] {
            to.nest(NFTA_SET_ELEM_KEY, [&] { to.put(NFTA_DATA_VALUE, bytes_of(key)); });
            if (ends) {
                to.put_u32(NFTA_SET_ELEM_FLAGS, NFT_SET_ELEM_INTERVAL_END);
            }
        });
    };
    put(rules_changed, NFT_MSG_NEWSETELEM, NLM_F_CREATE, in, [&](attribute_buffer& to) {
        to.put_text(NFTA_SET_ELEM_LIST_TABLE, table_name);
        to.put_text(NFTA_SET_ELEM_LIST_SET, set_name);
        to.put_u32(NFTA_SET_ELEM_LIST_SET_ID, number);
        to.nest(NFTA_SET_ELEM_LIST_ELEMENTS, [&] {
            if (!single && ranges.front().first != 0) {
                element(to, 0, true);
            }
            for (const number_range& range : ranges) {
                element(to, range.first, false);
                // The end is the first number that is outside.
                if (!single && range.last != 0xFFFF) {
                    element(to, static_cast<u16>(range.last + 1), true);
                }
            }
        });
    });
}

bool batch::is_empty() const {
    return std::all_of(messages_.begin(), messages_.end(),
                       [](const std::string& messages) { return messages.empty(); });
}

std::string batch::bytes(bool with_rules, u32 generation) const {
    attribute_buffer base;
    base.put_u32(NFNL_BATCH_GENID, generation);
    std::size_t size = 0;
    for (const std::string& messages : messages_) {
        size += messages.size();
    }
    std::string all;
    all.reserve(size + 2 * (sizeof(nlmsghdr) + sizeof(nfgenmsg)) + base.bytes().size());
    all += message_of(NFNL_MSG_BATCH_BEGIN, 0, AF_UNSPEC, NFNL_SUBSYS_NFTABLES, base.bytes());
    for (const std::string& messages : messages_) {
        all += messages;
    }
    all += message_of(NFNL_MSG_BATCH_END, 0, AF_UNSPEC, NFNL_SUBSYS_NFTABLES, {});
    number(all, with_rules);
    return all;
}

}  // namespace scc::kernel
