// The 26 handlers that the library calls, over the forwarding table.
//
// Each operation is carried out inside its handler and answered there, or after the configured delay from
// another thread. Handlers with a record, data recovery and the user read run with the library's lock held:
// they call nothing of the library but the record's callback. The library itself answers data recovery and
// the user read when the handler returns, so neither delay nor silence applies to them.
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

// How operations are answered, by message type, to test applications against a faulty service.
struct answer_policy {
    std::chrono::milliseconds delay{0};
    std::map<u32, u32> refusals;  // result by type; such an operation is not carried out
    std::set<u32> silent;         // carried out and never answered
};

class security_service {
  public:
    struct observer {
        // Gets one line for each operation; may be empty. Called on the library's threads.
        std::function<void(const std::string&)> log;
        // Gets 1 on registration, 0 when the daemon is lost. Called on the library's receive thread.
        std::function<void(u32)> status;
        // Gets the number of applied ACLs after each operation that applies one.
        std::function<void(std::size_t)> applied;
    };

    security_service(forwarding_table& table, answer_policy policy, observer watcher);

    // Makes this the instance that handlers() calls. It must outlive the library's threads, which run until
    // the process exits.
    void activate();
    [[nodiscard]] static const scc_ss_reg_info& handlers();

    // Carries out an operation unless it is refused, and logs it. Returns nothing if it stays unanswered.
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
    // After a registration the tables hold an earlier daemon's state. The new daemon's operations may arrive
    // before the requested recovery and must not find it.
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
