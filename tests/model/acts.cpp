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

// What a sequence mostly exercises, so that it covers that in depth.
enum class theme : u8 { everything, service, acls, blocks, end_ };

// clang-format off
constexpr std::array<weights, static_cast<std::size_t>(theme::end_)> weights_of{{
    // start request check result unknown notification collect probe display query read react
    //     lose come_back refuse unregister operation answer
    {2, 36, 8, 30, 4, 6, 3, 1, 2, 6, 8, 3,    2, 3, 1, 1, 0, 0},
    {2, 6, 8, 1, 1, 3, 3, 1, 1, 2, 1, 1,      2, 3, 1, 1, 36, 26},
    {0, 40, 2, 40, 1, 1, 1, 0, 1, 1, 10, 2,   0, 0, 0, 0, 0, 0},
    {1, 50, 4, 10, 1, 1, 1, 1, 0, 3, 1, 1,    1, 1, 0, 1, 0, 0},
}};
// clang-format on

constexpr u64 longest_sequence = 120;

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

// The ACL requests are first in the table; those that make lists long are more frequent.
u8 choose_acl_request(u64 number) {
    constexpr std::array<u8, 12> rows{1, 1, 1, 1, 1, 1, 2, 2, 3, 3, 0, 4};
    return rows[number % rows.size()];
}

void choose_request(act& made, theme about, u64 number) {
    constexpr u8 block_request = 7;
    constexpr u8 half_of_a_batch = 5;
    const auto rows = static_cast<u8>(requests().size());
    const bool is_typical = number % 4 != 0;
    if (about == theme::blocks && is_typical) {
        made.which = block_request;
        made.how = number % 8 < 4 ? made.how : half_of_a_batch;
    } else if (about == theme::acls || is_typical) {
        made.which = choose_acl_request(number / 8);
    } else {
        made.which = made.which % rows;
    }
}

act random_act(theme about, u64 number) {
    act made{choose(weights_of[static_cast<std::size_t>(about)], number & 0xFFFF),
             static_cast<u8>(number >> 16), static_cast<u8>(number >> 24), static_cast<u8>(number >> 32)};
    if (made.kind == act_kind::request) {
        choose_request(made, about, number >> 40 & 0xFF);
    } else if (made.kind == act_kind::query) {
        made.which %= static_cast<u8>(queries().size());
    }
    // Most requests name one of a few ACLs, or requests of a sequence would seldom meet in one ACL.
    if ((number >> 48 & 7) > 1) {
        made.seed &= about == theme::acls ? 0x01 : 0x11;
    }
    // Most results are successes and belong to the oldest call.
    if (made.kind == act_kind::result) {
        made.seed = (number >> 52 & 7) != 0 ? 0 : made.seed;
        made.which = (number >> 56 & 1) != 0 ? 0 : made.which;
    }
    return made;
}

sequence random_sequence(rc::Random& random) {
    const u64 first = random.next();
    constexpr std::array themes{theme::everything, theme::everything, theme::service,
                                theme::acls,       theme::acls,       theme::blocks};
    const theme about = themes[first % themes.size()];
    sequence made{
        {act_kind::start, static_cast<u8>(about == theme::service ? 4 : 0), static_cast<u8>(first >> 8), 0}};
    if (about == theme::acls) {
        made[0].seed = 0;
        made.push_back({act_kind::request, 0, 0, 0});
        made.push_back({act_kind::result, 0, 0, 0});
    }
    const u64 length = 1 + (first >> 16) % longest_sequence;
    for (u64 i = 0; i < length; ++i) {
        made.push_back(random_act(about, random.next()));
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
        return rc::shrinkable::shrinkRecur(random_sequence(numbers),
                                           [](const sequence& from) { return smaller_sequences(from); });
    }};
}

}  // namespace model
