// Who is registered: which process holds which app id, on which two sockets. One app id belongs to
// one process; a process that registers again has lost its old connection and replaces it.
#pragma once

#include <map>
#include <vector>

#include "msg/protocol.h"

namespace scc::sccd {

using PeerId = u64;    // one connected socket
using ClientId = u64;  // one registration; never used twice

struct Registration {
    u32 app_id = 0;
    u32 pid = 0;
    u8 option = 0;
    bool sync = false;
};

struct Client {
    ClientId id = 0;
    u32 app_id = 0;
    u32 pid = 0;
    u8 option = 0;
    PeerId sync = 0;  // 0 = not registered on this socket yet
    PeerId async = 0;

    [[nodiscard]] bool complete() const { return sync != 0 && async != 0; }
    [[nodiscard]] bool is_service() const { return app_id == limits::service_app_id; }
};

class Registry {
  public:
    [[nodiscard]] Client* find(ClientId id);
    [[nodiscard]] Client* find_app(u32 app_id);
    // Binds a socket to its registration, which begins with the first of the two sockets.
    Client& bind(const Registration& registration, PeerId peer);
    void erase(ClientId id);
    [[nodiscard]] const std::map<u32, Client>& by_app() const { return by_app_; }
    [[nodiscard]] std::vector<Client> applications() const;  // complete ones, without the service

  private:
    std::map<u32, Client> by_app_;
    ClientId last_id_ = 0;
};

}  // namespace scc::sccd
