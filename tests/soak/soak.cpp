// soak MINUTES [--seed N] [--kills N] [--groups N]: runs groups of daemon, service and clients side by side,
// each group a process of its own, for that time or until N processes were killed. Prints a line of progress
// every few seconds and a table at the end. Exit status: 0, 1 after a fault, or 128 plus the number of the
// signal that interrupted it.
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

#include "soak/group.h"
#include "soak/report.h"

namespace {

using namespace soak;
using clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds between_lines{5000};
constexpr milliseconds longest_warm_up{60'000};
constexpr int exit_usage = 2;
constexpr int exit_signal = 128;

volatile std::sig_atomic_t g_signal = 0;  // that interrupted the driver
shared_state* g_state = nullptr;

void note_signal(int number) {
    g_signal = number;
}

// Signal handler of a group whose driver has died.
void end_group(int /*number*/) {
    g_state->end = ending::interrupted;
}

struct options {
    double minutes = 0;
    std::uint64_t seed = 0;
    std::uint32_t kills = 0;  // 0: as many as the time allows
    std::uint32_t groups = 4;
};

int usage() {
    std::fprintf(stderr, "usage: soak MINUTES [--seed N] [--kills N] [--groups 1-%zu]\n",
                 shared_state::groups_max);
    return exit_usage;
}

bool read_number(const char* text, std::uint64_t least, std::uint64_t most, std::uint64_t& number) {
    char* end = nullptr;
    number = text == nullptr || *text < '0' || *text > '9' ? most + 1 : std::strtoull(text, &end, 10);
    return end != nullptr && *end == '\0' && number >= least && number <= most;
}

bool read_options(char** words, options& chosen) {
    char* end = nullptr;
    chosen.minutes = *words == nullptr ? 0 : std::strtod(*words, &end);
    if (end == nullptr || *end != '\0' || !(chosen.minutes > 0 && chosen.minutes < 100'000)) {
        return false;
    }
    std::uint64_t number = 0;
    for (char** word = words + 1; *word != nullptr; word += 2) {
        if (std::strcmp(*word, "--seed") == 0 && read_number(word[1], 0, 1U << 31, number)) {
            chosen.seed = number;
        } else if (std::strcmp(*word, "--kills") == 0 && read_number(word[1], 1, 1U << 30, number)) {
            chosen.kills = static_cast<std::uint32_t>(number);
        } else if (std::strcmp(*word, "--groups") == 0 &&
                   read_number(word[1], 1, shared_state::groups_max, number)) {
            chosen.groups = static_cast<std::uint32_t>(number);
        } else {
            return false;
        }
    }
    return true;
}

// ---- sums over the groups ----

template <class Member>
auto sum_of(const shared_state& state, Member group_report::*count) {
    std::uint64_t sum = 0;
    for (const group_report& report : state.groups) {
        sum += report.*count;
    }
    return sum;
}

using counts_by_target = std::atomic<std::uint32_t> (group_report::*)[targets];

std::uint32_t sum_of(const shared_state& state, counts_by_target counts, std::size_t target) {
    std::uint32_t sum = 0;
    for (const group_report& report : state.groups) {
        sum += (report.*counts)[target];
    }
    return sum;
}

std::uint32_t sum_of(const shared_state& state, counts_by_target counts) {
    std::uint32_t sum = 0;
    for (std::size_t target = 0; target < targets; ++target) {
        sum += sum_of(state, counts, target);
    }
    return sum;
}

void print_progress(const shared_state& state, double seconds) {
    std::printf(
        "soak: %5.0f s  %u kills  %u stops  %llu requests  %llu dropped  %llu lost  %llu twice  "
        "%llu out of order  %llu wrong\n",
        seconds, sum_of(state, &group_report::kills), sum_of(state, &group_report::stops),
        static_cast<unsigned long long>(sum_of(state, &group_report::requests)),
        static_cast<unsigned long long>(sum_of(state, &group_report::dropped)),
        static_cast<unsigned long long>(sum_of(state, &group_report::lost)),
        static_cast<unsigned long long>(sum_of(state, &group_report::twice)),
        static_cast<unsigned long long>(sum_of(state, &group_report::out_of_order)),
        static_cast<unsigned long long>(sum_of(state, &group_report::wrong)));
    std::fflush(stdout);
}

void print_row(const char* name, std::uint64_t count) {
    std::printf("  %-58s %llu\n", name, static_cast<unsigned long long>(count));
}

void print_drifts(const shared_state& state) {
    std::printf("\n  %-10s %8s %13s %9s %13s %13s\n", "", "lives", "descriptors", "threads", "lives, memory",
                "memory, KiB");
    for (std::size_t target = 0; target < targets; ++target) {
        std::uint32_t lives = 0;
        std::uint32_t old_lives = 0;
        int descriptors = 0;
        int threads = 0;
        int memory = 0;
        for (const group_report& report : state.groups) {
            const drift& drifts = report.drifts[target];
            lives += drifts.lives;
            old_lives += drifts.old_lives;
            descriptors = std::max(descriptors, drifts.descriptors.load());
            threads = std::max(threads, drifts.threads.load());
            memory = std::max(memory, drifts.memory_kib.load());
        }
        std::printf("  %-10s %8u %+13d %+9d %13u %+13d\n", target_names[target], lives, descriptors, threads,
                    old_lives, memory);
    }
}

void print_summary(const shared_state& state, const options& chosen, double seconds, milliseconds warm_up) {
    std::printf("\n  %-10s %8s %8s\n", "", "SIGKILL", "SIGSTOP");
    for (std::size_t target = 0; target < targets; ++target) {
        std::printf("  %-10s %8u %8u\n", target_names[target], sum_of(state, &group_report::kills, target),
                    sum_of(state, &group_report::stops, target));
    }
    std::printf("  %-10s %8u %8u\n\n", "all", sum_of(state, &group_report::kills),
                sum_of(state, &group_report::stops));
    print_row("requests accepted", sum_of(state, &group_report::requests));
    print_row("answered once", sum_of(state, &group_report::answers) - sum_of(state, &group_report::twice));
    print_row("  of them, given up with the service that died", sum_of(state, &group_report::timed_out));
    print_row("dropped with their connection or their process", sum_of(state, &group_report::dropped));
    print_row("lost", sum_of(state, &group_report::lost));
    print_row("answered twice", sum_of(state, &group_report::twice));
    print_row("out of order", sum_of(state, &group_report::out_of_order));
    print_row("wrong (answer of another, result, notification, cache)", sum_of(state, &group_report::wrong));
    print_row("queries with their own answer", sum_of(state, &group_report::queries));
    print_row("notifications", sum_of(state, &group_report::notifications));
    print_row("reads of the ACL cache that agree with the results",
              sum_of(state, &group_report::cache_reads));
    print_row("connections lost and made again", sum_of(state, &group_report::reconnections));
    print_drifts(state);
    std::printf(
        "\n  Looked at after each recovery, when all of a group work: entries of /proc/PID/fd and "
        "/proc/PID/task\n  compared with the least of that life; Rss of /proc/PID/smaps_rollup compared "
        "with what it was\n  after %lld s of life (at most %+d KiB).\n",
        static_cast<long long>(warm_up.count() / 1000), memory_growth_max_kib);
    std::printf("  %.0f s, %u groups, seed %llu\n", seconds, chosen.groups,
                static_cast<unsigned long long>(chosen.seed));
}

void print_faults(const shared_state& state, const options& chosen) {
    for (const group_report& report : state.groups) {
        const std::size_t count = std::min<std::size_t>(report.faults, group_report::texts_max);
        for (std::size_t index = 0; index < count; ++index) {
            std::printf("soak: FAULT: %s\n", report.texts[index]);
        }
    }
    std::printf("soak: to repeat: ./run soak %g --seed %llu --groups %u", chosen.minutes,
                static_cast<unsigned long long>(chosen.seed), chosen.groups);
    if (chosen.kills != 0) {
        std::printf(" --kills %u", chosen.kills);
    }
    std::printf("\n");
}

// ---- the groups ----

// In its own process group, so that an interrupt from the terminal reaches only the driver.
pid_t start_group(const group_plan& plan, shared_state& state) {
    std::fflush(stdout);
    const pid_t driver = getpid();
    const pid_t pid = fork();
    if (pid == 0) {
        setpgid(0, 0);
        std::signal(SIGTERM, end_group);
        std::signal(SIGPIPE, SIG_DFL);
        if (prctl(PR_SET_PDEATHSIG, SIGTERM) != 0 || getppid() != driver) {
            _exit(1);
        }
        const bool good = run_group(plan, state);
        _exit(good ? 0 : 1);
    }
    return pid;
}

// Whether a group has ended; sets good to false if it failed.
bool has_ended(pid_t& group, bool& good) {
    int status = 0;
    if (group <= 0 || waitpid(group, &status, WNOHANG) != group) {
        return group <= 0;
    }
    group = -1;
    good = good && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    return true;
}

// Tells the groups when to end and waits for them. Returns whether all of them passed.
bool supervise(std::vector<pid_t>& groups, shared_state& state, const options& chosen) {
    const auto start = clock::now();
    const auto end = start + std::chrono::duration_cast<clock::duration>(
                                 std::chrono::duration<double>(chosen.minutes * 60));
    auto next_line = start + between_lines;
    bool good = true;
    for (;;) {
        bool all_ended = true;
        for (pid_t& group : groups) {
            all_ended = has_ended(group, good) && all_ended;
        }
        if (all_ended) {
            return good;
        }
        const auto now = clock::now();
        const bool enough = chosen.kills != 0 && sum_of(state, &group_report::kills) >= chosen.kills;
        if (g_signal != 0 || !good) {
            state.end = ending::interrupted;
        } else if (now >= end || enough) {
            state.end = ending::wanted;
        }
        if (now >= next_line) {
            print_progress(state, std::chrono::duration<double>(now - start).count());
            next_line += between_lines;
        }
        usleep(20'000);
    }
}

int run(const options& chosen) {
    void* const place =
        mmap(nullptr, sizeof(shared_state), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (place == MAP_FAILED) {
        std::perror("soak");
        return 1;
    }
    shared_state& state = *(g_state = static_cast<shared_state*>(place));
    std::signal(SIGPIPE, SIG_IGN);
    struct sigaction action {};
    action.sa_handler = note_signal;
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        sigaction(number, &action, nullptr);
    }
    const auto warm_up =
        std::min(longest_warm_up, milliseconds(static_cast<long>(chosen.minutes * 60'000 / 3)));
    std::printf("soak: %g minutes, seed %llu, %u groups\n", chosen.minutes,
                static_cast<unsigned long long>(chosen.seed), chosen.groups);
    const auto start = clock::now();
    std::vector<pid_t> groups;
    for (std::uint32_t index = 0; index < chosen.groups; ++index) {
        groups.push_back(start_group({index, chosen.seed, warm_up}, state));
    }
    const bool good = supervise(groups, state, chosen) && sum_of(state, &group_report::faults) == 0;
    const double seconds = std::chrono::duration<double>(clock::now() - start).count();
    print_summary(state, chosen, seconds, warm_up);
    if (!good) {
        print_faults(state, chosen);
        return 1;
    }
    if (g_signal != 0) {
        std::printf("soak: interrupted\n");
        return exit_signal + g_signal;
    }
    std::printf("soak: no fault\n");
    return 0;
}

}  // namespace

int main(int /*count*/, char** words) {
    options chosen;
    chosen.seed = std::random_device{}() % 1'000'000;
    return read_options(words + 1, chosen) ? run(chosen) : usage();
}
