// The development daemon: its listeners, the clients' sockets and the control socket, on a fake system driven
// by the input. Everything that the daemon sends must be well formed, results must go only to their
// requesters, and at the end every descriptor must be closed.
//
//   input := settings {act}
//     settings: bit 0 trace, bit 1 the service has no time to answer, bit 2 short transfers
//     act:      a byte, see act_once
#include <sys/epoll.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <deque>
#include <string>
#include <vector>

#include "common/messages.h"
#include "sccd/daemon.h"
#include "support/fail.h"
#include "support/fake_system.h"
#include "support/input.h"
#include "support/wire_plan.h"

using namespace scc;
using namespace scc::fuzz;

namespace {

constexpr std::size_t peers_max = 24;

enum class listener : u8 { clients, control };

struct peer {
    int fd = -1;
    bool is_control = false;
    bool is_service = false;
    bool captures = false;  // gets pcapng blocks instead of lines
    bool blocked = false;   // reads nothing that is sent to it
    std::vector<u8> sent;   // by the daemon: the part that is not a whole message yet
};

struct operation {
    u32 call_id;
    u16 scc_type;
    u16 type;
};

struct world {
    explicit world(input& all) : from(all) {}

    input& from;
    sccd::development_daemon* daemon = nullptr;
    std::array<int, 2> listeners{-1, -1};
    std::vector<peer> peers;
    int accepting = -1;
    std::deque<operation> operations;  // that the service has not answered yet
};

world* g_world = nullptr;

// Requests and reports, what every client sends, and what the registration needs.
const std::vector<planned_type>& sent_items() {
    static const std::vector<planned_type> items = [] {
        std::vector<planned_type> made = {{msg::registration, 12}, {msg::unregistration, 4}};
        for (const devkit::message_type& row : devkit::message_types()) {
            if (row.route == devkit::message_route::request || row.route == devkit::message_route::report) {
                made.push_back({row.number, row.least_bytes});
            }
        }
        return made;
    }();
    return items;
}

peer* peer_of(int fd) {
    for (peer& each : g_world->peers) {
        if (each.fd == fd) {
            return &each;
        }
    }
    return nullptr;
}

peer* choose_peer(input& from) {
    std::vector<peer>& peers = g_world->peers;
    return peers.empty() ? nullptr : &peers[from.byte() % peers.size()];
}

// ---- the system ------------------------------------------------------------------------------------

int on_connect(int /*fd*/) {
    return ECONNREFUSED;  // no other daemon listens
}

int on_accept(int from) {
    const auto which = static_cast<std::size_t>(from == g_world->listeners[1]);
    if (g_world->accepting != static_cast<int>(which)) {
        return -1;
    }
    g_world->accepting = -1;
    const int fd = open_fake_socket();
    if (fd >= 0) {
        g_world->peers.push_back({fd, which == 1, false, false, {}, {}});
    }
    return fd;
}

int before_send(int fd) {
    const peer* to = peer_of(fd);
    return to != nullptr && to->blocked ? EAGAIN : 0;
}

void on_message(void* context, u16 sub_id, u16 type, std::span<const u8> value) {
    auto& to = *static_cast<peer*>(context);
    if (!to.is_service || value.size() < 4) {
        return;
    }
    u32 call_id = 0;
    std::memcpy(&call_id, value.data(), sizeof call_id);
    g_world->operations.push_back({call_id, sub_id, type});
}

// Each block begins with its type and its length, and ends with the length.
void check_blocks(std::vector<u8>& sent) {
    const auto number_at = [&sent](std::size_t offset) {
        u32 number = 0;
        std::memcpy(&number, sent.data() + offset, sizeof number);
        return number;
    };
    while (sent.size() >= 8) {
        const u32 len = number_at(4);
        FUZZ_EXPECT(len >= 12 && len % 4 == 0);
        if (sent.size() < len) {
            return;
        }
        FUZZ_EXPECT(number_at(len - 4) == len);
        sent.erase(sent.begin(), sent.begin() + static_cast<std::ptrdiff_t>(len));
    }
}

void check_lines(peer& to) {
    std::vector<u8>& sent = to.sent;
    for (auto end = std::find(sent.begin(), sent.end(), u8{'\n'}); end != sent.end() && !to.captures;
         end = std::find(sent.begin(), sent.end(), u8{'\n'})) {
        const std::string line(sent.begin(), end);
        to.captures = line == "{\"ok\":true,\"linktype\":147}";
        FUZZ_EXPECT(line.starts_with("{\"ok\":true") || line.starts_with("{\"ok\":false,\"error\":"));
        FUZZ_EXPECT(line.ends_with("}"));
        sent.erase(sent.begin(), end + 1);
    }
}

void on_sent(int fd, std::span<const u8> bytes) {
    peer* to = peer_of(fd);
    FUZZ_EXPECT(to != nullptr);
    to->sent.insert(to->sent.end(), bytes.begin(), bytes.end());
    if (to->is_control) {
        check_lines(*to);
        if (to->captures) {
            check_blocks(to->sent);
        }
        return;
    }
    const std::size_t whole = walk_messages(to->sent, on_message, to);
    to->sent.erase(to->sent.begin(), to->sent.begin() + static_cast<std::ptrdiff_t>(whole));
}

// ---- acts ------------------------------------------------------------------------------------------

struct occurrence {
    int fd = -1;
    u32 events = 0;
};

occurrence readable(const peer& at) {
    return {at.fd, EPOLLIN};
}

occurrence connect_to(listener which) {
    if (g_world->peers.size() == peers_max) {
        return {};
    }
    g_world->accepting = static_cast<int>(which);
    return {g_world->listeners[static_cast<std::size_t>(which)], EPOLLIN};
}

occurrence register_peer(input& from, u8 option) {
    peer* const at = choose_peer(from);
    if (at == nullptr || at->is_control) {
        return {};
    }
    const u8 who = from.byte();  // an app id and, from the high bits, one of several processes and a socket
    std::array<u8, 12> value{};
    value[0] = who % 20u;
    value[4] = static_cast<u8>(1 + (who >> 6));
    value[8] = option;
    value[9] = who >> 5 & 1u;
    at->is_service = value[0] == limits::service_app_id;
    std::vector<u8> message;
    append_message(message, 0, msg::registration, value);
    deliver(at->fd, message);
    return readable(*at);
}

occurrence send_messages(input& from) {
    peer* const at = choose_peer(from);
    if (at == nullptr) {
        return {};
    }
    std::vector<u8> stream;
    append_planned_message(from, sent_items(), stream);
    deliver(at->fd, stream);
    return readable(*at);
}

occurrence answer_operation(input& from) {
    peer* const at = choose_peer(from);
    const u8 how = from.byte();
    if (at == nullptr || g_world->operations.empty()) {
        return {};
    }
    const std::size_t index = how % 4u == 3 ? how / 4u % g_world->operations.size() : 0;
    const operation answered = g_world->operations[index];
    g_world->operations.erase(g_world->operations.begin() + static_cast<std::ptrdiff_t>(index));
    std::array<u8, 104> value{};
    std::memcpy(value.data(), &answered.call_id, sizeof answered.call_id);
    value[4] = how % 4u == 2 ? 22 : 0;
    std::memcpy(value.data() + 8, &answered.type, sizeof answered.type);
    const std::size_t length = answered.type == msg::nacm_user_read ? 104 : how % 2u == 0 ? 12 : 48;
    std::vector<u8> message;
    append_message(message, answered.scc_type, msg::service_ret, std::span<const u8>(value).first(length));
    deliver(at->fd, message);
    return readable(*at);
}

constexpr std::string_view control_lines[] = {
    R"({"do":"clients"})",
    R"({"do":"notify","type":#,"to":#,"hex":"00#"})",
    R"({"do":"notify-named","name":"d1x-addr-move","to":#,"mac":"00:11:22:33:44:55","ifx":#,"vid":#})",
    R"({"do":"notify-named","name":"user-change","ip":"10.0.0.#","mask":"255.0.0.#","add":#})",
    R"({"do":"notify-named","name":"noflow-offline","extra":"0102","flow":#,"time":#,"ip":"::#"})",
    R"({"do":"notify-named","name":"direct-vlan","value":#,"vlans":[#,4094,1]})",
    R"({"do":"notify-named","name":"ace-counter","id":#,"type":#,"entries":[{"id":#,"value":#}]})",
    R"({"do":"notify-named","name":"port-violate","ifx":#,"mac":"0011.2233.4455","add":#})",
    R"({"do":"debug","app":#,"open":#})",
    R"({"do":"debug-show","app":#,"mode":#,"id":#})",
    R"({"do":"debug-dump-service"})",
    R"({"do":"alive","app":#,"timeout_ms":0})",
    R"({"do":"alive","app":#})",
    R"({"do":"stats","app":#,"timeout_ms":"0x#"})",
    R"({"do":"capability","word":#,"to":#})",
    R"({"do":"fail-next","type":131,"result":#,"count":#})",
    R"({"do":"fail-next","type":#,"result":22})",
    R"({"do":"mute","type":#})",
    R"({"do":"unmute"})",
    R"({"do":"acls"})",
    R"({"do":"users"})",
    R"({"do":"settings"})",
    R"({"do":"counters"})",
    R"({"do":"counters","type":#,"id":#,"acl":5,"filter":6,"sn":#,"ace":7})",
    R"({"do":"settings","name":"addr-learning"})",
    R"({"do":"state"})",
    R"({"do":"fault","action":"refuse","result":#,"nth":#,"app":#})",
    R"({"do":"fault","action":"delay","ms":1,"every":#,"count":#})",
    R"({"do":"fault","action":"twice","request":#})",
    R"({"do":"fault","action":"late","pid":#})",
    R"({"do":"fault","action":"short-value","bytes":#})",
    R"({"do":"fault","action":"disconnect","nth":#})",
    R"({"do":"fault","action":"stop-reading","ms":1})",
    R"({"do":"fault-list"})",
    R"({"do":"fault-clear","id":#})",
};

// A line of the control protocol: one of the above with its placeholders filled in, or bytes of the input.
occurrence send_line(input& from) {
    peer* const at = choose_peer(from);
    if (at == nullptr) {
        return {};
    }
    const u8 which = from.byte();
    std::string line;
    if (which < std::size(control_lines)) {
        for (const char each : control_lines[which]) {
            line += each == '#' ? std::to_string(from.byte()) : std::string(1, each);
        }
    } else {
        const auto bytes = from.bytes(from.byte());
        line.assign(bytes.begin(), bytes.end());
    }
    line += '\n';
    deliver(at->fd, {reinterpret_cast<const u8*>(line.data()), line.size()});
    return readable(*at);
}

// Bytes of the input repeated many times, for code whose cost grows with the depth or length of a line.
occurrence send_repeated(input& from) {
    peer* const at = choose_peer(from);
    const std::size_t times = from.byte() * std::size_t{16};
    const auto unit = from.bytes(from.byte() % 32u);
    if (at == nullptr) {
        return {};
    }
    // Many lines would only give many answers.
    const bool has_line = std::find(unit.begin(), unit.end(), u8{'\n'}) != unit.end();
    std::vector<u8> bytes;
    for (std::size_t i = 0; i < (has_line ? times / 64 : times); ++i) {
        bytes.insert(bytes.end(), unit.begin(), unit.end());
    }
    deliver(at->fd, bytes);
    return readable(*at);
}

occurrence hang_up_one(input& from) {
    peer* const at = choose_peer(from);
    if (at == nullptr) {
        return {};
    }
    hang_up(at->fd);
    return {at->fd, EPOLLIN | EPOLLHUP};
}

occurrence block_one(input& from) {
    peer* const at = choose_peer(from);
    if (at == nullptr) {
        return {};
    }
    at->blocked = !at->blocked;
    return at->blocked ? occurrence{} : occurrence{at->fd, EPOLLOUT};
}

occurrence send_raw(input& from) {
    peer* const at = choose_peer(from);
    const auto bytes = from.bytes(from.byte());
    if (at == nullptr) {
        return {};
    }
    deliver(at->fd, bytes);
    return readable(*at);
}

occurrence act_once(input& from) {
    const u8 act = from.byte();
    switch (act % 12) {
        case 0:
            return connect_to(listener::clients);
        case 1:
            return connect_to(act >= 0x80 ? listener::clients : listener::control);
        case 2:
        case 3:
            return register_peer(from, act >> 4);
        case 4:
        case 5:
        case 6:
            return send_messages(from);
        case 7:
            return answer_operation(from);
        case 8:
            return send_line(from);
        case 9:
            return hang_up_one(from);
        case 10:
            return act >= 0x80 ? send_repeated(from) : block_one(from);
        default:
            return send_raw(from);
    }
}

// A socket that was not read to its end stays readable.
occurrence what_is_left() {
    for (const peer& each : g_world->peers) {
        const fake_socket& at = socket_of(each.fd);
        if (at.open && at.read < at.incoming.size() && (epoll_events_of(each.fd) & EPOLLIN) != 0) {
            return readable(each);
        }
    }
    return {};
}

int on_wait(void* to, int /*most*/) {
    world& now = *g_world;
    occurrence happened = what_is_left();
    if (happened.fd < 0 && now.from.empty()) {
        now.daemon->stop();
        return 0;
    }
    if (happened.fd < 0) {
        happened = act_once(now.from);
    }
    if (happened.fd < 0 || !socket_of(happened.fd).open) {
        return 0;
    }
    const u32 events = happened.events & (epoll_events_of(happened.fd) | EPOLLHUP);
    if (events == 0) {
        return 0;
    }
    auto* event = static_cast<epoll_event*>(to);
    event->events = events;
    event->data.u64 = epoll_data_of(happened.fd);
    return 1;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const u8* data, std::size_t size) {
    input from(data, size);
    const u8 settings = from.byte();
    world now(from);
    g_world = &now;
    system_hooks hooks;
    hooks.connected = on_connect;
    hooks.accepting = on_accept;
    hooks.before_send = before_send;
    hooks.sent = on_sent;
    hooks.events = on_wait;
    hooks.listening = [](int fd) { g_world->listeners[g_world->listeners[0] < 0 ? 0 : 1] = fd; };
    const system_in_use system(hooks);
    if ((settings & 4u) != 0) {
        limit_transfers(499);
    }
    sccd::daemon_options options;
    options.directory = "/tmp/security/scc";
    options.trace = (settings & 1u) != 0;
    options.service_timeout = std::chrono::milliseconds((settings & 2u) != 0 ? 0 : 3'600'000);
    sccd::development_daemon daemon(options);
    now.daemon = &daemon;
    daemon.run();
    return 0;
}
