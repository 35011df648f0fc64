// Fixed work, for counting what it takes: `steps library WORK` and `steps floor WORK` print the operations
// that they did and, with counted_calls preloaded, what they asked of the C library; callgrind counts the
// instructions (scripts/steps.py). Other processes' load changes none of this: requests and results are
// separate phases, the checker runs when the program says so, and the daemon's side is another process, which
// is not counted.
#include <dlfcn.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <valgrind/callgrind.h>

#include <atomic>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <semaphore>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "counted_calls.h"
#include "msg/bytes.h"
#include "peer.h"
#include "scclib.h"
#include "sockets.h"

namespace {

using namespace scc;
using bench::answers;

constexpr u32 round_operations = 1000;
constexpr u32 rounds = 10;

// The checker's wait, which ends when the program says so.
std::counting_semaphore<> g_checker_waits{0};
std::counting_semaphore<> g_checker_may_run{0};

void run_checker() {
    g_checker_may_run.release();
    g_checker_waits.acquire();
}

}  // namespace

extern "C" int select(int /*count*/, fd_set* /*read*/, fd_set* /*write*/, fd_set* /*except*/,
                      timeval* /*timeout*/) {
    g_checker_waits.release();
    g_checker_may_run.acquire();
    return 0;
}

namespace {

// Counts from the end of the first round, which warms up, to the last.
class measurement {
  public:
    void begin() {
        read(before_);
        CALLGRIND_START_INSTRUMENTATION;
    }

    void end(unsigned long operations) {
        CALLGRIND_STOP_INSTRUMENTATION;
        bench::call_counts after{};
        read(after);
        std::printf("%lu", operations);
        for (std::size_t i = 0; i < after.size(); ++i) {
            std::printf(" %lu", after[i] - before_[i]);
        }
        std::printf("\n");
    }

  private:
    void read(bench::call_counts& counts) {
        if (read_counts_ != nullptr) {
            read_counts_(&counts);
        }
    }

    using read_function = void (*)(bench::call_counts*);
    read_function read_counts_ = reinterpret_cast<read_function>(dlsym(RTLD_DEFAULT, "bench_read_counts"));
    bench::call_counts before_{};
};

template <class Round>
void measure(unsigned long operations_a_round, Round one_round) {
    measurement counts;
    one_round(0);
    counts.begin();
    for (u32 i = 1; i <= rounds; ++i) {
        one_round(i);
    }
    counts.end(operations_a_round * rounds);
}

// Starts this program anew for the daemon's side, outside valgrind.
class daemon_process {
  public:
    daemon_process(int listener, const std::string& role, int go, int all_sent) {
        char self[PATH_MAX] = {};
        if (readlink("/proc/self/exe", self, sizeof self - 1) < 0) {
            _exit(1);
        }
        child_ = fork();
        if (child_ == 0) {
            unsetenv("LD_PRELOAD");
            execl(self, "steps", role.c_str(), std::to_string(listener).c_str(), std::to_string(go).c_str(),
                  std::to_string(all_sent).c_str(), nullptr);
            _exit(1);
        }
        close(listener);
    }
    ~daemon_process() {
        kill(child_, SIGKILL);
        waitpid(child_, nullptr, 0);
    }
    daemon_process(const daemon_process&) = delete;
    daemon_process& operator=(const daemon_process&) = delete;

