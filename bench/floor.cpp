#include "floor.h"

#include <pthread.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <bit>
#include <cstdio>
#include <cstdlib>
#include <semaphore>
#include <string>
#include <thread>
#include <vector>

#include "msg/bytes.h"
#include "rounds.h"
#include "sockets.h"

namespace bench {
namespace {

using namespace scc;

int connect_to_peer() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    (std::string(std::getenv("TMPDIR")) + "/security/scc/.sccd_sd_")
        .copy(address.sun_path, sizeof address.sun_path - 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        std::perror("floor");
        _exit(1);
    }
    return fd;
}

void begin_item(u8* at, u32 length, u16 type) {
    store<u32>(at, 0, length);
    store<u16>(at, 4, 0);
    store<u16>(at, 6, type);
}

void register_on(int fd) {
    u8 message[28] = {};
    store<u32>(message, 0, sizeof message);
    store<u8>(message, 4, 1);
    store<u16>(message, 5, 1);
    begin_item(message + 8, 12, msg::registration);
    send_all(fd, message, sizeof message);
    u8 answer[28];
    receive_exactly(fd, answer, sizeof answer);
}

struct connection {
    int sync = connect_to_peer();
    int async = connect_to_peer();

    connection() {
        register_on(sync);
        register_on(async);
    }
};

// The values of the outstanding requests, the number of each request being its place: no allocation, no
// search.
class kept_values {
  public:
    kept_values(std::uint32_t value_bytes, std::uint64_t outstanding)
        : bytes_(value_bytes), places_(std::bit_ceil(outstanding)), values_(places_ * value_bytes) {}

    u8* of(u32 number) { return &values_[(number & (places_ - 1)) * bytes_]; }

  private:
    std::size_t bytes_;
    std::size_t places_;
    std::vector<u8> values_;
};

std::uint64_t g_handled = 0;

void handle_result(u32 number, u32 result, const u8* value) {
    g_handled += number + result + value[0];
}

void (*volatile g_handler)(u32, u32, const u8*) = handle_result;

pthread_rwlock_t g_outer = PTHREAD_RWLOCK_INITIALIZER;
pthread_rwlock_t g_inner = PTHREAD_RWLOCK_INITIALIZER;

void take_and_release_locks() {
    pthread_rwlock_wrlock(&g_outer);
    pthread_rwlock_wrlock(&g_inner);
    pthread_rwlock_unlock(&g_inner);
    pthread_rwlock_unlock(&g_outer);
}

// A result is an item of 16 bytes after its head: the request's number, the result. As the library does,
// takes the inner lock once for so many results.
void call_handlers(const u8* body, u16 items, kept_values& values) {
    constexpr u16 results_a_lock = 32;
    for (u16 i = 0; i < items; ++i) {
        if (i % results_a_lock == 0) {
            pthread_rwlock_wrlock(&g_inner);
            pthread_rwlock_unlock(&g_inner);
        }
        const u32 number = load<u32>(body, 8);
        g_handler(number, load<u32>(body, 12), values.of(number));
        body += 8 + load<u32>(body);
    }
}

// With values, calls a handler with each.
void receive_results(int fd, std::uint64_t requests, window& in_flight, kept_values* values) {
    std::vector<u8> body(1U << 20U);
    for (std::uint64_t got = 0; got < requests;) {
        u8 header[8];
        receive_exactly(fd, header, sizeof header);
        receive_exactly(fd, body.data(), load<u32>(header) - 8);
        const u16 items = load<u16>(header, 5);
        if (values != nullptr) {
            call_handlers(body.data(), items, *values);
        }
        got += items;
        in_flight.answered(items);
    }
}

}  // namespace

void window::wait_for_space(std::uint64_t sent) {
    for (;;) {
        const auto bell = std::atomic_ref(bell_).load();
        if (sent < count() + width_) {
            return;
        }
        std::atomic_ref(bell_).wait(bell);
    }
}

void window::wait_for_all(std::uint64_t sent) {
    while (count() < sent) {
        std::this_thread::sleep_for(std::chrono::microseconds(50));
    }
}

