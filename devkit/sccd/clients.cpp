#include "sccd/clients.h"

#include <fmt/format.h>
#include <sys/socket.h>

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
using devkit::pcapng::packet_direction;
using devkit::pcapng::packet_socket;

constexpr u32 received_message_max_bytes = 16u * 1024 * 1024;
constexpr std::size_t sent_message_max_bytes = wire::header_bytes + wire::batch_capacity_bytes;
constexpr u32 registration_bytes = 12;

byte_buffer registration_reply(u32 result, u32 owner_pid) {
    byte_buffer value(registration_bytes, 0);
    devkit::write_at(value, 4, result);
    devkit::write_at(value, 8, owner_pid);
    return value;
}

u32 pid_of_peer(int descriptor) {
    ucred peer{};
    socklen_t length = sizeof peer;
    const bool known = ::getsockopt(descriptor, SOL_SOCKET, SO_PEERCRED, &peer, &length) == 0;
    return known ? static_cast<u32>(peer.pid) : 0;
}

}  // namespace

void client_sockets::accept(int descriptor) {
    const peer_id id = ++last_peer_id_;
    auto peer = std::make_unique<peer_socket>();
    peer_socket* const place = peer.get();
    place->id = id;
    place->pid = pid_of_peer(descriptor);
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
        const byte_view input = peer.stream->input();
        capture(peer, packet_direction::to_daemon,
                frame.state == frame_state::broken ? input : input.first(frame.len));
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
    if (faults_.take_mute(item.type)) {
        return;
    }
    const client_registration registration{devkit::u32_at(item.value, 0), devkit::u32_at(item.value, 4),
                                           devkit::read_at<u8>(item.value, 8),
                                           devkit::read_at<u8>(item.value, 9) == 1};
    u32 owner_pid = 0;
    u32 refused =
        item.value.size() < registration_bytes ? result::invalid_argument : refusal(registration, owner_pid);
    if (const auto failure = faults_.take_failure(item.type)) {
        refused = *failure;
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
    send_now(peer, msg::registration, registration_reply(result::ok, 0));
    if (client.complete()) {
        hooks_.ready(client);
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
    if (faults_.take_mute(item.type)) {
        return;
    }
    const client_entry* const client = registry_.find(peer.client);
    const bool known = client != nullptr && client->app_id == devkit::u32_at(item.value, 0);
    const u32 outcome =
        faults_.take_failure(item.type).value_or(known ? result::ok : result::already_unregistered);
    byte_buffer value(8, 0);
    devkit::write_at(value, 4, outcome);
    send_now(peer, msg::unregistration, value);
    if (outcome == result::ok && known) {
        end_registration(client->id, false);
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

void client_sockets::send_sync(client_id id, u16 type, byte_view value) {
    const client_entry* const client = registry_.find(id);
    peer_socket* const peer = client == nullptr ? nullptr : find(client->sync);
    if (peer == nullptr) {
        trace_.note(fmt::format("reply {} is dropped: its client has no synchronous socket", type));
        return;
    }
    send_now(*peer, type, value);
}

void client_sockets::send_now(peer_socket& peer, u16 type, byte_view value) {
    trace_sent(peer, {0, type, value});
    send_message(peer, devkit::single_item_message(0, type, value));
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
        send_message(peer, peer.batch.take());
    }
}

void client_sockets::send_message(peer_socket& peer, byte_buffer message) {
    capture(peer, packet_direction::from_daemon, message);
    peer.stream->send(std::move(message));
}

void client_sockets::capture(const peer_socket& peer, packet_direction direction, byte_view message) {
    if (!hooks_.message) {
        return;
    }
    packet_socket socket = packet_socket::unregistered;
    if (peer.client != 0) {
        socket = peer.sync ? packet_socket::sync : packet_socket::async;
    }
    hooks_.message({direction, socket, app_of(peer), peer.pid}, message);
}

client_sockets::peer_socket* client_sockets::find(peer_id id) {
    const auto peer = peers_.find(id);
    return peer == peers_.end() ? nullptr : peer->second.get();
}

std::size_t client_sockets::queued_bytes(client_id id) {
    const client_entry* const client = registry_.find(id);
    std::size_t queued = 0;
    if (client != nullptr) {
        for (const peer_id socket : {client->sync, client->async}) {
            const peer_socket* const peer = find(socket);
            queued += peer == nullptr ? 0 : peer->stream->queued_bytes();
        }
    }
    return queued;
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
