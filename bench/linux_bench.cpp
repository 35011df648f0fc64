// What ACLs in the kernel's packet filter cost: from an application through the library, the daemon and
// scc-ss-linux to the kernel, beside nft(8) with the same rules. Everything happens in network namespaces of
// its own.
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <semaphore>
#include <string>
#include <vector>

#include "linux/kernel_back_end.h"
#include "peer.h"
#include "rounds.h"
#include "scc_records.h"
#include "scclib.h"

namespace {

constexpr std::uint32_t long_acl = 10'000;

[[noreturn]] void fail(const std::string& why) {
    std::fprintf(stderr, "%s\n", why.c_str());
    std::exit(1);
}

void shell(const std::string& command) {
    if (std::system(command.c_str()) != 0) {
        fail("failed: " + command);
    }
}

// A network namespace and a TMPDIR for this process and those that it starts. What w1 sends, w0 receives.
class sandbox {
  public:
    sandbox() {
        if (unshare(CLONE_NEWNET) != 0) {
            fail(std::string("unshare: ") + std::strerror(errno));
        }
        shell(
            "ip link set lo up && ip link add w0 type veth peer name w1 && "
            "sysctl -qw net.ipv6.conf.w0.disable_ipv6=1 net.ipv6.conf.w1.disable_ipv6=1 && "
            "ip link set w0 up && ip link set w1 up");
    }

  private:
    bench::runtime_directory directory_;
};

// The service's process; its rules stay when it ends.
class linux_service {
  public:
    linux_service() {
        const auto tree = std::filesystem::read_symlink("/proc/self/exe").parent_path().parent_path();
        const std::string map = std::string(std::getenv("TMPDIR")) + "/ports.map";
        std::ofstream(map) << "ifx 1 w0\n";
        const std::string output = std::string(std::getenv("TMPDIR")) + "/service.log";
        child_ = fork();
        if (child_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            (void)!std::freopen(output.c_str(), "w", stdout);
            execl((tree / "devkit/linux/scc-ss-linux").c_str(), "scc-ss-linux", "--map", map.c_str(),
                  "--report", "0", nullptr);
            _exit(1);
        }
        // Without a service the daemon answers by itself.
        std::string text;
        while (text.find("registered") == std::string::npos) {
            usleep(1000);
            std::ifstream file(output);
            text.assign(std::istreambuf_iterator<char>(file), {});
        }
    }
    ~linux_service() {
        kill(child_, SIGKILL);
        waitpid(child_, nullptr, 0);
    }
    linux_service(const linux_service&) = delete;
    linux_service& operator=(const linux_service&) = delete;

    // Processor time of all its threads, in the kernel and outside.
    [[nodiscard]] double processor_s() const {
        std::ifstream file("/proc/" + std::to_string(child_) + "/stat");
        const std::string text((std::istreambuf_iterator<char>(file)), {});
        unsigned long user = 0;
        unsigned long kernel = 0;
        (void)std::sscanf(text.c_str() + text.rfind(')'),
                          ") %*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu", &user, &kernel);
        return static_cast<double>(user + kernel) / static_cast<double>(sysconf(_SC_CLK_TCK));
    }

  private:
    pid_t child_ = -1;
};

// ---- the application ----

std::binary_semaphore g_registered{0};
std::counting_semaphore<> g_done{0};

void take(std::uint32_t result) {
    if (result != 0) {
        fail(std::string("refused: ") + scc_strerror(static_cast<std::int32_t>(result)));
    }
    g_done.release();
}

constexpr scc_acl_key key{0, 5, 1, 0};

void start_application() {
    static scc_reg_info info{};
    info.app_id = 5;
    info.handlers.server_status = [](std::uint32_t status) {
        if (status == 1) {
            g_registered.release();
        }
    };
    info.handlers.acl_create = [](std::uint32_t result, auto...) { take(result); };
    info.handlers.acl_add_ace = [](std::uint32_t result, auto...) { take(result); };
    info.handlers.acl_delete_ace = [](std::uint32_t result, auto...) { take(result); };
    info.handlers.acl_apply = [](std::uint32_t result, auto...) { take(result); };
    if (scc_svr_reg(&info) != 0) {
        fail("not registered");
    }
    g_registered.acquire();
}

void wait_for(std::uint32_t results) {
    for (; results > 0; --results) {
        g_done.acquire();
    }
}

scc_ace_record ace_of(std::uint32_t number, const std::string& rule) {
    scc_ace_record ace{};
    if (scc_ace_parse((std::to_string(number) + rule).c_str(), &ace, nullptr) != 0) {
        fail("no rule: " + rule);
    }
    return ace;
}

std::string network_of(std::uint32_t number) {
    return "10." + std::to_string(number >> 8) + "." + std::to_string(number & 0xFF) + ".1";
}

std::vector<scc_ace_record> aces_of(std::uint32_t count) {
    std::vector<scc_ace_record> aces;
    for (std::uint32_t number = 1; number <= count; ++number) {
        aces.push_back(ace_of(number, " deny tcp host " + network_of(number) + " any eq 80"));
    }
    return aces;
}

void add(const std::vector<scc_ace_record>& aces) {
    for (const scc_ace_record& ace : aces) {
        while (scc_acl_add_ace(&key, &ace, nullptr) != 0) {
            usleep(1000);
        }
    }
    wait_for(static_cast<std::uint32_t>(aces.size()));
}

void create_and_apply() {
    scc_acl_create(&key, nullptr);
    wait_for(1);
    scc_records_application fields{};
    fields.key = key;
    fields.ifx = 1;
    scc_acl_apply_record record{};
    if (scc_records_encode_application(&fields, &record, nullptr) != 0) {
        fail("no application");
    }
    scc_acl_apply(&record, nullptr);
    wait_for(1);
}

// Daemon, service and this process as the application, which has applied an empty ACL. The rules outlive
// them.
class whole_system {
  public:
    whole_system() {
        start_application();
        create_and_apply();
    }