void window::answered(std::uint64_t number) {
    const std::uint64_t before = std::atomic_ref(done_).fetch_add(number);
    if (before / step_ != (before + number) / step_) {
        std::atomic_ref(bell_).fetch_add(1);
        std::atomic_ref(bell_).notify_one();
    }
}

std::uint64_t window::count() const {
    return std::atomic_ref(const_cast<std::uint64_t&>(done_)).load();
}

figure floor_rate(std::uint32_t value_bytes, std::uint64_t requests, std::uint64_t outstanding,
                  duties of_a_request) {
    const connection link;
    window in_flight(outstanding);
    const std::vector<u8> callers_value(value_bytes, 1);
    kept_values values(value_bytes, outstanding);
    std::thread receiving([&] {
        receive_results(link.async, requests, in_flight, of_a_request == duties::calls ? &values : nullptr);
    });
    const u32 entry = value_bytes + 8;
    const u32 per_batch = wire::batch_capacity_bytes / entry;
    std::vector<u8> batch(8 + std::size_t{per_batch} * entry, 0);
    const double began = now_s();
    const double used_before = processor_s();
    for (std::uint64_t sent = 0; sent < requests;) {
        const auto now = static_cast<u32>(std::min<std::uint64_t>(per_batch, requests - sent));
        in_flight.wait_for_space(sent + now - 1);
        store<u32>(batch.data(), 0, 8 + now * entry);
        store<u8>(batch.data(), 4, 1);
        store<u16>(batch.data(), 5, static_cast<u16>(now));
        for (u32 i = 0; i < now; ++i) {
            u8* const item = batch.data() + 8 + i * entry;
            const auto number = static_cast<u32>(sent + i + 1);
            if (of_a_request != duties::none) {
                take_and_release_locks();
            }
            if (of_a_request == duties::calls) {
                std::copy_n(callers_value.data(), value_bytes, values.of(number));
                std::copy_n(callers_value.data(), value_bytes, item + 8);
            }
            begin_item(item, value_bytes, msg::d1x_port_open);
            store<u32>(item + 8, 0, number);
        }
        send_all(link.async, batch.data(), 8 + std::size_t{now} * entry);
        sent += now;
    }
    receiving.join();
    const auto count = static_cast<double>(requests);
    return {count / (now_s() - began), (processor_s() - used_before) * 1e9 / count};
}

double floor_round_trip(int rounds) {
    const connection link;
    u8 message[168] = {};
    store<u32>(message, 0, sizeof message);
    store<u8>(message, 4, 1);
    store<u16>(message, 5, 1);
    begin_item(message + 8, 152, msg::mac_query);
    std::vector<double> times;
    for (int i = 0; i < rounds; ++i) {
        u8 answer[52];
        const double began = now_s();
        send_all(link.sync, message, sizeof message);
        receive_exactly(link.sync, answer, 8);
        receive_exactly(link.sync, answer + 8, sizeof answer - 8);
        times.push_back(now_s() - began);
    }
    std::sort(times.begin(), times.end());
    return times[times.size() / 2];
}

double floor_one_result(int rounds) {
    const connection link;
    std::binary_semaphore arrived(0);
    std::thread receiving([&] {
        for (int i = 0; i < rounds; ++i) {
            u8 result[24];
            receive_exactly(link.async, result, 8);
            receive_exactly(link.async, result + 8, sizeof result - 8);
            arrived.release();
        }
    });
    u8 request[28] = {};
    store<u32>(request, 0, sizeof request);
    store<u8>(request, 4, 1);
    store<u16>(request, 5, 1);
    begin_item(request + 8, 12, msg::addr_learning);
    u8 ask[20] = {};
    store<u32>(ask, 0, sizeof ask);
    store<u8>(ask, 4, 1);
    store<u16>(ask, 5, 1);
    begin_item(ask + 8, 4, msg::water_line);
    std::vector<double> times;
    for (int i = 0; i < rounds; ++i) {
        send_all(link.async, request, sizeof request);
        const double began = now_s();
        send_all(link.sync, ask, sizeof ask);
        arrived.acquire();
        times.push_back(now_s() - began);
    }
    receiving.join();
    std::sort(times.begin(), times.end());
    return times[times.size() / 2];
}

}  // namespace bench
