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

class ControlServer;

struct Options {
    std::string directory;  // holds the sockets
    bool trace = false;
    std::chrono::milliseconds service_timeout{5000};
};

// What is kept of a request that is answered later, when its value is gone.
struct Ticket {
    ClientId client = 0;
    u32 call_id = 0;
    const devkit::MessageType* type = nullptr;
};

// A question put to an application: alive (319) or its statistics (318).
struct Probe {
    ClientId client = 0;
    u16 type = 0;
    std::function<void(std::optional<devkit::View> answer)> answered;  // nullopt: none came
    EventLoop::TimerId timer;
};

class Daemon {
  public:
    // Takes the sockets into use; throws std::runtime_error.
    explicit Daemon(const Options& options);
    ~Daemon();

    // Until SIGTERM, SIGINT or a control command ends it.
    void run();

    // The answer of a request without content of its own: a 401 result, or the reply of its type
    // that says `result` and nothing else.
    void answer(const Ticket& ticket, u32 result);
    // The synchronous reply of the request's reply type.
    void reply(const Ticket& ticket, devkit::View value);
    // Makes the service carry a change out and answers when it has; without a service at once.
    void carry_out(const Ticket& ticket, Change change, std::vector<Operation> operations,
                   std::function<void()> succeeded = {});
    // Sends everything that the service had been given.
    void recover_service();
    // The service asks for that. A recovery that it has not begun yet is what it asks for: a service that
    // returns is given its state at once, so that no later operation finds it without, and asks as well.
    void fetch();
    // An item for every registered application but one (0 = for all of them).
    void notify_applications(u16 type, devkit::View value, ClientId except = 0);

    void probe(ClientId client, u16 type, std::chrono::milliseconds limit,
               std::function<void(std::optional<devkit::View>)> answered);
    void take_probe_answer(const Client& client, const devkit::Item& item);

    EventLoop loop;
    Trace trace;
    Faults faults;
    AclStore acls;
    UserStore users;
    Settings settings;
    Clients clients;
    ServiceBridge bridge;

  private:
    void take_item(const Client& client, const devkit::Item& item);
    void client_ready(const Client& client);
    void client_gone(const Client& client);
    void watch_signals();

    bool recovery_is_coming_ = false;  // sent, and its start is not answered yet
    std::list<Probe> probes_;
    int signals_ = -1;
    std::unique_ptr<Listener> listener_;
    std::unique_ptr<ControlServer> control_;
};

}  // namespace scc::sccd
