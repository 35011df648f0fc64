// The service's operations with handlers that read everything they are promised and answer at once, later,
// twice or never; with all handlers or none. The answers must be well formed, and the scc-type of an answer
// is that of the oldest unanswered operation of its id.
//
//   input := settings {byte message}
//     settings: bit 0 the log is on, bit 1 without handlers, bits 2 to 4 how handlers answer
//     byte:     how many of the waiting operations are answered after the message
//     message:  as in wire_plan.h
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <vector>

#include "client/log.h"
#include "client/request_channel.h"
#include "msg/bytes.h"
#include "ss/service.h"
#include "support/application.h"
#include "support/fail.h"
#include "support/fake_system.h"
#include "support/library.h"
#include "support/promises.h"

using namespace scc;
using namespace scc::fuzz;

namespace {

enum class answer : u8 { at_once, later, never, twice, refused };

answer g_answer = answer::at_once;
// Copies of the waiting records, each in a block of exactly its size.
std::deque<std::vector<u8>> g_waiting;

struct head {
    SCC_SS_OPERATION_HEAD;
};

void call_back(const void* record, u32 bytes) {
    head at;
    std::memcpy(&at, record, sizeof at);
    at.callback(record, bytes);
}

template <class Record>
int on_operation(Record* operation) {
    read_all(operation, sizeof *operation);
    FUZZ_EXPECT(operation->callback != nullptr && operation->flag == 1 && operation->ret == 0 &&
                operation->op == 0);
    operation->ret = operation->id % 3;
    operation->op = operation->id % 13;
    switch (g_answer) {
        case answer::at_once:
            operation->callback(operation, sizeof *operation);
            return 0;
        case answer::twice:
            operation->callback(operation, sizeof *operation);
            operation->callback(operation, sizeof *operation);
            return 0;
        case answer::later: {
            const auto* bytes = reinterpret_cast<const u8*>(operation);
            g_waiting.emplace_back(bytes, bytes + sizeof *operation);
            return 0;
        }
        case answer::never:
            return 0;
        case answer::refused:
            return -1;
    }
    return 0;
}

int refused_or_taken() {
    return g_answer == answer::refused ? -1 : 0;
}

bool answers_now() {
    return g_answer == answer::at_once || g_answer == answer::twice;
}

scc_ss_reg_info all_handlers() {
    scc_ss_reg_info info{};
    info.acl_create = on_operation<scc_ss_acl_operation>;
    info.acl_delete = on_operation<scc_ss_acl_operation>;
    info.add_ace = on_operation<scc_ss_ace_operation>;
    info.delete_ace = on_operation<scc_ss_ace_operation>;
    info.apply = on_operation<scc_ss_apply_operation>;
    info.unapply = on_operation<scc_ss_apply_operation>;
    info.resequence = on_operation<scc_ss_resequence_operation>;
    info.svi_router_acl = on_operation<scc_ss_svi_operation>;
    info.acl_counter = on_operation<scc_ss_counter_operation>;
    info.ace_counter = on_operation<scc_ss_counter_operation>;
    info.uplink = on_operation<scc_ss_eport_operation>;
    info.cpp = on_operation<scc_ss_cpp_operation>;
    info.direct_vlan_notify = [](const scc_vlan_record* vlans) { read_all(vlans, sizeof *vlans); };
    info.authmode = [](u32) {};
    info.app_set = [](u32 id, u32 op, u32 ifx, u32 type) {
        FUZZ_EXPECT(type < limits::nacm_types);
        if (answers_now()) {
            (void)scc_ssc_nacm_app_op_callback(id % 2, id, op, ifx, type);
        }
        return refused_or_taken();
    };
    info.app_set_with_vid = [](u32 id, u32 op, u32 ifx, u32 vid, u32 type) {
        FUZZ_EXPECT(type < limits::nacm_types);
        if (answers_now()) {
            (void)scc_ssc_nacm_app_op_with_vid_callback(id % 2, id, op, ifx, vid, type);
        }
        return refused_or_taken();
    };
    info.def_read = [](u32 id, u32 ifx, u32 type) {
        if (answers_now()) {
            (void)scc_ssc_nacm_def_read_callback(id % 2, id, ifx, type);
        }
        return refused_or_taken();
    };
    info.http_l4port_set = [](u32 id, u32 add, u32 port) {
        if (answers_now()) {
            (void)scc_ssc_nacm_http_l4port_set_callback(id % 2, id, add, port);
        }
        return refused_or_taken();
    };
    info.user_op = [](u32 id, u8 add, const scc_ss_user* user) {
        read_all(user, sizeof *user);
        if (answers_now()) {
            (void)scc_ssc_nacm_user_op_callback(id % 2, id, add, user);
        }
        return refused_or_taken();
    };
    info.user_read = [](u32, scc_ss_user* user) {
        read_all(user, sizeof *user);
        std::memset(user, 0x5A, sizeof *user);
        return refused_or_taken();
    };
    info.user_reinstall = [](u32 id, u32 start, u32 ifx) {
        if (answers_now()) {
            (void)scc_ssc_nacm_user_reinstall_callback(id % 2, id, start, ifx);
        }
        return refused_or_taken();
    };
    info.app_user_recover = [](u32, u32, u32 count, const void* users) {
        read_all(users, std::size_t{count} * sizeof(scc_ss_user));
        return refused_or_taken();
    };
    info.l4port_recover = [](u32 count, const void* ports) {
        read_all(ports, std::size_t{count} * sizeof(u32));
        return refused_or_taken();
    };
    info.data_recover = [](u8) { return refused_or_taken(); };
    info.offline_detect_cfg = [](u32 id, u8 open, u32 interval, u32 threshold) {
        if (answers_now()) {
            (void)scc_offline_detect_cfg_ret_callback(id % 2, id, open, interval, threshold);
        }
        return refused_or_taken();
    };
    return info;
}

// ---- answers ---------------------------------------------------------------------------------------

std::vector<u8> g_sent[2];
int g_descriptors[2];

void on_sent(int fd, std::span<const u8> bytes) {
    std::vector<u8>& to = g_sent[fd == g_descriptors[1] ? 1 : 0];
    to.insert(to.end(), bytes.begin(), bytes.end());
}

void check_answer(void* context, u16 /*sub_id*/, u16 type, std::span<const u8> value) {
    const bool is_sync = context != nullptr;
    if (type == msg::info_collect) {
        FUZZ_EXPECT(is_sync && value.size() == 320);
        return;
    }
    FUZZ_EXPECT(type == msg::service_ret);
    FUZZ_EXPECT(is_sync ? value.size() == 48
                        : value.size() == 12 || value.size() == 48 || value.size() == 104);
}

void check_sent() {
    for (std::size_t i = 0; i < 2; ++i) {
        FUZZ_EXPECT(walk_messages(g_sent[i], check_answer, i == 1 ? &g_sent[1] : nullptr) ==
                    g_sent[i].size());
        g_sent[i].clear();
    }
}

void answer_waiting(std::size_t count) {
    for (; count > 0 && !g_waiting.empty(); --count) {
        const std::vector<u8> record = std::move(g_waiting.front());
        g_waiting.pop_front();
        call_back(record.data(), static_cast<u32>(record.size()));
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const u8* data, std::size_t size) {
    static const bool ready = prepare_library();
    (void)ready;
    input from(data, size);
    const u8 settings = from.byte();
    system_hooks hooks;
    hooks.sent = on_sent;
    const system_in_use system(hooks);
    g_descriptors[0] = open_fake_socket();
    g_descriptors[1] = open_fake_socket();
    const scc_ss_reg_info info = (settings & 2u) != 0 ? scc_ss_reg_info{} : all_handlers();
    _scc_ss_handler_set(&info);
    register_service_by_hand(g_descriptors[0], g_descriptors[1]);
    g_answer = static_cast<answer>((settings >> 2) % 5);
    scc_lib_debug.store(settings & 1u);

    static std::vector<u8> message;
    while (!from.empty()) {
        const u8 answered = from.byte();
        message.clear();
        append_planned_message(from, service_items(), message);
        // The fake system refuses blocks beyond 256 KiB.
        if (message.size() > wire::header_bytes && message.size() < 200'000 &&
            load<u16>(message.data(), 5) != 0 && items_fit(message)) {
            auto* exact = static_cast<u8*>(std::malloc(message.size()));
            std::memcpy(exact, message.data(), message.size());
            _scc_ss_async_msg_proc(load<u16>(exact, 5), exact + wire::header_bytes);
            std::free(exact);
        }
        answer_waiting(answered);
        check_sent();
    }
    flush_waiting_batch();
    check_sent();
    g_waiting.clear();
    const scc_ss_reg_info none{};
    _scc_ss_handler_set(&none);
    unregister_by_hand();
    return 0;
}
