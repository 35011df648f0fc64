#include "service/report.h"

#include <fmt/format.h>

#include <algorithm>
#include <span>

#include "common/counted.h"

namespace scc::service {
namespace {

constexpr std::size_t entries_per_notification = 64;
constexpr u64 microseconds_per_second = 1'000'000;

void note(report_outcome& outcome, u32 result) {
    if (result == 0) {
        ++outcome.sent;
        return;
    }
    ++outcome.failed;
    outcome.last_error = result;
}

// Calls send(part) with at most entries_per_notification entries at a time.
template <class Entry, class Send>
void in_parts(std::span<const Entry> entries, Send send) {
    while (!entries.empty()) {
        const std::size_t part = std::min(entries.size(), entries_per_notification);
        send(entries.first(part));
        entries = entries.subspan(part);
    }
}

}  // namespace

void send_counters(const acl_counters& acl, report_outcome& outcome) {
    in_parts(std::span(acl.aces), [&](std::span<const scc_ace_counter> part) {
        note(outcome, scc_ss_ace_counter_notify(&acl.key, static_cast<u32>(part.size()), part.data()));
    });
    if (acl.aces.empty()) {
        note(outcome, scc_ss_ace_counter_notify(&acl.key, 0, nullptr));
    }
}

report_outcome send_report(const capture_report& report) {
    report_outcome outcome;
    in_parts(std::span(report.moves), [&](std::span<const scc_address_move> part) {
        note(outcome, scc_ss_move_addr_notify(static_cast<int>(part.size()), part.data()));
    });
    for (const acl_counters& acl : report.acls) {
        send_counters(acl, outcome);
    }
    for (const flow& flow : report.flows) {
        note(outcome, scc_flow_notify(&flow.user, flow.packets, flow.bytes));
    }
    for (const silence& silent : report.silences) {
        note(outcome, scc_noflow_offline_notify(&silent.user, silent.packets,
                                                silent.time_us / microseconds_per_second, nullptr, 0));
    }
    return outcome;
}

std::string summary_of(const capture_report& report) {
    return fmt::format("{}, {} unreadable, {} matched, {} denied, {}, {}, {} silent",
                       devkit::counted(report.packets, "packet"), report.unreadable, report.matched,
                       report.denied, devkit::counted(report.flows.size(), "flow"),
                       devkit::counted(report.moves.size(), "move"), report.silences.size());
}

}  // namespace scc::service