    // Of the service.
    [[nodiscard]] double processor_s() const { return service_.processor_s(); }

  private:
    bench::development_daemon daemon_;
    linux_service service_;
};

// ---- beside nft ----

// The rules that the service makes of the same ACL, in nft's own language.
std::string write_rules(std::uint32_t count) {
    const std::string path = std::string(std::getenv("TMPDIR")) + "/rules.nft";
    std::ofstream file(path);
    file << "table netdev other {\ncounter acl { }\n";
    for (std::uint32_t number = 1; number <= count; ++number) {
        file << "counter ace-" << number << " { }\n";
    }
    file << "chain acl {\n";
    for (std::uint32_t number = 1; number <= count; ++number) {
        file << "meta protocol ip ip saddr " << network_of(number)
             << " @nh,48,16 & 0x1fff == 0 meta l4proto 6 @th,16,16 80 counter name acl counter name ace-"
             << number << " drop comment \"a2 " << number << " " << number << " 0 0123456789abcdef 1/1\"\n";
    }
    file << "}\nchain in { type filter hook ingress device w0 priority 0; jump acl; }\n}\n";
    return path;
}

double ms_of(const std::string& command) {
    const double began = bench::now_s();
    shell(command);
    return (bench::now_s() - began) * 1e3;
}

bench::figure load_with_service(const std::vector<scc_ace_record>& aces) {
    const sandbox around;
    const whole_system system;
    const double began = bench::now_s();
    add(aces);
    return (bench::now_s() - began) * 1e3;
}

bench::figure load_with_nft() {
    const sandbox around;
    return ms_of("nft -f " + write_rules(long_acl));
}

// Percent of a processor.
bench::figure change_steadily(const std::vector<scc_ace_record>& aces, std::uint32_t rate, double seconds) {
    const sandbox around;
    const whole_system system;
    add(aces);
    const double began = bench::now_s();
    const double before = system.processor_s();
    const auto changes = static_cast<std::uint32_t>(rate * seconds);
    for (std::uint32_t change = 0; change < changes; ++change) {
        // Each goes and comes back, here and there in the list.
        const scc_ace_record& ace = aces[(change / 2 * 7919) % aces.size()];
        if (change % 2 == 0) {
            scc_acl_delete_ace(&key, &ace, nullptr);
        } else {
            scc_acl_add_ace(&key, &ace, nullptr);
        }
        const double due = began + (change + 1) / static_cast<double>(rate);
        while (bench::now_s() < due) {
            usleep(1000);
        }
    }
    wait_for(changes);
    return (system.processor_s() - before) / (bench::now_s() - began) * 100;
}

// Reads all counters in this process, from the rules that a service left.
bench::figure read_counters(const std::vector<scc_ace_record>& aces, bool with_nft) {
    const sandbox around;
    {
        const whole_system system;
        add(aces);
    }
    if (with_nft) {
        return ms_of("nft list counters table netdev scclib > /dev/null");
    }
    std::string problem;
    const auto filter = scc::kernel::open_packet_filter(problem);
    if (filter == nullptr) {
        fail(problem);
    }
    scc::service::forwarding_table table;
    scc::kernel::kernel_back_end back_end(table, {}, *filter, [](const std::string&) {});
    if (const std::uint32_t error = back_end.start(); error != 0) {
        fail(std::string("start: ") + std::strerror(static_cast<int>(error)));
    }
    std::map<std::string, scc::kernel::counted> counters;
    const double began = bench::now_s();
    const std::uint32_t error = back_end.refresh_counters(counters);
    const double ms = (bench::now_s() - began) * 1e3;
    if (error != 0 || counters.size() <= aces.size()) {
        fail("counters: error " + std::to_string(error) + ", " + std::to_string(counters.size()));
    }
    return ms;
}

// ---- packets ----

// Millions of packets a second that pass all ACEs but the last, which counts them.
bench::figure packet_rate(std::uint32_t aces) {
    const sandbox around;
    const whole_system system;
    std::vector<scc_ace_record> list = aces_of(aces - 1);
    list.push_back(ace_of(aces, " permit ip any any"));
    add(list);

    const int sender = socket(AF_PACKET, SOCK_RAW, 0);
    sockaddr_ll to{};
    to.sll_family = AF_PACKET;
    to.sll_ifindex = static_cast<int>(if_nametoindex("w1"));
    // UDP from 192.0.2.1 to 192.0.2.2, for nobody's address.
    std::array<unsigned char, 60> frame = {2,    0, 0,   0,  0, 9, 2, 0, 0,  0,  0, 1, 8,   0,
                                           0x45, 0, 0,   46, 0, 1, 0, 0, 64, 17, 0, 0, 192, 0,
                                           2,    1, 192, 0,  2, 2, 0, 7, 0,  7,  0, 26};
    iovec part{frame.data(), frame.size()};
    std::array<mmsghdr, 64> messages{};
    for (mmsghdr& message : messages) {
        message.msg_hdr = {&to, sizeof to, &part, 1, nullptr, 0, 0};
    }
    constexpr double seconds = 1;
    constexpr std::uint64_t packets_max = 2'000'000;
    const double began = bench::now_s();
    std::uint64_t sent = 0;
    while (sent < packets_max && bench::now_s() - began < seconds) {
        const int now = sendmmsg(sender, messages.data(), messages.size(), 0);
        if (now <= 0) {
            fail(std::string("sendmmsg: ") + std::strerror(errno));
        }
        sent += static_cast<std::uint64_t>(now);
    }
    const double lasted = bench::now_s() - began;
    close(sender);
    std::uint64_t counted = 0;
    if (scc_ace_get_counter(&key, aces, &counted) != 0 || counted == 0 || counted > sent) {
        fail(std::to_string(sent) + " packets sent, " + std::to_string(counted) + " counted");
    }
    return static_cast<double>(counted) / lasted;
}

std::string with_count(const char* what, std::uint32_t count) {
    return std::string(what) + ", " + std::to_string(count) + " ACEs";
}

}  // namespace

