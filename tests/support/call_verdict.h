// What must be true of a call that an application's ledger shows as accepted.
#pragma once

#include <scclib.h>

#include <string>

#include "support/call_ledger.h"

namespace test {

enum class call_fault { none, lost, twice, misdelivered, result };

struct call_verdict {
    bool answered = false;
    call_fault fault = call_fault::none;
    std::string text;  // describes the fault
};

// An accepted call must have been answered exactly once, on the connection on which it was made, or dropped
// with that connection. `ended` means that no answer can come any more because the application is dead.
inline call_verdict judge(std::uint32_t id, const call_entry& call, const call_ledger& ledger, bool ended) {
    const std::string name =
        "call " + std::to_string(id) + " of kind " + std::to_string(static_cast<int>(call.kind.load()));
    if (call.answers == 0) {
        const bool dropped = ended || call.connection_before < ledger.connections;
        return {false, dropped ? call_fault::none : call_fault::lost, name + " was never answered"};
    }
    const auto faulty = [&](call_fault fault, const std::string& text) {
        return call_verdict{true, fault, name + text};
    };
    if (call.answers > 1) {
        return faulty(call_fault::twice, " was answered more than once");
    }
    if (call.answers_while_lost != 0) {
        return faulty(call_fault::misdelivered, " was answered after status 0");
    }
    if (call.answered_number != call.number) {
        return faulty(call_fault::misdelivered, " got another call's answer");
    }
    // The state may be registered a moment before status 1 is reported.
    if (call.answered_on < call.connection_before || call.answered_on > call.connection_after + 1) {
        return faulty(call_fault::misdelivered, " was answered on another connection");
    }
    return {true, call_fault::none, {}};
}

}  // namespace test
