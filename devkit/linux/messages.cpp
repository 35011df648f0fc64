#include "linux/messages.h"

#include <linux/netfilter/nfnetlink.h>

#include <cerrno>
#include <cstring>

namespace scc::kernel {
namespace {

constexpr u8 comment_type = 0;  // of user data: type, length, text with its final 0

std::string bytes_in(const nlattr* attribute) {
    return {static_cast<const char*>(mnl_attr_get_payload(attribute)), mnl_attr_get_payload_len(attribute)};
}

std::string_view kind_of(u16 message_type) {
    switch (message_type & 0xFF) {
        case NFT_MSG_NEWTABLE:
        case NFT_MSG_DELTABLE:
            return "table";
        case NFT_MSG_NEWCHAIN:
        case NFT_MSG_DELCHAIN:
            return "chain";
        case NFT_MSG_NEWRULE:
        case NFT_MSG_DELRULE:
            return "rule";
        case NFT_MSG_NEWSET:
        case NFT_MSG_DELSET:
        case NFT_MSG_NEWSETELEM:
        case NFT_MSG_DELSETELEM:
            return "map";
        case NFT_MSG_NEWOBJ:
        case NFT_MSG_DELOBJ:
            return "counter";
        default:
            return "transaction";
    }
}

}  // namespace

std::string text_of(const nlattr* attribute) {
    if (attribute == nullptr) {
        return {};
    }
    const char* const text = mnl_attr_get_str(attribute);
    return {text, ::strnlen(text, mnl_attr_get_payload_len(attribute))};
}

u64 number_of(const nlattr* attribute) {
    u64 number = 0;
    if (attribute != nullptr && mnl_attr_get_payload_len(attribute) >= sizeof number) {
        std::memcpy(&number, mnl_attr_get_payload(attribute), sizeof number);
    }
    return be64toh(number);
}

attribute_table attributes_of(const nlmsghdr* message) {
    attribute_table table{};
    for_each_attribute(message, sizeof(nfgenmsg), [&](const nlattr* attribute) {
        const u16 type = mnl_attr_get_type(attribute);
        if (type < table.size()) {
            table[type] = attribute;
        }
    });
    return table;
}

std::string comment_in(const nlattr* user_data) {
    if (user_data == nullptr) {
        return {};
    }
    const auto* bytes = static_cast<const u8*>(mnl_attr_get_payload(user_data));
    const std::size_t size = mnl_attr_get_payload_len(user_data);
    for (std::size_t at = 0; at + 2 <= size && at + 2 + bytes[at + 1] <= size; at += 2 + bytes[at + 1]) {
        if (bytes[at] == comment_type && bytes[at + 1] > 0) {
            return {reinterpret_cast<const char*>(bytes + at + 2), bytes[at + 1] - std::size_t{1}};
        }
    }
    return {};
}

counted counter_in(const nlattr* data) {
    counted found;
    if (data == nullptr) {
        return found;
    }
    for_each_nested(data, [&](const nlattr* attribute) {
        if (mnl_attr_get_type(attribute) == NFTA_COUNTER_PACKETS) {
            found.packets = number_of(attribute);
        }
        if (mnl_attr_get_type(attribute) == NFTA_COUNTER_BYTES) {
            found.bytes = number_of(attribute);
        }
    });
    return found;
}

kernel_element element_in(const nlattr* data) {
    kernel_element element;
    for_each_nested(data, [&](const nlattr* attribute) {
        if (mnl_attr_get_type(attribute) == NFTA_SET_ELEM_KEY) {
            for_each_nested(attribute, [&](const nlattr* value) { element.key = bytes_in(value); });
        }
        if (mnl_attr_get_type(attribute) == NFTA_SET_ELEM_USERDATA) {
            element.comment = comment_in(attribute);
        }
    });
    return element;
}

u32 result_of(const nlmsghdr* message) {
    i32 number = 0;
    if (mnl_nlmsg_get_payload_len(message) < sizeof number) {
        return EBADMSG;
    }
    std::memcpy(&number, mnl_nlmsg_get_payload(message), sizeof number);
    return number > 0 ? EBADMSG : 0 - static_cast<u32>(number);
}

std::string_view subject_of(const nlmsghdr* answer) {
    nlmsgerr fields{};
    if (mnl_nlmsg_get_payload_len(answer) < sizeof fields) {
        return {};
    }
    std::memcpy(&fields, mnl_nlmsg_get_payload(answer), sizeof fields);
    return kind_of(fields.msg.nlmsg_type);
}

}  // namespace scc::kernel
