// Compares the library with an independent model of it over random acts of a process and a daemon. A
// difference is printed with the shortest sequence that shows it and the command that repeats it.
//   SCC_MODEL_ACTS   how many acts; 20,000 if unset
//   SCC_MODEL_SEED   the first seed; a fixed one if unset
#include <gtest/gtest.h>
#include <rapidcheck.h>
#include <rapidcheck/detail/TestListenerAdapter.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <numeric>

#include "model/side_by_side.h"

namespace {

using namespace model;

constexpr int sequences_of_a_seed = 50;

struct failure {
    sequence acts;
    std::string difference;
};

u64 number_from(const char* variable, u64 otherwise) {
    const char* text = std::getenv(variable);
    return text != nullptr ? std::strtoull(text, nullptr, 10) : otherwise;
}

const sequence* g_current = nullptr;
u64 g_seed = 0;

void print_command() {
    std::cerr << "Repeat with: SCC_MODEL_SEED=" << g_seed << " SCC_MODEL_ACTS=1 ./run model\n";
}

// A crash or an endless loop in the library: the sequence cannot be shrunk any further.
void on_signal(int number) {
    std::cerr << "Signal " << number << " while these acts were played:\n";
    if (g_current != nullptr) {
        std::cerr << *g_current;
    }
    print_command();
    _exit(1);
}

// The shortest sequence of this seed that shows a difference.
std::optional<failure> find_difference(u64 seed, act_counts& counts) {
    std::optional<failure> last;
    rc::detail::TestParams params;
    params.seed = g_seed = seed;
    params.maxSuccess = sequences_of_a_seed;
    act_counts of_shrinking;
    const auto property = [&] {
        const sequence acts = *sequences();
        g_current = &acts;
        if (auto difference = differs(acts, last ? of_shrinking : counts)) {
            last = {acts, *difference};
            RC_FAIL("the library and the model differ");
        }
    };
    rc::detail::TestListenerAdapter silent;
    (void)rc::detail::checkProperty(rc::detail::toProperty(property), {}, params, silent, {});
    g_current = nullptr;
    return last;
}

u64 sum_of(const std::array<u64, act_kinds>& counts) {
    return std::accumulate(counts.begin(), counts.end(), u64{0});
}

void print_counts(const act_counts& counts, std::size_t differences) {
    std::printf("%-16s %10s %10s\n", "act", "played", "effective");
    for (std::size_t kind = 0; kind < act_kinds; ++kind) {
        std::printf("%-16s %10lu %10lu\n", name_of(static_cast<act_kind>(kind)), counts.played[kind],
                    counts.effective[kind]);
    }
    std::printf("%-16s %10lu %10lu\n", "all", sum_of(counts.played), sum_of(counts.effective));
    std::printf("differences: %zu\n", differences);
}

TEST(Model, DoesWhatTheLibraryDoes) {
    prepare_process();
    std::signal(SIGABRT, on_signal);
    std::signal(SIGALRM, on_signal);
    const u64 wanted = number_from("SCC_MODEL_ACTS", 20000);
    act_counts counts;
    std::optional<failure> found;
    for (u64 seed = number_from("SCC_MODEL_SEED", 20261122); !found && sum_of(counts.played) < wanted;
         ++seed) {
        constexpr unsigned seconds_without_end = 300;
        alarm(seconds_without_end);
        found = find_difference(seed, counts);
    }
    alarm(0);
    print_counts(counts, found ? 1 : 0);
    if (found) {
        std::cerr << "The library and the model differ " << found->difference << "\nin these acts:\n"
                  << found->acts;
        print_command();
        FAIL();
    }
}

}  // namespace