  private:
    pid_t child_;
};

std::binary_semaphore g_registered{0};
std::binary_semaphore g_round_done{0};
u32 g_left = 0;  // results of the round

void on_status(std::uint32_t status) {
    if (status == 1) {
        g_registered.release();
    }
}

void seen_result() {
    if (--g_left == 0) {
        g_round_done.release();
    }
}

void start_client(std::uint8_t option) {
    static scc_reg_info info{};
    info.app_id = 5;
    info.option = option;
    info.handlers.server_status = on_status;
    info.handlers.d1x_port_open = [](std::uint32_t, std::uint32_t, const scc_config_record*) {
        seen_result();
    };
    info.handlers.addr_learning = [](std::uint32_t, std::uint32_t, std::uint32_t, std::uint8_t) {
        seen_result();
    };
    info.handlers.acl_create = [](std::uint32_t, std::uint32_t, const scc_acl_key*) { seen_result(); };
    info.handlers.acl_add_ace = [](std::uint32_t, std::uint32_t, const scc_acl_key*, const scc_ace_record*) {
        seen_result();
    };
    if (scc_svr_reg(&info) != 0) {
        _exit(1);
    }
    g_registered.acquire();
    g_checker_waits.acquire();
}

enum class release : int { all_together = 1, all_alone = 2 };

// The results of everything that was requested.
void await_results(release how) {
    run_checker();
    scc_warterline_notify(static_cast<int>(how));
    g_round_done.acquire();
}

template <class Request>
void client_rounds(std::uint8_t option, release how, Request request) {
    start_client(option);
    measure(round_operations, [&](u32 round) {
        g_left = round_operations;
        for (u32 i = 0; i < round_operations; ++i) {
            request(round, i);
        }
        await_results(how);
    });
}

void small_requests() {
    client_rounds(0, release::all_together, [](u32, u32) { scc_addr_learning(1, 1, nullptr); });
}

void request_record(u32 /*round*/, u32 /*i*/) {
    static const scc_config_record record{};
    scc_d1x_port_open(&record, nullptr);
}

void records_together() {
    client_rounds(0, release::all_together, request_record);
}

void records_alone() {
    client_rounds(0, release::all_alone, request_record);
}

// An ACL for each round; its creation counts as one of the operations.
void request_ace(u32 round, u32 i) {
    static scc_ace_record ace{};
    const scc_acl_key key{0, 3, round + 1, 0};
    if (i == 0) {
        scc_acl_create(&key, nullptr);
        return;
    }
    ace.sn = i;
    ace.ace_id = i;
    scc_acl_add_ace(&key, &ace, nullptr);
}

void aces() {
    client_rounds(0, release::all_together, request_ace);
}

void cached_aces() {
    client_rounds(1, release::all_together, request_ace);
}

void acl_look_ups() {
    start_client(1);
    g_left = round_operations;
    for (u32 id = 1; id <= round_operations; ++id) {
        const scc_acl_key key{0, 3, id, 0};
        scc_acl_create(&key, nullptr);
    }
    await_results(release::all_together);
    run_checker();  // which finishes the growth of the index
    measure(round_operations, [](u32) {
        for (u32 id = 1; id <= round_operations; ++id) {
            scc_acl_key key{0, 3, id, 0};
            (void)scc_acl_cls_get(&key);
        }
    });
}

void queries() {
    start_client(0);
    measure(round_operations, [](u32) {
        const std::uint8_t mac[6] = {2, 0, 0, 0, 0, 1};
        for (u32 i = 0; i < round_operations; ++i) {
            std::uint32_t ip = 0;
            if (scc_mac_query(mac, &ip) != 0) {
                _exit(1);
            }
        }
    });
}

// The floor's requests: the same messages from one thread, without locks and pending calls.

int connect_to_daemon() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    (std::string(std::getenv("TMPDIR")) + "/security/scc/.sccd_sd_")
        .copy(address.sun_path, sizeof address.sun_path - 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        std::perror("steps");
        _exit(1);
    }
    return fd;
}

void begin_message(u8* at, u32 length, u16 items) {
    store<u32>(at, 0, length);
    store<u8>(at, 4, wire::version);
    store<u16>(at, 5, items);
    store<u8>(at, 7, 0);
}

void begin_item(u8* at, u32 length, u16 type) {
    store<u32>(at, 0, length);
    store<u16>(at, 4, 0);
    store<u16>(at, 6, type);
}

struct bare_client {
    int sync = connect_to_daemon();
    int async = connect_to_daemon();
    std::vector<u8> body = std::vector<u8>(1U << 20U);

    bare_client() {
        for (const int fd : {sync, async}) {
            u8 message[28] = {};
            begin_message(message, sizeof message, 1);
            begin_item(message + 8, 12, msg::registration);
            bench::send_all(fd, message, sizeof message);
            receive(fd);
        }
    }

    u16 receive(int fd) {
        u8 header[8];
        bench::receive_exactly(fd, header, sizeof header);
        bench::receive_exactly(fd, body.data(), load<u32>(header) - 8);
        return load<u16>(header, 5);
    }
};

