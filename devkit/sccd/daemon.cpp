#include "sccd/daemon.h"

#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "sccd/control.h"
#include "sccd/notifications.h"
#include "sccd/recovery.h"
#include "sccd/requests.h"

namespace scc::sccd {
namespace {

using devkit::Answer;
using devkit::Bytes;
using devkit::Item;
using devkit::View;

constexpr std::string_view listening_socket = "/.sccd_sd_";
constexpr std::string_view control_socket = "/.sccd_ctl";

}  // namespace

Daemon::Daemon(const Options& options)
    : trace(options.trace),
      clients(loop, trace, faults),
      bridge(loop, clients, trace, options.service_timeout) {
    clients.set_hooks({[this](const Client& client, const Item& item) { take_item(client, item); },
                       [this](const Client& client) { client_ready(client); },
                       [this](const Client& client) { client_gone(client); }});
    watch_signals();
    listener_ = std::make_unique<Listener>(loop, options.directory + std::string(listening_socket), 0777,
                                           [this](int descriptor) { clients.accept(descriptor); });
    control_ = std::make_unique<ControlServer>(*this, options.directory + std::string(control_socket));
}

Daemon::~Daemon() {
    if (signals_ >= 0) ::close(signals_);
}

void Daemon::run() {
    loop.run();
}

void Daemon::watch_signals() {
    sigset_t ending;
    sigemptyset(&ending);
    sigaddset(&ending, SIGTERM);
    sigaddset(&ending, SIGINT);
    ::sigprocmask(SIG_BLOCK, &ending, nullptr);
    signals_ = ::signalfd(-1, &ending, SFD_NONBLOCK | SFD_CLOEXEC);
    if (signals_ < 0) throw std::runtime_error(std::string("signalfd: ") + std::strerror(errno));
    loop.watch(signals_, EPOLLIN, [this](std::uint32_t) { loop.stop(); });
}

void Daemon::take_item(const Client& client, const Item& item) {
    if (item.type == msg::is_alive || item.type == msg::info_collect) return take_probe_answer(client, item);
    if (client.is_service() && take_report(*this, client, item)) return;
    take_request(*this, client, item);
}

void Daemon::client_ready(const Client& client) {
    if (!client.is_service()) return;
    bridge.attach(client.id);
    const bool had_something =
        !acls.acls().empty() || !users.users().empty() || !settings.nothing_for_service();
    if (had_something) recover_service();
}

void Daemon::client_gone(const Client& client) {
    if (client.is_service() && client.complete()) bridge.detach();
    for (auto probe = probes_.begin(); probe != probes_.end();) {
        if (probe->client != client.id) {
            ++probe;
            continue;
        }
        const Probe ended = std::move(*probe);
        probe = probes_.erase(probe);
        loop.cancel(ended.timer);
        ended.answered(std::nullopt);
    }
}

void Daemon::answer(const Ticket& ticket, u32 result) {
    if (ticket.type->answer == Answer::none) return;
    Bytes value(ticket.type->reply_bytes, 0);
    devkit::write_at(value, ticket.type->result_offset, result);
    if (ticket.type->answer == Answer::reply) return reply(ticket, value);
    devkit::write_at(value, 0, ticket.call_id);
    clients.send_async(ticket.client, 0, ticket.type->reply_type, value);
}

void Daemon::reply(const Ticket& ticket, View value) {
    clients.send_sync(ticket.client, ticket.type->reply_type, value);
}

void Daemon::carry_out(const Ticket& ticket, Change change, std::vector<Operation> operations,
                       std::function<void()> succeeded) {
    if (change.result != result::ok) return answer(ticket, change.result);
    if (!bridge.present()) {
        answer(ticket, result::ok);
        if (succeeded) succeeded();
        return;
    }
    bridge.submit(std::move(operations), [this, ticket, undo = std::move(change.undo),
                                          succeeded = std::move(succeeded)](const Outcome& outcome) {
        if (outcome.result != result::ok && undo) undo();
        answer(ticket, outcome.result);
        if (outcome.result == result::ok && succeeded) succeeded();
    });
}

void Daemon::fetch() {
    if (recovery_is_coming_) return trace.note("the recovery that is fetched is on its way");
    recover_service();
}

void Daemon::recover_service() {
    recovery_is_coming_ = true;
    for (Operation& operation : recovery_operations(acls, users, settings)) {
        const devkit::MessageType* const row = devkit::find_message(devkit::Route::operation, operation.type);
        if (row->answer == Answer::none) {
            bridge.post(operation);
            continue;
        }
        std::vector<Operation> single;
        single.push_back(std::move(operation));
        bridge.submit(std::move(single), [this, name = row->name](const Outcome& outcome) {
            recovery_is_coming_ = false;  // results come in the order of the operations, the start's first
            if (outcome.result == result::ok) return;
            trace.note("recovery: " + std::string(name) + " failed with " + std::to_string(outcome.result));
        });
    }
}

void Daemon::notify_applications(u16 type, View value, ClientId except) {
    for (const Client& client : clients.registry().applications()) {
        if (client.id != except) clients.send_async(client.id, 0, type, value);
    }
}

void Daemon::probe(ClientId client, u16 type, std::chrono::milliseconds limit,
                   std::function<void(std::optional<View>)> answered) {
    const auto probe = probes_.insert(probes_.end(), {client, type, std::move(answered), {}});
    probe->timer = loop.after(limit, [this, probe] {
        const Probe late = std::move(*probe);
        probes_.erase(probe);
        late.answered(std::nullopt);
    });
    clients.send_async(client, 0, type, {});
}

void Daemon::take_probe_answer(const Client& client, const Item& item) {
    const auto probe = std::find_if(probes_.begin(), probes_.end(), [&](const Probe& waiting) {
        return waiting.client == client.id && waiting.type == item.type;
    });
    if (probe == probes_.end()) return trace.note("an answer to nothing that was asked");
    const Probe answered = std::move(*probe);
    probes_.erase(probe);
    loop.cancel(answered.timer);
    answered.answered(item.value);
}

}  // namespace scc::sccd
