// How long a result takes: the distribution from a request to its handler at low and high rates, on an idle
// and on a busy machine, and of a query while another thread streams requests. An incomplete batch waits for
// the checker, up to 5 ms: that is the protocol's, and the distribution shows it.
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <random>
#include <semaphore>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "peer.h"
#include "rounds.h"
#include "scclib.h"

namespace {

using samples = std::vector<double>;  // microseconds

std::binary_semaphore g_registered{0};
// When the result of each call arrived, by its call id. The receive thread writes, and reserves no memory
// meanwhile.
std::vector<double> g_arrived_at;
std::atomic<std::size_t> g_arrived{0};
std::atomic<std::uint64_t> g_streamed{0};

void start_client() {
    static scc_reg_info info{};
    info.app_id = 5;
    info.handlers.server_status = [](std::uint32_t status) {
        if (status == 1) {
            g_registered.release();
        }
    };
    info.handlers.addr_learning = [](std::uint32_t, std::uint32_t call_id, std::uint32_t, std::uint8_t) {
        g_arrived_at.at(call_id) = bench::now_s();
        ++g_arrived;
    };
    info.handlers.d1x_port_open = [](std::uint32_t, std::uint32_t, const scc_config_record*) {
        g_streamed.fetch_add(1, std::memory_order_relaxed);
    };
    if (scc_svr_reg(&info) != 0) {
        _exit(1);
    }
    g_registered.acquire();
}

// Sends on schedule, whether or not results have come. The pauses vary, or they would keep step with the
// checker.
samples requests(double a_second, double seconds) {
    g_arrived_at.resize(static_cast<std::size_t>(a_second * seconds * 2) + 1000);
    start_client();
    std::mt19937 random(static_cast<unsigned>(getpid()));
    std::uniform_real_distribution<double> around(0.5, 1.5);
    std::vector<std::pair<std::uint32_t, double>> sent;
    const double end = bench::now_s() + seconds;
    for (double next = bench::now_s(); next < end;) {
        next += around(random) / a_second;
        std::this_thread::sleep_for(std::chrono::duration<double>(next - bench::now_s()));
        std::uint32_t call_id = 0;
        const double began = bench::now_s();
        scc_addr_learning(1, 1, &call_id);
        sent.emplace_back(call_id, began);
    }
    while (g_arrived < sent.size()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    samples times;
    for (const auto& [call_id, began] : sent) {
        times.push_back((g_arrived_at.at(call_id) - began) * 1e6);
    }
    return times;
}

samples queries(bool streaming, double seconds) {
    start_client();
    std::atomic<bool> ended{false};
    std::thread stream([&] {
        static const scc_config_record record{};
        for (std::uint64_t sent = 0; streaming && !ended; ++sent) {
            scc_d1x_port_open(&record, nullptr);
            while (sent - g_streamed > 4096 && !ended) {
                std::this_thread::yield();
            }
        }
    });
    const std::uint8_t mac[6] = {2, 0, 0, 0, 0, 1};
    samples times;
    const double end = bench::now_s() + seconds;
    while (bench::now_s() < end) {
        std::this_thread::sleep_for(std::chrono::microseconds(500));
        std::uint32_t ip = 0;
        const double began = bench::now_s();
        if (scc_mac_query(mac, &ip) != 0) {
            _exit(1);
        }
        times.push_back((bench::now_s() - began) * 1e6);
    }
    ended = true;
    stream.join();
    return times;
}

void write_all(int fd, const samples& times) {
    const char* at = reinterpret_cast<const char*>(times.data());
    for (std::size_t left = times.size() * sizeof(double); left != 0;) {
        const ssize_t written = write(fd, at, left);
        if (written <= 0) {
            _exit(1);
        }
        at += written;
        left -= static_cast<std::size_t>(written);
    }
}

samples read_all(int fd) {
    samples times;
    double one = 0;
    std::FILE* file = fdopen(fd, "rb");
    while (std::fread(&one, sizeof one, 1, file) == 1) {
        times.push_back(one);
    }
    std::fclose(file);
    return times;
}

// The samples of several clients at once, each with a daemon of its own.
samples of_clients(int clients, const std::function<samples()>& measure) {
    std::vector<int> results;
    std::vector<pid_t> children;
    for (int i = 0; i < clients; ++i) {
        int ends[2];
        if (pipe(ends) != 0) {
            std::exit(1);
        }
        const pid_t child = fork();
        if (child == 0) {
            {
                const bench::runtime_directory directory;
                const bench::peer serving({bench::answers::one_a_message});
                write_all(ends[1], measure());
            }
            _exit(0);
        }
        close(ends[1]);
        results.push_back(ends[0]);
        children.push_back(child);
    }
    samples all;
    for (const int fd : results) {
        const samples of_one = read_all(fd);
        all.insert(all.end(), of_one.begin(), of_one.end());
    }
    for (const pid_t child : children) {
        waitpid(child, nullptr, 0);
    }
    return all;
}

// Two endless loops for each processor.
class load {
  public:
    explicit load(bool wanted) {
        const unsigned count = wanted ? 2 * std::thread::hardware_concurrency() : 0;
        for (unsigned i = 0; i < count; ++i) {
            const pid_t child = fork();
            if (child == 0) {
                alarm(120);
                for (std::uint64_t spins = 0;; ++spins) {
                    asm volatile("" : "+r"(spins));
                }
            }
            children_.push_back(child);
        }
    }
    ~load() {
        for (const pid_t child : children_) {
            kill(child, SIGKILL);
            waitpid(child, nullptr, 0);
        }
    }
    load(const load&) = delete;
    load& operator=(const load&) = delete;

  private:
    std::vector<pid_t> children_;
};

void print(const std::string& what, samples times) {
    constexpr double percentiles[] = {1, 10, 25, 50, 75, 90, 95, 99, 99.9};
    if (times.empty()) {
        std::exit(1);
    }
    std::ranges::sort(times);
    const char* name = std::getenv("BENCH_JSON");
    std::FILE* file = name == nullptr ? nullptr : std::fopen(name, "a");
    std::printf("%-56s", what.c_str());
    if (file != nullptr) {
        std::fprintf(file, "{\"what\": \"%s\", \"unit\": \"us\", \"count\": %zu, \"percentiles\": {",
                     what.c_str(), times.size());
    }
    for (const double percentile : percentiles) {
        const auto at = static_cast<std::size_t>(static_cast<double>(times.size() - 1) * percentile / 100);
        if (percentile >= 50) {
            std::printf(" %8.0f", times[at]);
        }
        if (file != nullptr) {
            std::fprintf(file, "%s\"%g\": %.1f", percentile > percentiles[0] ? ", " : "", percentile,
                         times[at]);
        }
    }
    std::printf(" %8.0f %8zu\n", times.back(), times.size());
    std::fflush(stdout);
    if (file != nullptr) {
        std::fprintf(file, ", \"100\": %.1f}}\n", times.back());
        std::fclose(file);
    }
}

}  // namespace

// latency_bench [seconds]: of each line.
int main(int argc, char** argv) {
    const double seconds = argc > 1 ? std::atof(argv[1]) : 15;
    std::printf("%-56s %8s %8s %8s %8s %8s %8s %8s %8s\n", "microseconds", "50 %", "75 %", "90 %", "95 %",
                "99 %", "99.9 %", "most", "count");
    for (const bool busy : {false, true}) {
        const load others(busy);
        const std::string where = busy ? ", busy machine" : "";
        print("a request, 1 a second" + where, of_clients(20, [=] { return requests(1, seconds); }));
        print("a request, 10 a second" + where, of_clients(10, [=] { return requests(10, seconds); }));
        print("a request, 1,000 a second" + where, of_clients(1, [=] { return requests(1000, seconds); }));
        print("a query" + where, of_clients(1, [=] { return queries(false, seconds); }));
        print("a query while another thread streams" + where,
              of_clients(1, [=] { return queries(true, seconds); }));
    }
    return 0;
}
