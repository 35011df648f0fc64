// The daemon's state and what every command works with: answering a request, having the service carry a
// change out, asking an application. It knows neither the requests nor the control commands, which are
// built on it. One thread.
#pragma once

#include <chrono>
#include <functional>
#include <list>
#include <optional>

#include "sccd/acl_store.h"
#include "sccd/clients.h"
#include "sccd/faults.h"
#include "sccd/service_bridge.h"
#include "sccd/settings.h"
#include "sccd/user_store.h"

namespace scc::sccd {

// What is kept of a request that is answered later, when its value is gone.
struct request_ticket {
    client_id client = 0;
    u32 call_id = 0;
    const devkit::message_type* type = nullptr;
};

// A question put to an application: alive (319) or its statistics (318).
struct application_probe {
    client_id client = 0;
    u16 type = 0;
    std::function<void(std::optional<devkit::byte_view> answer)> answered;  // nullopt: none came
    event_loop::timer_id timer;
};

class daemon_core {
  public:
    daemon_core(bool tracing, std::chrono::milliseconds service_timeout);

    // The answer of a request without content of its own: a 401 result, or the reply of its type
    // that says `result` and nothing else.
    void answer(const request_ticket& ticket, u32 result);
    // The synchronous reply of the request's reply type.
    void reply(const request_ticket& ticket, devkit::byte_view value);
    // Makes the service carry a change out and answers when it has; without a service at once.
    void carry_out(const request_ticket& ticket, state_change change,
                   std::vector<service_operation> operations, std::function<void()> succeeded = {});
    // Sends everything that the service had been given.
    void recover_service();
    // The service asks for that. A recovery that it has not begun yet is what it asks for: a service that
    // returns is given its state at once, so that no later operation finds it without, and asks as well.
    void fetch();
    // An item for every registered application but one (0 = for all of them).
    void notify_applications(u16 type, devkit::byte_view value, client_id except = 0);

    void probe(client_id client, u16 type, std::chrono::milliseconds limit,
               std::function<void(std::optional<devkit::byte_view>)> answered);
    void take_probe_answer(const client_entry& client, const devkit::wire_item& item);

    // Both sockets of a client are registered.
    void client_ready(const client_entry& client);
    // A registration has ended: nothing that was asked of it will be answered.
    void client_gone(const client_entry& client);

    event_loop loop;
    trace_log trace;
    ordered_faults faults;
    acl_store acls;
    user_store users;
    daemon_settings settings;
    client_sockets clients;
    service_bridge bridge;

  private:
    bool recovery_is_coming_ = false;  // sent, and its start is not answered yet
    std::list<application_probe> probes_;
};

}  // namespace scc::sccd
