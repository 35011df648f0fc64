#include "sccd/registry.h"

#include <algorithm>

namespace scc::sccd {

client_entry* client_registry::find(client_id id) {
    const auto client = std::find_if(by_app_.begin(), by_app_.end(),
                                     [id](const auto& entry) { return entry.second.id == id; });
    return client == by_app_.end() ? nullptr : &client->second;
}

client_entry* client_registry::find_app(u32 app_id) {
    const auto client = by_app_.find(app_id);
    return client == by_app_.end() ? nullptr : &client->second;
}

client_entry& client_registry::bind(const client_registration& registration, peer_id peer) {
    const auto [entry, is_new] = by_app_.try_emplace(registration.app_id);
    client_entry& client = entry->second;
    if (is_new) {
        client.id = ++last_id_;
    }
    client.app_id = registration.app_id;
    client.pid = registration.pid;
    client.option = registration.option;
    (registration.sync ? client.sync : client.async) = peer;
    return client;
}

void client_registry::erase(client_id id) {
    std::erase_if(by_app_, [id](const auto& entry) { return entry.second.id == id; });
}

std::vector<client_entry> client_registry::applications() const {
    std::vector<client_entry> found;
    for (const auto& [app_id, client] : by_app_) {
        if (client.complete() && !client.is_service()) {
            found.push_back(client);
        }
    }
    return found;
}

}  // namespace scc::sccd
