// An application under load, to be killed: load_application APP_ID LIFE LEDGER USERS_AT_ONCE thread|loop.
// The last word says whether the library receives with a thread of its own or on an event loop.
//
// One thread adds users, which the security service carries out, each under its own MAC address; one sets
// egress ports, which the service carries out too, and address learning, which the daemon answers itself; one
// makes synchronous queries. The outcome of each call id goes into the ledger.
#include <scclib.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "support/load_program.h"

namespace {

using test::call_kind;
using test::nap;

constexpr std::int32_t others_at_once = 100;
// Without a service, user requests are answered at once; the pauses keep the daemon's tables from growing too
// far.
constexpr std::uint32_t users_between_naps = 8;

test::load_program g_load;

// ---- handlers ----

void on_status(std::uint32_t status) {
    g_load.notes->status(status);
}

constexpr std::size_t mac_offset = 8;

void on_user(std::uint32_t result, std::uint32_t call_id, const scc_user_record* record) {
    const std::uint8_t* mac = record->head + mac_offset;
    const std::uint32_t number = std::uint32_t{mac[3]} << 16 | std::uint32_t{mac[4]} << 8 | mac[5];
    g_load.notes->answer(call_kind::user, call_id, result, number);
}

void on_egress_port(std::uint32_t result, std::uint32_t call_id, std::uint32_t ifx, std::uint8_t /*value*/) {
    g_load.notes->answer(call_kind::egress_port, call_id, result, ifx);
}

void on_addr_learning(std::uint32_t result, std::uint32_t call_id, std::uint32_t ifx,
                      std::uint8_t /*enable*/) {
    g_load.notes->answer(call_kind::addr_learning, call_id, result, ifx);
}

// ---- the load ----

std::uint32_t add_user(std::uint32_t number, std::uint32_t* call_id) {
    scc_user_record record{};
    const std::uint32_t ifx = number % 8 + 1;
    std::memcpy(record.head, &ifx, sizeof ifx);
    const std::uint8_t mac[6] = {0x02,
                                 static_cast<std::uint8_t>(g_load.app_id),
                                 static_cast<std::uint8_t>(g_load.life),
                                 static_cast<std::uint8_t>(number >> 16),
                                 static_cast<std::uint8_t>(number >> 8),
                                 static_cast<std::uint8_t>(number)};
    std::memcpy(record.head + mac_offset, mac, sizeof mac);
    record.entry_type = 5;
    record.operation = SCC_USER_OPERATION_ADD;
    return scc_nac_user_set(&record, call_id);
}

void add_users(std::int32_t at_once) {
    std::uint32_t number = 0;
    g_load.notes->obey([&] {
        if (!g_load.notes->connected() || g_load.notes->outstanding(call_kind::user) >= at_once) {
            return nap();
        }
        g_load.notes->request(call_kind::user, ++number, add_user);
        if (number % users_between_naps == 0) {
            nap();
        }
    });
}

std::int32_t others() {
    return g_load.notes->outstanding() - g_load.notes->outstanding(call_kind::user);
}

void change_settings() {
    std::uint32_t number = 0;
    g_load.notes->obey([&] {
        if (!g_load.notes->connected() || others() >= others_at_once) {
            return nap();
        }
        const std::uint32_t ifx = ++number % 100 + 1;
        if (number % 2 == 0) {
            g_load.notes->request(call_kind::egress_port, ifx,
                                  [](std::uint32_t port, std::uint32_t* call_id) {
                                      return scc_acl_global_eport_set(port, 1, call_id);
                                  });
        } else {
            g_load.notes->request(call_kind::addr_learning, ifx,
                                  [](std::uint32_t port, std::uint32_t* call_id) {
                                      return scc_addr_learning(port, 1, call_id);
                                  });
        }
    });
}

void ask() {
    g_load.notes->obey([] {
        std::uint32_t count = 0;
        if (scc_arp_check_user_count_get(1, &count) == 0) {
            ++g_load.notes->ledger().queries;
        }
        nap();
    });
}

scc_reg_info registration() {
    scc_reg_info info{};
    info.app_id = g_load.app_id;
    info.handlers.server_status = on_status;
    info.handlers.nac_user = on_user;
    info.handlers.global_eport = on_egress_port;
    info.handlers.addr_learning = on_addr_learning;
    return info;
}

}  // namespace

int main(int count, char** words) {
    if (const int status = test::begin_load(count, words, g_load); status != 0) {
        return status;
    }
    const std::int32_t users_at_once = std::atoi(words[4]);
    static scc_reg_info info = registration();
    return test::run_load(info, std::strcmp(words[5], "loop") == 0, g_load,
                          {[users_at_once] { add_users(users_at_once); }, change_settings, ask});
}
