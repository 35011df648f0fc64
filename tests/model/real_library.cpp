#include "model/real_library.h"

#include <cerrno>
#include <cstdlib>

#include "client/acl_cache.h"
#include "client/message_queue.h"
#include "client/pending_calls.h"
#include "client/receive.h"
#include "client/request_channel.h"
#include "model/recorder.h"
#include "ss/service.h"

namespace model {
namespace {

real_library* g_real = nullptr;

constexpr u32 lost = 32;

scc::fuzz::system_hooks hooks_with(void (*waiting)()) {
    scc::fuzz::system_hooks hooks;
    hooks.waiting = waiting;
    return hooks;
}

// Which error reports the loss of the connection depends on the thread that notices it.
bool tells_loss(u32 error) {
    return error == 9 || error == 32 || error == 104;
}

bytes message_of(u16 type, const bytes& value) {
    return test::message_bytes({test::item_bytes(type, value)});
}

}  // namespace

void heard_by_handler(u32 position, bytes arguments) {
    g_real->heard(position, std::move(arguments));
}

void asked_of_handler(u32 handler, const void* record, std::size_t record_bytes, bytes arguments) {
    g_real->asked(handler, record, record_bytes, std::move(arguments));
}

real_library::real_library(void (*waiting)())
    : hooks_([&] {
          scc::fuzz::system_hooks hooks = hooks_with(waiting);
          hooks.connected = on_connect;
          hooks.sent = on_sent;
          hooks.thread = on_thread;
          return hooks;
      }()),
      system_(hooks_) {
    g_real = this;
    display_to(&seen);
}

real_library::~real_library() {
    display_to(nullptr);
    g_real = nullptr;
}

// ---- the daemon ------------------------------------------------------------------------------------

bool real_library::is_open(const link_end& at) const {
    return at.fd >= 0 && scc::fuzz::socket_of(at.fd).open;
}

int real_library::on_connect(int fd) {
    real_library& self = *g_real;
    self.descriptors_.push_back(fd);
    if (!self.daemon_is_there) {
        return ECONNREFUSED;
    }
    // The synchronous socket is connected first.
    (self.is_open(self.sync_) ? self.async_ : self.sync_) = {fd, {}};
    return 0;
}

void real_library::on_thread(void* (*body)(void*), void* argument) {
    g_real->threads_.push_back({body, argument});
}

void real_library::on_sent(int fd, std::span<const u8> sent) {
    real_library& self = *g_real;
    const bool on_sync_socket = fd == self.sync_.fd;
    link_end& from = on_sync_socket ? self.sync_ : self.async_;
    from.sent.insert(from.sent.end(), sent.begin(), sent.end());
    self.take_sent(from, on_sync_socket ? "sync" : "async");
}

void real_library::take_sent(link_end& from, const char* name) {
    while (from.sent.size() >= 8 && from.sent.size() >= test::u32_at(from.sent, 0)) {
        const std::size_t length = test::u32_at(from.sent, 0);
        const bytes message = test::slice(from.sent, 0, length);
        from.sent.erase(from.sent.begin(), from.sent.begin() + static_cast<std::ptrdiff_t>(length));
        seen.push_back({name, message});
        answer(from.fd, message);
    }
}

void real_library::answer(int fd, const bytes& message) {
    const auto type = test::number_at<u16>(message, 14);
    if (type == 301) {
        const u8 on_sync_socket = message.at(16 + 9);
        const bool refuses = refuses_registration == on_sync_socket;
        if (refuses) {
            refuses_registration.reset();
        }
        scc::fuzz::deliver(fd, message_of(301, wire().u32(0).u32(refuses ? 22 : 0).u32(0)));
    } else if (type == 302) {
        scc::fuzz::deliver(fd, message_of(302, wire().u32(0).u32(refuses_unregistration ? 1 : 0)));
        refuses_unregistration = false;
    } else if (!next_reply_.empty() && fd == sync_.fd) {
        scc::fuzz::deliver(fd, next_reply_);
        next_reply_.clear();
    }
}

void real_library::deliver(const bytes& stream) {
    scc::fuzz::deliver(async_.fd, stream);
}

void real_library::lose() {
    for (const link_end* each : {&sync_, &async_}) {
        if (is_open(*each)) {
            scc::fuzz::hang_up(each->fd);
        }
    }
}

bool real_library::has_something_to_read() const {
    if (!is_open(async_)) {
        return false;
    }
    const scc::fuzz::fake_socket& at = scc::fuzz::socket_of(async_.fd);
    return at.hung_up || at.read < at.incoming.size();
}

std::size_t real_library::leaked_descriptors() {
    std::size_t leaked = 0;
    for (const int fd : descriptors_) {
        leaked += scc::fuzz::socket_of(fd).open ? 1 : 0;
        scc::fuzz::socket_of(fd).open = false;
    }
    return leaked;
}

// ---- the library's threads -------------------------------------------------------------------------

// The checker is an act, and the processing thread runs when the receive thread waits.
void real_library::run_thread() {
    const thread_to_run next = threads_.front();
    threads_.pop_front();
    if (next.body == _scc_lib_thread || next.body == _scc_ss_lib_thread) {
        (void)next.body(next.argument);
    }
}

void real_library::process_queue() {
    while (g_scc_lib_msg_q.next != nullptr && g_scc_lib_msg_q.next != &g_scc_lib_msg_q) {
        scc::scc_lib_msg_node* node = scc::dequeue_message();
        auto* message = static_cast<u8*>(node->message);
        u16 items = 0;
        std::memcpy(&items, message + 5, sizeof items);
        _scc_ss_async_msg_proc(items, message + 8);
        std::free(node->message);
        std::free(node);
    }
}

void real_library::check() {
    scc::flush_waiting_batch();
    scc::grow_pending_index();
    scc::grow_acl_index();
    scc::free_idle_blocks();
}

// ---- the process -----------------------------------------------------------------------------------

void real_library::returned(u32 error, const bytes& out) {
    seen.push_back({"returned", wire().u32(error).add(out)});
}

void real_library::start(const act& how) {
    const start_facts facts = start_of(how);
    u32 error = 0;
    if (facts.is_service) {
        const scc_ss_reg_info info = service_handlers(facts);
        error = scc_ss_reg(&info);
    } else {
        const scc_reg_info info{facts.app_id, facts.option, application_handlers(facts)};
        error = scc_svr_reg(&info);
    }
    returned(error, {});
}

void real_library::unregister() {
    returned(scc_svr_unreg(), {});
}

void real_library::make_request(u8 which, u8 seed, u8 how) {
    u32 id = 0;
    const u32 error = requests()[which % requests().size()].make(seed, how, &id);
    returned(error, wire().u32(id));
}

void real_library::make_query(u8 which, u8 seed, u8 how) {
    const query_row& row = queries()[which % queries().size()];
    const query_facts facts = row.facts(seed, query_result(how));
    constexpr u16 another_type = 999;
    next_reply_ = message_of(is_wrong_reply(how) ? another_type : facts.reply_type, facts.reply);
    u32 id = 0;
    bytes out;
    u32 error = row.make(seed, &id, out);
    next_reply_.clear();
    if (tells_loss(error)) {
        error = lost;
        id = 0;
    }
    returned(error, wire().u32(id).add(out));
}

namespace {

bytes rule_of(const void* ace) {
    const auto* at = static_cast<const u8*>(ace);
    return {at + sizeof(scc_list_head), at + sizeof(scc_ace_record)};
}

u32 read_aces(const scc_acl_key& key, wire& out) {
    scc_list_head aces{};
    const u32 error = scc_acl_get_ace(&key, &aces);
    while (error == 0 && aces.next != &aces) {
        scc_list_head* const link = aces.next;
        aces.next = link->next;
        out.add(rule_of(link));
        std::free(link);
    }
    return error;
}

}  // namespace

void real_library::read_cache(u8 which, u8 seed, u8 how) {
    scc_acl_key key = as_record(key_of(seed));
    wire out;
    u32 error = 0;
    switch (which % cache_reads) {
        case 0:
            error = scc_acl_cls_get(&key);
            out.u32(key.acl_class);
            break;
        case 1:
            error = read_aces(key, out);
            break;
        case 2: {
            scc_ace_record ace{};
            error = scc_acl_get_ace_by_sn(&key, sequence_number_of(how), &ace);
            if (error == 0) {
                out.add(rule_of(&ace));
            }
            break;
        }
        default: {
            u8 supported = 0xEE;
            error = scc_nac_user_counter_support(&supported);
            out.u8(supported);
            break;
        }
    }
    returned(error, out);
}

void real_library::heard(u32 position, bytes arguments) {
    seen.push_back({"handler " + std::to_string(position), std::move(arguments)});
    if (reaction_ && (!is_service || position == 0)) {
        const act reaction = *reaction_;
        reaction_.reset();
        perform(*this, reaction);
    }
}

}  // namespace model