void bare_round(bare_client& client, std::vector<u8>& batch, u32 value_bytes, release how) {
    const u32 entry = value_bytes + 8;
    const u32 per_batch = wire::batch_capacity_bytes / entry;
    for (u32 sent = 0; sent < round_operations;) {
        const u32 now = std::min(per_batch, round_operations - sent);
        begin_message(batch.data(), 8 + now * entry, static_cast<u16>(now));
        for (u32 i = 0; i < now; ++i) {
            begin_item(batch.data() + 8 + i * entry, value_bytes, msg::d1x_port_open);
            store<u32>(batch.data() + 16 + i * entry, 0, sent + i + 1);
        }
        bench::send_all(client.async, batch.data(), 8 + std::size_t{now} * entry);
        sent += now;
    }
    u8 ask[20] = {};
    begin_message(ask, sizeof ask, 1);
    begin_item(ask + 8, 4, msg::water_line);
    store<u32>(ask, 16, static_cast<u32>(how));
    bench::send_all(client.sync, ask, sizeof ask);
    for (u32 got = 0; got < round_operations;) {
        got += client.receive(client.async);
    }
}

template <u32 ValueBytes, release How>
void bare_requests() {
    bare_client client;
    std::vector<u8> batch(8 + wire::batch_capacity_bytes, 0);
    measure(round_operations, [&](u32) { bare_round(client, batch, ValueBytes, How); });
}

void bare_queries() {
    bare_client client;
    u8 message[168] = {};
    measure(round_operations, [&](u32) {
        for (u32 i = 0; i < round_operations; ++i) {
            begin_message(message, sizeof message, 1);
            begin_item(message + 8, 152, msg::mac_query);
            bench::send_all(client.sync, message, sizeof message);
            client.receive(client.sync);
        }
    });
}

// The service's side. The daemon sends a round of operations; the first handler waits until all of them have
// been read, so that the processing thread never waits for the receiving one.

constexpr u32 operation_bytes = 140;
int g_go = -1;  // pipes with a byte for each round
int g_all_sent = -1;
u32 g_handled = 0;  // of the round

void say(int fd) {
    if (write(fd, "", 1) != 1) {
        _exit(1);
    }
}

void await(int fd) {
    char byte = 0;
    if (read(fd, &byte, 1) != 1) {
        _exit(1);
    }
}

int answer_at_once(scc_ss_acl_operation* operation) {
    if (g_handled == 0) {
        await(g_all_sent);
    }
    operation->ret = 0;
    operation->op = SCC_SS_OP_CREATE;
    operation->callback(operation, sizeof *operation);
    if (++g_handled == round_operations) {
        g_handled = 0;
        g_round_done.release();
    }
    return 0;
}

void service_operations() {
    static scc_ss_reg_info info{};
    info.server_status = on_status;
    info.acl_create = answer_at_once;
    if (scc_ss_reg(&info) != 0) {
        _exit(1);
    }
    g_registered.acquire();
    g_checker_waits.acquire();
    measure(round_operations, [](u32) {
        say(g_go);
        g_round_done.acquire();
        run_checker();
    });
}

void bare_operations() {
    bare_client client;
    std::vector<u8> message(1U << 16U);
    std::vector<u8> out(8 + wire::batch_capacity_bytes);
    const auto send_answers = [&](u32 used, u16 count) {
        begin_message(out.data(), 8 + used, count);
        bench::send_all(client.async, out.data(), 8 + used);
    };
    measure(round_operations, [&](u32) {
        say(g_go);
        await(g_all_sent);
        u32 used = 0;
        u16 count = 0;
        for (u32 answered = 0; answered < round_operations;) {
            item_reader items(client.receive(client.async), client.body.data());
            item one;
            while (items.next(one)) {
                u8* at = out.data() + 8 + used;
                begin_item(at, 12, msg::service_ret);
                store<u16>(at, 4, one.sub_id);
                store<u32>(at, 8, load<u32>(one.value.data()));
                store<u32>(at, 12, 0);
                store<u32>(at, 16, u32{msg::acl});
                used += 20;
                ++count;
                if (++answered == round_operations || used + 20 > wire::batch_capacity_bytes) {
                    send_answers(used, count);
                    used = 0;
                    count = 0;
                }
            }
        }
    });
}

// The daemon's side of the service.

