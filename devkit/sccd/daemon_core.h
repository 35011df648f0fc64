// The daemon's state, and what its requests and control commands are built on: answering a request, having
// the service carry out a change, probing an application. One thread.
#pragma once

#include <chrono>
#include <functional>
#include <list>
#include <optional>

#include "sccd/acl_store.h"
#include "sccd/clients.h"
#include "sccd/fault_rules.h"
#include "sccd/message_counters.h"
#include "sccd/service_bridge.h"
#include "sccd/settings.h"
#include "sccd/user_store.h"
#include "sccd/wire_capture.h"

namespace scc::sccd {

// What is needed to answer a request after its value is gone.
struct request_ticket {
    client_id client = 0;
    u32 call_id = 0;
    const devkit::message_type* type = nullptr;
    std::optional<fault_effect> fault{};  // on the answer
};

// A pending question to an application: whether it is alive (319), or its statistics (318).
struct application_probe {
    client_id client = 0;
    u16 type = 0;
    std::function<void(std::optional<devkit::byte_view> answer)> answered;  // nullopt if there was no answer
    event_loop::timer_id timer;
};

class daemon_core {
  public:
    daemon_core(bool tracing, std::chrono::milliseconds service_timeout);

    // Sends the answer of a request that returns a result only: a 401 item, or the reply of its type
    // with `result` and zeros.
    void answer(const request_ticket& ticket, u32 result);
    // Sends the synchronous reply of the request's type.
    void reply(const request_ticket& ticket, devkit::byte_view value);
    // Has the service carry out a change and answers when it has; without a service, immediately.
    void carry_out(const request_ticket& ticket, state_change change,
                   std::vector<service_operation> operations, std::function<void()> succeeded = {});
    // The same, with what is to be done with the result.
    void carry_out(state_change change, std::vector<service_operation> operations,
                   std::function<void(u32 result)> done);
    // Sends the service everything that it must hold.
    void recover_service();
    // The service requests a recovery. One that has been sent and not been answered yet serves the request: a
    // returning service gets its state at once, before any later operation, and still requests it.
    void fetch();
    // Sends an item to every registered application except `except` (0: no exception).
    void notify_applications(u16 type, devkit::byte_view value, client_id except = 0);

    void probe(client_id client, u16 type, std::chrono::milliseconds limit,
               std::function<void(std::optional<devkit::byte_view>)> answered);
    void take_probe_answer(const client_entry& client, const devkit::wire_item& item);

    // Both sockets of a client are registered.
    void client_ready(const client_entry& client);
    // A registration has ended: its pending probes fail, and a lost service's operations with them.
    void client_gone(const client_entry& client);

    // To be called after whatever may have changed the state.
    void touch() const {
        if (touched) {
            touched();
        }
    }

    std::function<void()> touched;  // may be empty
    event_loop loop;
    trace_log trace;
    wire_capture capture;
    message_counters message_counts;
    fault_rules faults;
    acl_store acls;
    user_store users;
    setting_store settings;
    client_sockets clients;
    service_bridge bridge;

  private:
    bool recovery_is_coming_ = false;  // sent, but its start has not been answered
    std::list<application_probe> probes_;
};

}  // namespace scc::sccd
