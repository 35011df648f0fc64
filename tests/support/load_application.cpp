// An application under load, to be killed: load_application APP_ID LIFE LEDGER USERS_AT_ONCE thread|loop.
// The last word says whether the library receives with a thread of its own or on an event loop.
//
// One thread adds users, which the security service carries out, each under a MAC address of its own; one
// sets egress ports, which it does, too, and address learning, which the daemon answers by itself; one asks
// synchronous questions. What becomes of each call id goes into the ledger.
#include <qx_thread.h>
#include <scclib.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <future>
#include <thread>

#include "support/call_ledger.h"

namespace {

using test::call_entry;
using test::call_kind;
using test::call_ledger;
using test::load_command;

constexpr std::int32_t others_at_once = 100;
// Without a service users are answered at once; the tables should not grow without bound meanwhile.
constexpr std::uint32_t users_between_naps = 8;

call_ledger* g_ledger = nullptr;
std::uint32_t g_app_id = 0;
std::uint32_t g_life = 0;
std::atomic<std::int32_t> g_users{0};  // outstanding; a connection that is lost takes them all
std::atomic<std::int32_t> g_others{0};

void nap() {
    usleep(1000);
}

std::atomic<std::int32_t>& outstanding_of(call_kind kind) {
    return kind == call_kind::user ? g_users : g_others;
}

void publish_outstanding() {
    const std::int32_t users = g_users;
    const std::int32_t all = users + g_others;
    g_ledger->users_in_flight = users > 0 ? static_cast<std::uint32_t>(users) : 0;
    g_ledger->outstanding = all > 0 ? static_cast<std::uint32_t>(all) : 0;
}

// ---- what the library's thread tells ----

void on_status(std::uint32_t status) {
    if (status == 1) {
        ++g_ledger->connections;
        g_ledger->connected = 1;
        return;
    }
    g_ledger->connected = 0;
    g_users = 0;
    g_others = 0;
    publish_outstanding();
    ++g_ledger->losses;
}

void note_answer(call_kind kind, std::uint32_t call_id, std::uint32_t result, std::uint32_t number) {
    if (call_id >= call_ledger::calls_max) {
        ++g_ledger->strange_returns;
        return;
    }
    call_entry& call = g_ledger->calls[call_id];
    call.result = result;
    call.answered_number = number;
    call.answered_on = static_cast<std::uint16_t>(g_ledger->connections.load());
    if (g_ledger->connected == 0) {
        ++call.answers_while_lost;
    }
    ++call.answers;
    --outstanding_of(kind);
    publish_outstanding();
    ++g_ledger->answered;
}

constexpr std::size_t mac_offset = 8;

void on_user(std::uint32_t result, std::uint32_t call_id, const scc_user_record* record) {
    const std::uint8_t* mac = record->head + mac_offset;
    const std::uint32_t number = std::uint32_t{mac[3]} << 16 | std::uint32_t{mac[4]} << 8 | mac[5];
    note_answer(call_kind::user, call_id, result, number);
}

void on_egress_port(std::uint32_t result, std::uint32_t call_id, std::uint32_t ifx, std::uint8_t /*value*/) {
    note_answer(call_kind::egress_port, call_id, result, ifx);
}

void on_addr_learning(std::uint32_t result, std::uint32_t call_id, std::uint32_t ifx,
                      std::uint8_t /*enable*/) {
    note_answer(call_kind::addr_learning, call_id, result, ifx);
}

// ---- the load ----

std::uint32_t add_user(std::uint32_t number, std::uint32_t* call_id) {
    scc_user_record record{};
    const std::uint32_t ifx = number % 8 + 1;
    std::memcpy(record.head, &ifx, sizeof ifx);
    const std::uint8_t mac[6] = {0x02,
                                 static_cast<std::uint8_t>(g_app_id),
                                 static_cast<std::uint8_t>(g_life),
                                 static_cast<std::uint8_t>(number >> 16),
                                 static_cast<std::uint8_t>(number >> 8),
                                 static_cast<std::uint8_t>(number)};
    std::memcpy(record.head + mac_offset, mac, sizeof mac);
    record.entry_type = 5;
    record.operation = SCC_USER_OPERATION_ADD;
    return scc_nac_user_set(&record, call_id);
}

template <class Request>
void request(call_kind kind, std::uint32_t number, const Request& make) {
    const std::uint32_t before = g_ledger->connections;
    std::uint32_t call_id = 0;
    const std::uint32_t result = make(number, &call_id);
    const std::uint32_t after = g_ledger->connections;
    if (result == SCC_E_UNAVAILABLE) {
        return nap();
    }
    if (result != 0 || call_id >= call_ledger::calls_max) {
        ++g_ledger->strange_returns;
        return;
    }
    call_entry& call = g_ledger->calls[call_id];
    call.kind = kind;
    call.number = number;
    call.connection_before = static_cast<std::uint16_t>(before);
    call.connection_after = static_cast<std::uint16_t>(after);
    call.accepted = 1;
    ++outstanding_of(kind);
    publish_outstanding();
    ++g_ledger->accepted;
    std::uint32_t last = g_ledger->last_call_id;
    while (last < call_id && !g_ledger->last_call_id.compare_exchange_weak(last, call_id)) {
    }
}

// Works until it is told to leave; each rest is counted once.
template <class Work>
void obey(const Work& work) {
    bool rests = false;
    for (;;) {
        const load_command command = g_ledger->command;
        if (command == load_command::leave) {
            return;
        }
        if (command == load_command::rest) {
            if (!rests) {
                ++g_ledger->resting;
            }
            rests = true;
            nap();
            continue;
        }
        if (rests) {
            --g_ledger->resting;
        }
        rests = false;
        work();
    }
}

void add_users(std::int32_t at_once) {
    std::uint32_t number = 0;
    obey([&] {
        if (g_ledger->connected == 0 || g_users >= at_once) {
            return nap();
        }
        request(call_kind::user, ++number, add_user);
        if (number % users_between_naps == 0) {
            nap();
        }
    });
}

void change_settings() {
    std::uint32_t number = 0;
    obey([&] {
        if (g_ledger->connected == 0 || g_others >= others_at_once) {
            return nap();
        }
        const std::uint32_t ifx = ++number % 100 + 1;
        if (number % 2 == 0) {
            request(call_kind::egress_port, ifx, [](std::uint32_t port, std::uint32_t* call_id) {
                return scc_acl_global_eport_set(port, 1, call_id);
            });
        } else {
            request(call_kind::addr_learning, ifx, [](std::uint32_t port, std::uint32_t* call_id) {
                return scc_addr_learning(port, 1, call_id);
            });
        }
    });
}

void ask() {
    obey([] {
        std::uint32_t count = 0;
        if (scc_arp_check_user_count_get(1, &count) == 0) {
            ++g_ledger->queries;
        }
        nap();
    });
}

// The library's tasks on an event loop with a thread of its own, which runs to the end of the process.
class event_loop {
  public:
    event_loop() : master_(qx_thread_master_create()) {
        std::thread([this] { qx_thread_master_run(master_); }).detach();
    }
    template <class Function>
    std::uint32_t run(Function function) {
        std::packaged_task<std::uint32_t()> work(function);
        auto result = work.get_future();
        qx_thread_add_event_withname(master_, run_work, &work, 0, "load");
        return result.get();
    }

