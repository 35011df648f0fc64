// One live library against a hostile daemon: an application with a receive thread, an application with an
// event loop, or the service. The input is the sequence of acts of its threads, its handlers, the checker and
// the daemon; see act_once. Everything runs on the fuzzer's thread: the receive thread's body is called as
// soon as the library has created it, and whenever it would wait, the next act happens.
//
// Invariants, whatever the daemon does:
// - a result is delivered once, to the handler of its request, with the data of the request
// - a call is pending exactly until its connection ends or its result arrives
// - a request is sent once, and everything sent is well formed
// - status 0 is reported once for each outage, after a 1, and nothing after the end of the registration
// - at the end every descriptor is closed and nothing is pending
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <set>
#include <vector>

#include "agent/agent_tasks.h"
#include "client/acl_cache.h"
#include "client/control_block.h"
#include "client/log.h"
#include "client/message_queue.h"
#include "client/pending_calls.h"
#include "client/receive.h"
#include "client/request_channel.h"
#include "msg/bytes.h"
#include "ss/service.h"
#include "support/application.h"
#include "support/event_loop.h"
#include "support/fail.h"
#include "support/fake_system.h"
#include "support/library.h"

using namespace scc;
using namespace scc::fuzz;

namespace {

enum class mode : u8 { thread, service, loop };

struct issued_call {
    u32 position;
    u8 seed;
};

struct thread_to_run {
    void* (*body)(void*);
    void* argument;
};

struct link {
    int fd = -1;
    std::vector<u8> sent;  // the part that is not a whole message yet
    u16 last_type = 0;     // that was sent
};

struct world {
    explicit world(input& all) : from(all) {}

