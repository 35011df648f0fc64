// The model of the library: plain containers, no threads, no sockets. Each act adds the expected events to
// `seen`. It uses none of the library's code.
#pragma once

#include <array>
#include <optional>

#include "model/acl_cache.h"
#include "model/acts.h"
#include "model/id_types.h"
#include "model/notifications.h"
#include "model/operations.h"
#include "model/queries.h"
#include "model/requests.h"
#include "model/results.h"
#include "model/statistics.h"

namespace model {

struct pending_call {
    u32 id;
    u32 kind;
    bytes saved;
};

struct start_facts {
    bool is_service;
    u32 app_id;
    u8 option;
    u8 absent;  // 0: no handler is absent; otherwise those whose positions it divides are
};

start_facts start_of(const act& start);
inline bool is_absent(const start_facts& facts, u32 position) {
    return facts.absent != 0 && position % facts.absent == 0;
}

struct kept_operation {
    operation of;
    bool answers_at_once;
};

struct daemon_item {
    u16 sub_id;
    u16 type;
    bytes value;
    std::optional<notification> heard;
    std::optional<operation> asked;
    bool answers_at_once = false;
};

class library_model {
  public:
    enum class standing : u8 {
        idle,        // not registered
        connecting,  // started, and not registered yet or again
        registered,
    };
    enum class link : u8 {
        good,
        dead,    // the daemon has gone, and nobody has noticed
        closed,  // a send has noticed
    };

    events seen;

    // The process's acts.
    void start(const act& how);
    void unregister();
    void make_request(u8 which, u8 seed, u8 how);
    void make_query(u8 which, u8 seed, u8 how);
    void read_cache(u8 which, u8 seed, u8 how);
    void react(const act& with) { reaction_ = with; }
    void answer_operation(u8 which, u8 seed);

    // The library's threads.
    void check();
    void notice_loss();
    void try_to_register();

    // The daemon's acts.
    void deliver(const std::vector<daemon_item>& items);
    void lose() { link_ = link::dead; }

    bool daemon_is_there = true;
    std::optional<u8> refuses_registration;  // on this socket: 1 synchronous, 0 asynchronous
    bool refuses_unregistration = false;

    [[nodiscard]] standing now() const { return standing_; }
    [[nodiscard]] link connection() const { return link_; }
    [[nodiscard]] bool is_service() const { return facts_.is_service; }
    [[nodiscard]] bool has_handler(u32 position) const { return !is_absent(facts_, position); }
    [[nodiscard]] const std::vector<pending_call>& pending() const { return pending_; }
    [[nodiscard]] std::size_t kept_operations() const { return kept_.size(); }

  private:
    void returned(u32 error, const bytes& out);
    void call_handler(u32 position, const bytes& arguments);
    void drop_data();
    u32 send_batched(u16 sub_id, u16 type, const bytes& value);
    bool flush();
    bool send_now(const char* socket, u16 sub_id, u16 type, const bytes& value);
    void delete_pending(u32 id);
    void take_result(const bytes& value);
    void hear(const notification& heard);
    void take_application_item(const daemon_item& item);
    void take_service_item(const daemon_item& item);
    void take_common_item(const daemon_item& item);
    void display_cache();
    void operate(const daemon_item& item);
    void send_answer(const operation& of, const operation_answer& with);

    standing standing_ = standing::idle;
    link link_ = link::closed;
    start_facts facts_{};
    bool was_registered_ = false;  // in this start
    u32 last_call_id_ = 0;
    u64 capability_ = 0;
    std::vector<pending_call> pending_;
    std::vector<bytes> batch_;  // items
    std::size_t batch_bytes_ = 0;
    acl_cache cache_;
    statistics statistics_;
    id_types types_;
    std::vector<operation> kept_;
    std::optional<act> reaction_;
};

// What the service answers to an operation immediately.
operation_answer immediate_answer(const operation& of);
operation_answer later_answer(u8 seed);
// The daemon's reply to a query, chosen by an act's `how`: a result, or another message.
u32 query_result(u8 how);
bool is_wrong_reply(u8 how);
constexpr u8 cache_reads = 4;

}  // namespace model
