// The daemon's parts put together, and what they all use to answer a request. One thread.
#pragma once

#include <chrono>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>

#include "sccd/acl_store.h"
#include "sccd/clients.h"
#include "sccd/faults.h"
#include "sccd/listener.h"
#include "sccd/service_bridge.h"
#include "sccd/settings.h"
#include "sccd/user_store.h"

namespace scc::sccd {

class control_server;

struct daemon_options {
    std::string directory;  // holds the sockets
    bool trace = false;
    std::chrono::milliseconds service_timeout{5000};
};

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
    // Takes the sockets into use; throws std::runtime_error.
    explicit daemon_core(const daemon_options& options);
    ~daemon_core();

    // Until SIGTERM, SIGINT or a control command ends it.
    void run();

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

    event_loop loop;
    trace_log trace;
    ordered_faults faults;
    acl_store acls;
    user_store users;
    daemon_settings settings;
    client_sockets clients;
    service_bridge bridge;

  private:
    void take_item(const client_entry& client, const devkit::wire_item& item);
    void client_ready(const client_entry& client);
    void client_gone(const client_entry& client);
    void watch_signals();

    bool recovery_is_coming_ = false;  // sent, and its start is not answered yet
    std::list<application_probe> probes_;
    int signals_ = -1;
    std::unique_ptr<socket_listener> listener_;
    std::unique_ptr<control_server> control_;
};

}  // namespace scc::sccd
