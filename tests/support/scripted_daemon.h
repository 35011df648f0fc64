// A daemon that does what the test says, byte by byte, on the test's own thread. It listens in a fresh
// TMPDIR; the library's threads in the same process are its clients. Every wait ends after 60 seconds with
// a failure of the test.
#pragma once

#include <optional>
#include <string>

#include "support/temp_dir.h"
#include "support/wire_bytes.h"

namespace test {

enum class side { sync, async };

class scripted_daemon {
  public:
    scripted_daemon();  // listens at once
    ~scripted_daemon();
    scripted_daemon(const scripted_daemon&) = delete;
    scripted_daemon& operator=(const scripted_daemon&) = delete;

    [[nodiscard]] const temp_dir& directory() const { return directory_; }

    void listen();
    void stop_listening();

    // Accepts the two connections in the library's order, sync then async.
    void accept_both();
    // Accepts, reads the two registrations and answers each with 0. Returns their values.
    std::pair<bytes, bytes> accept_registration();
    // Reads a registration on that side and answers with the result.
    bytes answer_registration(side where, std::uint32_t result = 0, std::uint32_t holder = 0);
    // Reads the unregistration and answers it; returns its value.
    bytes answer_unregistration(std::uint32_t result = 0);

    received_message read(side where);
    // Reads messages until that many items have come, from as many messages as it takes.
    std::vector<received_item> read_items(side where, std::size_t count);
    // The next item, whatever message it came in.
    received_item read_item(side where);
    // Whether nothing arrives for that long.
    bool stays_silent(side where, int milliseconds);
    // Whether the peer has closed. Discards everything unread.
    bool wait_for_close(side where);

    void send(side where, const bytes& raw);
    void send_items(side where, const std::vector<bytes>& items) { send(where, message_bytes(items)); }
    void send_item(side where, std::uint16_t type, const bytes& value, std::uint16_t sub_id = 0) {
        send_items(where, {item_bytes(type, value, sub_id)});
    }
    // The result of an asynchronous request.
    void send_result(std::uint32_t call_id, std::uint32_t result) {
        send_item(side::async, 401, wire().u32(call_id).u32(result));
    }

    void close_side(side where);
    void close_both();
    [[nodiscard]] int fd(side where) const { return where == side::sync ? sync_ : async_; }

  private:
    int accept_one();

    temp_dir directory_;
    int listener_ = -1;
    int sync_ = -1;
    int async_ = -1;
    std::vector<received_item> waiting_[2];
};

}  // namespace test
