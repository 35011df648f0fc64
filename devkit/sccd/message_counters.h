// Counts the messages of the clients' sockets, for the control command "metrics". The counts of an app id go
// on when its process ends and another one registers. One thread.
#pragma once

#include <chrono>
#include <map>

#include "common/messages.h"
#include "common/pcapng.h"

namespace scc::sccd {

struct message_count {
    u64 messages = 0;
    u64 items = 0;
    u64 bytes = 0;
};

struct client_count {
    message_count received;
    message_count sent;
    u64 unanswered = 0;  // requests with a result to come
};

class message_counters {
  public:
    void message(const devkit::pcapng::packet_header& header, devkit::byte_view bytes);
    // A registration of the app id has ended; nothing more is answered.
    void client_gone(u32 app) { clients_[app].unanswered = 0; }

    // By app id; 0 counts sockets that are not registered.
    [[nodiscard]] const std::map<u32, client_count>& clients() const { return clients_; }
    [[nodiscard]] const std::map<const devkit::message_type*, u64>& requests() const { return requests_; }
    [[nodiscard]] const std::map<u32, u64>& results() const { return results_; }
    [[nodiscard]] std::chrono::duration<double> running_for() const {
        return std::chrono::steady_clock::now() - start_;
    }
    [[nodiscard]] std::chrono::system_clock::time_point started_at() const { return started_at_; }

  private:
    void received(u32 app, client_count& client, const devkit::message_type* type);
    void sent(client_count& client, u16 type, devkit::byte_view value);

    std::map<u32, client_count> clients_;
    std::map<const devkit::message_type*, u64> requests_;
    std::map<u32, u64> results_;
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
    std::chrono::system_clock::time_point started_at_ = std::chrono::system_clock::now();
};

}  // namespace scc::sccd
