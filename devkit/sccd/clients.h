// The clients' sockets: accepts them, splits their input into items, registers them (301, 302) and sends
// items to them. Items for an asynchronous socket are collected while a received message is processed and
// then sent together, in as few messages as possible.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <unordered_map>
#include <vector>

#include "common/frame.h"
#include "common/messages.h"
#include "sccd/fault_rules.h"
#include "sccd/registry.h"
#include "sccd/stream.h"
#include "sccd/trace.h"

namespace scc::sccd {

class client_sockets {
  public:
    struct client_hooks {
        std::function<void(const client_entry&, const devkit::wire_item&)> item;  // anything but 301 and 302
        std::function<void(const client_entry&)> ready;  // both sockets are registered
        std::function<void(const client_entry&)> gone;   // a registration has ended
    };

    client_sockets(event_loop& loop, const trace_log& trace, fault_rules& faults)
        : loop_(loop), trace_(trace), faults_(faults) {}

    void set_hooks(client_hooks hooks) { hooks_ = std::move(hooks); }
    // Takes ownership of a connected descriptor.
    void accept(int descriptor);

    // An item for a client that is gone or not registered on that socket is dropped, with a note in the
    // trace.
    void send_async(client_id client, u16 sub_id, u16 type, devkit::byte_view value);
    // Answers a request on one of its client's sockets, with what is to go wrong.
    void answer(client_id client, bool sync, u16 type, devkit::byte_view value,
                const std::optional<fault_effect>& fault);
    // Faults that are no change of an answer.
    void disconnect(client_id client) { end_registration(client, true); }
    void stop_reading(client_id client, std::chrono::milliseconds time);
    // Ends all connections, and those that begin within this time.
    void restart(std::chrono::milliseconds time);
    void flush();

    [[nodiscard]] client_registry& registry() { return registry_; }

  private:
    struct peer_socket {
        peer_id id = 0;
        std::unique_ptr<socket_stream> stream;
        client_id client = 0;  // 0: not registered
        bool sync = false;
        devkit::message_builder batch;
    };

    // Kept until its application has registered again.
    struct held_answer {
        u32 app_id = 0;
        client_id client = 0;
        bool sync = false;
        u16 type = 0;
        devkit::byte_buffer value;
    };

    void input(peer_socket& peer);
    void closed(peer_id id);
    void take_item(peer_socket& peer, const devkit::wire_item& item);
    void take_registration(peer_socket& peer, const devkit::wire_item& item);
    void take_unregistration(peer_socket& peer, const devkit::wire_item& item);
    [[nodiscard]] u32 refusal(const client_registration& registration, u32& owner_pid);
    void drop_if_outlived(const client_registration& registration);
    void end_registration(client_id client, bool close_sockets);
    void send_now(peer_socket& peer, u16 type, devkit::byte_view value);
    void send_faulty(peer_socket& peer, u16 type, devkit::byte_view value, const fault_effect& fault);
    void send_half(peer_socket& peer, u16 type, devkit::byte_view value, std::chrono::milliseconds time);
    void send_after(peer_id peer, u16 type, devkit::byte_view value, std::chrono::milliseconds time);
    void hold_answer(const peer_socket& peer, u16 type, devkit::byte_view value);
    void send_held_answers(const client_entry& client);
    [[nodiscard]] bool obey_fault(peer_socket& peer, const fault_effect& fault);
    void flush_peer(peer_socket& peer);
    [[nodiscard]] peer_socket* find(peer_id id);
    [[nodiscard]] bool reachable(peer_id id);
    void trace_received(const peer_socket& peer, const devkit::wire_item& item);
    void trace_sent(const peer_socket& peer, const devkit::wire_item& item);
    [[nodiscard]] u32 app_of(const peer_socket& peer);
    [[nodiscard]] static std::string_view socket_name(const peer_socket& peer);

    event_loop& loop_;
    const trace_log& trace_;
    fault_rules& faults_;
    client_hooks hooks_;
    client_registry registry_;
    std::unordered_map<peer_id, std::unique_ptr<peer_socket>> peers_;
    peer_id last_peer_id_ = 0;
    std::vector<peer_id> with_batch_;
    std::vector<held_answer> held_answers_;
    event_loop::clock::time_point refusing_until_{};
};

}  // namespace scc::sccd
