// The way to the security service and back. Operations go out on its asynchronous socket under call
// ids of the daemon's own; the service's results are matched by call id and scc-type, so several
// operations can be under way under one call id. One exchange is one or more operations with one
// completion: it gets the first failure among them, 2020 when the service stays silent or dies.
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

// The first word of `value` is where the call id goes, for operations that have one.
struct Operation {
    u16 type = 0;
    u16 scc_type = 0;
    devkit::Bytes value;
};

struct Outcome {
    u32 result = 0;
    devkit::View value;  // the service's result item; empty when there was none
};

class ServiceBridge {
  public:
    using Completion = std::function<void(const Outcome&)>;

    ServiceBridge(EventLoop& loop, Clients& clients, const Trace& trace, std::chrono::milliseconds timeout);

    [[nodiscard]] bool present() const { return service_ != 0; }
    void attach(ClientId service) { service_ = service; }
    // Completes everything outstanding with 2020, the youngest first, so that changes are taken back
    // in the reverse order of their making.
    void detach();

    // The operations must differ in scc-type. Needs a present service.
    void submit(std::vector<Operation> operations, Completion completion);
    // For operations that are never answered.
    void post(const Operation& operation);
    // Takes a 402 item from either of the service's sockets.
    void take_result(const devkit::Item& item);

    [[nodiscard]] std::size_t outstanding() const { return exchanges_.size(); }

  private:
    using ExchangeId = u64;

    struct Exchange {
        u32 call_id = 0;
        std::vector<u16> scc_types;  // still outstanding
        std::size_t user_reads = 0;  // still outstanding
        u32 result = 0;
        Completion completion;
        EventLoop::TimerId timer;
    };

    struct Awaited {
        ExchangeId exchange = 0;
        devkit::Answer answer{};
    };

    struct UserRead {
        ExchangeId exchange = 0;  // may have timed out meanwhile
        devkit::MacAddress mac{};
    };

    static u64 match_key(u32 call_id, u16 scc_type) { return u64{call_id} << 16 | scc_type; }

    void send(ExchangeId id, Exchange& exchange, Operation& operation);
    void take_user_read(const devkit::Item& item);
    void settle(ExchangeId id, u32 result, devkit::View value);
    void finish(ExchangeId id, u32 result, devkit::View value);

    EventLoop& loop_;
    Clients& clients_;
    const Trace& trace_;
    std::chrono::milliseconds timeout_;
    ClientId service_ = 0;
    u32 last_call_id_;
    ExchangeId last_exchange_ = 0;
    std::map<ExchangeId, Exchange> exchanges_;
    std::unordered_map<u64, Awaited> awaited_;
    std::deque<UserRead> user_reads_;
};

}  // namespace scc::sccd
