#include "linux/nftables.h"

#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <functional>
#include <map>
#include <thread>

#include "linux/messages.h"

namespace scc::kernel {
namespace {

constexpr std::size_t buffer_bytes = 64 * 1024;
// The kernel enlarges a map within milliseconds. A map that still has an element twice is replaced.
constexpr int most_readings = 20;
constexpr std::chrono::milliseconds between_readings{2};
class kernel_filter : public packet_filter {
  public:
    explicit kernel_filter(socket_opener open) : open_(std::move(open)) {}

    u32 run(const batch& changes, std::vector<u64>& handles, std::string& text) override {
        constexpr std::size_t told_max = 64;
        if (!changes.fits()) {
            return EMSGSIZE;
        }
        u32 error = send(changes.bytes(changes.added_rules() <= told_max, generation_));
        if (error == 0) {
            error = take_answers(handles, text);
        }
        if (error == 0 && ++generation_ == 0) {
            ++generation_;  // the kernel leaves 0 out
        }
        return error;
    }

    u32 read_tables(held_tables& tables) override {
        tables = {};
        u32 error = read_generation();
        for (const family in : families) {
            error = error == 0 ? read_table(in, tables) : error;
        }
        if (error != 0) {
            return error;
        }
        std::vector<counted> counters;
        error = tables.tables.contains(family::netdev) ? read_counters(counters) : 0;
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
        kernel_maps maps;
        const u32 map_error = rule_error == 0 && in == family::netdev ? read_maps(maps) : rule_error;
        for (const std::string& chain : chains) {
            std::vector<held_rule>& held = tables.chains[{in, chain}] = group(rules[chain]);
            expand_runs({in, chain}, held, maps);
        }
        for (const auto& [name, elements] : maps) {
            tables.stray_maps.insert(name);
        }
        return map_error;
    }

    // Those that belong to single rules go with them.
    u32 read_maps(kernel_maps& maps) {
        u32 error =
            dump(NFT_MSG_GETSET, family::netdev, {{NFTA_SET_TABLE, table_name}},
                 [&](const attribute_table& found) {
                     const nlattr* const flags = found[NFTA_SET_FLAGS];
                     if (text_of(found[NFTA_SET_TABLE]) == table_name &&
                         (flags == nullptr || (ntohl(mnl_attr_get_u32(flags)) & NFT_SET_ANONYMOUS) == 0)) {
                         maps[text_of(found[NFTA_SET_NAME])];
                     }
                 });
        for (auto map = maps.begin(); error == 0 && map != maps.end(); ++map) {
            error = read_elements(map->first, map->second);
            for (int readings = 1; error == 0 && is_repetitive(map->second) && readings < most_readings;
                 ++readings) {
                std::this_thread::sleep_for(between_readings);
                error = read_elements(map->first, map->second);
            }
        }
        return error;
    }

    u32 read_elements(const std::string& map, std::vector<kernel_element>& elements) {
        elements.clear();
        return dump(NFT_MSG_GETSETELEM, family::netdev,
                    {{NFTA_SET_ELEM_LIST_TABLE, table_name}, {NFTA_SET_ELEM_LIST_SET, map}},
                    [&](const attribute_table& found) {
                        if (found[NFTA_SET_ELEM_LIST_ELEMENTS] != nullptr) {
                            for_each_nested(found[NFTA_SET_ELEM_LIST_ELEMENTS], [&](const nlattr* data) {
                                elements.push_back(element_in(data));
                            });
                        }
                    });
    }

    // What is read afterwards is what this generation has, or a transaction fails that builds on it.
    u32 read_generation() {
        const nlmsghdr* const request = begin(NFT_MSG_GETGEN, family::netdev, NLM_F_ACK);
        return exchange(request, [this](const nlmsghdr* message) {
            const nlattr* const id = attributes_of(message)[NFTA_GEN_ID];
            const bool is_whole = id != nullptr && mnl_attr_get_payload_len(id) == sizeof(u32);
            generation_ = is_whole ? ntohl(mnl_attr_get_u32(id)) : 0;
        });
    }