    input& from;
    mode how = mode::thread;
    bool finishing = false;
    int depth = 0;  // of handlers
    unsigned steps_after_end = 0;
    link sync;
    link async;
    std::map<u32, issued_call> pending;  // of this connection
    std::set<u32> accepted;              // of this connection
    std::set<u32> on_the_wire;           // of this connection
    // Something was refused, cut short or closed: the library may already have dropped the connection's
    // calls.
    bool disturbed = false;
    bool told_connected = false;
    int failing_send = 0;  // the error of the next send
    std::deque<thread_to_run> threads;
};

world* g_world = nullptr;

bool is_registered() {
    return g_scc_client_cb.state.load() == state_registered;
}

void act_once();
void act_in_handler();

// ---- handlers --------------------------------------------------------------------------------------

int on_result(u32 position, u32 /*result*/, u32 call_id) {
    world& now = *g_world;
    const auto call = now.pending.find(call_id);
    FUZZ_EXPECT(call != now.pending.end());
    FUZZ_EXPECT(call->second.position == position);
    const u8 seed = call->second.seed;
    now.pending.erase(call);
    act_in_handler();
    return seed;
}

void on_notification(u32 /*position*/) {
    act_in_handler();
}

void forget_connection() {
    world& now = *g_world;
    now.pending.clear();
    now.accepted.clear();
    now.on_the_wire.clear();
    now.disturbed = false;
    now.failing_send = 0;
}

void on_status(u32 status) {
    world& now = *g_world;
    // An event loop's first failed attempt is reported as an outage, too.
    FUZZ_EXPECT((status == 0) == now.told_connected || (status == 0 && now.how == mode::loop));
    now.told_connected = status == 1;
    forget_connection();
    act_in_handler();
}

// ---- the system ------------------------------------------------------------------------------------

link& link_of(int fd) {
    return fd == g_world->sync.fd ? g_world->sync : g_world->async;
}

int on_connect(int fd) {
    world& now = *g_world;
    if (!now.finishing && now.from.byte() % 16 == 15) {
        return ECONNREFUSED;
    }
    const bool is_first = now.sync.fd < 0 || !socket_of(now.sync.fd).open;
    if (is_first) {
        forget_connection();
    }
    (is_first ? now.sync : now.async) = {fd, {}, 0};
    return 0;
}

int before_send(int fd) {
    world& now = *g_world;
    const int error = now.failing_send;
    if (error == 0 || now.finishing) {
        return 0;
    }
    // In the middle of a message, an error that does not end the connection would leave a partial message.
    const bool ends = error == EPIPE || error == ECONNRESET;
    if (!ends && !link_of(fd).sent.empty()) {
        return 0;
    }
    now.failing_send = 0;
    now.disturbed = true;
    return error;
}

void on_item(void* context, u16 /*sub_id*/, u16 type, std::span<const u8> value) {
    auto& to = *static_cast<link*>(context);
    to.last_type = type;
    if (type > msg::port_violate || g_world->how == mode::service) {
        return;
    }
    FUZZ_EXPECT(value.size() >= 8 && &to == &g_world->async);
    FUZZ_EXPECT(g_world->on_the_wire.insert(load<u32>(value.data())).second);
}

void on_sent(int fd, std::span<const u8> bytes) {
    link& to = link_of(fd);
    to.sent.insert(to.sent.end(), bytes.begin(), bytes.end());
    const std::size_t whole = walk_messages(to.sent, on_item, &to);
    to.sent.erase(to.sent.begin(), to.sent.begin() + static_cast<std::ptrdiff_t>(whole));
}

void on_thread(void* (*body)(void*), void* argument) {
    g_world->threads.push_back({body, argument});
}

// ---- the daemon ------------------------------------------------------------------------------------

constexpr int receive_errors[] = {0, EINTR, EAGAIN, ECONNRESET, ETIMEDOUT, 0, EINTR, EBADF};

u16 reply_to(u16 request) {
    switch (request) {
        case msg::arp_check_status:
            return msg::arp_check_status_ret;
        case msg::arp_check_user_count:
            return msg::arp_check_user_count_ret;
        case msg::arp_check_user_data:
            return msg::arp_check_user_data_ret;
        case msg::nac_user_get:
            return msg::call_ret;
        case msg::filter_counter_get:
            return msg::filter_counter_ret;
        case msg::acl_counter_get:
            return msg::acl_counter_ret;
        case msg::ace_counter_get:
            return msg::ace_counter;
        case msg::user_vmsup_get:
            return msg::user_vmsup_ret;
        case msg::mac_query:
            return msg::mac_query_ret;
        case msg::span_dest_port:
            return msg::span_dest_port_ret;
        case msg::port_addr_num:
            return msg::port_addr_num_ret;
        default:
            return request;
    }
}

// The library waits for an answer on this socket.
int nothing_to_receive(int fd) {
    world& now = *g_world;
    if (now.from.empty() && (now.disturbed || (fd == now.async.fd && is_registered()))) {
        now.disturbed = true;
        hang_up(fd);  // the announced message is never completed
        return 0;
    }
    const u8 how = now.finishing ? 0 : now.from.byte();
    std::array<u8, 760> value{};
    std::vector<u8> message;
    const u16 type = reply_to(link_of(fd).last_type);
    const bool is_short = type == msg::registration || type == msg::unregistration;
    switch (how % 16) {
        case 15:
        case 14: {
            const int error = receive_errors[how >> 5];
            now.disturbed = true;
            if (error == 0) {
                hang_up(fd);
            }
            return error;
        }
        case 13:
            now.disturbed = true;
            append_planned_message(now.from, application_items(), message);
            break;
        case 12:
            now.disturbed = true;
            append_message(message, 0, type, now.from.bytes(how >> 3));
            break;
        case 11:  // refused
            now.disturbed = true;
            value[4] = 22;
            value[8] = how >> 4;
            append_message(message, 0, type, std::span<const u8>(value).first(12));
            break;
        default:
            append_message(message, 0, type, std::span<const u8>(value).first(is_short ? 12 : value.size()));
            break;
    }
    if (message.empty()) {
        return EAGAIN;
    }
    deliver(fd, message);
    return EAGAIN;
}

// Results, of pending calls or unknown ones: as one message or many, some of them twice.
void send_results(input& from) {
    world& now = *g_world;
    const u8 how = from.byte();
    const std::size_t count = 1 + from.byte() % 70u;
    std::vector<u8> stream;
    auto call = now.pending.begin();
    if (how % 4 == 1 && !now.pending.empty()) {
        std::advance(call, from.byte() % now.pending.size());
    }
    for (std::size_t i = 0; i < count; ++i) {
        std::array<u8, 8> value{};
        u32 call_id = how % 4 == 3 ? from.byte() : 0;
        if (call != now.pending.end()) {
            call_id = call->first;
            if (how % 8 != 6 || i % 2 == 1) {
                ++call;
            }
        }
        std::memcpy(value.data(), &call_id, sizeof call_id);
        value[4] = how >= 0xE0 ? 22 : 0;
        append_message(stream, 0, msg::call_ret, value);
    }
    deliver(now.async.fd, stream);
}

bool can_reach(const link& at) {
    return at.fd >= 0 && socket_of(at.fd).open && !socket_of(at.fd).hung_up;
}

void daemon_acts(u8 act) {
    world& now = *g_world;
    if (!can_reach(now.async)) {
        return;
    }
    std::vector<u8> stream;
    switch (act % 8) {
        case 0:
        case 1:
        case 2:
            send_results(now.from);
            break;
        case 3:
        case 4:
            append_planned_message(now.from, now.how == mode::service ? service_items() : application_items(),
                                   stream);
            deliver(now.async.fd, stream);
            break;
        case 5: {
            const auto bytes = now.from.bytes(now.from.byte() % 32u);
            deliver(now.async.fd, bytes);
            break;
        }
        case 6:
            now.disturbed = true;
            hang_up(now.async.fd);
            break;
        default:
            if (can_reach(now.sync)) {
                now.disturbed = true;
                hang_up(now.sync.fd);
            }
            break;
    }
}

// ---- the process -----------------------------------------------------------------------------------

void make_one_request(input& from) {
    world& now = *g_world;
    const bool was_registered = is_registered();
    const u8 which = from.byte();
    const u8 seed = from.byte();
    u32 call_id = 0;
    u32 position = 0;
    if (make_request(which, seed, &call_id, position) != 0) {
        return;
    }
    FUZZ_EXPECT(was_registered);
    FUZZ_EXPECT(now.accepted.insert(call_id).second);
    now.pending[call_id] = {position, seed};
}

void check_pass() {
    flush_waiting_batch();
    grow_pending_index();
    grow_acl_index();
    free_idle_blocks();
}

void unregister() {
    world& now = *g_world;
    if (is_registered() && !now.disturbed && now.how != mode::service) {
        flush_waiting_batch();
        if (!now.disturbed) {
            FUZZ_EXPECT(std::includes(now.on_the_wire.begin(), now.on_the_wire.end(), now.accepted.begin(),
                                      now.accepted.end()));
        }
    }
    const bool was_registered = is_registered();
    const u32 error = now.how == mode::loop ? scc_agent_finish() : scc_svr_unreg();
    if (error != 0 || !was_registered) {
        return;
    }
    FUZZ_EXPECT(g_scc_client_cb.app_id.load() == 0 && g_scc_client_cb.state.load() == state_idle);
    FUZZ_EXPECT(pending_calls() == 0);
    forget_connection();
    now.told_connected = false;
}

// Unread bytes on the synchronous socket would be taken for later replies.
void forget_replies() {
    const int fd = g_world->sync.fd;
    if (fd >= 0) {
        socket_of(fd).read = socket_of(fd).incoming.size();
    }
}

void start() {
    world& now = *g_world;
    if (!_scc_lib_client_is_connected() && g_scc_client_cb.state.load() == state_idle) {
        now.told_connected = false;  // a new registration, whatever happened to the last one
    }
    if (now.how == mode::service) {
        scc_ss_reg_info info{};
        info.server_status = on_status;
        FUZZ_EXPECT(scc_ss_reg(&info) == 0);
        return;
    }
    const scc_reg_info info{7, static_cast<u8>(now.from.byte() % 3u), reading_handlers()};
    static int master = 0;
    FUZZ_EXPECT((now.how == mode::loop ? scc_agent_init(&info, &master) : scc_svr_reg(&info)) == 0);
}

void process_acts(u8 act) {
    world& now = *g_world;
    switch (act % 16) {
        case 0:
        case 1:
        case 2:
        case 3:
        case 4:
            make_one_request(now.from);
            break;
        case 5:
            for (u8 left = now.from.byte() % 40u; left > 0; --left) {
                make_one_request(now.from);
            }
            break;
        case 6:
        case 7:
            (void)make_query(now.from.byte(), now.from.byte());
            break;
        case 8:
            make_other_call(now.from.byte(), now.from.byte());
            break;
        case 9:
        case 10:
            check_pass();
            break;
        case 11:
            now.failing_send = std::array{EPIPE, EAGAIN, EINTR, ECONNRESET}[now.from.byte() % 4u];
            break;
        case 12:
            limit_transfers(now.from.byte());
            break;
        case 13:
            scc_lib_debug.store(act >> 4 & 1u);
            break;
        case 14:
            unregister();
            break;
        default:
            start();
            break;
    }
}

void act_in_handler() {
    world& now = *g_world;
    if (now.depth >= 2 || now.from.empty() || now.finishing) {
        return;
    }
    const u8 act = now.from.byte();
    if (act < 0xA0) {
        return;  // most handlers return at once
    }
    ++now.depth;
    process_acts(act);
    --now.depth;
}

void act_once() {
    const u8 act = g_world->from.byte();
    if (act < 0x60) {
        daemon_acts(act);
    } else {
        process_acts(act);
    }
}

// The service's processing thread.
void process_queue() {
    while (g_scc_lib_msg_q.next != nullptr && g_scc_lib_msg_q.next != &g_scc_lib_msg_q) {
        scc_lib_msg_node* node = dequeue_message();
        _scc_ss_async_msg_proc(load<u16>(node->message, 5),
                               static_cast<u8*>(node->message) + wire::header_bytes);
        std::free(node->message);
        std::free(node);
    }
}

void waiting() {
    world& now = *g_world;
    process_queue();
    if (is_registered() && !now.disturbed && now.depth == 0 && now.how != mode::service) {
        FUZZ_EXPECT(pending_calls() == now.pending.size());
    }
    if (!now.from.empty()) {
        act_once();
        return;
    }
    now.finishing = true;
    forget_replies();
    FUZZ_EXPECT(++now.steps_after_end < 100);
    unregister();
}

void run_threads() {
    world& now = *g_world;
    while (!now.threads.empty()) {
        const thread_to_run next = now.threads.front();
        now.threads.pop_front();
        if (next.body == _scc_lib_thread || next.body == _scc_ss_lib_thread) {
            (void)next.body(next.argument);
        }
        if (now.threads.empty() && !now.from.empty()) {
            start();
        }
    }
}

// ---- the event loop --------------------------------------------------------------------------------

void run_loop() {
    world& now = *g_world;
    start();
    while (!now.from.empty()) {
        if (!run_task()) {
            act_once();
        }
        if (is_registered() && !now.disturbed) {
            FUZZ_EXPECT(pending_calls() == now.pending.size());
        }
    }
    now.finishing = true;
    // A loss may still be unnoticed: then come the timer and the registration.
    for (int step = 0; step < 100 && run_task(); ++step) {
    }
    forget_replies();
    unregister();
    for (int step = 0; step < 100 && run_task(); ++step) {
    }
    forget_replies();
    unregister();
    FUZZ_EXPECT(has_no_tasks());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const u8* data, std::size_t size) {
    static const bool ready = prepare_library();
    (void)ready;
    input from(data, size);
    const u8 settings = from.byte();
    world now(from);
    g_world = &now;
    now.how = static_cast<mode>((settings >> 1) % 3);
    system_hooks hooks;
    hooks.connected = on_connect;
    hooks.nothing_to_receive = nothing_to_receive;
    hooks.before_send = before_send;
    hooks.sent = on_sent;
    hooks.waiting = waiting;
    hooks.thread = on_thread;
    const system_in_use system(hooks);
    set_application_events({on_result, on_notification, on_status});
    scc_lib_debug.store(settings & 1u);
    if (now.how == mode::loop) {
        run_loop();
    } else {
        start();
        run_threads();
    }
    FUZZ_EXPECT(pending_calls() == 0 && g_scc_client_cb.app_id.load() == 0);
    const scc_ss_reg_info none{};
    _scc_ss_handler_set(&none);
    unregister_by_hand();
    return 0;
}
