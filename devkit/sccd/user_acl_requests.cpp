// Requests about the ACLs of users. The service gets each as an application of its ACL (133) with the user in
// the record; the scc-type is that of the request (134).
#include <memory>
#include <utility>

#include "sccd/recovery.h"
#include "sccd/request_handlers.h"

namespace scc::sccd::handlers {
namespace {

using devkit::acl_identity;
using devkit::byte_buffer;
using devkit::byte_view;
namespace bound = devkit::user_acl_record;

constexpr u32 operation_set = 1;

// Several changes that are answered together, with the first failure among them.
struct common_answer {
    std::size_t outstanding = 0;
    u32 result = result::ok;
    std::function<void(u32 result)> send;

    void take(u32 one) {
        result = result == result::ok ? one : result;
        if (--outstanding == 0) {
            send(result);
        }
    }
};

void reply_with_key(daemon_core& daemon, const request_ticket& ticket, const acl_identity& key) {
    byte_buffer answer(record::acl_key, 0);
    devkit::write_key(answer, 0, key);
    daemon.reply(ticket, answer);
}

}  // namespace

void user_acl(daemon_core& daemon, const client_request& request) {
    const byte_view record = devkit::slice(request.value, 8, record::user_acl);
    const bool apply = devkit::u32_at(request.value, 216) == operation_set;
    state_change change = apply ? daemon.acls.bind_user(record) : daemon.acls.unbind_user(record);
    daemon.carry_out(request.ticket, std::move(change), one(user_acl_operation(record, apply)));
}

void user_acl_delete_vmsup(daemon_core& daemon, const client_request& request) {
    const acl_store::user_acl_map bindings = daemon.acls.bindings_of(devkit::key_at(request.value, 216));
    const auto answer = std::make_shared<common_answer>();
    answer->outstanding = bindings.size() + 1;
    answer->send = [&daemon, ticket = request.ticket](u32 result) { daemon.answer(ticket, result); };
    for (const auto& [user, record] : bindings) {
        daemon.carry_out(daemon.acls.unbind_user(record), one(user_acl_operation(record, false)),
                         [answer](u32 result) { answer->take(result); });
    }
    answer->take(result::ok);
}

// The answer is the key of the ACL that the user is bound to, or zeros; it carries no result. The service
// keeps the binding in the old VLAN until it has that in the new one, so that no frame of either escapes the
// ACL.
void user_vmsup_get(daemon_core& daemon, const client_request& request) {
    const byte_view asked = devkit::slice(request.value, 8, record::user_acl);
    const byte_buffer* const found = daemon.acls.find_user_acl(asked);
    if (found == nullptr) {
        return reply_with_key(daemon, request.ticket, {});
    }
    const byte_buffer before = *found;
    byte_buffer after = before;
    devkit::write_at(after, bound::vid, devkit::read_at<u16>(asked, bound::vid));
    const auto finish = [&daemon, ticket = request.ticket, before](u32 moved) {
        const acl_identity key = devkit::key_at(before, bound::key);
        reply_with_key(daemon, ticket, moved == result::ok ? key : acl_identity{});
    };
    if (after == before) {
        return finish(result::ok);
    }
    if (daemon.acls.has_user_acl(after)) {
        return daemon.carry_out(daemon.acls.unbind_user(before), one(user_acl_operation(before, false)),
                                finish);
    }
    daemon.carry_out(daemon.acls.move_user(before, after), one(user_acl_operation(after, true)),
                     [&daemon, before, finish](u32 applied) {
                         if (applied != result::ok) {
                             return finish(applied);
                         }
                         daemon.carry_out(state_change::made(), one(user_acl_operation(before, false)),
                                          [finish](u32) { finish(result::ok); });
                     });
}

}  // namespace scc::sccd::handlers
