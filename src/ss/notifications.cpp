// Reports of hardware events: one message each, sent at once on the synchronous socket with a new call id.
// Any thread of the service; each takes scc_lib_lock.
//
//   202: u32 call id, u32 count, entries of 16 bytes
//   203: u32 call id, user at 8 (56), u64 flow at 64, u64 time at 72, u64 extra length at 80, extra at 88
//   208: u32 call id, user at 8 (56), two u64 at 64
//   207: u32 call id, key at 4 (16), u32 count at 20, entries of 16 bytes
#include <array>
#include <cstring>

#include "client/acl_cache.h"
#include "client/control_block.h"
#include "client/diagnostics.h"
#include "client/locked_call.h"
#include "client/log.h"
#include "client/pending_calls.h"
#include "client/request_channel.h"
#include "msg/bytes.h"
#include "msg/message.h"
#include "msg/result_codes.h"
#include "scclib.h"
#include "util/address_text.h"

using namespace scc;

static_assert(sizeof(scc_address_move) == record::address_move);
static_assert(sizeof(scc_flow_user) == record::flow_user);
static_assert(sizeof(scc_ace_counter) == record::ace_counter);

namespace scc {
namespace {

// One report's message. Holds scc_lib_lock while it lives.
class report {
  public:
    explicit report(const char* function = __builtin_FUNCTION()) : function_(function) {}
    report(const report&) = delete;
    report& operator=(const report&) = delete;
    ~report() { _scc_msg_free(&message_); }

    // Allocates a zeroed message that begins with a new call id. Returns 0, 2004 or 12.
    [[nodiscard]] u32 begin(u64 bytes) {
        if (!call_.is_registered(function_)) {
            return result::unavailable;
        }
        constexpr u64 longest = 0x7FFFFFFF - wire::header_bytes - wire::item_header_bytes;
        if (bytes > longest || _scc_msg_alloc(&message_, static_cast<u32>(bytes)) != result::ok) {
            SCC_LOG_FROM(function_, "scclib malloc addr notify msg failed.");
            return result::no_memory;
        }
        bytes_ = static_cast<int>(bytes);
        store<u32>(message_, 0, _scc_lib_call_id_get());
        return result::ok;
    }

    [[nodiscard]] u8* at(std::size_t offset) { return static_cast<u8*>(message_) + offset; }

    [[nodiscard]] u32 send(u16 type, u32 statistics) {
        const u32 error = _scc_lib_msg_send(type, message_, bytes_, 1);
        if (error != result::ok) {
            SCC_LOG_FROM(function_, "call _scc_lib_msg_send failed. rv:%d.", error);
        }
        if (statistics != not_counted) {
            count_call(statistics, error == result::ok);
        }
        return error;
    }

  private:
    const char* function_;
    locked_call call_;
    void* message_ = nullptr;
    int bytes_ = 0;
};

u32 refuse(const char* function = __builtin_FUNCTION()) {
    SCC_LOG_FROM(function, "scclib param invalid.");
    return result::invalid;
}

bool is_ipv6(const scc_flow_user& user) {
    return user.family == 3 || user.family == 4;
}

void log_offline(const scc_flow_user& user, u64 flow, u64 time) {
    constexpr const char* function = "scc_noflow_offline_notify";
    if (is_ipv6(user)) {
        SCC_LOG_FROM(function, "offline user - Ifx:%d, Vid:%d, Mac: %s, Ipv6:%s,mask:%s. flow:%lu, time:%lu",
                     user.ifx, user.vid, mac_text(user.mac).text,
                     ipv6_text(load<in6_addr>(user.address)).text, ipv6_text(load<in6_addr>(user.mask)).text,
                     flow, time);
    } else {
        SCC_LOG_FROM(function, "offline user - Ifx:%d, Vid:%d, Mac: %s, Ipv4:%s,mask:%s. flow:%lu, time:%lu",
                     user.ifx, user.vid, mac_text(user.mac).text, ipv4_text(load<u32>(user.address)).text,
                     ipv4_text(load<u32>(user.mask)).text, flow, time);
    }
}

}  // namespace
}  // namespace scc

extern "C" {

uint32_t scc_ss_move_addr_notify(int count, const struct scc_address_move* moves) {
    SCC_LOG("address move notify(num:%d).", count);
    if (moves == nullptr || count <= 0) {
        return refuse();
    }
    const auto entries = static_cast<std::size_t>(count);
    // The missing closing parenthesis is part of the text.
    for (std::size_t i = 0; is_debugging() && i < entries; ++i) {
        SCC_LOG_ALWAYS(__func__, "address move notify(ifx:0x%x mac:%s, vid:%d, bf-vid:%d, af-vid:%d.",
                       moves[i].ifx, mac_text(moves[i].mac).text, moves[i].vid, moves[i].vid_before,
                       moves[i].vid_after);
    }
    report message;
    if (const u32 error = message.begin(8 + entries * record::address_move); error != result::ok) {
        return error;
    }
    store<u32>(message.at(4), 0, static_cast<u32>(count));
    std::memcpy(message.at(8), moves, entries * record::address_move);
    return message.send(msg::move_addr_up, stat_addr_move);
}

uint32_t scc_noflow_offline_notify(const struct scc_flow_user* user, uint64_t flow, uint64_t time,
                                   const void* extra, int extra_bytes) {
    if (user == nullptr || (extra == nullptr && extra_bytes != 0)) {
        return result::invalid;
    }
    const u64 following = extra_bytes > 0 ? static_cast<u64>(extra_bytes) : 0;
    report message;
    if (const u32 error = message.begin(88 + following); error != result::ok) {
        return error;
    }
    std::memcpy(message.at(8), user, sizeof *user);
    store<u64>(message.at(64), 0, flow);
    store<u64>(message.at(72), 0, time);
    store<u64>(message.at(80), 0, following);
    if (following > 0) {
        std::memcpy(message.at(88), extra, following);
    }
    log_offline(*user, flow, time);
    return message.send(msg::noflow_offline_up, stat_noflow_offline);
}

uint32_t scc_flow_notify(const struct scc_flow_user* user, uint64_t first, uint64_t second) {
    if (user == nullptr) {
        return refuse();
    }
    const locked_call call;
    if (!call.is_registered()) {
        return result::unavailable;
    }
    std::array<u8, 80> message{};
    store<u32>(message.data(), 0, _scc_lib_call_id_get());
    store(message.data(), 8, *user);
    store<u64>(message.data(), 64, first);
    store<u64>(message.data(), 72, second);
    const u32 error = _scc_lib_msg_send(msg::flow_up, message.data(), static_cast<int>(message.size()), 1);
    if (error != result::ok) {
        SCC_LOG("call _scc_lib_msg_send failed. rv:%d.", error);
    }
    return error;
}

uint32_t scc_ss_ace_counter_notify(const struct scc_acl_key* key, uint32_t count,
                                   const struct scc_ace_counter* counters) {
    if (const u32 error = _scc_lib_acl_info_check(key); error != result::ok) {
        return error;
    }
    if (counters == nullptr && count != 0) {
        return result::invalid;
    }
    report message;
    if (const u32 error = message.begin(24 + u64{count} * record::ace_counter); error != result::ok) {
        return error;
    }
    std::memcpy(message.at(4), key, sizeof *key);
    store<u32>(message.at(20), 0, count);
    if (count > 0) {
        std::memcpy(message.at(24), counters, u64{count} * record::ace_counter);
    }
    return message.send(msg::ace_counter_up, not_counted);
}
}
