// The 26 handlers that the library calls, over a back end.
//
// Each operation is handed to the back end inside its handler. It is answered when the back end is done: at
// once, or from the thread of the answers. Handlers with a record, data recovery and the user read run with
// the library's lock held: they call nothing of the library but the record's callback. The library itself
// answers data recovery and the user read when the handler returns, so they wait for the back end, and
// neither delay nor silence applies to them.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>

#include "service/back_end.h"
#include "service/delayed_answers.h"

namespace scc::service {

// How operations are answered. All but from_own_thread is for tests of applications against a faulty service.
struct answer_policy {
    std::chrono::milliseconds delay{0};
    std::map<u32, u32> refusals;   // result by type; such an operation is not carried out
    std::set<u32> silent;          // carried out and never answered
    bool from_own_thread = false;  // even without a delay
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

    using table_work = back_end::table_work;

    // The tables are those of the back end.
    security_service(back_end& carrier, forwarding_table& table, answer_policy policy, observer watcher);

    // Makes this the instance that handlers() calls. It must outlive the library's threads, which run until
    // the process exits.
    void activate();
    [[nodiscard]] static const scc_ss_reg_info& handlers();
    // Activates the service, registers it, and answers until wait() returns false. Returns 0, or why there is
    // no registration.
    [[nodiscard]] u32 serve(const std::function<bool()>& wait);

    // Carries out an operation unless it is refused, logs it, and answers with its result unless it stays
    // unanswered.
    void carry_out(work_kind kind, u32 type, std::string text, table_work work,
                   std::function<void(u32 result)> answer);
    // The same for an operation that is answered with what its handler returns, or not at all.
    [[nodiscard]] u32 carry_out_now(work_kind kind, u32 type, const std::string& text, table_work work);

    [[nodiscard]] u32 start_answers() { return answers_.start(); }
    void stop_answers() { answers_.stop(); }
    void note_applied();
    // After a registration the tables hold an earlier daemon's state. The new daemon's operations may arrive
    // before the requested recovery and must not find it.
    void expect_recovery();
    void note_status(u32 status) const;
    void note_fetch(u32 result) const;

  private:
    void log_operation(u32 type, const std::string& text, u32 result, bool answered) const;

    back_end& back_end_;
    forwarding_table& table_;
    const answer_policy policy_;
    const observer observer_;
    delayed_answers answers_;
};

}  // namespace scc::service
