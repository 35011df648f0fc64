#include "soak/audit.h"

#include <cerrno>
#include <utility>

#include "support/call_verdict.h"

namespace soak {
namespace {

using test::call_entry;
using test::call_fault;
using test::call_kind;
using test::call_ledger;

// An id that was taken but never recorded is skipped once this many later ones are known.
constexpr std::uint32_t skip_after = 512;
// A kill can come between an answer and the record that its request was accepted, once for each thread.
constexpr std::uint32_t half_noted_max = 4;
// The number of dropped calls that are remembered; more would prove nothing more.
constexpr std::size_t dropped_max = 8;

// Daemon and service may have lost what an earlier request created, or still have what an earlier life left.
bool is_expected(call_kind kind, std::uint32_t result) {
    if (result == 0) {
        return true;
    }
    switch (kind) {
        case call_kind::addr_learning:
        case call_kind::port_open:
            return false;
        case call_kind::egress_port:
            return result == SCC_E_SERVICE_TIMEOUT;
        case call_kind::user:
            return result == SCC_E_SERVICE_TIMEOUT || result == ENOENT;
        default:
            return result == SCC_E_SERVICE_TIMEOUT || result == SCC_E_NO_ACL || result == SCC_E_NO_ACE ||
                   result == SCC_E_ACL_EXISTS || result == SCC_E_ACE_EXISTS;
    }
}

void empty(call_entry& call) {
    call.accepted = 0;
    call.answers = 0;
    call.answers_while_lost = 0;
    call.straddles = 0;
}

}  // namespace

void auditor::fault(std::atomic<std::uint32_t>& count, std::uint32_t by, const std::string& text) {
    count += by;
    report_.tell_fault(client_ + ": " + text);
}

void auditor::judge(std::uint32_t id, const call_entry& call, bool ended) {
    ++judged_;
    if (call.straddles != 0 && call.kind == call_kind::user) {
        straddling_users_.insert(call.number);
    }
    ++report_.requests;
    const test::call_verdict verdict = test::judge(id, call, ledger_, ended);
    if (verdict.answered) {
        ++report_.answers;
        report_.timed_out += call.result == SCC_E_SERVICE_TIMEOUT ? 1U : 0U;
    } else if (verdict.fault == call_fault::none) {
        ++report_.dropped;
        if (call.straddles == 0 && dropped_.size() < dropped_max) {
            dropped_.push_back(id);
        }
    }
    if (verdict.fault == call_fault::lost) {
        fault(report_.lost, 1, verdict.text);
    } else if (verdict.fault == call_fault::twice) {
        fault(report_.twice, 1, verdict.text);
    } else if (verdict.fault != call_fault::none) {
        fault(report_.wrong, 1, verdict.text);
    } else if (verdict.answered && !is_expected(call.kind, call.result)) {
        fault(report_.wrong, 1,
              "call " + std::to_string(id) + " of kind " +
                  std::to_string(static_cast<int>(call.kind.load())) + " got " + std::to_string(call.result));
    }
}

// Whether the call can no longer be answered. One that straddles a loss was made on the old connection or on
// the new one: it is given up once a later connection, or half a window of later calls, has come after it.
bool auditor::is_decided(std::uint32_t id, const call_entry& call) const {
    if (call.answers != 0) {
        return true;
    }
    if (call.straddles != 0) {
        return call.connection_after + 1U < ledger_.connections || is_far_behind(id, ledger_.size() / 2);
    }
    return call.connection_after < ledger_.connections;
}

bool auditor::is_far_behind(std::uint32_t id, std::uint32_t calls) const {
    const std::uint32_t last = ledger_.last_call_id;
    return last > id && last - id > calls;
}

void auditor::advance() {
    for (std::uint32_t id = ledger_.audited; id <= ledger_.last_call_id; ++id) {
        call_entry& call = ledger_.of(id);
        const bool noted = call.accepted != 0;
        if (noted ? !is_decided(id, call) : call.answers != 0 || !is_far_behind(id, skip_after)) {
            break;
        }
        if (noted) {
            judge(id, call, call.straddles != 0);
            empty(call);
        }
        ledger_.audited = id + 1;
    }
    take_counts();
}

std::optional<std::uint32_t> auditor::first_open(std::uint32_t up_to) const {
    for (std::uint32_t id = ledger_.audited; id <= up_to; ++id) {
        const call_entry& call = ledger_.of(id);
        if (call.accepted != 0 && call.straddles == 0 && !is_decided(id, call)) {
            return id;
        }
    }
    return std::nullopt;
}

bool auditor::has_straddling_user(std::uint32_t number) const {
    for (std::uint32_t id = ledger_.audited; id <= ledger_.last_call_id; ++id) {
        const call_entry& call = ledger_.of(id);
        if (call.straddles != 0 && call.kind == call_kind::user && call.number == number) {
            return true;
        }
    }
    return straddling_users_.contains(number);
}

void auditor::give_up(std::uint32_t id) {
    judge(id, ledger_.of(id), false);
}

void auditor::finish(bool killed) {
    advance();
    std::uint32_t half_noted = 0;
    const std::uint32_t end = ledger_.last_call_id + half_noted_max + 1;
    for (std::uint32_t id = ledger_.audited; id < end; ++id) {
        const call_entry& call = ledger_.of(id);
        if (call.accepted != 0) {
            judge(id, call, killed || call.straddles != 0);
        } else if (call.answers != 0) {
            ++half_noted;
        }
    }
    if (half_noted > (killed ? half_noted_max : 0U)) {
        fault(report_.wrong, half_noted, "answers to calls that were never accepted");
    }
    const std::uint32_t accepted = ledger_.accepted;
    if (judged_ < accepted || judged_ > accepted + (killed ? half_noted_max : 0U)) {
        fault(report_.lost, 1,
              std::to_string(accepted) + " calls were accepted, " + std::to_string(judged_) + " judged");
    }
}

// Takes over the client's own counters.
void auditor::take_counts() {
    const auto grown = [](std::uint32_t& seen, std::uint32_t now) { return now - std::exchange(seen, now); };
    report_.queries += grown(seen_.queries, ledger_.queries);
    report_.notifications += grown(seen_.notifications, ledger_.notifications);
    report_.cache_reads += grown(seen_.cache_reads, ledger_.cache_reads);
    report_.reconnections += grown(seen_.losses, ledger_.losses);
    const auto check = [&](std::atomic<std::uint32_t>& count, std::uint32_t& seen, std::uint32_t now,
                           const std::string& text) {
        if (const std::uint32_t by = grown(seen, now); by != 0) {
            fault(count, by, text);
        }
    };
    check(report_.out_of_order, seen_.out_of_order, ledger_.out_of_order,
          "an answer overtook an earlier request's");
    check(report_.twice, seen_.late_answers, ledger_.late_answers,
          "a call was answered after it was decided");
    check(report_.wrong, seen_.wrong_queries, ledger_.wrong_queries,
          "a query got another answer than its own: result " + std::to_string(ledger_.last_wrong_query));
    check(report_.wrong, seen_.strange_notifications, ledger_.strange_notifications,
          "a notification was repeated, overtaken or lost");
    check(report_.wrong, seen_.cache_faults, ledger_.cache_faults, "the ACL cache differs from the results");
    check(report_.wrong, seen_.strange_returns, ledger_.strange_returns,
          "a request returned an unknown code");
}

}  // namespace soak
