// The outcome of each call id of one application process, in memory that outlives it: the application writes;
// the test that started it, and may kill it at any moment, reads. One ledger covers one life of the process.
//
// A ledger has space for calls_max calls. If its reader judges calls while they are made, a smaller window
// suffices, which call ids use cyclically: the reader empties an entry before it raises `audited`, and no
// request is made more than a window beyond that.
#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <string>

namespace test {

enum class load_command : std::uint32_t { run, rest, leave };

enum class call_kind : std::uint8_t {
    user,
    egress_port,
    addr_learning,
    port_open,
    acl_create,
    acl_add_ace,
    acl_resequence,
    acl_delete,
};
inline constexpr std::size_t call_kinds = 8;

// The daemon answers these itself, in the order of the requests; the security service carries out all others.
constexpr bool is_answered_at_once(call_kind kind) {
    return kind == call_kind::addr_learning || kind == call_kind::port_open;
}

// Connections are counted from 1; 0 = none yet.
struct call_entry {
    std::atomic<std::uint8_t> accepted;  // the request returned 0
    std::atomic<call_kind> kind;
    std::atomic<std::uint8_t> answers;
    std::atomic<std::uint8_t> answers_while_lost;
    std::atomic<std::uint8_t> straddles;           // a loss was reported while the request was made
    std::atomic<std::uint16_t> connection_before;  // when the request began
    std::atomic<std::uint16_t> connection_after;   // when it returned
    std::atomic<std::uint16_t> answered_on;
    std::atomic<std::uint32_t> number;           // what the request was about
    std::atomic<std::uint32_t> answered_number;  // what its answer was about
    std::atomic<std::uint32_t> result;
};

// A user whose addition another application reports although it seems to belong to an earlier connection.
struct stale_user {
    std::atomic<std::uint32_t> app_id;
    std::atomic<std::uint32_t> life;
    std::atomic<std::uint32_t> number;
};

struct call_ledger {
    static constexpr std::uint32_t stale_users_max = 16;
    static constexpr std::uint32_t calls_max = 1U << 20;

    std::atomic<load_command> command;
    std::atomic<std::uint32_t> load_threads;
    std::atomic<std::uint32_t> resting;  // threads that obey a command to rest
    std::atomic<std::uint32_t> connected;
    std::atomic<std::uint32_t> connections;
    std::atomic<std::uint32_t> losses;
    std::atomic<std::uint32_t> accepted;
    std::atomic<std::uint32_t> answered;
    std::atomic<std::uint32_t> queries;          // answered
    std::atomic<std::uint32_t> outstanding;      // at this moment, approximately
    std::atomic<std::uint32_t> users_in_flight;  // of them, those that the service has to carry out
    std::atomic<std::uint32_t> last_call_id;
    std::atomic<std::uint32_t> strange_returns;  // neither accepted nor refused for lack of a connection
    std::atomic<std::uint32_t> answered_of[call_kinds];
    std::atomic<std::uint32_t> out_of_order;      // answers that overtook an earlier request's
    std::atomic<std::uint32_t> late_answers;      // to calls that had been judged
    std::atomic<std::uint32_t> wrong_queries;     // with another query's answer or an unexpected result
    std::atomic<std::uint32_t> last_wrong_query;  // its result
    std::atomic<std::uint32_t> notifications;
    std::atomic<std::uint32_t> last_notification;      // the number that the newest one carried
    std::atomic<std::uint32_t> strange_notifications;  // repeated, overtaken or missing on one connection
    std::atomic<std::uint32_t> stale_user_count;
    stale_user stale_users[stale_users_max];
    std::atomic<std::uint32_t> cache_reads;
    std::atomic<std::uint32_t> cache_faults;
    std::atomic<std::uint32_t> window;   // 0: calls_max
    std::atomic<std::uint32_t> audited;  // calls below it are judged and their entries empty
    call_entry calls[calls_max];

    [[nodiscard]] std::uint32_t size() const { return window == 0 ? calls_max : window.load(); }
    [[nodiscard]] const call_entry& of(std::uint32_t id) const { return calls[id % size()]; }
    [[nodiscard]] call_entry& of(std::uint32_t id) { return calls[id % size()]; }
    // Makes all of the window resident, so that a process does not seem to grow while it fills it.
    void touch() const {
        for (std::uint32_t id = 0; id < size(); ++id) {
            static_cast<void>(calls[id].accepted.load());
        }
    }
    [[nodiscard]] bool has_room_for(std::uint32_t id) const { return id - audited < size(); }
};

// The ledger in a file, which is created if it does not exist. Untouched pages take no space.
class mapped_ledger {
  public:
    explicit mapped_ledger(const std::string& path) {
        const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        if (fd >= 0 && ftruncate(fd, sizeof(call_ledger)) == 0) {
            void* place = mmap(nullptr, sizeof(call_ledger), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
            ledger_ = place == MAP_FAILED ? nullptr : static_cast<call_ledger*>(place);
        }
        if (fd >= 0) {
            close(fd);
        }
    }
    ~mapped_ledger() {
        if (ledger_ != nullptr) {
            munmap(ledger_, sizeof(call_ledger));
        }
    }
    mapped_ledger(const mapped_ledger&) = delete;
    mapped_ledger& operator=(const mapped_ledger&) = delete;

    [[nodiscard]] bool is_there() const { return ledger_ != nullptr; }
    call_ledger& operator*() const { return *ledger_; }
    call_ledger* operator->() const { return ledger_; }

  private:
    call_ledger* ledger_ = nullptr;
};

}  // namespace test
