// Sends operations to the security service and matches its results. Operations have call ids of the
// daemon's own; results are matched by call id and scc-type, so several operations can share a call id. An
// exchange is one or more operations with one completion, which gets the first failure among them, or 2020
// if the service does not answer or is lost.
#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <unordered_map>
#include <vector>

#include "common/messages.h"
#include "sccd/clients.h"

namespace scc::sccd {

// If the operation has a call id, it is written to the first word of `value`.
struct service_operation {
    u16 type = 0;
    u16 scc_type = 0;
    devkit::byte_buffer value;
};

[[nodiscard]] std::vector<service_operation> one(service_operation operation);

struct service_outcome {
    u32 result = 0;
    devkit::byte_view value;  // the service's result item; empty if there is none
};

class service_bridge {
  public:
    using completion_handler = std::function<void(const service_outcome&)>;

    service_bridge(event_loop& loop, client_sockets& clients, const trace_log& trace,
                   std::chrono::milliseconds timeout);

    [[nodiscard]] bool present() const { return service_ != 0; }
    void attach(client_id service) { service_ = service; }
    // Completes everything outstanding with 2020, newest first, so that changes are undone in reverse order.
    void detach();

    // The operations must differ in scc-type. A service must be present.
    void submit(std::vector<service_operation> operations, completion_handler completion);
    // For operations that are never answered.
    void post(const service_operation& operation);
    // Takes a 402 item from either of the service's sockets.
    void take_result(const devkit::wire_item& item);

    [[nodiscard]] std::size_t outstanding() const { return exchanges_.size(); }

  private:
    using exchange_id = u64;

    struct service_exchange {
        u32 call_id = 0;
        std::vector<u16> scc_types;  // still outstanding
        std::size_t user_reads = 0;  // still outstanding
        u32 result = 0;
        completion_handler completion;
        event_loop::timer_id timer;
    };

    struct awaited_result {
        exchange_id exchange = 0;
        devkit::answer_kind answer{};
    };

    struct awaited_user_read {
        exchange_id exchange = 0;  // may have timed out
        devkit::mac_address mac{};
    };

    static u64 match_key(u32 call_id, u16 scc_type) { return u64{call_id} << 16 | scc_type; }

    void send(exchange_id id, service_exchange& exchange, service_operation& operation);
    void take_user_read(const devkit::wire_item& item);
    void settle(exchange_id id, u32 result, devkit::byte_view value);
    void finish(exchange_id id, u32 result, devkit::byte_view value);

    event_loop& loop_;
    client_sockets& clients_;
    const trace_log& trace_;
    std::chrono::milliseconds timeout_;
    client_id service_ = 0;
    u32 last_call_id_;
    exchange_id last_exchange_ = 0;
    std::map<exchange_id, service_exchange> exchanges_;
    std::unordered_map<u64, awaited_result> awaited_;
    std::deque<awaited_user_read> user_reads_;
};

}  // namespace scc::sccd
