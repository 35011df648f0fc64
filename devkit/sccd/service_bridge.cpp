#include "sccd/service_bridge.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "sccd/change.h"

namespace scc::sccd {
namespace {

using devkit::answer_kind;
using devkit::byte_view;
using devkit::message_route;
using devkit::wire_item;

// A result of a user read: call id, 4 bytes, 88-byte user entry, result, 4 bytes.
constexpr std::size_t user_read_bytes = 104;
constexpr std::size_t user_read_mac = 16;
constexpr std::size_t user_read_result = 96;
// A counter result ends with the counter and the result code; all others have the code in the second word.
constexpr std::size_t counter_result = 40;
constexpr std::size_t counter_result_bytes = 44;
constexpr std::size_t plain_result = 4;
constexpr std::size_t plain_result_bytes = 8;

answer_kind answer_of(u16 type) {
    const devkit::message_type* const row = devkit::find_message(message_route::operation, type);
    return row == nullptr ? answer_kind::none : row->answer;
}

// A service may outlive the daemon and answer its predecessor's operations, or keep their scc-types forever.
// Call ids therefore start at the clock's microseconds: no daemon uses a million a second, so they are
// greater than the predecessor's.
u32 call_id_of_this_moment() {
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return static_cast<u32>(std::chrono::duration_cast<std::chrono::microseconds>(now).count());
}

}  // namespace

std::vector<service_operation> one(service_operation operation) {
    std::vector<service_operation> operations;
    operations.push_back(std::move(operation));
    return operations;
}

service_bridge::service_bridge(event_loop& loop, client_sockets& clients, const trace_log& trace,
                               std::chrono::milliseconds timeout)
    : loop_(loop),
      clients_(clients),
      trace_(trace),
      timeout_(timeout),
      last_call_id_(call_id_of_this_moment()) {}

void service_bridge::detach() {
    service_ = 0;
    user_reads_.clear();
    awaited_.clear();
    while (!exchanges_.empty()) {
        finish(exchanges_.rbegin()->first, result::service_timeout, {});
    }
}

void service_bridge::submit(std::vector<service_operation> operations, completion_handler completion) {
    const exchange_id id = ++last_exchange_;
    service_exchange& exchange = exchanges_[id];
    exchange.call_id = ++last_call_id_;
    exchange.completion = std::move(completion);
    exchange.timer = loop_.after(timeout_, [this, id] {
        trace_.note("the service has not answered in time");
        finish(id, result::service_timeout, {});
    });
    for (service_operation& operation : operations) {
        send(id, exchange, operation);
    }
}

void service_bridge::send(exchange_id id, service_exchange& exchange, service_operation& operation) {
    const answer_kind answer = answer_of(operation.type);
    if (answer == answer_kind::user_read) {
        user_reads_.push_back({id, devkit::mac_at(operation.value, user_read_mac)});
        ++exchange.user_reads;
    } else {
        // A data recovery is answered with scc-type 0, whatever was sent.
        const u16 awaited = answer == answer_kind::untyped ? u16{0} : operation.scc_type;
        awaited_[match_key(exchange.call_id, awaited)] = {id, answer};
        exchange.scc_types.push_back(awaited);
    }
    devkit::write_at(operation.value, 0, exchange.call_id);
    clients_.send_async(service_, operation.scc_type, operation.type, operation.value);
}

void service_bridge::post(const service_operation& operation) {
    if (present()) {
        clients_.send_async(service_, operation.scc_type, operation.type, operation.value);
    }
}

void service_bridge::take_result(const wire_item& item) {
    const u32 call_id = devkit::u32_at(item.value, 0);
    const auto awaited = awaited_.find(match_key(call_id, item.sub_id));
    if (item.sub_id == 0 && item.value.size() == user_read_bytes && !user_reads_.empty()) {
        return take_user_read(item);
    }
    if (awaited == awaited_.end()) {
        trace_.note(fmt::format("result for call {} scc-type {} matches nothing", call_id, item.sub_id));
        return;
    }
    const bool counter = awaited->second.answer == answer_kind::counter;
    if (item.value.size() < (counter ? counter_result_bytes : plain_result_bytes)) {
        trace_.note("result is too short and ignored");
        return;
    }
    const exchange_id id = awaited->second.exchange;
    awaited_.erase(awaited);
    std::erase(exchanges_[id].scc_types, item.sub_id);
    settle(id, devkit::u32_at(item.value, counter ? counter_result : plain_result), item.value);
}

// A successful read names its user; a failed one does not and is matched to the oldest.
void service_bridge::take_user_read(const wire_item& item) {
    const u32 result = devkit::u32_at(item.value, user_read_result);
    const devkit::mac_address mac = devkit::mac_at(item.value, user_read_mac);
    auto read = user_reads_.begin();
    if (result == result::ok) {
        read = std::find_if(user_reads_.begin(), user_reads_.end(),
                            [&mac](const awaited_user_read& waiting) { return waiting.mac == mac; });
        if (read == user_reads_.end()) {
            read = user_reads_.begin();
        }
    }
    const exchange_id id = read->exchange;
    user_reads_.erase(read);
    const auto exchange = exchanges_.find(id);
    if (exchange == exchanges_.end()) {
        return;
    }
    --exchange->second.user_reads;
    settle(id, result, item.value);
}

void service_bridge::settle(exchange_id id, u32 result, byte_view value) {
    service_exchange& exchange = exchanges_[id];
    if (exchange.result == result::ok) {
        exchange.result = result;
    }
    if (exchange.scc_types.empty() && exchange.user_reads == 0) {
        finish(id, exchange.result, value);
    }
}

void service_bridge::finish(exchange_id id, u32 result, byte_view value) {
    auto exchange = exchanges_.extract(id);
    if (exchange.empty()) {
        return;
    }
    loop_.cancel(exchange.mapped().timer);
    for (const u16 scc_type : exchange.mapped().scc_types) {
        awaited_.erase(match_key(exchange.mapped().call_id, scc_type));
    }
    if (exchange.mapped().completion) {
        exchange.mapped().completion({result, value});
    }
}

}  // namespace scc::sccd
