// Requests, results and synchronous round trips through the library, each compared with a raw-socket floor
// that moves the same bytes in the same batches in the same run.
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <semaphore>
#include <string_view>
#include <thread>
#include <vector>

#include "floor.h"
#include "peer.h"
#include "rounds.h"
#include "scclib.h"

namespace {

using bench::answers;
using bench::duties;
using bench::figure;
using bench::order;

std::binary_semaphore g_registered{0};
bench::window* g_in_flight = nullptr;

// Reports results to the sender in groups, as the floor reports them per message. Receive thread.
std::uint64_t g_untold = 0;
std::uint64_t g_left = 0;

void expect_results(std::uint64_t count) {
    g_left = count;
}

void seen_result() {
    constexpr std::uint64_t group = 32;
    ++g_untold;
    if (--g_left == 0 || g_untold == group) {
        g_in_flight->answered(g_untold);
        g_untold = 0;
    }
}

void on_status(std::uint32_t status) {
    if (status == 1) {
        g_registered.release();
    }
}

void on_record(std::uint32_t, std::uint32_t, const scc_config_record*) {
    seen_result();
}

void (*g_on_scalar)() = seen_result;

void on_scalar(std::uint32_t, std::uint32_t, std::uint32_t, std::uint8_t) {
    g_on_scalar();
}

void on_ace(std::uint32_t, std::uint32_t, const scc_acl_key*, const scc_ace_record*) {
    seen_result();
}

void on_acl(std::uint32_t, std::uint32_t, const scc_acl_key*) {
    seen_result();
}

void start_library(std::uint8_t option = 0) {
    static scc_reg_info info{};
    info.app_id = 5;
    info.option = option;
    info.handlers.acl_create = on_acl;
    info.handlers.acl_delete = on_acl;
    info.handlers.acl_add_ace = on_ace;
    info.handlers.server_status = on_status;
    info.handlers.d1x_port_open = on_record;
    info.handlers.addr_learning = on_scalar;
    if (scc_svr_reg(&info) != 0) {
        _exit(1);
    }
    g_registered.acquire();
}

// One thread's part of the requests.
void request(std::uint32_t value_bytes, std::uint64_t requests, bench::window& in_flight,
             std::atomic<std::uint64_t>& sent) {
    static const scc_config_record record{};
    constexpr std::uint64_t group = 8;
    for (std::uint64_t i = 0; i < requests; ++i) {
        if (i % group == 0) {
            in_flight.wait_for_space(sent.fetch_add(group, std::memory_order_relaxed) + group - 1);
        }
        if (value_bytes == 744) {
            scc_d1x_port_open(&record, nullptr);
        } else {
            scc_addr_learning(1, 1, nullptr);
        }
    }
}

figure library_rate(std::uint32_t value_bytes, std::uint64_t requests, std::uint64_t outstanding,
                    std::uint64_t threads = 1) {
    static bench::window in_flight(outstanding);
    static std::atomic<std::uint64_t> sent{0};
    g_in_flight = &in_flight;
    start_library();
    expect_results(requests);
    const double began = bench::now_s();
    const double used_before = bench::processor_s();
    {
        std::vector<std::jthread> others;
        for (std::uint64_t i = 1; i < threads; ++i) {
            others.emplace_back([=] { request(value_bytes, requests / threads, in_flight, sent); });
        }
        request(value_bytes, requests / threads, in_flight, sent);
    }
    in_flight.wait_for_all(requests);
    const auto count = static_cast<double>(requests);
    return {count / (bench::now_s() - began), (bench::processor_s() - used_before) * 1e9 / count};
}

// Seconds to add and confirm that many ACEs of an ACL in ascending order, except the last few: an incomplete
// batch waits up to 5 ms for the checker, which is not part of the cost.
double fill_acl(std::uint32_t acl_id, std::uint32_t aces, bench::window& in_flight) {
    const scc_acl_key key{0, 3, acl_id, 0};
    static scc_ace_record ace{};
    const std::uint64_t before = in_flight.count();
    expect_results(aces + 1);
    const double began = bench::now_s();
    scc_acl_create(&key, nullptr);
    for (std::uint32_t i = 1; i <= aces; ++i) {
        in_flight.wait_for_space(before + i);
        ace.sn = i;
        ace.ace_id = i;
        scc_acl_add_ace(&key, &ace, nullptr);
    }
    constexpr std::uint32_t last_few = 40;  // a batch's, and those that seen_result has not reported
    in_flight.wait_for_all(before + aces + 1 - last_few);
    const double seconds = bench::now_s() - began;
    in_flight.wait_for_all(before + aces + 1);
    return seconds;
}

enum class memory { fresh, used_before };

// In a fresh process, most of the cache's cost is the kernel's zeroing of new pages. A process that has run
// for a while already owns the memory.
double library_aces(std::uint32_t aces, std::uint8_t option, memory heap) {
    static bench::window in_flight(4096);
    g_in_flight = &in_flight;
    start_library(option);
    if (heap == memory::used_before) {
        mallopt(M_TRIM_THRESHOLD, 1 << 30);
        fill_acl(1, aces, in_flight);
        const scc_acl_key key{0, 3, 1, 0};
        expect_results(1);
        const std::uint64_t before = in_flight.count();
        scc_acl_delete(&key, nullptr);
        in_flight.wait_for_all(before + 1);
    }
    return fill_acl(2, aces, in_flight);
}

double library_round_trip(int rounds) {
    start_library();
    const std::uint8_t mac[6] = {2, 0, 0, 0, 0, 1};
    std::vector<double> times;
    for (int i = 0; i < rounds; ++i) {
        std::uint32_t ip = 0;
        const double began = bench::now_s();
        if (scc_mac_query(mac, &ip) != 0) {
            _exit(1);
        }
        times.push_back(bench::now_s() - began);
    }
    std::sort(times.begin(), times.end());
    return times[times.size() / 2];
}

// The peer holds results until they are released (bench::answers::hold).
enum class release : int { next = 0, all_together = 1, all_alone = 2 };

void release_results(release which) {
    scc_warterline_notify(static_cast<int>(which));
}

void hold_requests(std::uint64_t pending) {
    for (std::uint64_t i = 0; i < pending; ++i) {
        scc_addr_learning(1, 1, nullptr);
    }
    usleep(300000);  // until the peer has them all
}

// Seconds per result, with that many pending when the first arrives.
double library_delivery(std::uint64_t pending, release how) {
    static bench::window in_flight(pending + 1);
    g_in_flight = &in_flight;
    start_library();
    expect_results(pending);
    hold_requests(pending);
    const double began = bench::now_s();
    release_results(how);
    in_flight.wait_for_all(pending);
    return (bench::now_s() - began) / static_cast<double>(pending);
}

std::binary_semaphore g_arrived{0};

// Median latency of one result with that many pending, in seconds; requested on the synchronous socket.
double library_one_result(std::uint64_t pending, int rounds) {
    static bench::window in_flight(pending + 1);
    g_in_flight = &in_flight;
    g_on_scalar = [] { g_arrived.release(); };
    start_library();
    hold_requests(pending);
    std::vector<double> times;
    for (int i = 0; i < rounds; ++i) {
        const double began = bench::now_s();
        release_results(release::next);
        g_arrived.acquire();
        times.push_back(bench::now_s() - began);
        scc_addr_learning(1, 1, nullptr);
    }
    std::sort(times.begin(), times.end());
    return times[times.size() / 2];
}

template <class Measure>
std::function<figure()> with_peer(answers how, int processor, Measure measure,
                                  order held = order::ascending) {
    return [=]() -> figure {
        const bench::runtime_directory directory;
        const bench::peer_options options{how, held, processor};
        const bench::peer serving(options);
        bench::pin_to(processor);
        return measure();
    };
}

struct goals {
    const char* rate = "";
    const char* processor = "";
};

void print_figures(const std::string& what, const figure& one, const figure& floor, const goals& wanted) {
    bench::print_ratio(what, one.value, floor.value, "/s", wanted.rate);
    bench::print_ratio(what + ", processor time", one.processor_ns, floor.processor_ns, "ns",
                       wanted.processor);
}

// The floors with duties, which show what the library's obligations alone cost.
constexpr const char* with_locks = ", floor with locks";
constexpr const char* with_calls = ", floor with locks, kept values and handlers";
constexpr const char* with_search = ", the same floor with a search for each value";
constexpr const char* with_threads = ", the same floor prepared for other threads";

void throughput(const char* what, std::uint32_t value_bytes, answers how, std::uint64_t requests,
                const goals& wanted, int rounds) {
    const auto floor_with = [=](duties of_a_request) {
        return with_peer(how, -1,
                         [=] { return bench::floor_rate(value_bytes, requests, 4096, of_a_request); });
    };
    const auto rates = bench::figures(
        {{"floor", floor_with(duties::none)},
         {"floor with calls", floor_with(duties::calls)},
         {"floor with search", floor_with(duties::search)},
         {"floor for threads", floor_with(duties::shared)},
         {"library", with_peer(how, -1, [=] { return library_rate(value_bytes, requests, 4096); })}},
        rounds);
    print_figures(std::string(what) + ", floor", rates[0], rates[0], {});
    print_figures(std::string(what) + with_calls, rates[1], rates[0], {});
    print_figures(std::string(what) + with_search, rates[2], rates[0], {});
    print_figures(std::string(what) + with_threads, rates[3], rates[0], {});
    print_figures(std::string(what) + ", library", rates[4], rates[0], wanted);
}

void one_a_message(int rounds) {
    throughput("744-byte values, one result a message", 744, answers::one_a_message, 200000,
               {"at least 0.95", ""}, rounds);
}

void together(int rounds) {
    throughput("744-byte values, a batch's results together", 744, answers::batch_together, 400000,
               {"at least 0.95", "at most 1.1"}, rounds);
}

void all_together(int rounds) {
    throughput("744-byte values, all that arrived together", 744, answers::everything_together, 400000, {},
               rounds);
}

void small_requests(int rounds) {
    constexpr std::uint64_t requests = 1000000;
    const auto floor_with = [](duties of_a_request) {
        return with_peer(answers::batch_together, -1,
                         [=] { return bench::floor_rate(12, requests, 4096, of_a_request); });
    };
    const auto library_with = [](std::uint64_t threads) {
        return with_peer(answers::batch_together, -1,
                         [=] { return library_rate(12, requests, 4096, threads); });
    };
    const auto four_threads_on_the_floor = with_peer(
        answers::batch_together, -1, [] { return bench::floor_rate_from_threads(12, requests, 4096, 4); });
    const auto rates = bench::figures({{"floor", floor_with(duties::none)},
                                       {"floor with locks", floor_with(duties::locks)},
                                       {"floor with calls", floor_with(duties::calls)},
                                       {"floor with search", floor_with(duties::search)},
                                       {"floor for threads", floor_with(duties::shared)},
                                       {"library", library_with(1)},
                                       {"floor, four threads", four_threads_on_the_floor},
                                       {"four threads", library_with(4)}},
                                      rounds);
    const std::string what = "12-byte values, a batch's results together";
    print_figures(what + ", floor", rates[0], rates[0], {});
    print_figures(what + with_locks, rates[1], rates[0], {});
    print_figures(what + with_calls, rates[2], rates[0], {});
    print_figures(what + with_search, rates[3], rates[0], {});
    print_figures(what + with_threads, rates[4], rates[0], {});
    print_figures(what + ", library", rates[5], rates[0], {"at least 0.5", ""});
    print_figures("the last floor from four threads", rates[6], rates[0], {});
    print_figures("the library from four threads", rates[7], rates[0], {"at least 0.5", ""});
}

void four_threads(int rounds) {
    const auto library_with = [](std::uint64_t threads) {
        return with_peer(answers::batch_together, -1,
                         [=] { return library_rate(744, 400000, 4096, threads); });
    };
    const auto rates = bench::figures({{"one", library_with(1)}, {"four", library_with(4)}}, rounds);
    print_figures("744-byte values from one thread", rates[0], rates[0], {});
    print_figures("744-byte values from four threads", rates[1], rates[0], {});
}

void many_outstanding(int rounds) {
    const auto deep = bench::medians(
        {{"4096", with_peer(answers::batch_together, -1, [] { return library_rate(744, 400000, 4096); })},
         {"100000",
          with_peer(answers::batch_together, -1, [] { return library_rate(744, 400000, 100000); })}},
        rounds);
    bench::print_ratio("744-byte values, 4,096 outstanding", deep[0], deep[0], "/s", "");
    bench::print_ratio("744-byte values, 100,000 outstanding", deep[1], deep[0], "/s", "at least 0.9");
}

void round_trips(int rounds) {
    const auto trips = bench::medians(
        {{"floor", with_peer(answers::one_a_message, 0, [] { return bench::floor_round_trip(20000) * 1e9; })},
         {"library", with_peer(answers::one_a_message, 0, [] { return library_round_trip(20000) * 1e9; })}},
        rounds);
    bench::print_ratio("synchronous round trip on one processor, floor", trips[0], trips[0], "ns", "");
    bench::print_ratio("synchronous round trip on one processor, library", trips[1], trips[0], "ns",
                       "at most 1.05");
}

void cache(int rounds) {
    const auto fill = [](std::uint8_t option, memory heap) {
        return with_peer(answers::batch_together, -1,
                         [=] { return library_aces(10000, option, heap) * 1e6; });
    };
    const auto aces = bench::medians({{"without", fill(0, memory::fresh)},
                                      {"with", fill(1, memory::fresh)},
                                      {"without, used", fill(0, memory::used_before)},
                                      {"with, used", fill(1, memory::used_before)}},
                                     rounds * 3);
    const auto with_daemon = [](std::uint8_t option) {
        return [=]() -> figure {
            const bench::runtime_directory directory;
            const bench::development_daemon serving;
            return library_aces(10000, option, memory::fresh) * 1e6;
        };
    };
    const auto served = bench::medians({{"without", with_daemon(0)}, {"with", with_daemon(1)}}, rounds);
    bench::print_ratio("10,000 ACEs in ascending order, without the cache", aces[0], aces[0], "us", "");
    bench::print_ratio("10,000 ACEs in ascending order, with the cache", aces[1], aces[0], "us",
                       "at most 1.3");
    bench::print_ratio("the same in memory used before, without the cache", aces[2], aces[2], "us", "");
    bench::print_ratio("the same in memory used before, with the cache", aces[3], aces[2], "us",
                       "at most 1.3");
    bench::print_ratio("10,000 ACEs with the development daemon, without the cache", served[0], served[0],
                       "us", "");
    bench::print_ratio("10,000 ACEs with the development daemon, with the cache", served[1], served[0], "us",
                       "at most 1.3");
}

constexpr struct {
    order held;
    const char* name;
} orders[] = {{order::ascending, "ascending"}, {order::descending, "descending"}, {order::random, "random"}};

// The latency of one result, with few and with many pending.
void one_result(int rounds) {
    const auto way = [](std::uint64_t pending, order held) {
        return with_peer(
            answers::hold, -1, [=] { return library_one_result(pending, 5000) * 1e9; }, held);
    };
    std::vector<bench::contender> contenders = {
        {"floor", with_peer(answers::hold, -1, [] { return bench::floor_one_result(5000) * 1e9; })}};
    for (const auto& one : orders) {
        contenders.push_back({"10", way(10, one.held)});
        contenders.push_back({"1000000", way(1000000, one.held)});
    }
    const auto times = bench::medians(contenders, std::max(3, rounds / 2));
    bench::print_ratio("one result asked for, floor", times[0], times[0], "ns", "");
    for (std::size_t i = 0; i < std::size(orders); ++i) {
        const double few = times[1 + 2 * i];
        bench::print_ratio(std::string("one result, 10 pending, ") + orders[i].name + " (to the floor)", few,
                           times[0], "ns", "");
        bench::print_ratio(std::string("one result, 1,000,000 pending, ") + orders[i].name, times[2 + 2 * i],
                           few, "ns", "at most 1.5");
    }
}

// A stream of results, one or many per message, until none is pending.
void streams(int rounds) {
    const auto stream = [](std::uint64_t pending, release how, order held) {
        return with_peer(
            answers::hold, -1, [=] { return library_delivery(pending, how) * 1e9; }, held);
    };
    for (const release how : {release::all_alone, release::all_together}) {
        std::vector<bench::contender> contenders = {{"few", stream(10000, how, order::ascending)}};
        for (const auto& one : orders) {
            contenders.push_back({one.name, stream(1000000, how, one.held)});
        }
        const auto times = bench::medians(contenders, std::max(3, rounds / 2));
        const std::string what =
            how == release::all_alone ? "a stream of results, one a message, " : "a stream, 500 a message, ";
        bench::print_ratio(what + "10,000 pending", times[0], times[0], "ns", "");
        for (std::size_t i = 0; i < std::size(orders); ++i) {
            bench::print_ratio(what + "1,000,000 pending, " + orders[i].name, times[1 + i], times[0], "ns",
                               "");
        }
    }
}

struct part {
    const char* name;
    void (*measure)(int rounds);
};

constexpr part parts[] = {
    {"one_a_message", one_a_message}, {"together", together},
    {"all_together", all_together},   {"small", small_requests},
    {"threads", four_threads},        {"outstanding", many_outstanding},
    {"round_trips", round_trips},     {"cache", cache},
    {"one_result", one_result},       {"streams", streams},
};

}  // namespace

// wire_bench [rounds [part...]]: all parts by default.
int main(int argc, char** argv) {
    const int rounds = argc > 1 ? std::atoi(argv[1]) : 7;
    const std::vector<std::string_view> wanted(argv + std::min(argc, 2), argv + argc);
    std::printf("%-66s %12s %-8s %6s\n", "medians of interleaved rounds", "", "", "ratio");
    for (const part& one : parts) {
        if (wanted.empty() || std::ranges::find(wanted, one.name) != wanted.end()) {
            one.measure(rounds);
        }
    }
    return 0;
}
