// A socket to the kernel's packet filter that fails when and where a test wants it to.
#pragma once

#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netlink.h>

#include <cerrno>
#include <cstring>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "linux/netlink_socket.h"

namespace scc::kernel::testing {

enum class change_fault {
    none,
    not_sent,            // the socket does not take the transaction
    refused,             // nor does the kernel
    refused_first,       // for its first change
    refused_last,        // for its last one
    carried_out_unheard  // the kernel does, but the answer cannot be received
};
enum class read_fault {
    none,
    refused,
    ends_early,  // the kernel ends the rules with an error
    breaks_off,  // the rest of the rules cannot be received
    no_socket    // likewise, and there is no new socket
};

struct fault_plan {
    change_fault change = change_fault::none;
    read_fault read = read_fault::none;
    u32 error = 0;
    // Called before the next transaction is sent, once.
    std::function<void()> before_change;
};

class faulty_socket : public netlink_socket {
  public:
    faulty_socket(fault_plan& plan, std::unique_ptr<netlink_socket> real)
        : plan_(plan), real_(std::move(real)) {}

    static socket_opener opener(fault_plan& plan) {
        return [&plan]() -> std::unique_ptr<netlink_socket> {
            if (plan.read == read_fault::no_socket && plan.error != 0) {
                errno = static_cast<int>(plan.error);
                return nullptr;
            }
            return std::make_unique<faulty_socket>(plan, open_netlink_socket());
        };
    }

    ssize_t send(std::string_view messages) override {
        const nlmsghdr request = header_at(messages, 0);
        reads_rules_ = request.nlmsg_type == (NFNL_SUBSYS_NFTABLES << 8 | NFT_MSG_GETRULE);
        if (request.nlmsg_type == NFNL_MSG_BATCH_BEGIN) {
            return send_change(messages);
        }
        if (plan_.read == read_fault::refused) {
            answer(request, plan_.error);
            return static_cast<ssize_t>(messages.size());
        }
        return real_->send(messages);
    }

    ssize_t receive(std::span<char> buffer) override {
        const bool breaks = plan_.read == read_fault::breaks_off || plan_.read == read_fault::no_socket;
        if (is_deaf_ || (reads_rules_ && breaks)) {
            errno = static_cast<int>(plan_.error);
            return -1;
        }
        if (!answers_.empty()) {
            const std::string next = std::move(answers_.front());
            answers_.pop_front();
            std::memcpy(buffer.data(), next.data(), next.size());
            return static_cast<ssize_t>(next.size());
        }
        const ssize_t received = real_->receive(buffer);
        if (received > 0 && reads_rules_ && plan_.read == read_fault::ends_early) {
            end_with_error(buffer.first(static_cast<std::size_t>(received)));
        }
        return received;
    }

  private:
    static nlmsghdr header_at(std::string_view messages, std::size_t at) {
        nlmsghdr header{};
        std::memcpy(&header, messages.data() + at, sizeof header);
        return header;
    }

    ssize_t send_change(std::string_view messages) {
        if (plan_.before_change) {
            std::exchange(plan_.before_change, {})();
        }
        // The first is the beginning of the transaction, the last one its end.
        std::vector<nlmsghdr> headers;
        for (std::size_t at = 0; at < messages.size(); at += headers.back().nlmsg_len) {
            headers.push_back(header_at(messages, at));
        }
        switch (plan_.change) {
            case change_fault::not_sent:
                errno = static_cast<int>(plan_.error);
                return -1;
            case change_fault::refused:
                answer(headers.front(), plan_.error);
                break;
            case change_fault::refused_first:
                answer(headers.at(1), plan_.error);
                break;
            case change_fault::refused_last:
                answer(headers.at(1), 0);
                answer(headers.at(headers.size() - 2), plan_.error);
                break;
            case change_fault::carried_out_unheard:
                is_deaf_ = true;
                return real_->send(messages);
            case change_fault::none:
                return real_->send(messages);
        }
        return static_cast<ssize_t>(messages.size());
    }

    void answer(const nlmsghdr& request, u32 error) {
        struct {
            nlmsghdr header;
            nlmsgerr body;
        } message{};
        message.header.nlmsg_len = sizeof message;
        message.header.nlmsg_type = NLMSG_ERROR;
        message.header.nlmsg_seq = request.nlmsg_seq;
        message.body.error = -static_cast<int>(error);
        message.body.msg = request;
        answers_.emplace_back(reinterpret_cast<const char*>(&message), sizeof message);
    }

    void end_with_error(std::span<char> messages) const {
        nlmsghdr header{};
        for (std::size_t at = 0; at < messages.size(); at += NLMSG_ALIGN(header.nlmsg_len)) {
            std::memcpy(&header, messages.data() + at, sizeof header);
            if (header.nlmsg_type == NLMSG_DONE) {
                const int result = -static_cast<int>(plan_.error);
                std::memcpy(messages.data() + at + NLMSG_HDRLEN, &result, sizeof result);
            }
        }
    }

    fault_plan& plan_;
    const std::unique_ptr<netlink_socket> real_;
    std::deque<std::string> answers_;
    bool reads_rules_ = false;
    bool is_deaf_ = false;
};

}  // namespace scc::kernel::testing