// linux_bench [rounds]
int main(int argc, char** argv) {
    const int rounds = argc > 1 ? std::atoi(argv[1]) : 3;
    if (unshare(CLONE_NEWNET) != 0) {
        std::puts("left out: needs the right to make network namespaces");
        return 0;
    }
    const auto aces = aces_of(long_acl);
    const auto loads = bench::medians(
        {{"nft", load_with_nft}, {"service", [&] { return load_with_service(aces); }}}, rounds);
    bench::print_ratio("nft -f, 10000 ACEs", loads[0], loads[0], "ms", "");
    bench::print_ratio("from application to kernel, 10000 ACEs", loads[1], loads[0], "ms", "at most 1.3");
    constexpr double seconds = 5;
    for (const std::uint32_t rate : {10u, 100u}) {
        const auto used =
            bench::medians({{"", [&] { return change_steadily(aces, rate, seconds); }}}, rounds);
        bench::print_ratio(std::to_string(rate) + " changes a second in 10000 ACEs, of a processor", used[0],
                           100, "%", rate == 100 ? "at most 0.10" : "");
    }
    const auto reads = bench::medians({{"nft", [&] { return read_counters(aces, true); }},
                                       {"service", [&] { return read_counters(aces, false); }}},
                                      rounds);
    bench::print_ratio("nft list counters, 10000 ACEs", reads[0], reads[0], "ms", "");
    bench::print_ratio("all counters, 10000 ACEs", reads[1], reads[0], "ms", "at most 2");
    double first = 0;
    for (const std::uint32_t count : {10u, 1'000u, 10'000u}) {
        const auto rate = bench::medians({{"", [&] { return packet_rate(count); }}}, rounds);
        first = first == 0 ? rate[0] : first;
        bench::print_ratio(with_count("packets that pass", count), rate[0], first, "1/s", "");
    }
    return 0;
}
