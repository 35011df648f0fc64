// The clients' sockets: accepts them, cuts what they send into items, registers them (301, 302) and
// sends items to them. Items for an asynchronous socket are collected and leave together, as one
// message or several large ones, when the message that caused them has been worked off.
#pragma once

#include <functional>
#include <memory>
#include <unordered_map>
#include <vector>

#include "common/frame.h"
#include "common/messages.h"
#include "sccd/faults.h"
#include "sccd/registry.h"
#include "sccd/stream.h"
#include "sccd/trace.h"

namespace scc::sccd {

class Clients {
  public:
    struct Hooks {
        std::function<void(const Client&, const devkit::Item&)> item;  // anything but 301 and 302
        std::function<void(const Client&)> ready;                      // both sockets are registered
        std::function<void(const Client&)> gone;                       // a registration has ended
    };

    Clients(EventLoop& loop, const Trace& trace, Faults& faults)
        : loop_(loop), trace_(trace), faults_(faults) {}

    void set_hooks(Hooks hooks) { hooks_ = std::move(hooks); }
    // Takes over a connected descriptor.
    void accept(int descriptor);

    // Sends to clients that are gone, or not registered on that socket, are dropped with a note.
    void send_async(ClientId client, u16 sub_id, u16 type, devkit::View value);
    void send_sync(ClientId client, u16 type, devkit::View value);
    void flush();

    [[nodiscard]] Registry& registry() { return registry_; }

  private:
    struct Peer {
        PeerId id = 0;
        std::unique_ptr<Stream> stream;
        ClientId client = 0;  // 0 = not registered
        bool sync = false;
        devkit::MessageBuilder batch;
    };

    void input(Peer& peer);
    void closed(PeerId id);
    void take_item(Peer& peer, const devkit::Item& item);
    void take_registration(Peer& peer, const devkit::Item& item);
    void take_unregistration(Peer& peer, const devkit::Item& item);
    [[nodiscard]] u32 refusal(const Registration& registration, u32& owner_pid);
    void drop_if_outlived(const Registration& registration);
    void end_registration(ClientId client, bool close_sockets);
    void send_now(Peer& peer, u16 type, devkit::View value);
    void flush_peer(Peer& peer);
    [[nodiscard]] Peer* find(PeerId id);
    [[nodiscard]] bool reachable(PeerId id);
    void trace_received(const Peer& peer, const devkit::Item& item);
    void trace_sent(const Peer& peer, const devkit::Item& item);
    [[nodiscard]] u32 app_of(const Peer& peer);
    [[nodiscard]] static std::string_view socket_name(const Peer& peer);

    EventLoop& loop_;
    const Trace& trace_;
    Faults& faults_;
    Hooks hooks_;
    Registry registry_;
    std::unordered_map<PeerId, std::unique_ptr<Peer>> peers_;
    PeerId last_peer_id_ = 0;
    std::vector<PeerId> with_batch_;
};

}  // namespace scc::sccd
