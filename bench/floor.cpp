#include "floor.h"

#include <pthread.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <semaphore>
#include <string>
#include <thread>
#include <vector>

#include "floor_values.h"
#include "msg/bytes.h"
#include "rounds.h"
#include "sockets.h"

namespace bench {
namespace {

using namespace scc;
using namespace floor_detail;

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

pthread_rwlock_t g_outer = PTHREAD_RWLOCK_INITIALIZER;
pthread_rwlock_t g_inner = PTHREAD_RWLOCK_INITIALIZER;

template <class Values>
void receive_results(int fd, std::uint64_t requests, window& in_flight, Values& values) {
    std::vector<u8> body(1U << 20U);
    for (std::uint64_t got = 0; got < requests;) {
        u8 header[8];
        receive_exactly(fd, header, sizeof header);
        receive_exactly(fd, body.data(), load<u32>(header) - 8);
        const u16 items = load<u16>(header, 5);
        values.deliver(body.data(), items);
        got += items;
        in_flight.answered(items);
    }
}

template <duties Duties>
struct values_for {
    using type = no_values;
};
template <>
struct values_for<duties::calls> {
    using type = values_in_slots;
};
template <>
struct values_for<duties::search> {
    using type = values_in_blocks<false>;
};
template <>
struct values_for<duties::shared> {
    using type = values_in_blocks<true>;
};

// A message of as many items as the library's batch holds.
class batch {
  public:
    explicit batch(u32 value_bytes)
        : value_bytes_(value_bytes),
          entry_(value_bytes + 8),
          most_(wire::batch_capacity_bytes / entry_),
          message_(8 + std::size_t{most_} * entry_) {}

    [[nodiscard]] u32 most() const { return most_; }
    [[nodiscard]] bool is_full() const { return count_ == most_; }

    u8* add(u32 number) {
        u8* const item = message_.data() + 8 + used_;
        begin_item(item, value_bytes_, msg::d1x_port_open);
        store<u32>(item + 8, 0, number);
        ++count_;
        used_ += entry_;
        return item + 8;
    }

    void write_header() {
        store<u32>(message_.data(), 0, 8 + used_);
        store<u8>(message_.data(), 4, 1);
        store<u16>(message_.data(), 5, count_);
    }

    void send_on(int fd) {
        if (count_ != 0) {
            write_header();
            send_all(fd, message_.data(), 8 + std::size_t{used_});
            count_ = 0;
            used_ = 0;
        }
    }

  private:
    u32 value_bytes_;
    u32 entry_;
    u32 most_;
    u16 count_ = 0;
    u32 used_ = 0;
    std::vector<u8> message_;
};

std::atomic<u32> g_connection{1};

// Makes the requests; from several threads, if the duties include the locks.
template <duties Duties, class Values>
class requester {
  public:
    requester(int fd, std::uint32_t value_bytes, Values& values)
        : fd_(fd), value_(value_bytes, 1), values_(values), batch_(value_bytes) {}

    [[nodiscard]] u32 batch_items() const { return batch_.most(); }

    void request() {
        if constexpr (Duties == duties::none) {
            batch_.add(++number_);
            send_if_full();
            return;
        }
        const guard outer(g_outer);
        const u32 connection = g_connection.load();
        const u32 number = ++number_;
        values_.keep(number, value_.data());
        const guard inner(g_inner);
        u8* const at = batch_.add(number);
        if constexpr (Duties != duties::locks) {
            std::copy_n(value_.data() + 4, value_.size() - 4, at + 4);
        }
        if constexpr (Duties == duties::shared) {
            batch_.write_header();
            if (connection != g_connection.load()) {
                _exit(1);
            }
        }
        send_if_full();
    }

    void send_rest() { batch_.send_on(fd_); }

  private:
    void send_if_full() {
        if (batch_.is_full()) {
            batch_.send_on(fd_);
        }
    }

    int fd_;
    std::vector<u8> value_;
    Values& values_;
    batch batch_;
    u32 number_ = 0;
};

// Sends the requests from so many threads and receives their results.
template <duties Duties>
figure rate_with(std::uint32_t value_bytes, std::uint64_t requests, std::uint64_t outstanding,
                 std::uint64_t threads = 1) {
    using kept_values = typename values_for<Duties>::type;
    const connection link;
    window in_flight(outstanding);
    const auto values = std::make_unique<kept_values>(value_bytes, outstanding);
    std::thread receiving([&] { receive_results(link.async, requests, in_flight, *values); });
    requester<Duties, kept_values> maker(link.async, value_bytes, *values);
    // One thread waits for space once a batch; several share it in small parts.
    const std::uint64_t group = threads == 1 ? maker.batch_items() : 8;
    std::atomic<std::uint64_t> begun{0};
    const auto make_share = [&] {
        for (std::uint64_t left = requests / threads; left > 0;) {
            const std::uint64_t now = std::min(group, left);
            in_flight.wait_for_space(begun.fetch_add(now) + now - 1);
            for (std::uint64_t i = 0; i < now; ++i) {
                maker.request();
            }
            left -= now;
        }
    };
    const double began = now_s();
    const double used_before = processor_s();
    {
        std::vector<std::jthread> others;
        for (std::uint64_t i = 1; i < threads; ++i) {
            others.emplace_back(make_share);
        }
        make_share();
    }
    maker.send_rest();
    receiving.join();
    const auto count = static_cast<double>(requests);
    return {count / (now_s() - began), (processor_s() - used_before) * 1e9 / count};
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
    switch (of_a_request) {
        case duties::locks:
            return rate_with<duties::locks>(value_bytes, requests, outstanding);
        case duties::calls:
            return rate_with<duties::calls>(value_bytes, requests, outstanding);
        case duties::search:
            return rate_with<duties::search>(value_bytes, requests, outstanding);
        case duties::shared:
            return rate_with<duties::shared>(value_bytes, requests, outstanding);
        case duties::none:
            break;
    }
    return rate_with<duties::none>(value_bytes, requests, outstanding);
}

figure floor_rate_from_threads(std::uint32_t value_bytes, std::uint64_t requests, std::uint64_t outstanding,
                               std::uint64_t threads) {
    return rate_with<duties::shared>(value_bytes, requests, outstanding, threads);
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
