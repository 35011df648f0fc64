// How an application under load keeps its ledger: what it records of each request, result and status, and the
// commands that its threads obey. Requests come from any thread, results and statuses from the library's.
#pragma once

#include <scclib.h>

#include <array>

#include "support/call_ledger.h"

namespace test {

inline void nap() {
    usleep(1000);
}

class call_notes {
  public:
    explicit call_notes(call_ledger& ledger) : ledger_(ledger) {}
    call_notes(const call_notes&) = delete;
    call_notes& operator=(const call_notes&) = delete;

    [[nodiscard]] call_ledger& ledger() const { return ledger_; }
    [[nodiscard]] bool connected() const { return ledger_.connected != 0; }
    // Of one kind, at this moment, approximately.
    [[nodiscard]] std::int32_t outstanding(call_kind kind) const { return count_of(kind); }
    [[nodiscard]] std::int32_t outstanding() const {
        std::int32_t sum = 0;
        for (const auto& count : outstanding_) {
            sum += count;
        }
        return sum;
    }

    void status(std::uint32_t status) {
        if (status == 1) {
            ++ledger_.connections;
            ledger_.connected = 1;
            return;
        }
        ledger_.connected = 0;
        // A connection that is lost takes them all.
        for (auto& count : outstanding_) {
            count = 0;
        }
        publish_outstanding();
        ++ledger_.losses;
    }

    void answer(call_kind kind, std::uint32_t call_id, std::uint32_t result, std::uint32_t number) {
        if (call_id < ledger_.audited) {
            ++ledger_.late_answers;
            return;
        }
        if (!ledger_.has_room_for(call_id)) {
            ++ledger_.strange_returns;
            return;
        }
        call_entry& call = ledger_.of(call_id);
        call.result = result;
        call.answered_number = number;
        call.answered_on = static_cast<std::uint16_t>(ledger_.connections.load());
        if (ledger_.connected == 0) {
            ++call.answers_while_lost;
        }
        ++call.answers;
        note_order(kind, call_id, result);
        --count_of(kind);
        publish_outstanding();
        ++ledger_.answered_of[static_cast<std::size_t>(kind)];
        ++ledger_.answered;
    }

    // Makes a request about a number: make(number, &call_id). Returns whether it was accepted.
    template <class Request>
    bool request(call_kind kind, std::uint32_t number, const Request& make) {
        const std::uint32_t losses = ledger_.losses;
        const std::uint32_t before = ledger_.connections;
        std::uint32_t call_id = 0;
        const std::uint32_t result = make(number, &call_id);
        const std::uint32_t after = ledger_.connections;
        if (result == SCC_E_UNAVAILABLE) {
            nap();
            return false;
        }
        if (result != 0 || !ledger_.has_room_for(call_id)) {
            ++ledger_.strange_returns;
            return false;
        }
        call_entry& call = ledger_.of(call_id);
        call.kind = kind;
        call.number = number;
        call.connection_before = static_cast<std::uint16_t>(before);
        call.connection_after = static_cast<std::uint16_t>(after);
        call.straddles = losses != ledger_.losses;
        call.accepted = 1;
        ++count_of(kind);
        publish_outstanding();
        ++ledger_.accepted;
        std::uint32_t last = ledger_.last_call_id;
        while (last < call_id && !ledger_.last_call_id.compare_exchange_weak(last, call_id)) {
        }
        return true;
    }

    // Works until it is told to leave; each rest is counted once.
    template <class Work>
    void obey(const Work& work) {
        bool rests = false;
        for (;;) {
            const load_command command = ledger_.command;
            if (command == load_command::leave) {
                return;
            }
            if (command == load_command::rest) {
                if (!rests) {
                    ++ledger_.resting;
                }
                rests = true;
                nap();
                continue;
            }
            if (rests) {
                --ledger_.resting;
            }
            rests = false;
            if (!ledger_.has_room_for(ledger_.last_call_id + slack)) {
                nap();
                continue;
            }
            work();
        }
    }

  private:
    static constexpr std::uint32_t slack = 1024;  // requests that threads may make after they looked

    [[nodiscard]] std::atomic<std::int32_t>& count_of(call_kind kind) {
        return outstanding_[static_cast<std::size_t>(kind)];
    }
    [[nodiscard]] const std::atomic<std::int32_t>& count_of(call_kind kind) const {
        return outstanding_[static_cast<std::size_t>(kind)];
    }

    // Results of the service arrive in the order of the requests; those that the daemon refuses or gives up
    // may overtake them.
    void note_order(call_kind kind, std::uint32_t call_id, std::uint32_t result) {
        const bool at_once = is_answered_at_once(kind);
        if (!at_once && result != 0) {
            return;
        }
        std::uint32_t& newest = newest_answered_[at_once ? 1 : 0];
        if (call_id < newest) {
            ++ledger_.out_of_order;
        } else {
            newest = call_id;
        }
    }

    void publish_outstanding() {
        const std::int32_t users = outstanding(call_kind::user);
        const std::int32_t all = outstanding();
        ledger_.users_in_flight = users > 0 ? static_cast<std::uint32_t>(users) : 0;
        ledger_.outstanding = all > 0 ? static_cast<std::uint32_t>(all) : 0;
    }

    call_ledger& ledger_;
    std::array<std::atomic<std::int32_t>, call_kinds> outstanding_{};
    std::array<std::uint32_t, 2> newest_answered_{};  // by the service, by the daemon; the library's thread
};

}  // namespace test
