// Runs one call of the library.
#include "runner.h"

namespace scc::ctl {
namespace {

outcome await_result(outcome begun, session& within) {
    const auto call_id = static_cast<std::uint32_t>(begun.values.outs.back());
    auto arrived = within.wait_result(call_id);
    if (!arrived) {
        begun.answered = false;
        begun.problem = within.problem();
        return begun;
    }
    begun.result = arrived->number;
    // The handler's fields replace the call's, to show that the request's own values came back.
    begun.values.scalars = std::move(arrived->values.scalars);
    begun.values.records = std::move(arrived->values.records);
    if (begun.result == 0 && begun.row->confirmed != nullptr) {
        begun.row->confirmed(within.book(), begun.values);
    }
    return begun;
}

}  // namespace

outcome run(const command& row, call_values values, session* within) {
    if (row.kind == call_kind::query && within != nullptr) {
        (void)within->book().settle();
    }
    outcome begun{.row = &row, .answered = true, .result = 0, .values = std::move(values), .problem = {}};
    const std::uint64_t registrations = inbox::shared().registrations();
    begun.result = row.call(begun.values);
    if (within != nullptr) {
        within->note_result(registrations, begun.result);
    }
    // A call without a session is a local one.
    if (begun.result != 0 || within == nullptr) {
        return begun;
    }
    if (row.kind == call_kind::request) {
        return await_result(std::move(begun), *within);
    }
    if (row.kind == call_kind::one_way) {
        within->linger();
    }
    return begun;
}

}  // namespace scc::ctl