std::vector<u8> operations_round(u32 per_message) {
    std::vector<u8> bytes;
    for (u32 sent = 0; sent < round_operations; sent += per_message) {
        const u32 length = 8 + per_message * (8 + operation_bytes);
        const std::size_t at = bytes.size();
        bytes.resize(at + length, 0);
        begin_message(bytes.data() + at, length, static_cast<u16>(per_message));
        for (u32 i = 0; i < per_message; ++i) {
            u8* item = bytes.data() + at + 8 + std::size_t{i} * (8 + operation_bytes);
            begin_item(item, operation_bytes, msg::acl);
            store<u16>(item, 4, u16{131});
            store<u32>(item, 8, sent + i + 1);
            store<u32>(item, 8 + 136, 1);
        }
    }
    return bytes;
}

void answer_registration(int fd) {
    u8 request[28];
    bench::receive_exactly(fd, request, sizeof request);
    u8 reply[28] = {};
    begin_message(reply, sizeof reply, 1);
    begin_item(reply + 8, 12, msg::registration);
    bench::send_all(fd, reply, sizeof reply);
}

[[noreturn]] void send_operations(int listener, u32 per_message, int go, int all_sent) {
    const int sync = accept(listener, nullptr, nullptr);
    const int async = accept(listener, nullptr, nullptr);
    answer_registration(sync);
    answer_registration(async);
    const std::vector<u8> operations = operations_round(per_message);
    std::vector<u8> body(1U << 16U);
    for (;;) {
        await(go);
        bench::send_all(async, operations.data(), operations.size());
        say(all_sent);
        for (u32 answered = 0; answered < round_operations;) {
            u8 header[8];
            bench::receive_exactly(async, header, sizeof header);
            bench::receive_exactly(async, body.data(), load<u32>(header) - 8);
            answered += load<u16>(header, 5);
        }
    }
}

struct work {
    const char* name;
    void (*library)();
    void (*floor)();
    u32 per_message;  // operations of the service; 0 for an application
};

constexpr work works[] = {
    {"12 bytes", small_requests, bare_requests<12, release::all_together>, 0},
    {"744 bytes, results together", records_together, bare_requests<744, release::all_together>, 0},
    {"744 bytes, one result a message", records_alone, bare_requests<744, release::all_alone>, 0},
    {"query", queries, bare_queries, 0},
    {"ACE without cache", aces, bare_requests<936, release::all_together>, 0},
    {"ACE with cache", cached_aces, bare_requests<936, release::all_together>, 0},
    {"ACL look-up", acl_look_ups, nullptr, 0},
    {"service operation, 1 a message", service_operations, bare_operations, 1},
    {"service operation, 50 a message", service_operations, bare_operations, 50},
};

int run_work(const work& one, bool with_library) {
    const bench::runtime_directory directory;
    const int listener = bench::listen_in_runtime_directory();
    int go[2];
    int all_sent[2];
    if (pipe(go) != 0 || pipe(all_sent) != 0) {
        return 1;
    }
    g_go = go[1];
    g_all_sent = all_sent[0];
    const bool is_service = one.per_message != 0;
    const daemon_process serving(
        listener, is_service ? "operations=" + std::to_string(one.per_message) : "peer", go[0], all_sent[1]);
    (with_library ? one.library : one.floor)();
    std::fflush(stdout);
    return 0;
}

}  // namespace

// steps library|floor WORK; steps list.
int main(int argc, char** argv) {
    const std::string_view role = argc > 1 ? argv[1] : "";
    constexpr std::string_view operations = "operations=";
    if (role == "peer" && argc == 5) {
        bench::serve(std::atoi(argv[2]), {answers::hold});
    } else if (role.starts_with(operations) && argc == 5) {
        send_operations(std::atoi(argv[2]), static_cast<u32>(std::atoi(role.data() + operations.size())),
                        std::atoi(argv[3]), std::atoi(argv[4]));
    }
    for (const work& one : works) {
        if (role == "list") {
            std::printf("%s\t%d\n", one.name, one.floor != nullptr ? 1 : 0);
        } else if (argc == 3 && one.name == std::string_view(argv[2])) {
            return run_work(one, role == "library");
        }
    }
    return role == "list" ? 0 : 2;
}
