#include "sccd/daemon_core.h"

#include <algorithm>
#include <utility>

#include "sccd/recovery.h"

namespace scc::sccd {

using devkit::answer_kind;
using devkit::byte_buffer;
using devkit::byte_view;
using devkit::wire_item;

daemon_core::daemon_core(bool tracing, std::chrono::milliseconds service_timeout)
    : trace(tracing), clients(loop, trace, faults), bridge(loop, clients, trace, service_timeout) {}

void daemon_core::client_ready(const client_entry& client) {
    if (!client.is_service()) {
        return;
    }
    bridge.attach(client.id);
    const bool had_something =
        !acls.acls().empty() || !users.users().empty() || !settings.nothing_for_service();
    if (had_something) {
        recover_service();
    }
}

void daemon_core::client_gone(const client_entry& client) {
    if (client.is_service() && client.complete()) {
        bridge.detach();
    }
    for (auto probe = probes_.begin(); probe != probes_.end();) {
        if (probe->client != client.id) {
            ++probe;
            continue;
        }
        const application_probe ended = std::move(*probe);
        probe = probes_.erase(probe);
        loop.cancel(ended.timer);
        ended.answered(std::nullopt);
    }
}

void daemon_core::answer(const request_ticket& ticket, u32 result) {
    if (ticket.type->answer == answer_kind::none) {
        return;
    }
    byte_buffer value(ticket.type->reply_bytes, 0);
    devkit::write_at(value, ticket.type->result_offset, result);
    if (ticket.type->answer == answer_kind::reply) {
        return reply(ticket, value);
    }
    devkit::write_at(value, 0, ticket.call_id);
    clients.answer(ticket.client, false, ticket.type->reply_type, value, ticket.fault);
}

void daemon_core::reply(const request_ticket& ticket, byte_view value) {
    clients.answer(ticket.client, true, ticket.type->reply_type, value, ticket.fault);
}

void daemon_core::carry_out(const request_ticket& ticket, state_change change,
                            std::vector<service_operation> operations, std::function<void()> succeeded) {
    carry_out(std::move(change), std::move(operations),
              [this, ticket, succeeded = std::move(succeeded)](u32 outcome) {
                  answer(ticket, outcome);
                  if (outcome == result::ok && succeeded) {
                      succeeded();
                  }
              });
}

void daemon_core::carry_out(state_change change, std::vector<service_operation> operations,
                            std::function<void(u32 result)> done) {
    if (change.result != result::ok || !bridge.present()) {
        return done(change.result);
    }
    bridge.submit(std::move(operations),
                  [undo = std::move(change.undo), done = std::move(done)](const service_outcome& outcome) {
                      if (outcome.result != result::ok && undo) {
                          undo();
                      }
                      done(outcome.result);
                  });
}

void daemon_core::fetch() {
    if (recovery_is_coming_) {
        return trace.note("the requested recovery is already under way");
    }
    recover_service();
}

void daemon_core::recover_service() {
    recovery_is_coming_ = true;
    for (service_operation& operation : recovery_operations(acls, users, settings)) {
        const devkit::message_type* const row =
            devkit::find_message(devkit::message_route::operation, operation.type);
        if (row->answer == answer_kind::none) {
            bridge.post(operation);
            continue;
        }
        bridge.submit(one(std::move(operation)), [this, name = row->name](const service_outcome& outcome) {
            recovery_is_coming_ = false;  // results arrive in order, the start's first
            if (outcome.result == result::ok) {
                return;
            }
            trace.note("recovery: " + std::string(name) + " failed with " + std::to_string(outcome.result));
        });
    }
}

void daemon_core::notify_applications(u16 type, byte_view value, client_id except) {
    for (const client_entry& client : clients.registry().applications()) {
        if (client.id != except) {
            clients.send_async(client.id, 0, type, value);
        }
    }
}

void daemon_core::probe(client_id client, u16 type, std::chrono::milliseconds limit,
                        std::function<void(std::optional<byte_view>)> answered) {
    const auto probe = probes_.insert(probes_.end(), {client, type, std::move(answered), {}});
    probe->timer = loop.after(limit, [this, probe] {
        const application_probe late = std::move(*probe);
        probes_.erase(probe);
        late.answered(std::nullopt);
    });
    clients.send_async(client, 0, type, {});
}

void daemon_core::take_probe_answer(const client_entry& client, const wire_item& item) {
    const auto probe = std::find_if(probes_.begin(), probes_.end(), [&](const application_probe& waiting) {
        return waiting.client == client.id && waiting.type == item.type;
    });
    if (probe == probes_.end()) {
        return trace.note("an answer without a question");
    }
    const application_probe answered = std::move(*probe);
    probes_.erase(probe);
    loop.cancel(answered.timer);
    answered.answered(item.value);
}

}  // namespace scc::sccd
