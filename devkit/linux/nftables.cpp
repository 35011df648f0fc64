#include "linux/nftables.h"

#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <functional>
#include <map>

#include "linux/attributes.h"

namespace scc::kernel {
namespace {

constexpr std::size_t buffer_bytes = 64 * 1024;
constexpr u8 comment_type = 0;  // of a rule's user data: type, length, text with its final 0

struct socket_closer {
    void operator()(mnl_socket* socket) const { mnl_socket_close(socket); }
};

using attribute_table = std::array<const nlattr*, NFTA_RULE_MAX + NFTA_CHAIN_MAX + NFTA_OBJ_MAX>;

std::string text_of(const nlattr* attribute) {
    return attribute == nullptr ? std::string() : std::string(mnl_attr_get_str(attribute));
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

// Of the data of a counter object.
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
        case NFT_MSG_NEWOBJ:
        case NFT_MSG_DELOBJ:
            return "counter";
        default:
            return "transaction";
    }
}

class kernel_filter : public packet_filter {
  public:
    u32 open() {
        socket_.reset(mnl_socket_open2(NETLINK_NETFILTER, SOCK_CLOEXEC));
        if (!socket_) {
            return static_cast<u32>(errno);
        }
        // An error need not repeat the message that it is about.
        const int on = 1;
        (void)mnl_socket_setsockopt(socket_.get(), NETLINK_CAP_ACK, const_cast<int*>(&on), sizeof on);
        return mnl_socket_bind(socket_.get(), 0, MNL_SOCKET_AUTOPID) < 0 ? static_cast<u32>(errno) : 0;
    }

    u32 run(const batch& changes, std::vector<u64>& handles, std::string& text) override {
        constexpr std::size_t told_max = 64;
        const std::string messages = changes.bytes(changes.added_rules() <= told_max);
        // The kernel takes a transaction as a whole, however long it is.
        const int len = static_cast<int>(messages.size());
        (void)::setsockopt(mnl_socket_get_fd(socket_.get()), SOL_SOCKET, SO_SNDBUFFORCE, &len, sizeof len);
        if (mnl_socket_sendto(socket_.get(), messages.data(), messages.size()) < 0) {
            return static_cast<u32>(errno);
        }
        return take_answers(handles, text);
    }

    u32 read_tables(held_tables& tables) override {
        tables = {};
        for (const family in : families) {
            const u32 error = read_table(in, tables);
            if (error != 0) {
                return error;
            }
        }
        std::vector<counted> counters;
        const u32 error = tables.tables.contains(family::netdev) ? read_counters(counters) : 0;
        for (const counted& counter : counters) {
            tables.counters.insert(counter.name);
        }
        return error;
    }

    u32 read_rules(const chain_name& chain, std::vector<kernel_rule>& rules) override {
        rules.clear();
        return dump(NFT_MSG_GETRULE, chain.in, {{NFTA_RULE_TABLE, table_name}, {NFTA_RULE_CHAIN, chain.name}},
                    [&](const attribute_table& found) {
                        // Older kernels send the rules of all chains.
                        if (text_of(found[NFTA_RULE_TABLE]) == table_name &&
                            text_of(found[NFTA_RULE_CHAIN]) == chain.name) {
                            rules.push_back(
                                {number_of(found[NFTA_RULE_HANDLE]), comment_in(found[NFTA_RULE_USERDATA])});
                        }
                    });
    }

    u32 read_counters(std::vector<counted>& counters) override {
        counters.clear();
        return dump(NFT_MSG_GETOBJ, family::netdev, {{NFTA_OBJ_TABLE, table_name}},
                    [&](const attribute_table& found) {
                        if (text_of(found[NFTA_OBJ_TABLE]) == table_name) {
                            counters.push_back(counter_in(found[NFTA_OBJ_DATA]));
                            counters.back().name = text_of(found[NFTA_OBJ_NAME]);
                        }
                    });
    }

    u32 read_counter(const std::string& name, bool reset, u64& packets) override {
        nlmsghdr* const request =
            begin(reset ? NFT_MSG_GETOBJ_RESET : NFT_MSG_GETOBJ, family::netdev, NLM_F_ACK);
        mnl_attr_put_strz(request, NFTA_OBJ_TABLE, std::string(table_name).c_str());
        mnl_attr_put_strz(request, NFTA_OBJ_NAME, name.c_str());
        mnl_attr_put_u32(request, NFTA_OBJ_TYPE, htobe32(NFT_OBJECT_COUNTER));
        return exchange(request, [&](const nlmsghdr* message) {
            packets = counter_in(attributes_of(message)[NFTA_OBJ_DATA]).packets;
        });
    }

  private:
    using message_visitor = std::function<void(const nlmsghdr*)>;
    using visitor = std::function<void(const attribute_table&)>;
    using filter_list = std::vector<std::pair<u16, std::string_view>>;

    u32 read_table(family in, held_tables& tables) {
        const u32 error = dump(NFT_MSG_GETTABLE, in, {}, [&](const attribute_table& found) {
            if (text_of(found[NFTA_TABLE_NAME]) == table_name) {
                tables.tables.insert(in);
            }
        });
        if (error != 0 || !tables.tables.contains(in)) {
            return error;
        }
        std::vector<std::string> chains;
        const u32 chain_error = dump(NFT_MSG_GETCHAIN, in, {}, [&](const attribute_table& found) {
            if (text_of(found[NFTA_CHAIN_TABLE]) == table_name) {
                chains.push_back(text_of(found[NFTA_CHAIN_NAME]));
            }
        });
        if (chain_error != 0) {
            return chain_error;
        }
        std::map<std::string, std::vector<kernel_rule>> rules;
        const u32 rule_error =
            dump(NFT_MSG_GETRULE, in, {{NFTA_RULE_TABLE, table_name}}, [&](const attribute_table& found) {
                if (text_of(found[NFTA_RULE_TABLE]) == table_name) {
                    rules[text_of(found[NFTA_RULE_CHAIN])].push_back(
                        {number_of(found[NFTA_RULE_HANDLE]), comment_in(found[NFTA_RULE_USERDATA])});
                }
            });
        for (const std::string& chain : chains) {
            tables.chains[{in, chain}] = group(rules[chain]);
        }
        return rule_error;
    }

