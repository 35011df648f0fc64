// peers_bench [rounds]: compares the library with others at its own work. Each measurement has processes of
// its own; the libraries take turns.
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "peer.h"
#include "peers.h"
#include "rounds.h"

namespace peers {

void require(bool succeeded, const char* what) {
    if (!succeeded) {
        std::perror(what);
        _exit(1);
    }
}

}  // namespace peers

namespace {

using bench::figure;
using peers::kind;

const kind* const kinds[] = {&peers::scclib_kind, &peers::zeromq_kind, &peers::nng_kind,
                             &peers::sd_bus_kind, &peers::capnp_kind,  &peers::grpc_kind};

// A server in a process of its own; the path exists when it listens.
class server_process {
  public:
    explicit server_process(const kind& which) {
        child_ = fork();
        if (child_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            which.serve(path());
            _exit(1);
        }
        const std::string own = std::string(std::getenv("TMPDIR")) + "/security/scc/.sccd_sd_";
        struct stat status {};
        while (stat(path().c_str(), &status) != 0 && stat(own.c_str(), &status) != 0) {
            usleep(1000);
        }
        constexpr useconds_t between_bind_and_listen_us = 50000;
        usleep(between_bind_and_listen_us);
    }
    ~server_process() {
        kill(child_, SIGKILL);
        waitpid(child_, nullptr, 0);
    }
    server_process(const server_process&) = delete;
    server_process& operator=(const server_process&) = delete;

    static std::string path() { return std::string(std::getenv("TMPDIR")) + "/peer"; }

  private:
    pid_t child_;
};

// The client is not destroyed: the process ends at once.
template <class Measure>
std::function<figure()> with_client(const kind& which, Measure measure) {
    return [&which, measure]() -> figure {
        const bench::runtime_directory directory;
        const server_process server(which);
        return measure(*which.connect(server_process::path()).release());
    };
}

figure stream(peers::client& client) {
    constexpr std::uint64_t requests = 65536;
    client.stream(4096);  // warms up
    const double began = bench::now_s();
    const double used_before = bench::processor_s();
    client.stream(requests);
    return {requests / (bench::now_s() - began), (bench::processor_s() - used_before) * 1e9 / requests};
}

// The median, and the 99th percentile in the place of the processor time.
figure query(peers::client& client) {
    constexpr std::size_t queries = 5000;
    std::vector<double> times;
    for (std::size_t i = 0; i < queries; ++i) {
        const double began = bench::now_s();
        client.query();
        times.push_back((bench::now_s() - began) * 1e6);
    }
    std::ranges::sort(times);
    return {times[queries / 2], times[queries * 99 / 100]};
}

double private_kilobytes() {
    std::ifstream rollup("/proc/self/smaps_rollup");
    double sum = 0;
    for (std::string word; rollup >> word;) {
        if (word == "Private_Dirty:" || word == "Private_Clean:") {
            double value = 0;
            rollup >> value;
            sum += value;
        }
    }
    return sum;
}

// From the connection to the first answer, in microseconds, and the private memory that this took, in
// kilobytes.
figure start(const kind& which) {
    const bench::runtime_directory directory;
    const server_process server(which);
    const double before = private_kilobytes();
    const double began = bench::now_s();
    peers::client* client = which.connect(server_process::path()).release();
    client->query();
    const double seconds = bench::now_s() - began;
    return {seconds * 1e6, private_kilobytes() - before};
}

struct column {
    const char* value;
    const char* second;  // the figure's other number
    const char* unit;
    const char* second_unit;
};

template <class Make>
void compare(const column& printed, int rounds, Make make) {
    std::vector<bench::contender> contenders;
    for (const kind* one : kinds) {
        contenders.push_back({one->name, make(*one)});
    }
    const auto found = bench::figures(contenders, rounds);
    for (std::size_t i = 0; i < found.size(); ++i) {
        const std::string who = std::string(", ") + kinds[i]->name;
        bench::print_ratio(printed.value + who, found[i].value, found[0].value, printed.unit, "");
        bench::print_ratio(printed.second + who, found[i].processor_ns, found[0].processor_ns,
                           printed.second_unit, "");
    }
}

}  // namespace

int main(int argc, char** argv) {
    const int rounds = argc > 1 ? std::atoi(argv[1]) : 7;
    compare({"744 bytes", "744 bytes, processor time", "/s", "ns"}, rounds,
            [](const kind& one) { return with_client(one, stream); });
    compare({"a query, median", "a query, 99th percentile", "us", "us"}, rounds,
            [](const kind& one) { return with_client(one, query); });
    compare({"from start to the first answer", "private memory of an idle client", "us", "KiB"}, rounds,
            [](const kind& one) { return [&one] { return start(one); }; });
    return 0;
}
