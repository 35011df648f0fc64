// Operations through the service side (receive thread, queue, dispatch, handler, answer), compared with a
// floor: one thread that receives the same messages and sends the same answers.
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <semaphore>
#include <string>
#include <thread>
#include <vector>

#include "msg/bytes.h"
#include "peer.h"
#include "rounds.h"
#include "scclib.h"
#include "sockets.h"

namespace {

using namespace scc;
using bench::receive_exactly;
using bench::send_all;

constexpr u32 operations = 1000000;
constexpr u32 value_bytes = 140;

std::binary_semaphore g_registered{0};

void on_status(std::uint32_t status) {
    if (status == 1) {
        g_registered.release();
    }
}

int answer_at_once(scc_ss_acl_operation* operation) {
    operation->ret = 0;
    operation->op = SCC_SS_OP_CREATE;
    operation->callback(operation, sizeof *operation);
    return 0;
}

std::vector<u8> receive_message(int fd) {
    std::vector<u8> message(8);
    receive_exactly(fd, message.data(), 8);
    message.resize(load<u32>(message.data()));
    receive_exactly(fd, message.data() + 8, message.size() - 8);
    return message;
}

int listen_for_service() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string directory = std::string(std::getenv("TMPDIR")) + "/security/scc";
    if (std::system(("mkdir -p " + directory).c_str()) != 0) {
        _exit(1);
    }
    (directory + "/.sccd_sd_").copy(address.sun_path, sizeof address.sun_path - 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || listen(fd, 2) != 0) {
        _exit(1);
    }
    return fd;
}

void answer_registration(int fd) {
    (void)receive_message(fd);
    u8 reply[28] = {};
    store<u32>(reply, 0, sizeof reply);
    store<u8>(reply, 4, 1);
    store<u16>(reply, 5, 1);
    store<u32>(reply, 8, 12);
    store<u16>(reply, 14, msg::registration);
    send_all(fd, reply, sizeof reply);
}

// The daemon's side of both contenders: sends every operation and counts the answers. Operations per second.
double drive(int listener, u32 per_message) {
    const int sync = accept(listener, nullptr, nullptr);
    const int async = accept(listener, nullptr, nullptr);
    answer_registration(sync);
    answer_registration(async);
    std::vector<u8> message(8 + std::size_t{per_message} * (8 + value_bytes), 0);
    store<u32>(message.data(), 0, static_cast<u32>(message.size()));
    store<u8>(message.data(), 4, 1);
    store<u16>(message.data(), 5, static_cast<u16>(per_message));
    const double began = bench::now_s();
    std::thread counting([async] {
        for (u32 answered = 0; answered < operations;) {
            const std::vector<u8> answers = receive_message(async);
            answered += load<u16>(answers.data(), 5);
        }
    });
    for (u32 sent = 0; sent < operations; sent += per_message) {
        for (u32 i = 0; i < per_message; ++i) {
            u8* item = message.data() + 8 + std::size_t{i} * (8 + value_bytes);
            store<u32>(item, 0, value_bytes);
            store<u16>(item, 4, u16{131});
            store<u16>(item, 6, msg::acl);
            store<u32>(item, 8, sent + i + 1);
            store<u32>(item, 8 + 136, 1);
        }
        send_all(async, message.data(), message.size());
    }
    counting.join();
    return operations / (bench::now_s() - began);
}

void serve_with_library() {
    static scc_ss_reg_info info{};
    info.server_status = on_status;
    info.acl_create = answer_at_once;
    if (scc_ss_reg(&info) != 0) {
        _exit(1);
    }
    for (;;) {
        pause();
    }
}

int connect_to_daemon() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    (std::string(std::getenv("TMPDIR")) + "/security/scc/.sccd_sd_")
        .copy(address.sun_path, sizeof address.sun_path - 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        _exit(1);
    }
    return fd;
}

void register_on(int fd) {
    u8 request[28] = {};
    store<u32>(request, 0, sizeof request);
    store<u8>(request, 4, 1);
    store<u16>(request, 5, 1);
    store<u32>(request, 8, 12);
    store<u16>(request, 14, msg::registration);
    send_all(fd, request, sizeof request);
    (void)receive_message(fd);
}

// One thread that reads operations and sends their answers in batches of up to 8192 bytes.
void serve_bare() {
    const int sync = connect_to_daemon();
    const int async = connect_to_daemon();
    register_on(sync);
    register_on(async);
    std::vector<u8> out(8 + wire::batch_capacity_bytes);
    u32 used = 0;
    u16 count = 0;
    u32 answered = 0;
    for (;;) {
        const std::vector<u8> message = receive_message(async);
        item_reader items(load<u16>(message.data(), 5), message.data() + 8);
        item one;
        while (items.next(one)) {
            u8* at = out.data() + 8 + used;
            store<u32>(at, 0, 12);
            store<u16>(at, 4, one.sub_id);
            store<u16>(at, 6, msg::service_ret);
            store<u32>(at, 8, load<u32>(one.value.data()));
            store<u32>(at, 12, 0);
            store<u32>(at, 16, u32{131});
            used += 20;
            ++count;
            ++answered;
            if (used + 20 > wire::batch_capacity_bytes || answered == operations) {
                store<u32>(out.data(), 0, 8 + used);
                store<u8>(out.data(), 4, 1);
                store<u16>(out.data(), 5, count);
                send_all(async, out.data(), 8 + used);
                used = 0;
                count = 0;
            }
        }
    }
}

double seconds(const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

bench::figure operations_a_second(void (*serve)(), u32 per_message) {
    const bench::runtime_directory directory;
    const int listener = listen_for_service();
    const pid_t service = fork();
    if (service == 0) {
        close(listener);
        serve();
        _exit(0);
    }
    const double rate = drive(listener, per_message);
    kill(service, SIGKILL);
    rusage used{};
    wait4(service, nullptr, 0, &used);
    close(listener);
    return {rate, (seconds(used.ru_utime) + seconds(used.ru_stime)) * 1e9 / operations};
}

void compare(const std::string& what, u32 per_message, const char* target, int rounds) {
    const auto rates =
        bench::figures({{"floor", [=] { return operations_a_second(serve_bare, per_message); }},
                        {"library", [=] { return operations_a_second(serve_with_library, per_message); }}},
                       rounds);
    const auto print = [&](const char* who, const bench::figure& one, const char* wanted) {
        bench::print_ratio(what + who, one.value, rates[0].value, "/s", wanted);
        bench::print_ratio(what + who + ", processor time", one.processor_ns, rates[0].processor_ns, "ns",
                           "");
    };
    print(", floor", rates[0], "");
    print(", library", rates[1], target);
}

}  // namespace

// service_bench [rounds [1|50]]: both by default.
int main(int argc, char** argv) {
    const int rounds = argc > 1 ? std::atoi(argv[1]) : 7;
    const int only = argc > 2 ? std::atoi(argv[2]) : 0;
    if (only != 50) {
        compare("service operations, one a message", 1, "at least 0.9", rounds);
    }
    if (only != 1) {
        compare("service operations, 50 a message", 50, "at least 0.5", rounds);
    }
    return 0;
}
