// The registrations: which process holds which app id, on which two sockets. An app id belongs to one
// process; a process that registers again has lost its old connection and replaces it.
#pragma once

#include <map>
#include <vector>

#include "msg/protocol.h"

namespace scc::sccd {

using peer_id = u64;    // one connected socket
using client_id = u64;  // one registration; never used twice

struct client_registration {
    u32 app_id = 0;
    u32 pid = 0;
    u8 option = 0;
    bool sync = false;
};

struct client_entry {
    client_id id = 0;
    u32 app_id = 0;
    u32 pid = 0;
    u8 option = 0;
    peer_id sync = 0;  // 0: not registered on this socket yet
    peer_id async = 0;

    [[nodiscard]] bool complete() const { return sync != 0 && async != 0; }
    [[nodiscard]] bool is_service() const { return app_id == limits::service_app_id; }
};

class client_registry {
  public:
    [[nodiscard]] client_entry* find(client_id id);
    [[nodiscard]] client_entry* find_app(u32 app_id);
    // Binds a socket to its registration, which the first of the two sockets creates.
    client_entry& bind(const client_registration& registration, peer_id peer);
    void erase(client_id id);
    [[nodiscard]] const std::map<u32, client_entry>& by_app() const { return by_app_; }
    // Complete registrations, without the service.
    [[nodiscard]] std::vector<client_entry> applications() const;

  private:
    std::map<u32, client_entry> by_app_;
    client_id last_id_ = 0;
};

}  // namespace scc::sccd
