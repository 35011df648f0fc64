// Requests about ACLs: checks and changes the daemon's state and passes operations for the hardware to the
// security service.
#include <utility>

#include "sccd/recovery.h"
#include "sccd/request_handlers.h"

namespace scc::sccd::handlers {
namespace {

using devkit::acl_identity;
using devkit::byte_buffer;
using devkit::byte_view;

constexpr u32 operation_set = 1;
constexpr std::size_t key_offset = 4;

// The service reads the layouts that applications send; a short value is padded with zeros.
std::vector<service_operation> forwarded(const client_request& request, std::size_t len) {
    service_operation operation{request.ticket.type->number, request.ticket.type->number,
                                devkit::to_bytes(devkit::slice(request.value, 0, len))};
    operation.value.resize(len);
    return one(std::move(operation));
}

bool sets(const client_request& request, std::size_t offset) {
    return devkit::u32_at(request.value, offset) == operation_set;
}

// The counter that a request names. If there is none, returns null and sets `result`.
u64* own_counter(daemon_core& daemon, const client_request& request, bool of_ace, u32& result) {
    acl_entry* const acl = daemon.acls.find(devkit::key_at(request.value, key_offset));
    result = acl == nullptr ? result::no_such_acl : result::ok;
    if (acl == nullptr) {
        return nullptr;
    }
    if (!of_ace) {
        return &acl->counter;
    }
    ace_entry* const ace = acl_store::find_ace(*acl, devkit::u64_at(request.value, 24));
    // Only the service can map an ACE number to the hardware.
    if (ace == nullptr && !daemon.bridge.present()) {
        result = result::no_such_ace;
    }
    return ace == nullptr ? nullptr : &ace->counter;
}

byte_buffer counter_reply(byte_view request, u64 counter, u32 outcome) {
    byte_buffer value = devkit::to_bytes(devkit::slice(request, 0, 40));
    value.resize(48);
    devkit::write_at(value, 32, counter);
    devkit::write_at(value, 40, outcome);
    return value;
}

void get_counter(daemon_core& daemon, const client_request& request, bool of_ace) {
    u32 refused = result::ok;
    const u64* const own = own_counter(daemon, request, of_ace, refused);
    if (refused != result::ok || !daemon.bridge.present()) {
        return daemon.reply(request.ticket, counter_reply(request.value, own == nullptr ? 0 : *own, refused));
    }
    std::vector<service_operation> query = forwarded(request, 40);
    devkit::write_at(query.front().value, 32, 1u);
    daemon.bridge.submit(
        std::move(query), [&daemon, ticket = request.ticket,
                           asked = devkit::to_bytes(request.value)](const service_outcome& outcome) {
            daemon.reply(ticket, counter_reply(asked, devkit::u64_at(outcome.value, 32), outcome.result));
        });
}

void reset_counter(daemon_core& daemon, const client_request& request, bool of_ace) {
    u32 refused = result::ok;
    u64* const own = own_counter(daemon, request, of_ace, refused);
    if (own != nullptr) {
        *own = 0;
    }
    std::vector<service_operation> reset = forwarded(request, 40);
    devkit::write_at(reset.front().value, 32, 0u);
    daemon.carry_out(request.ticket, {refused, {}}, std::move(reset));
}

// For operations that follow from another one, which is answered.
void send_user_acls(daemon_core& daemon, const acl_store::user_acl_map& bindings, bool apply) {
    for (const auto& [user, record] : bindings) {
        daemon.carry_out(state_change::made(), one(user_acl_operation(record, apply)), [](u32) {});
    }
}

// The bindings end with their ACL, but a service refuses to delete an ACL that is applied anywhere. One with
// other applications is refused also without its users, who keep it.
void delete_acl(daemon_core& daemon, const client_request& request, const acl_identity& key) {
    const acl_entry* const acl = daemon.acls.find(key);
    const bool is_free = acl != nullptr && acl->applies.empty();
    acl_store::user_acl_map bindings = is_free ? daemon.acls.bindings_of(key) : acl_store::user_acl_map{};
    send_user_acls(daemon, bindings, false);
    daemon.carry_out(daemon.acls.remove(key), forwarded(request, 140),
                     [&daemon, ticket = request.ticket, bindings = std::move(bindings)](u32 outcome) {
                         if (outcome != result::ok) {
                             send_user_acls(daemon, bindings, true);
                         }
                         daemon.answer(ticket, outcome);
                     });
}

}  // namespace

void acl(daemon_core& daemon, const client_request& request) {
    const acl_identity key = devkit::key_at(request.value, key_offset);
    if (!sets(request, 136)) {
        return delete_acl(daemon, request, key);
    }
    daemon.carry_out(request.ticket, daemon.acls.create(key, devkit::slice(request.value, 0, 140)),
                     forwarded(request, 140));
}

void ace(daemon_core& daemon, const client_request& request) {
    const acl_identity key = devkit::key_at(request.value, key_offset);
    const byte_view record = devkit::slice(request.value, 24, record::ace);
    state_change change =
        sets(request, 936) ? daemon.acls.add_ace(key, record) : daemon.acls.remove_ace(key, record);
    daemon.carry_out(request.ticket, std::move(change), forwarded(request, 944));
}

void acl_apply(daemon_core& daemon, const client_request& request) {
    const byte_view record = devkit::slice(request.value, 8, record::acl_apply);
    state_change change = sets(request, 240) ? daemon.acls.apply(record) : daemon.acls.unapply(record);
    daemon.carry_out(request.ticket, std::move(change), forwarded(request, 248));
}

void acl_resequence(daemon_core& daemon, const client_request& request) {
    state_change change =
        daemon.acls.resequence(devkit::key_at(request.value, key_offset), devkit::u32_at(request.value, 20),
                               devkit::u32_at(request.value, 24));
    daemon.carry_out(request.ticket, std::move(change), forwarded(request, 28));
}

void filter_counter_reset(daemon_core& daemon, const client_request& request) {
    acl_entry* const acl = daemon.acls.find(devkit::key_at(request.value, key_offset));
    if (acl != nullptr) {
        acl->filter_counter = 0;
    }
    daemon.answer(request.ticket, acl == nullptr ? result::no_such_acl : result::ok);
}

void filter_counter_get(daemon_core& daemon, const client_request& request) {
    const acl_entry* const acl = daemon.acls.find(devkit::key_at(request.value, key_offset));
    // The counter overlaps the last word of the echoed key.
    byte_buffer value = devkit::to_bytes(devkit::slice(request.value, 0, 20));
    value.resize(request.ticket.type->reply_bytes);
    devkit::write_at(value, 16, acl == nullptr ? u64{0} : acl->filter_counter);
    devkit::write_at(value, 24, acl == nullptr ? result::no_such_acl : result::ok);
    daemon.reply(request.ticket, value);
}

void acl_counter_reset(daemon_core& daemon, const client_request& request) {
    reset_counter(daemon, request, false);
}
void ace_counter_reset(daemon_core& daemon, const client_request& request) {
    reset_counter(daemon, request, true);
}
void acl_counter_get(daemon_core& daemon, const client_request& request) {
    get_counter(daemon, request, false);
}
void ace_counter_get(daemon_core& daemon, const client_request& request) {
    get_counter(daemon, request, true);
}

}  // namespace scc::sccd::handlers
