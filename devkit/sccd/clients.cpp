#include "sccd/clients.h"

#include <fmt/format.h>
#include <unistd.h>

#include <utility>

#include "sccd/change.h"

namespace scc::sccd {
namespace {

using devkit::byte_buffer;
using devkit::byte_view;
using devkit::frame_state;
using devkit::message_frame;
using devkit::message_route;
using devkit::wire_item;

constexpr u32 received_message_max_bytes = 16u * 1024 * 1024;
constexpr std::size_t sent_message_max_bytes = wire::header_bytes + wire::batch_capacity_bytes;
constexpr u32 registration_bytes = 12;
constexpr u16 type_of_no_message = 499;

byte_buffer registration_reply(u32 result, u32 owner_pid) {
    byte_buffer value(registration_bytes, 0);
    devkit::write_at(value, 4, result);
    devkit::write_at(value, 8, owner_pid);
    return value;
}

}  // namespace

void client_sockets::accept(int descriptor) {
    if (event_loop::clock::now() < refusing_until_) {
        ::close(descriptor);
        return;
    }
    const peer_id id = ++last_peer_id_;
    auto peer = std::make_unique<peer_socket>();
    peer_socket* const place = peer.get();
    place->id = id;
    place->stream = std::make_unique<socket_stream>(
        loop_, descriptor,
        socket_stream::stream_events{[this, place](socket_stream&) { input(*place); },
                                     [this, id](socket_stream&) { closed(id); }});
    peers_.emplace(id, std::move(peer));
    trace_.note(fmt::format("socket {} connected", id));
}

void client_sockets::input(peer_socket& peer) {
    while (peer.stream->open()) {
        const message_frame frame = devkit::first_frame(peer.stream->input(), received_message_max_bytes);
        if (frame.state == frame_state::incomplete) {
            return;
        }
        if (frame.state == frame_state::broken) {
            trace_.note(fmt::format("socket {} (app {}) is closed: {}, {}", peer.id, app_of(peer),
                                    frame.problem, frame.len));
            peer.stream->close();
            return;
        }
        if (frame.state == frame_state::refused) {
            trace_.note(fmt::format("a message of socket {} (app {}) is ignored: {}", peer.id, app_of(peer),
                                    frame.problem));
        }
        for (const wire_item& item : frame.items) {
            if (!peer.stream->open()) {
                break;
            }
            take_item(peer, item);
        }
        peer.stream->consume(frame.len);
        flush();
    }
}

void client_sockets::closed(peer_id id) {
    peer_socket* const peer = find(id);
    if (peer == nullptr) {
        return;
    }
    trace_.note(fmt::format("socket {} (app {}) closed", id, app_of(*peer)));
    if (peer->client != 0) {
        end_registration(peer->client, true);
    }
    peers_.erase(id);
}

void client_sockets::take_item(peer_socket& peer, const wire_item& item) {
    trace_received(peer, item);
    if (item.type == msg::registration) {
        return take_registration(peer, item);
    }
    if (item.type == msg::unregistration) {
        return take_unregistration(peer, item);
    }
    const client_entry* const client = registry_.find(peer.client);
    if (client == nullptr) {
        trace_.note(fmt::format("ignored: socket {} is not registered", peer.id));
        return;
    }
    hooks_.item(client_entry(*client), item);
}

void client_sockets::take_registration(peer_socket& peer, const wire_item& item) {
    const client_registration registration{devkit::u32_at(item.value, 0), devkit::u32_at(item.value, 4),
                                           devkit::read_at<u8>(item.value, 8),
                                           devkit::read_at<u8>(item.value, 9) == 1};
    const std::optional<fault_effect> fault = faults_.take(item.type, registration.app_id, registration.pid);
    if (fault && obey_fault(peer, *fault)) {
        return;
    }
    u32 owner_pid = 0;
    u32 refused =
        item.value.size() < registration_bytes ? result::invalid_argument : refusal(registration, owner_pid);
    if (fault && fault->action == fault_action::refuse) {
        refused = fault->result;
    }
    if (refused != result::ok) {
        send_now(peer, msg::registration, registration_reply(refused, owner_pid));
        return;
    }
    // A socket that registers again starts a new registration.
    if (peer.client != 0) {
        end_registration(std::exchange(peer.client, 0), false);
    }
    drop_if_outlived(registration);
    const client_entry client = registry_.bind(registration, peer.id);
    peer.client = client.id;
    peer.sync = registration.sync;
    send_faulty(peer, msg::registration, registration_reply(result::ok, 0), fault.value_or(fault_effect{}));
    if (client.complete() && registry_.find(client.id) != nullptr) {
        hooks_.ready(client);
        send_held_answers(client);
    }
}

// Returns whether nothing more is done with the request.
bool client_sockets::obey_fault(peer_socket& peer, const fault_effect& fault) {
    switch (fault.action) {
        case fault_action::mute:
            return true;
        case fault_action::disconnect:
            peer.stream->close();
            return true;
        case fault_action::restart:
            restart(fault.time);
            return true;
        case fault_action::stop_reading:
            peer.stream->pause(fault.time);
            return false;
        default:
            return false;
    }
}

u32 client_sockets::refusal(const client_registration& registration, u32& owner_pid) {
    if (registration.app_id == 0 || registration.app_id > limits::app_id_max) {
        return result::registration_rejected;
    }
    const client_entry* const holder = registry_.find_app(registration.app_id);
    if (holder == nullptr || holder->pid == registration.pid) {
        return result::ok;
    }
    if (!reachable(holder->sync != 0 ? holder->sync : holder->async)) {
        return result::ok;
    }
    owner_pid = holder->pid;
    return result::already_registered;
}

// A registration is stale if its process is gone or if it registers a socket that it already has: its end
// has not been noticed yet.
void client_sockets::drop_if_outlived(const client_registration& registration) {
    const client_entry* const holder = registry_.find_app(registration.app_id);
    if (holder == nullptr) {
        return;
    }
    const peer_id same_socket = registration.sync ? holder->sync : holder->async;
    const peer_id other_socket = registration.sync ? holder->async : holder->sync;
    const bool outlived = holder->pid != registration.pid || same_socket != 0 || !reachable(other_socket);
    if (outlived) {
        end_registration(holder->id, true);
    }
}

void client_sockets::take_unregistration(peer_socket& peer, const wire_item& item) {
    const client_entry* const client = registry_.find(peer.client);
    const bool known = client != nullptr && client->app_id == devkit::u32_at(item.value, 0);
    const std::optional<fault_effect> fault =
        faults_.take(item.type, app_of(peer), client == nullptr ? 0 : client->pid);
    if (fault && obey_fault(peer, *fault)) {
        return;
    }
    u32 outcome = known ? result::ok : result::already_unregistered;
    if (fault && fault->action == fault_action::refuse) {
        outcome = fault->result;
    }
    byte_buffer value(8, 0);
    devkit::write_at(value, 4, outcome);
    const client_id ended = known ? client->id : 0;
    send_faulty(peer, msg::unregistration, value, fault.value_or(fault_effect{}));
    if (outcome == result::ok && known) {
        end_registration(ended, false);
    }
}

void client_sockets::end_registration(client_id id, bool close_sockets) {
    const client_entry* const found = registry_.find(id);
    if (found == nullptr) {
        return;
    }
    const client_entry client = *found;
    registry_.erase(id);
    for (const peer_id socket : {client.sync, client.async}) {
        peer_socket* const peer = find(socket);
        if (peer == nullptr) {
            continue;
        }
        peer->client = 0;
        if (close_sockets) {
            peer->stream->close();
        }
    }
    trace_.note(fmt::format("app {} (pid {}) is no longer registered", client.app_id, client.pid));
    hooks_.gone(client);
}

void client_sockets::send_async(client_id id, u16 sub_id, u16 type, byte_view value) {
    const client_entry* const client = registry_.find(id);
    peer_socket* const peer = client == nullptr ? nullptr : find(client->async);
    if (peer == nullptr) {
        trace_.note(fmt::format("item {} is dropped: its client has no asynchronous socket", type));
        return;
    }
    trace_sent(*peer, {sub_id, type, value});
    if (!peer->batch.fits(value.size(), sent_message_max_bytes)) {
        flush_peer(*peer);
    }
    if (peer->batch.empty()) {
        if (with_batch_.empty()) {
            loop_.defer([this] { flush(); });
        }
        with_batch_.push_back(peer->id);
    }
    peer->batch.add(sub_id, type, value);
}

void client_sockets::answer(client_id id, bool sync, u16 type, byte_view value,
                            const std::optional<fault_effect>& fault) {
    if (!fault && !sync) {
        return send_async(id, 0, type, value);
    }
    const client_entry* const client = registry_.find(id);
    peer_socket* const peer = client == nullptr ? nullptr : find(sync ? client->sync : client->async);
    if (peer == nullptr) {
        trace_.note(fmt::format("answer {} is dropped: its client does not have this socket", type));
        return;
    }
    flush_peer(*peer);
    send_faulty(*peer, type, value, fault.value_or(fault_effect{}));
}

void client_sockets::send_faulty(peer_socket& peer, u16 type, byte_view value, const fault_effect& fault) {
    switch (fault.action) {
        case fault_action::delay:
            return send_after(peer.id, type, value, fault.time);
        case fault_action::twice:
            send_now(peer, type, value);
            return send_now(peer, type, value);
        case fault_action::late:
            return hold_answer(peer, type, value);
        case fault_action::wrong_type:
            return send_now(peer, type_of_no_message, value);
        case fault_action::short_value:
            return send_now(peer, type, devkit::slice(value, 0, fault.bytes));
        case fault_action::half_message:
            return send_half(peer, type, value, fault.time);
        default:
            return send_now(peer, type, value);
    }
}

void client_sockets::send_after(peer_id id, u16 type, byte_view value, std::chrono::milliseconds time) {
    loop_.after(time, [this, id, type, late = devkit::to_bytes(value)] {
        if (peer_socket* const peer = find(id)) {
            flush_peer(*peer);
            send_now(*peer, type, late);
        }
    });
}

// After the pause, the connection of the whole client ends.
void client_sockets::send_half(peer_socket& peer, u16 type, byte_view value, std::chrono::milliseconds time) {
    const byte_buffer message = devkit::single_item_message(0, type, value);
    trace_.note(fmt::format("half of message {} is sent to socket {}", type, peer.id));
    peer.stream->send(byte_view(message).first(message.size() / 2));
    loop_.after(time, [this, id = peer.id] {
        peer_socket* const half = find(id);
        if (half != nullptr && half->client != 0) {
            end_registration(half->client, true);
        } else if (half != nullptr) {
            half->stream->close();
        }
    });
}

void client_sockets::hold_answer(const peer_socket& peer, u16 type, byte_view value) {
    held_answers_.push_back({app_of(peer), peer.client, peer.sync, type, devkit::to_bytes(value)});
}

void client_sockets::send_held_answers(const client_entry& client) {
    std::vector<held_answer> waiting;
    for (held_answer& held : std::exchange(held_answers_, {})) {
        peer_socket* const peer = find(held.sync ? client.sync : client.async);
        if (held.app_id == client.app_id && held.client != client.id && peer != nullptr) {
            send_now(*peer, held.type, held.value);
        } else {
            waiting.push_back(std::move(held));
        }
    }
    held_answers_ = std::move(waiting);
}

void client_sockets::stop_reading(client_id id, std::chrono::milliseconds time) {
    const client_entry* const client = registry_.find(id);
    for (const peer_id socket :
         {client == nullptr ? 0 : client->sync, client == nullptr ? 0 : client->async}) {
        if (peer_socket* const peer = find(socket)) {
            peer->stream->pause(time);
        }
    }
}

void client_sockets::restart(std::chrono::milliseconds time) {
    trace_.note("all connections end, on purpose");
    refusing_until_ = event_loop::clock::now() + time;
    for (const auto& [id, peer] : peers_) {
        peer->stream->close();
    }
}

void client_sockets::send_now(peer_socket& peer, u16 type, byte_view value) {
    trace_sent(peer, {0, type, value});
    peer.stream->send(devkit::single_item_message(0, type, value));
}

void client_sockets::flush() {
    for (const peer_id id : std::exchange(with_batch_, {})) {
        if (peer_socket* const peer = find(id)) {
            flush_peer(*peer);
        }
    }
}

void client_sockets::flush_peer(peer_socket& peer) {
    if (!peer.batch.empty()) {
        peer.stream->send(peer.batch.take());
    }
}

client_sockets::peer_socket* client_sockets::find(peer_id id) {
    const auto peer = peers_.find(id);
    return peer == peers_.end() ? nullptr : peer->second.get();
}

bool client_sockets::reachable(peer_id id) {
    const peer_socket* const peer = find(id);
    return peer != nullptr && !peer->stream->peer_gone();
}

u32 client_sockets::app_of(const peer_socket& peer) {
    const client_entry* const client = registry_.find(peer.client);
    return client == nullptr ? 0 : client->app_id;
}

std::string_view client_sockets::socket_name(const peer_socket& peer) {
    if (peer.client == 0) {
        return "new";
    }
    return peer.sync ? "sync" : "async";
}

void client_sockets::trace_received(const peer_socket& peer, const wire_item& item) {
    if (!trace_.enabled()) {
        return;
    }
    const u32 app = app_of(peer);
    const message_route route =
        app == limits::service_app_id ? message_route::report : message_route::request;
    trace_.received(route, app, socket_name(peer), item);
}

void client_sockets::trace_sent(const peer_socket& peer, const wire_item& item) {
    if (!trace_.enabled()) {
        return;
    }
    const u32 app = app_of(peer);
    const message_route route =
        app == limits::service_app_id ? message_route::operation : message_route::to_client;
    trace_.sent(route, app, socket_name(peer), item);
}

}  // namespace scc::sccd