    // The kernel has answered when it has taken the transaction.
    u32 take_answers(std::vector<u64>& handles, std::string& text) {
        u32 error = ENOMSG;
        bool failed = false;
        for (;;) {
            const ssize_t received =
                ::recv(mnl_socket_get_fd(socket_.get()), buffer_.data(), buffer_.size(), MSG_DONTWAIT);
            if (received < 0 && errno == EINTR) {
                continue;
            }
            if (received < 0 && errno != ENOBUFS) {
                return error;
            }
            int rest = static_cast<int>(received);
            for (auto* message = reinterpret_cast<const nlmsghdr*>(buffer_.data());
                 mnl_nlmsg_ok(message, rest); message = mnl_nlmsg_next(message, &rest)) {
                if (message->nlmsg_type == (NFNL_SUBSYS_NFTABLES << 8 | NFT_MSG_NEWRULE)) {
                    handles.push_back(number_of(attributes_of(message)[NFTA_RULE_HANDLE]));
                }
                if (message->nlmsg_type != NLMSG_ERROR || failed) {
                    continue;
                }
                const auto* answer = static_cast<const nlmsgerr*>(mnl_nlmsg_get_payload(message));
                error = static_cast<u32>(-answer->error);
                failed = error != 0;
                text = failed ? kind_of(answer->msg.nlmsg_type) : std::string_view();
            }
        }
    }

    nlmsghdr* begin(int type, family in, int flags) {
        nlmsghdr* const request = mnl_nlmsg_put_header(buffer_.data());
        request->nlmsg_type = static_cast<u16>(NFNL_SUBSYS_NFTABLES << 8 | type);
        request->nlmsg_flags = static_cast<u16>(NLM_F_REQUEST | flags);
        request->nlmsg_seq = ++sequence_;
        auto* const header = static_cast<nfgenmsg*>(mnl_nlmsg_put_extra_header(request, sizeof(nfgenmsg)));
        header->nfgen_family = number_of(in);
        header->version = NFNETLINK_V0;
        return request;
    }

    // A dump that another change of the tables interrupted is begun again.
    u32 dump(int type, family in, const filter_list& filters, const visitor& visit) {
        constexpr int attempts = 5;
        u32 error = 0;
        for (int attempt = 0; attempt < attempts; ++attempt) {
            nlmsghdr* const request = begin(type, in, NLM_F_DUMP);
            for (const auto& [attribute, text] : filters) {
                mnl_attr_put_strz(request, attribute, std::string(text).c_str());
            }
            std::vector<std::vector<u8>> messages;
            error = exchange(request, [&](const nlmsghdr* message) {
                const auto* bytes = reinterpret_cast<const u8*>(message);
                messages.emplace_back(bytes, bytes + message->nlmsg_len);
            });
            if (error == 0) {
                for (const std::vector<u8>& message : messages) {
                    visit(attributes_of(reinterpret_cast<const nlmsghdr*>(message.data())));
                }
            }
            if (error != EINTR) {
                break;
            }
        }
        return error;
    }

    u32 exchange(const nlmsghdr* request, const message_visitor& visit) {
        if (mnl_socket_sendto(socket_.get(), request, request->nlmsg_len) < 0) {
            return static_cast<u32>(errno);
        }
        const auto take = [](const nlmsghdr* message, void* context) {
            (*static_cast<const message_visitor*>(context))(message);
            return MNL_CB_OK;
        };
        const u32 port = mnl_socket_get_portid(socket_.get());
        int state = MNL_CB_OK;
        while (state > MNL_CB_STOP) {
            const ssize_t received = mnl_socket_recvfrom(socket_.get(), buffer_.data(), buffer_.size());
            if (received < 0) {
                return static_cast<u32>(errno);
            }
            state = mnl_cb_run(buffer_.data(), static_cast<std::size_t>(received), sequence_, port, take,
                               const_cast<message_visitor*>(&visit));
        }
        const u32 error = state < 0 ? static_cast<u32>(errno) : 0;
        // What is left of an interrupted dump is not the answer to the next request.
        while (state < 0 &&
               ::recv(mnl_socket_get_fd(socket_.get()), buffer_.data(), buffer_.size(), MSG_DONTWAIT) >= 0) {
        }
        return error;
    }

    std::unique_ptr<mnl_socket, socket_closer> socket_;
    u32 sequence_ = 0;
    alignas(nlmsghdr) std::array<char, buffer_bytes> buffer_{};
};

}  // namespace

std::unique_ptr<packet_filter> open_packet_filter(std::string& problem) {
    auto filter = std::make_unique<kernel_filter>();
    held_tables tables;
    u32 error = filter->open();
    if (error == 0) {
        error = filter->read_tables(tables);
    }
    if (error != 0) {
        problem = std::strerror(static_cast<int>(error));
        return nullptr;
    }
    return filter;
}

}  // namespace scc::kernel
