#include "service/security_service.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <limits>
#include <memory>
#include <utility>

#include "common/counted.h"
#include "service/operations.h"

namespace scc::service {
namespace {

using contents = forwarding_table::contents;

constexpr u32 registered = 1;  // passed to the server-status handler

// The library's handlers have no context argument. Set once, before registering starts its threads.
constinit security_service* active = nullptr;

// ---- operations with a record ----

template <class Operation, class Work>
int answer_record(work_kind kind, u32 type, const Operation& operation, Work work) {
    const auto kept = std::make_shared<Operation>(operation);
    active->carry_out(
        kind, type, describe(*kept), [kept, work](contents& held) { return work(held, *kept); },
        [kept](u32 result) {
            kept->ret = result;
            kept->callback(kept.get(), sizeof *kept);
        });
    return 0;
}

template <u32 Type, u32 Op, class Operation>
int on_record(Operation* operation) {
    operation->op = Op;
    return answer_record(work_kind::change, Type, *operation,
                         [](contents& held, Operation& record) { return perform(held, record); });
}

int on_apply(scc_ss_apply_operation* operation) {
    const int accepted = on_record<msg::acl_apply, SCC_SS_OP_APPLY>(operation);
    active->note_applied();
    return accepted;
}

int on_acl_counter(scc_ss_counter_operation* operation) {
    operation->op = SCC_SS_OP_COUNTER;
    const u32 type = operation->sync != 0 ? msg::acl_counter_get : msg::acl_counter_reset;
    return answer_record(work_kind::query, type, *operation, perform_acl_counter);
}

int on_ace_counter(scc_ss_counter_operation* operation) {
    operation->op = SCC_SS_OP_COUNTER;
    const u32 type = operation->sync != 0 ? msg::ace_counter_get : msg::ace_counter_reset;
    return answer_record(work_kind::query, type, *operation, perform_ace_counter);
}

// ---- operations with arguments ----

// reply(result) calls one of the library's reply functions.
template <class Work, class Reply>
int answer_call(u32 type, const std::string& text, Work work, Reply reply) {
    active->carry_out(
        work_kind::change, type, text,
        [work](contents& held) {
            work(held);
            return 0u;
        },
        reply);
    return 0;
}

int on_app_set(u32 call_id, u32 op, u32 ifx, u32 type) {
    return answer_call(
        msg::nacm_app, fmt::format("nac app {} ifx {} operation {}", type, ifx, op),
        [=](contents& held) {
            held.nac.set_app({ifx, 0, type}, op);
        },
        [=](u32 result) { scc_ssc_nacm_app_op_callback(result, call_id, op, ifx, type); });
}

int on_app_set_with_vid(u32 call_id, u32 op, u32 ifx, u32 vid, u32 type) {
    return answer_call(
        msg::nacm_app_with_vid, fmt::format("nac app {} ifx {} vid {} operation {}", type, ifx, vid, op),
        [=](contents& held) {
            held.nac.set_app({ifx, vid, type}, op);
        },
        [=](u32 result) { scc_ssc_nacm_app_op_with_vid_callback(result, call_id, op, ifx, vid, type); });
}

int on_default_read(u32 call_id, u32 ifx, u32 type) {
    return answer_call(
        msg::nacm_def_read, fmt::format("default read ifx {} type {}", ifx, type),
        [=](contents& held) { held.nac.read_default(ifx, type); },
        [=](u32 result) { scc_ssc_nacm_def_read_callback(result, call_id, ifx, type); });
}

int on_l4port_set(u32 call_id, u32 add, u32 port) {
    return answer_call(
        msg::nacm_l4port, fmt::format("{} layer-4 port {}", add != 0 ? "add" : "delete", port),
        [=](contents& held) { held.nac.set_l4port(port, add != 0); },
        [=](u32 result) { scc_ssc_nacm_http_l4port_set_callback(result, call_id, add, port); });
}

int on_user(u32 call_id, u8 add, const scc_ss_user* user) {
    active->carry_out(
        work_kind::change, msg::nacm_user, fmt::format("{} {}", add != 0 ? "add" : "delete", describe(*user)),
        [add, copy = *user](contents& held) {
            if (add == 0) {
                return held.nac.delete_user(copy);
            }
            held.nac.add_user(copy);
            return 0u;
        },
        [call_id, add, copy = *user](u32 result) {
            scc_ssc_nacm_user_op_callback(result, call_id, add, &copy);
        });
    return 0;
}

int on_user_reinstall(u32 call_id, u32 start, u32 ifx) {
    return answer_call(
        msg::nacm_user_reinstall, fmt::format("reinstall users ifx {} {}", ifx, start != 0 ? "start" : "end"),
        [=](contents& held) {
            if (start != 0) {
                held.nac.begin_reinstall(ifx);
            } else {
                held.nac.end_reinstall(ifx);
            }
        },
        [=](u32 result) { scc_ssc_nacm_user_reinstall_callback(result, call_id, start, ifx); });
}

int on_offline_detection(u32 call_id, u8 open, u32 interval, u32 threshold) {
    return answer_call(
        msg::offline_detect_notify,
        fmt::format("offline detection {} interval {} threshold {}", open != 0 ? "open" : "close", interval,
                    threshold),
        [=](contents& held) {
            held.nac.set_offline_detection({open != 0, interval, threshold});
        },
        [=](u32 result) { scc_offline_detect_cfg_ret_callback(result, call_id, open, interval, threshold); });
}

// ---- operations that the library answers with what the handler returns, or not at all ----

int on_user_read(u32, scc_ss_user* user) {
    return static_cast<int>(
        active->carry_out_now(work_kind::query, msg::nacm_user_read, "read " + describe(*user),
                              [user](contents& held) { return held.nac.read_user(*user); }));
}

int on_data_recover(u8 start) {
    return static_cast<int>(active->carry_out_now(
        work_kind::change, msg::data_recover, fmt::format("data recovery {}", start == 1 ? "start" : "end"),
        [start](contents& held) {
            if (start == 1) {
                held.begin_recovery();
            } else {
                held.end_recovery();
            }
            return 0u;
        }));
}

// The lists of the recoveries are packed and need not be aligned. Refuses a list of more entries than a
// message has room for, whose length is 32 bits wide.
template <class Entry, class Take>
u32 take_list(u32 count, const void* entries, Take take) {
    constexpr u32 room = std::numeric_limits<u32>::max() - wire::header_bytes - wire::item_header_bytes;
    if (count > room / sizeof(Entry) || (entries == nullptr && count != 0)) {
        return EINVAL;
    }
    const auto* at = static_cast<const u8*>(entries);
    for (u32 taken = 0; taken < count; ++taken, at += sizeof(Entry)) {
        Entry entry;
        std::memcpy(&entry, at, sizeof entry);
        take(entry);
    }
    return 0;
}

int on_users_recover(u32 ifx, u32 app, u32 count, const void* users) {
    return static_cast<int>(active->carry_out_now(
        work_kind::change, msg::nacm_app_user_recover,
        fmt::format("recover {} ifx {} app {}", devkit::counted(count, "user"), ifx, app),
        [count, users](contents& held) {
            return take_list<scc_ss_user>(count, users,
                                          [&](const scc_ss_user& user) { held.nac.add_user(user); });
        }));
}

int on_l4ports_recover(u32 count, const void* ports) {
    return static_cast<int>(active->carry_out_now(
        work_kind::change, msg::nacm_l4port_recover,
        fmt::format("recover {}", devkit::counted(count, "layer-4 port")), [count, ports](contents& held) {
            return take_list<u32>(count, ports, [&](u32 port) { held.nac.set_l4port(port, true); });
        }));
}

// ---- notifications ----

// Runs on the library's receive thread without its lock, so it may request the fetch.
void on_server_status(u32 status) {
    active->note_status(status);
    if (status != registered) {
        return;
    }
    active->expect_recovery();
    active->note_fetch(scc_ss_fetch_func());
}

void on_direct_vlans(const scc_vlan_record* vlans) {
    (void)active->carry_out_now(work_kind::change, msg::direct_vlan_notify, "direct vlans",
                                [vlans](contents& held) {
                                    held.nac.set_direct_vlans(*vlans);
                                    return 0u;
                                });
}

void on_auth_mode(u32 mode) {
    (void)active->carry_out_now(work_kind::change, msg::authmode, fmt::format("authentication mode {}", mode),
                                [mode](contents& held) {
                                    held.nac.set_auth_mode(mode);
                                    return 0u;
                                });
}

constexpr scc_ss_reg_info all_handlers{
    .server_status = on_server_status,
    .acl_create = on_record<msg::acl, SCC_SS_OP_CREATE, scc_ss_acl_operation>,
    .acl_delete = on_record<msg::acl, SCC_SS_OP_DELETE, scc_ss_acl_operation>,
    .add_ace = on_record<msg::ace, SCC_SS_OP_ADD_ACE, scc_ss_ace_operation>,
    .delete_ace = on_record<msg::ace, SCC_SS_OP_DELETE_ACE, scc_ss_ace_operation>,
    .apply = on_apply,
    .unapply = on_record<msg::acl_apply, SCC_SS_OP_UNAPPLY, scc_ss_apply_operation>,
    .resequence = on_record<msg::acl_resequence, SCC_SS_OP_RESEQUENCE, scc_ss_resequence_operation>,
    .svi_router_acl = on_record<msg::svi_router_acl, SCC_SS_OP_SVI_ROUTER_ACL, scc_ss_svi_operation>,
    .acl_counter = on_acl_counter,
    .ace_counter = on_ace_counter,
    .uplink = on_record<msg::global_eport, SCC_SS_OP_GLOBAL_EPORT, scc_ss_eport_operation>,
    .cpp = on_record<msg::cpp, SCC_SS_OP_CPP, scc_ss_cpp_operation>,
    .direct_vlan_notify = on_direct_vlans,
    .authmode = on_auth_mode,
    .app_set = on_app_set,
    .def_read = on_default_read,
    .http_l4port_set = on_l4port_set,
    .user_op = on_user,
    .user_read = on_user_read,
    .user_reinstall = on_user_reinstall,
    .app_user_recover = on_users_recover,
    .l4port_recover = on_l4ports_recover,
    .app_set_with_vid = on_app_set_with_vid,
    .data_recover = on_data_recover,
    .offline_detect_cfg = on_offline_detection,
};

}  // namespace

security_service::security_service(back_end& carrier, forwarding_table& table, answer_policy policy,
                                   observer watcher)
    : back_end_(carrier),
      table_(table),
      policy_(std::move(policy)),
      observer_(std::move(watcher)),
      answers_(policy_.delay, policy_.from_own_thread) {}

void security_service::carry_out(work_kind kind, u32 type, std::string text, table_work work,
                                 std::function<void(u32 result)> answer) {
    auto settle = [this, type, text = std::move(text), answer = std::move(answer)](u32 result) {
        const bool answered = !policy_.silent.contains(type);
        log_operation(type, text, result, answered);
        if (answered) {
            answers_.send([answer, result] { answer(result); });
        }
    };
    const auto refusal = policy_.refusals.find(type);
    if (refusal != policy_.refusals.end()) {
        settle(refusal->second);
    } else {
        back_end_.submit(kind, std::move(work), std::move(settle));
    }
}

u32 security_service::carry_out_now(work_kind kind, u32 type, const std::string& text, table_work work) {
    const auto refusal = policy_.refusals.find(type);
    const u32 result =
        refusal == policy_.refusals.end() ? back_end_.run(kind, std::move(work)) : refusal->second;
    const bool answered = !policy_.silent.contains(type);
    log_operation(type, text, result, answered);
    return answered ? result : 0;
}

void security_service::activate() {
    active = this;
}

const scc_ss_reg_info& security_service::handlers() {
    return all_handlers;
}

u32 security_service::serve(const std::function<bool()>& wait) {
    u32 result = start_answers();
    if (result != 0) {
        return result;
    }
    activate();
    result = scc_ss_reg(&handlers());
    while (result == 0 && wait()) {
    }
    stop_answers();
    return result;
}

void security_service::note_applied() {
    if (observer_.applied) {
        observer_.applied(table_.locked([](const contents& held) { return held.acls.applied_count(); }));
    }
}

void security_service::expect_recovery() {
    (void)back_end_.run(work_kind::change, [](contents& held) {
        held.begin_recovery();
        return 0u;
    });
}

void security_service::note_status(u32 status) const {
    if (observer_.status) {
        observer_.status(status);
    }
}

void security_service::note_fetch(u32 result) const {
    if (result != 0 && observer_.log) {
        observer_.log(fmt::format("fetch: {}", scc_strerror(static_cast<i32>(result))));
    }
}

void security_service::log_operation(u32 type, const std::string& text, u32 result, bool answered) const {
    if (!observer_.log) {
        return;
    }
    observer_.log(fmt::format("{} {}: {}{}", type, text, result, answered ? "" : ", not answered"));
}

}  // namespace scc::service