    // The kernel has answered when it has taken the transaction.
    u32 take_answers(std::vector<u64>& handles, std::string& text) {
        u32 error = ENOMSG;
        bool failed = false;
        for (;;) {
            std::size_t size = 0;
            u32 problem = receive(size);
            if (problem == EAGAIN) {
                return error;
            }
            if (problem == 0) {
                problem = for_each_message(size, [&](const nlmsghdr* message) {
                    if (message->nlmsg_type == (NFNL_SUBSYS_NFTABLES << 8 | NFT_MSG_NEWRULE)) {
                        handles.push_back(number_of(attributes_of(message)[NFTA_RULE_HANDLE]));
                    }
                    if (message->nlmsg_type == NLMSG_ERROR && !failed) {
                        error = result_of(message);
                        failed = error != 0;
                        text = failed ? subject_of(message) : std::string_view();
                    }
                    return true;
                });
            }
            if (problem != 0) {
                socket_.reset();
                return failed ? error : problem;
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

    // A dump that another change of the tables interrupted, or that was lost in part, is begun again.
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
            if (error != EINTR && error != ENOBUFS) {
                break;
            }
        }
        return error;
    }

    u32 exchange(const nlmsghdr* request, const message_visitor& visit) {
        u32 error = send({reinterpret_cast<const char*>(request), request->nlmsg_len});
        if (error != 0) {
            return error;
        }
        bool interrupted = false;
        bool ended = false;
        u32 result = 0;
        while (!ended && error == 0) {
            std::size_t size = 0;
            error = receive(size);
            if (error == 0) {
                error = for_each_message(size, [&](const nlmsghdr* message) {
                    interrupted = interrupted || (message->nlmsg_flags & NLM_F_DUMP_INTR) != 0;
                    ended = message->nlmsg_type == NLMSG_ERROR || message->nlmsg_type == NLMSG_DONE;
                    if (!ended && message->nlmsg_type >= NLMSG_MIN_TYPE) {
                        visit(message);
                    }
                    result = ended ? result_of(message) : 0;
                    return !ended;
                });
            }
        }
        if (!ended) {
            // The kernel goes on with a dump only on this socket, and only if the messages are fetched.
            socket_.reset();
            return error == EAGAIN ? ENOMSG : error;
        }
        return result == 0 && interrupted ? EINTR : result;
    }

    u32 send(std::string_view messages) {
        if (!socket_) {
            socket_ = open_();
        }
        ssize_t sent = -1;
        while (socket_ && sent < 0) {
            sent = socket_->send(messages);
            if (sent < 0 && errno != EINTR) {
                break;
            }
        }
        return sent < 0 ? static_cast<u32>(errno) : 0;
    }

    u32 receive(std::size_t& size) {
        ssize_t received = -1;
        do {
            received = socket_->receive(buffer_);
        } while (received < 0 && errno == EINTR);
        if (received < 0) {
            return static_cast<u32>(errno);
        }
        size = static_cast<std::size_t>(received);
        return size > buffer_.size() ? EMSGSIZE : 0;
    }

    // Until `visit` returns false.
    template <class Visit>
    u32 for_each_message(std::size_t size, Visit visit) {
        int rest = static_cast<int>(size);
        const auto* message = reinterpret_cast<const nlmsghdr*>(buffer_.data());
        do {
            if (!mnl_nlmsg_ok(message, rest)) {
                return EBADMSG;
            }
            if (!visit(message)) {
                return 0;
            }
            message = mnl_nlmsg_next(message, &rest);
        } while (rest > 0);
        return 0;
    }

    const socket_opener open_;
    std::unique_ptr<netlink_socket> socket_;  // null: opened for the next message
    u32 sequence_ = 0;
    u32 generation_ = 0;  // of the kernel's rules; 0: not known
    alignas(nlmsghdr) std::array<char, buffer_bytes> buffer_{};
};

}  // namespace

std::unique_ptr<packet_filter> packet_filter_on(socket_opener open) {
    return std::make_unique<kernel_filter>(std::move(open));
}

std::unique_ptr<packet_filter> open_packet_filter(std::string& problem) {
    std::unique_ptr<packet_filter> filter = packet_filter_on(open_netlink_socket);
    held_tables tables;
    const u32 error = filter->read_tables(tables);
    if (error != 0) {
        problem = std::strerror(static_cast<int>(error));
        filter.reset();
    }
    return filter;
}

}  // namespace scc::kernel
