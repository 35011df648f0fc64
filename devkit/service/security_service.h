// The 26 handlers that the library calls, over the forwarding table.
//
// Each operation is carried out in the table inside its handler; its answer goes out from there, or after
// the configured delay from another thread. Handlers with a record, data recovery and the user read run
// with the library's lock held: nothing of the library is called inside them but the record's callback.
// Data recovery and the user read are answered by the library when the handler returns, so that neither a
// delay nor silence applies to them.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>

#include "service/delayed_answers.h"
#include "service/forwarding_table.h"

namespace scc::service {

// How operations are answered, for tests of the other side; by message type.
struct answer_policy {
    std::chrono::milliseconds delay{0};
    std::map<u32, u32> refusals;  // result by type; the operation is then not carried out
    std::set<u32> silent;         // carried out and never answered
};

class security_service {
  public:
    struct observer {
        // One line for each operation; may be empty. Called on the library's threads.
        std::function<void(const std::string&)> log;
        // 1 when registered, 0 when the daemon is lost. Called on the library's receive thread.
        std::function<void(u32)> status;
        // How many ACLs are applied, after each operation that applies one.
        std::function<void(std::size_t)> applied;
    };

    security_service(forwarding_table& table, answer_policy policy, observer watcher);

    // Makes this the instance behind handlers(). It must outlive the library's threads, which run until
    // the process ends.
    void activate();
    [[nodiscard]] static const scc_ss_reg_info& handlers();

    // Carries an operation out unless it is refused, and logs it. Nothing when it is not to be answered.
    template <class Work>
    [[nodiscard]] std::optional<u32> carry_out(u32 type, const std::string& text, Work&& work) {
        const auto refusal = policy_.refusals.find(type);
        const u32 result =
            refusal == policy_.refusals.end() ? table_.locked(std::forward<Work>(work)) : refusal->second;
        const bool answered = !policy_.silent.contains(type);
        log_operation(type, text, result, answered);
        return answered ? std::optional(result) : std::nullopt;
    }

    void start_answers() { answers_.start(); }
    void stop_answers() { answers_.stop(); }
    void send_later(std::function<void()> answer) { answers_.send(std::move(answer)); }
    void note_applied();
    // From the registration on, what is held is an earlier daemon's: this one's operations may come before
    // the recovery that is asked for, and must not find it.
    void expect_recovery();
    void note_status(u32 status) const;
    void note_fetch(u32 result) const;

  private:
    void log_operation(u32 type, const std::string& text, u32 result, bool answered) const;

    forwarding_table& table_;
    const answer_policy policy_;
    const observer observer_;
    delayed_answers answers_;
};

}  // namespace scc::service
