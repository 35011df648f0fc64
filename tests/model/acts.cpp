#include "model/acts.h"

#include <ostream>

#include "model/queries.h"
#include "model/requests.h"

namespace model {
namespace {

constexpr std::array<const char*, act_kinds> names{
    "start",   "request",   "check",   "result",     "unknown_result", "notification",
    "collect", "probe",     "display", "query",      "read_cache",     "react",
    "lose",    "come_back", "refuse",  "unregister", "operation",      "answer"};

using weights = std::array<u8, act_kinds>;

//                              start request check result unknown notif collect probe display query read
//                              react lose come_back refuse unregister operation answer
constexpr weights of_application{2, 36, 8, 30, 4, 6, 3, 1, 2, 6, 8, 3, 2, 3, 1, 1, 0, 0};
constexpr weights of_service{2, 6, 8, 1, 1, 3, 3, 1, 1, 2, 1, 1, 2, 3, 1, 1, 36, 26};

constexpr u64 longest_sequence = 120;
// The ACL's requests stand first in the table and are met more often than the others.
constexpr u8 acl_requests = 5;

act_kind choose(const weights& among, u64 number) {
    u64 sum = 0;
    for (const u8 weight : among) {
        sum += weight;
    }
    number %= sum;
    std::size_t kind = 0;
    while (number >= among[kind]) {
        number -= among[kind++];
    }
    return static_cast<act_kind>(kind);
}

act random_act(const weights& among, u64 number) {
    act made{choose(among, number & 0xFFFF), static_cast<u8>(number >> 16), static_cast<u8>(number >> 24),
             static_cast<u8>(number >> 32)};
    const u8 rows = static_cast<u8>(requests().size());
    if (made.kind == act_kind::request) {
        made.which = (number >> 40 & 3) != 0 ? made.which % acl_requests : made.which % rows;
    }
    if (made.kind == act_kind::query) {
        made.which %= static_cast<u8>(queries().size());
    }
    // Most requests name one of two ACLs, or what a sequence confirms would seldom meet.
    if ((number >> 42 & 3) != 0) {
        made.seed &= 0x11;
    }
    // Most results are successes and of the oldest call.
    if (made.kind == act_kind::result) {
        made.seed = (number >> 44 & 3) != 0 ? 0 : made.seed;
        made.which = (number >> 46 & 1) != 0 ? 0 : made.which;
    }
    return made;
}

sequence random_sequence(rc::Random& random) {
    const u64 first = random.next();
    const bool is_service = first % 5 == 4;
    const weights& among = is_service ? of_service : of_application;
    sequence made{{act_kind::start, static_cast<u8>(is_service ? 4 : 0), static_cast<u8>(first >> 8), 0}};
    const u64 length = 1 + (first >> 16) % longest_sequence;
    for (u64 i = 0; i < length; ++i) {
        made.push_back(random_act(among, random.next()));
    }
    return made;
}

rc::Seq<act> smaller(const act& from) {
    const auto with = [from](u8 act::*member) {
        return rc::seq::map(rc::shrink::integral<u8>(from.*member), [from, member](u8 value) {
            act made = from;
            made.*member = value;
            return made;
        });
    };
    return rc::seq::concat(with(&act::which), with(&act::seed), with(&act::how));
}

rc::Seq<sequence> smaller_sequences(const sequence& from) {
    return rc::seq::concat(rc::shrink::removeChunks(from), rc::shrink::eachElement(from, smaller));
}

}  // namespace

const char* name_of(act_kind kind) {
    return names.at(static_cast<std::size_t>(kind));
}

act reaction_of(const act& react) {
    constexpr std::array kinds{act_kind::request, act_kind::request, act_kind::read_cache, act_kind::query,
                               act_kind::unregister};
    act made = react;
    made.kind = kinds[react.how % kinds.size()];
    if (made.kind == act_kind::request) {
        made.which = static_cast<u8>(react.which % requests().size());
    }
    return made;
}

std::ostream& operator<<(std::ostream& out, const act& shown) {
    const act& inner = shown.kind == act_kind::react ? reaction_of(shown) : shown;
    out << name_of(shown.kind);
    if (shown.kind == act_kind::react) {
        out << ' ' << name_of(inner.kind);
    }
    if (inner.kind == act_kind::request) {
        out << ' ' << requests()[inner.which % requests().size()].name;
    } else if (inner.kind == act_kind::query) {
        out << ' ' << queries()[inner.which % queries().size()].name;
    }
    return out << " {" << +shown.which << ", " << +shown.seed << ", " << +shown.how << '}';
}

std::ostream& operator<<(std::ostream& out, const sequence& shown) {
    for (const act& each : shown) {
        out << "  " << each << '\n';
    }
    return out;
}

rc::Gen<sequence> sequences() {
    return {[](const rc::Random& random, int) {
        rc::Random numbers = random;
        return rc::shrinkable::shrinkRecur(random_sequence(numbers), smaller_sequences);
    }};
}

}  // namespace model