    [[nodiscard]] qx_thread_master* master() const { return master_; }

  private:
    static int run_work(qx_thread* task) {
        (*static_cast<std::packaged_task<std::uint32_t()>*>(qx_thread_arg(task)))();
        return 0;
    }
    qx_thread_master* master_;
};

int run(std::int32_t users_at_once, bool has_loop) {
    static event_loop* const loop = has_loop ? new event_loop : nullptr;
    static scc_reg_info info{};
    info.app_id = g_app_id;
    info.handlers.server_status = on_status;
    info.handlers.nac_user = on_user;
    info.handlers.global_eport = on_egress_port;
    info.handlers.addr_learning = on_addr_learning;
    const std::uint32_t error =
        has_loop ? loop->run([] { return scc_agent_init(&info, loop->master()); }) : scc_svr_reg(&info);
    if (error != 0) {
        return 1;
    }
    std::thread users([users_at_once] { add_users(users_at_once); });
    std::thread settings(change_settings);
    ask();
    users.join();
    settings.join();
    return (has_loop ? loop->run(scc_agent_finish) : scc_svr_unreg()) == 0 ? 0 : 2;
}

}  // namespace

int main(int count, char** words) {
    if (count != 6) {
        return 64;
    }
    g_app_id = static_cast<std::uint32_t>(std::atoi(words[1]));
    g_life = static_cast<std::uint32_t>(std::atoi(words[2]));
    static const auto* ledger = new test::mapped_ledger(words[3]);  // the handlers outlive main
    if (!ledger->is_there()) {
        std::perror(words[3]);
        return 65;
    }
    g_ledger = &**ledger;
    return run(std::atoi(words[4]), std::strcmp(words[5], "loop") == 0);
}
