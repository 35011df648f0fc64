// The acts of a sequence. The meaning of their three numbers depends on the kind; every number is valid, so
// shrinking can remove any act and reduce any number.
#pragma once

#include <rapidcheck.h>

#include <array>
#include <iosfwd>

#include "model/events.h"

namespace model {

enum class act_kind : u8 {
    start,           // which: 4 and more a service; seed: option and absent handlers
    request,         // which: its row; seed and how: its arguments
    check,           // the checker's pass
    result,          // which: of which pending call; seed: refused or not; how: what it goes together with
    unknown_result,  // seed: the call id; how as above
    notification,    // which, seed: its kind and value; how as above
    collect,         // the daemon collects the counters
    probe,           // the daemon asks whether the client is alive
    display,         // the daemon has the cache displayed
    query,           // which: its row; seed: its arguments; how: what the daemon answers
    read_cache,      // which: the call; seed: the ACL; how: the sequence number
    react,           // the next handler performs another act: which, seed and how
    lose,            // which: whether the daemon is back at once; how: acts before it is noticed
    come_back,       // the daemon, if it was away
    refuse,          // which: the next registration, on which socket; or the next unregistration
    unregister,
    operation,  // which, seed: the operation; how: as above, and whether it is answered at once
    answer,     // which: of which operation; seed: the result
    end_,
};

constexpr std::size_t act_kinds = static_cast<std::size_t>(act_kind::end_);
const char* name_of(act_kind kind);

struct act {
    act_kind kind = act_kind::check;
    u8 which = 0;
    u8 seed = 0;
    u8 how = 0;
};

using sequence = std::vector<act>;

std::ostream& operator<<(std::ostream& out, const act& shown);
std::ostream& operator<<(std::ostream& out, const sequence& shown);

// An act of the process that a handler may do.
act reaction_of(const act& react);

// Such an act, performed by the library or its model.
template <class Process>
void perform(Process& process, const act& one) {
    switch (one.kind) {
        case act_kind::request:
            process.make_request(one.which, one.seed, one.how);
            break;
        case act_kind::query:
            process.make_query(one.which, one.seed, one.how);
            break;
        case act_kind::read_cache:
            process.read_cache(one.which, one.seed, one.how);
            break;
        default:
            process.unregister();
            break;
    }
}

rc::Gen<sequence> sequences();

}  // namespace model
