// A client of the soak: soak_client APP_ID LIFE LEDGER thread|loop OPTION.
//
// One thread adds and deletes users, which the security service carries out and the other clients are
// notified of; one sets egress ports, which the service carries out too, and address learning, which the
// daemon answers itself; one creates and deletes ACLs with their ACEs; one makes synchronous queries. Every
// request carries a number that its answer must return. With option 1, the ACL cache is compared with the
// results so far.
#include <scclib.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <thread>
#include <utility>

#include "soak/acl_mirror.h"
#include "support/load_program.h"

namespace {

using test::call_kind;

constexpr std::int32_t users_at_once = 24;
constexpr std::int32_t settings_at_once = 24;
constexpr std::uint32_t requests_between_naps = 4;
constexpr std::uint32_t users = 16;   // for each client, added and deleted in turn
constexpr std::uint32_t ports = 100;  // the daemon keeps the last setting of each
constexpr std::uint32_t acls = 4;
constexpr std::uint32_t aces = 3;
constexpr std::uint32_t acl_type = 3;
constexpr std::size_t mac_offset = 8;

test::load_program g_load;

constexpr std::uint32_t pause_us = 4000;
// Every other client is notified of each user; a stopped client finds all the notifications when it
// continues.
constexpr std::uint32_t pause_between_users_us = 16'000;

// ---- numbers in records ----

// At the end of a user record, which daemon and service carry unchanged.
struct user_number {
    std::uint32_t life;
    std::uint32_t number;
    std::uint32_t connection;
};
constexpr std::size_t user_number_offset = sizeof(scc_user_record) - sizeof(user_number);

user_number number_of(const void* record) {
    user_number sign{};
    std::memcpy(&sign, static_cast<const std::uint8_t*>(record) + user_number_offset, sizeof sign);
    return sign;
}

std::uint32_t number_of(const scc_config_record& record) {
    std::uint32_t number = 0;
    std::memcpy(&number, record.body, sizeof number);
    return number;
}

scc_acl_key acl_key(std::uint32_t slot, std::uint32_t number) {
    return {g_load.app_id, acl_type, slot + 1, number};
}

// ---- handlers ----

soak::acl_mirror g_mirror;  // used by the library's thread only

void note_cache_check(const scc_acl_key& key) {
    switch (g_mirror.compare(key)) {
        case soak::comparison::none:
            return;
        case soak::comparison::differs:
            ++g_load.notes->ledger().cache_faults;
            return;
        case soak::comparison::same:
            ++g_load.notes->ledger().cache_reads;
            return;
    }
}

void on_status(std::uint32_t status) {
    g_mirror.clear();
    g_load.notes->status(status);
}

void on_user(std::uint32_t result, std::uint32_t call_id, const scc_user_record* record) {
    g_load.notes->answer(call_kind::user, call_id, result, number_of(record).number);
}
void on_egress_port(std::uint32_t result, std::uint32_t call_id, std::uint32_t ifx, std::uint8_t /*value*/) {
    g_load.notes->answer(call_kind::egress_port, call_id, result, ifx);
}
void on_addr_learning(std::uint32_t result, std::uint32_t call_id, std::uint32_t ifx,
                      std::uint8_t /*enable*/) {
    g_load.notes->answer(call_kind::addr_learning, call_id, result, ifx);
}
void on_port_open(std::uint32_t result, std::uint32_t call_id, const scc_config_record* record) {
    g_load.notes->answer(call_kind::port_open, call_id, result, number_of(*record));
}
void on_acl_create(std::uint32_t result, std::uint32_t call_id, const scc_acl_key* key) {
    g_load.notes->answer(call_kind::acl_create, call_id, result, key->acl_class);
    g_mirror.create(*key, result);
}
void on_acl_add_ace(std::uint32_t result, std::uint32_t call_id, const scc_acl_key* key,
                    const scc_ace_record* ace) {
    g_load.notes->answer(call_kind::acl_add_ace, call_id, result, ace->ace_id);
    g_mirror.add_ace(*key, *ace, result);
}
void on_acl_resequence(std::uint32_t result, std::uint32_t call_id, const scc_acl_key* key,
                       std::uint32_t sn_start, std::uint32_t sn_inc) {
    g_load.notes->answer(call_kind::acl_resequence, call_id, result, key->acl_class);
    g_mirror.resequence(*key, sn_start, sn_inc, result);
}
void on_acl_delete(std::uint32_t result, std::uint32_t call_id, const scc_acl_key* key) {
    g_load.notes->answer(call_kind::acl_delete, call_id, result, key->acl_class);
    note_cache_check(*key);
    g_mirror.remove(*key, result);
}

// The driver numbers the notifications that it makes the daemon send; on one connection none may be missing.
void on_authmode(std::uint32_t mode) {
    static std::uint32_t connection = 0;
    test::call_ledger& ledger = g_load.notes->ledger();
    const bool first = connection != ledger.connections;
    connection = ledger.connections;
    if (first ? mode <= ledger.last_notification : mode != ledger.last_notification + 1) {
        ++ledger.strange_notifications;
    }
    ledger.last_notification = mode;
    ++ledger.notifications;
}

void note_stale_user(std::uint32_t app_id, const user_number& sign) {
    test::call_ledger& ledger = g_load.notes->ledger();
    test::stale_user& entry =
        ledger.stale_users[ledger.stale_user_count % test::call_ledger::stale_users_max];
    entry.app_id = app_id;
    entry.life = sign.life;
    entry.number = sign.number;
    ++ledger.stale_user_count;
}

// Another client has added or deleted a user; additions arrive in the order in which it made them. A daemon
// that dies ends all connections, so no client sends to two daemons on one connection.
int on_user_change(std::uint8_t add, const void* /*user*/, const void* detail) {
    struct sighting {
        user_number sign;
        std::uint32_t own_connection;
    };
    static std::map<std::uint8_t, sighting> newest;
    test::call_ledger& ledger = g_load.notes->ledger();
    ++ledger.notifications;
    if (add == 0) {
        return 0;
    }
    const user_number sign = number_of(detail);
    const std::uint8_t app_id = static_cast<const std::uint8_t*>(detail)[mac_offset + 1];
    sighting& before = newest[app_id];
    if (std::pair(sign.life, sign.number) <= std::pair(before.sign.life, before.sign.number)) {
        ++ledger.strange_notifications;
    }
    if (sign.life == before.sign.life && sign.connection == before.sign.connection &&
        before.own_connection != ledger.connections) {
        note_stale_user(app_id, sign);
    }
    before = {sign, ledger.connections};
    return 0;
}

// ---- the load ----

std::uint32_t set_user(std::uint32_t number, std::uint32_t* call_id) {
    scc_user_record record{};
    const std::uint32_t user = number / 2 % users;
    const std::uint32_t ifx = user % 8 + 1;
    std::memcpy(record.head, &ifx, sizeof ifx);
    const std::uint8_t mac[6] = {0x02, static_cast<std::uint8_t>(g_load.app_id), 0, 0,
                                 0,    static_cast<std::uint8_t>(user)};
    std::memcpy(record.head + mac_offset, mac, sizeof mac);
    record.entry_type = 5;
    record.operation = number % 2 == 0 ? SCC_USER_OPERATION_ADD : SCC_USER_OPERATION_DELETE;
    const user_number sign{g_load.life, number, g_load.notes->ledger().connections};
    std::memcpy(reinterpret_cast<std::uint8_t*>(&record) + user_number_offset, &sign, sizeof sign);
    return scc_nac_user_set(&record, call_id);
}

// Makes a few requests whenever few enough are outstanding.
template <class Outstanding, class Request>
void keep_requesting(std::int32_t at_once, std::uint32_t pause, const Outstanding& outstanding,
                     const Request& request) {
    std::uint32_t number = 0;
    g_load.notes->obey([&] {
        for (std::uint32_t count = 0; count < requests_between_naps; ++count) {
            if (g_load.notes->connected() && outstanding() < at_once) {
                request(++number);
            }
        }
        usleep(pause);
    });
}

void change_users() {
    keep_requesting(
        users_at_once, pause_between_users_us, [] { return g_load.notes->outstanding(call_kind::user); },
        [](std::uint32_t number) { g_load.notes->request(call_kind::user, number, set_user); });
}

std::uint32_t open_port(std::uint32_t number, std::uint32_t* call_id) {
    scc_config_record record{};
    std::memcpy(record.body, &number, sizeof number);
    return scc_d1x_port_open(&record, call_id);
}

void change_setting(std::uint32_t number) {
    constexpr std::uint32_t settings = 3;
    const std::uint32_t port = number % ports + 1;
    switch (number % settings) {
        case 0:
            g_load.notes->request(call_kind::egress_port, port,
                                  [](std::uint32_t ifx, std::uint32_t* call_id) {
                                      return scc_acl_global_eport_set(ifx, 1, call_id);
                                  });
            return;
        case 1:
            g_load.notes->request(
                call_kind::addr_learning, port,
                [](std::uint32_t ifx, std::uint32_t* call_id) { return scc_addr_learning(ifx, 1, call_id); });
            return;
        default:
            g_load.notes->request(call_kind::port_open, port, open_port);
            return;
    }
}

void change_settings() {
    keep_requesting(
        settings_at_once, pause_us,
        [] {
            return g_load.notes->outstanding(call_kind::egress_port) +
                   g_load.notes->outstanding(call_kind::addr_learning) +
                   g_load.notes->outstanding(call_kind::port_open);
        },
        change_setting);
}

// Replaces the ACL of this slot without waiting for results, so that some ACLs are cached at any moment.
void replace_acl(std::uint32_t number) {
    const std::uint32_t slot = number % acls;
    const auto key = [slot](std::uint32_t serial) { return acl_key(slot, serial); };
    g_load.notes->request(call_kind::acl_delete, number, [&](std::uint32_t serial, std::uint32_t* call_id) {
        const scc_acl_key named = key(serial);
        return scc_acl_delete(&named, call_id);
    });
    g_load.notes->request(call_kind::acl_create, number, [&](std::uint32_t serial, std::uint32_t* call_id) {
        const scc_acl_key named = key(serial);
        return scc_acl_create(&named, call_id);
    });
    for (std::uint32_t entry = 0; entry < aces; ++entry) {
        g_load.notes->request(call_kind::acl_add_ace, number * aces + entry,
                              [&](std::uint32_t serial, std::uint32_t* call_id) {
                                  const scc_acl_key named = key(number);
                                  scc_ace_record ace{};
                                  ace.sn = 10 * (aces - entry);
                                  ace.ace_id = serial;
                                  return scc_acl_add_ace(&named, &ace, call_id);
                              });
    }
    g_load.notes->request(call_kind::acl_resequence, number,
                          [&](std::uint32_t serial, std::uint32_t* call_id) {
                              const scc_acl_key named = key(serial);
                              return scc_acl_reseqence(&named, 5, 5, call_id);
                          });
}

void change_acls() {
    keep_requesting(
        1, pause_us,
        [] {
            return g_load.notes->outstanding(call_kind::acl_create) +
                   g_load.notes->outstanding(call_kind::acl_add_ace) +
                   g_load.notes->outstanding(call_kind::acl_resequence) +
                   g_load.notes->outstanding(call_kind::acl_delete);
        },
        replace_acl);
}

// ---- queries ----

// Whether a query may return this because the daemon is lost.
bool is_loss(std::uint32_t result) {
    return result == SCC_E_UNAVAILABLE || result == EPIPE || result == ECONNRESET || result == EBADF ||
           result == ENOTCONN;
}

void note_query(std::uint32_t result, std::uint32_t wanted, bool own) {
    test::call_ledger& ledger = g_load.notes->ledger();
    if (result == wanted && own) {
        ++ledger.queries;
    } else if (!is_loss(result)) {
        ledger.last_wrong_query = result;
        ++ledger.wrong_queries;
    }
}

// The daemon sends the record of an unknown user back, with the number in it.
void ask_for_stranger(std::uint32_t number) {
    scc_user_record record{};
    record.operation = SCC_USER_OPERATION_GET;
    const std::uint32_t stranger[] = {number, ~number};
    std::memcpy(record.tail, stranger, sizeof stranger);
    const std::uint32_t result = scc_nac_user_get(&record);
    note_query(result, ENOENT, std::memcmp(record.tail, stranger, sizeof stranger) == 0);
}

void ask_for_counter() {
    const scc_acl_key missing = acl_key(30000, 0);
    std::uint64_t counter = 1;
    note_query(scc_acl_get_filter_counter(&missing, &counter), SCC_E_NO_ACL, true);
}

void ask_for_count() {
    std::uint32_t count = 0;
    note_query(scc_arp_check_user_count_get(1, &count), 0, count == 0);
}

void ask() {
    std::uint32_t number = 0;
    g_load.notes->obey([&] {
        ask_for_stranger(++number);
        ask_for_counter();
        ask_for_count();
        usleep(pause_us);
    });
}

// ---- the program ----

scc_reg_info registration(std::uint8_t option) {
    scc_reg_info info{};
    info.app_id = g_load.app_id;
    info.option = option;
    info.handlers.server_status = on_status;
    info.handlers.nac_user = on_user;
    info.handlers.global_eport = on_egress_port;
    info.handlers.addr_learning = on_addr_learning;
    info.handlers.d1x_port_open = on_port_open;
    info.handlers.acl_create = on_acl_create;
    info.handlers.acl_add_ace = on_acl_add_ace;
    info.handlers.acl_resequence = on_acl_resequence;
    info.handlers.acl_delete = on_acl_delete;
    info.handlers.authmode = on_authmode;
    info.handlers.user_change = on_user_change;
    return info;
}

}  // namespace

int main(int count, char** words) {
    if (const int status = test::begin_load(count, words, g_load); status != 0) {
        return status;
    }
    g_load.notes->ledger().touch();
    const auto option = static_cast<std::uint8_t>(std::atoi(words[5]));
    g_mirror.use(option == 1);
    static scc_reg_info info = registration(option);
    return test::run_load(info, std::strcmp(words[4], "loop") == 0, g_load,
                          {change_users, change_settings, change_acls, ask});
}
