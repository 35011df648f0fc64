// A daemon on its own thread that answers everything at once and by rule: registrations and requests with
// success, queries with values derived from the query, so that an answer to another query is noticed. It
// accepts only whole messages that their items fill exactly; it closes a connection that sends anything else,
// and, like a real daemon, one that does not register within half a second.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/wire_bytes.h"

namespace sweep {

class peer {
  public:
    explicit peer(std::string runtime_directory);
    ~peer();
    peer(const peer&) = delete;
    peer& operator=(const peer&) = delete;

    // Sends the items as one message on the asynchronous connection, if there is one.
    void send(std::vector<test::bytes> items);
    // Ends all connections and refuses new ones for a while; returns when it listens again.
    void restart();
    void stop();

    // How often an item of this type has arrived.
    [[nodiscard]] unsigned arrived(std::uint16_t type);
    // How often the service's result for this call id has arrived.
    [[nodiscard]] unsigned service_results(std::uint32_t call_id);
    // Connections that were closed because of what they sent.
    [[nodiscard]] unsigned malformed();

  private:
    struct connection {
        int fd;
        std::chrono::steady_clock::time_point accepted;
        bool async = false;
        bool registered = false;
        test::bytes unread;
    };

    void run();
    void listen();
    void close_all();
    void obey();
    bool read(connection& from);
    bool take_messages(connection& from);
    void take_item(connection& from, std::uint16_t type, const test::bytes& value);
    void answer_query(connection& from, std::uint16_t type, const test::bytes& value);
    static void write(const connection& to, const std::vector<test::bytes>& items);
    connection* asynchronous();

    std::string path_;
    int listener_ = -1;
    int wake_[2] = {-1, -1};
    std::deque<connection> connections_;  // used by the thread only
    std::mutex mutex_;
    std::vector<std::vector<test::bytes>> waiting_;
    bool restarting_ = false;
    std::condition_variable restarted_;
    bool stopping_ = false;
    std::map<std::uint16_t, unsigned> arrived_;
    std::map<std::uint32_t, unsigned> service_results_;
    unsigned malformed_ = 0;
    std::thread thread_;
};

// The answers that the daemon derives from a query.
std::uint32_t address_of(const std::uint8_t* mac);
std::uint32_t count_of(std::uint32_t key);
std::uint64_t counter_of(std::uint32_t acl_id, std::uint64_t ace);

}  // namespace sweep
