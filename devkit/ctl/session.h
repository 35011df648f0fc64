// One registration with the daemon, and the waits for its events.
//
// Main thread only; events of the library's thread arrive through the inbox.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "acl_book.h"
#include "inbox.h"

namespace scc::ctl {

inline constexpr std::uint32_t default_app_id = 19;
inline constexpr std::chrono::milliseconds default_timeout{5000};

struct session_options {
    std::uint32_t app_id = default_app_id;
    std::uint8_t option = 1;  // 1 keeps an ACL cache that can be read
    std::chrono::milliseconds timeout = default_timeout;
    bool notifications = false;
};

// Whether a call's result means that the connection was lost while it ran. EBADF does when the library's
// receive thread noticed first and closed it.
[[nodiscard]] bool tells_of_loss(std::uint32_t result);

class session {
  public:
    explicit session(const session_options& options) : options_(options) {}
    ~session() { stop(); }
    session(const session&) = delete;
    session& operator=(const session&) = delete;

    // Registers and waits for the daemon to accept. On failure problem() says why.
    [[nodiscard]] bool start();
    void stop();

    // Waits for the result of a request. Empty on a time-out or a lost connection.
    [[nodiscard]] std::optional<event> wait_result(std::uint32_t call_id);
    // Waits for the next result of any request.
    [[nodiscard]] std::optional<event> wait_any_result();
    // Waits for any event, including results nobody waits for.
    [[nodiscard]] std::optional<event> wait_event(steady::time_point deadline);
    // Waits until unanswered requests have left the send buffer.
    void linger() const;
    // A call that began after this many registrations has returned this.
    void note_result(std::uint64_t registrations, std::uint32_t result);

    [[nodiscard]] const std::string& problem() const { return problem_; }
    [[nodiscard]] acl_book& book() { return book_; }
    [[nodiscard]] const session_options& options() const { return options_; }

  private:
    [[nodiscard]] steady::time_point deadline() const { return steady::now() + options_.timeout; }
    bool fail(std::string why);
    void lost();
    void await_connection();

    session_options options_;
    bool started_ = false;
    bool was_registered_ = false;
    std::uint64_t lost_after_ = 0;  // the registrations before the connection broke
    std::string problem_;
    std::map<std::uint32_t, event> early_;  // results that arrived before anyone waited for them
    acl_book book_;
};

}  // namespace scc::ctl
