// Requests, results and synchronous round trips through the library, each beside the raw-socket floor that
// moves the same bytes in the same batches in the same run.
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <semaphore>
#include <string_view>
#include <vector>

#include "floor.h"
#include "peer.h"
#include "rounds.h"
#include "scclib.h"

namespace {

using bench::answers;
using bench::order;

std::binary_semaphore g_registered{0};
bench::window* g_room = nullptr;

// Results are told to the sender in groups, as the floor tells them a message at a time. Receive thread.
std::uint64_t g_untold = 0;
std::uint64_t g_left = 0;

void expect_results(std::uint64_t count) {
    g_left = count;
}

void seen_result() {
    constexpr std::uint64_t group = 32;
    ++g_untold;
    if (--g_left == 0 || g_untold == group) {
        g_room->answered(g_untold);
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

void on_scalar(std::uint32_t, std::uint32_t, std::uint32_t, std::uint8_t) {
    seen_result();
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

double library_rate(std::uint32_t value_bytes, std::uint64_t requests, std::uint64_t outstanding) {
    static bench::window room(outstanding);
    g_room = &room;
    start_library();
    static scc_config_record record{};
    expect_results(requests);
    const double began = bench::now_s();
    for (std::uint64_t sent = 0; sent < requests; ++sent) {
        if (sent % 8 == 0) {
            room.wait_for_room(sent + 7);
        }
        if (value_bytes == 744) {
            scc_d1x_port_open(&record, nullptr);
        } else {
            scc_addr_learning(1, 1, nullptr);
        }
    }
    room.wait_for_all(requests);
    return static_cast<double>(requests) / (bench::now_s() - began);
}

// Seconds for an ACL of that many ACEs, added in ascending order and confirmed, but for the last few: the
// batch that is not full waits for the checker's next pass, whose 5 ms say nothing about the cost.
double fill_acl(std::uint32_t acl_id, std::uint32_t aces, bench::window& room) {
    const scc_acl_key key{0, 3, acl_id, 0};
    static scc_ace_record ace{};
    const std::uint64_t before = room.count();
    expect_results(aces + 1);
    const double began = bench::now_s();
    scc_acl_create(&key, nullptr);
    for (std::uint32_t i = 1; i <= aces; ++i) {
        room.wait_for_room(before + i);
        ace.sn = i;
        ace.ace_id = i;
        scc_acl_add_ace(&key, &ace, nullptr);
    }
    constexpr std::uint32_t last_few = 40;  // a batch's, and what seen_result has not told yet
    room.wait_for_all(before + aces + 1 - last_few);
    const double seconds = bench::now_s() - began;
    room.wait_for_all(before + aces + 1);
    return seconds;
}

enum class memory { fresh, used_before };

// In a fresh process most of what the cache costs is the kernel's zeroing of new pages. A process that has
// run for a while has had the memory for something else.
double library_aces(std::uint32_t aces, std::uint8_t option, memory heap) {
    static bench::window room(4096);
    g_room = &room;
    start_library(option);
    if (heap == memory::used_before) {
        mallopt(M_TRIM_THRESHOLD, 1 << 30);
        mallopt(M_ARENA_MAX, 1);
        fill_acl(1, aces, room);
        const scc_acl_key key{0, 3, 1, 0};
        expect_results(1);
        const std::uint64_t before = room.count();
        scc_acl_delete(&key, nullptr);
        room.wait_for_all(before + 1);
    }
    return fill_acl(2, aces, room);
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

// Seconds a result with that many pending when the first arrives.
double library_delivery(std::uint64_t pending) {
    static bench::window room(pending + 1);
    g_room = &room;
    start_library();
    expect_results(pending);
    for (std::uint64_t i = 0; i < pending; ++i) {
        scc_addr_learning(1, 1, nullptr);
    }
    usleep(300000);  // the peer has them all
    const double began = bench::now_s();
    scc_warterline_notify(1);
    room.wait_for_all(pending);
    return (bench::now_s() - began) / static_cast<double>(pending);
}

template <class Measure>
std::function<double()> with_peer(answers how, int processor, Measure measure,
                                  order held = order::ascending) {
    return [=] {
        const bench::runtime_directory directory;
        const bench::peer_options options{how, held, processor};
        const bench::peer serving(options);
        bench::pin_to(processor);
        return measure();
    };
}

void throughput(const char* what, std::uint32_t value_bytes, answers how, std::uint64_t requests,
                const char* target, int rounds) {
    const auto rates = bench::medians(
        {{"floor", with_peer(how, -1, [=] { return bench::floor_rate(value_bytes, requests, 4096); })},
         {"library", with_peer(how, -1, [=] { return library_rate(value_bytes, requests, 4096); })}},
        rounds);
    bench::print_ratio(std::string(what) + ", floor", rates[0], rates[0], "/s", "");
    bench::print_ratio(std::string(what) + ", library", rates[1], rates[0], "/s", target);
}

void requests_and_results(int rounds) {
    throughput("744-byte values, one result a message", 744, answers::one_a_message, 200000, "at least 0.95",
               rounds);
    throughput("744-byte values, a batch's results together", 744, answers::batch_together, 400000,
               "at least 0.70", rounds);
    throughput("744-byte values, all that arrived together", 744, answers::everything_together, 400000, "",
               rounds);
}

void small_requests(int rounds) {
    throughput("12-byte values, a batch's results together", 12, answers::batch_together, 1000000,
               "at least 0.12", rounds);
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
                       "at most 1.15");
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
    bench::print_ratio("10,000 ACEs in ascending order, without the cache", aces[0], aces[0], "us", "");
    bench::print_ratio("10,000 ACEs in ascending order, with the cache", aces[1], aces[0], "us",
                       "at most 1.3");
    bench::print_ratio("the same in memory used before, without the cache", aces[2], aces[2], "us", "");
    bench::print_ratio("the same in memory used before, with the cache", aces[3], aces[2], "us",
                       "at most 1.3");
}

void deliveries(int rounds) {
    const auto few = [](order held) {
        return with_peer(
            answers::hold, -1, [] { return library_delivery(1000) * 1e9; }, held);
    };
    const auto many = [](order held) {
        return with_peer(
            answers::hold, -1, [] { return library_delivery(1000000) * 1e9; }, held);
    };
    const auto times = bench::medians({{"1000", few(order::ascending)},
                                       {"ascending", many(order::ascending)},
                                       {"descending", many(order::descending)},
                                       {"random", many(order::random)}},
                                      std::max(3, rounds / 2));
    bench::print_ratio("a result over the wire, 1,000 pending", times[0], times[0], "ns", "");
    bench::print_ratio("a result over the wire, 1,000,000 pending, ascending", times[1], times[0], "ns",
                       "at most 1.5");
    bench::print_ratio("a result over the wire, 1,000,000 pending, descending", times[2], times[0], "ns",
                       "at most 1.5");
    bench::print_ratio("a result over the wire, 1,000,000 pending, random order", times[3], times[0], "ns",
                       "at most 1.5");
}

struct part {
    const char* name;
    void (*measure)(int rounds);
};

constexpr part parts[] = {
    {"requests", requests_and_results}, {"small", small_requests}, {"outstanding", many_outstanding},
    {"round_trips", round_trips},       {"cache", cache},          {"deliveries", deliveries},
};

}  // namespace

// wire_bench [rounds [part...]]: all parts unless some are named.
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
