// The process's side of the model: starting, requests, queries and the batch. What the daemon sends is in
// model_delivery.cpp.
#include "model/library_model.h"

#include <unistd.h>

namespace model {
namespace {

constexpr std::size_t batch_capacity = 8192;
constexpr std::size_t oversized = 8176;
constexpr u32 lost = 32;

bytes with_call_id(bytes value, u32 id) {
    std::memcpy(value.data(), &id, sizeof id);
    return value;
}

}  // namespace

start_facts start_of(const act& start) {
    constexpr std::array<u8, 4> options{1, 1, 0, 2};
    constexpr std::array<u8, 8> absences{0, 0, 0, 0, 0, 2, 3, 5};
    const bool is_service = (start.which & 4) != 0;
    start_facts facts{is_service, (start.which & 1) != 0 ? 19U : 7U, options[start.seed % options.size()],
                      absences[start.seed / 4 % absences.size()]};
    if (is_service) {
        facts.app_id = 16;
        facts.option = 0;
    }
    return facts;
}

u32 query_result(u8 how) {
    return how % 8 == 6 ? 2005U : 0U;
}

bool is_wrong_reply(u8 how) {
    return how % 8 == 7;
}

void library_model::returned(u32 error, const bytes& out) {
    seen.push_back({"returned", wire().u32(error).add(out)});
}

void library_model::call_handler(u32 position, const bytes& arguments) {
    if (is_absent(facts_, position)) {
        return;
    }
    seen.push_back({"handler " + std::to_string(position), arguments});
    if (reaction_) {
        const act reaction = *reaction_;
        reaction_.reset();
        perform(*this, reaction);
    }
}

void library_model::drop_data() {
    pending_.clear();
    cache_.clear();
    capability_ = 0;
}

void library_model::start(const act& how) {
    if (standing_ == standing::idle) {
        facts_ = start_of(how);
        drop_data();
        batch_.clear();
        batch_bytes_ = 0;
        statistics_.reset();
        if (facts_.is_service) {
            types_.clear();
        }
        link_ = link::closed;
        standing_ = standing::connecting;
    }
    returned(0, {});
}

void library_model::try_to_register() {
    if (!daemon_is_there) {
        return;
    }
    link_ = link::good;
    for (const u8 on_sync_socket : {u8{1}, u8{0}}) {
        (void)send_now(on_sync_socket != 0 ? "sync" : "async", 0, 301,
                       wire()
                           .u32(facts_.app_id)
                           .u32(static_cast<u32>(getpid()))
                           .u8(facts_.option)
                           .u8(on_sync_socket)
                           .zeros(2));
        if (refuses_registration == on_sync_socket) {
            refuses_registration.reset();
            link_ = link::closed;
            return;
        }
    }
    standing_ = standing::registered;
    statistics_.reset();
    bytes status;
    append_number(status, u32{1});
    call_handler(0, status);
}

void library_model::notice_loss() {
    drop_data();
    batch_.clear();
    batch_bytes_ = 0;
    link_ = link::closed;
    standing_ = standing::connecting;
    bytes status;
    append_number(status, u32{0});
    call_handler(0, status);
    try_to_register();
}

void library_model::unregister() {
    if (standing_ != standing::registered) {
        returned(0, {});
        return;
    }
    // A daemon that has gone has forgotten everybody.
    if (link_ == link::good) {
        (void)send_now("sync", 0, 302, wire().u32(facts_.app_id));
        if (refuses_unregistration) {
            refuses_unregistration = false;
            returned(2001, {});
            return;
        }
    }
    standing_ = standing::idle;
    link_ = link::closed;
    last_call_id_ = 0;
    drop_data();
    batch_.clear();
    batch_bytes_ = 0;
    returned(0, {});
}

// Returns false if the connection is lost, with all that it carried.
bool library_model::send_now(const char* socket, u16 sub_id, u16 type, const bytes& value) {
    if (link_ != link::good) {
        drop_data();
        link_ = link::closed;
        return false;
    }
    seen.push_back({socket, test::message_bytes({test::item_bytes(type, value, sub_id)})});
    return true;
}

bool library_model::flush() {
    const std::vector<bytes> items = std::move(batch_);
    batch_.clear();
    batch_bytes_ = 0;
    if (link_ != link::good) {
        drop_data();
        link_ = link::closed;
        return false;
    }
    seen.push_back({"async", test::message_bytes(items)});
    return true;
}

u32 library_model::send_batched(u16 sub_id, u16 type, const bytes& value) {
    if (standing_ != standing::registered) {
        return 0;
    }
    if (value.size() >= oversized) {
        (void)send_now("async", sub_id, type, value);
        return 22;
    }
    if (link_ == link::closed) {
        return 0;
    }
    const bytes item = test::item_bytes(type, value, sub_id);
    if (batch_capacity - batch_bytes_ < item.size() && !flush()) {
        return 0;
    }
    batch_.push_back(item);
    batch_bytes_ += item.size();
    if (batch_bytes_ == batch_capacity) {
        (void)flush();
    }
    return 0;
}

void library_model::check() {
    if (batch_.empty()) {
        return;
    }
    if (link_ == link::good) {
        (void)flush();
        return;
    }
    batch_.clear();
    batch_bytes_ = 0;
    link_ = link::closed;
}

void library_model::delete_pending(u32 id) {
    std::erase_if(pending_, [&](const pending_call& call) { return call.id == id; });
}

void library_model::make_request(u8 which, u8 seed, u8 how) {
    const request_facts facts = requests()[which % requests().size()].facts(seed, how, facts_.app_id);
    u32 error = facts.early_error;
    if (error == 0 && standing_ != standing::registered) {
        error = 2004;
    }
    if (error != 0) {
        returned(error, wire().u32(0));
        return;
    }
    if (facts.kind == one_way) {
        if (facts.on_sync_socket) {
            (void)send_now("sync", 0, facts.type, facts.value);
        } else {
            error = send_batched(0, facts.type, facts.value);
        }
        statistics_.count_call(facts.statistics, error == 0);
        returned(error, wire().u32(0));
        return;
    }
    const u32 id = ++last_call_id_;
    if (facts.late_error != 0) {
        returned(facts.late_error, wire().u32(0));
        return;
    }
    pending_.push_back({id, facts.kind, facts.saved});
    error = send_batched(0, facts.type, with_call_id(facts.value, id));
    if (error != 0) {
        delete_pending(id);
    }
    statistics_.count_call(facts.statistics, error == 0);
    returned(error, wire().u32(id));
}

void library_model::make_query(u8 which, u8 seed, u8 how) {
    const query_facts facts = queries()[which % queries().size()].facts(seed, query_result(how));
    u32 error = facts.early_error;
    if (error == 0 && standing_ != standing::registered) {
        error = 2004;
    }
    if (error != 0) {
        returned(error, wire().u32(0).add(facts.untouched));
        return;
    }
    const u32 id = facts.takes_call_id ? ++last_call_id_ : 0;
    if (!send_now("sync", 0, facts.type, facts.takes_call_id ? with_call_id(facts.value, id) : facts.value)) {
        returned(lost, wire().u32(0).add(facts.untouched));
        return;
    }
    // The address query by MAC uses up a call id that the caller does not get.
    const u32 given = facts.answer.empty() ? id : 0;
    if (is_wrong_reply(how)) {
        returned(2007, wire().u32(given).add(facts.untouched));
        return;
    }
    returned(facts.result, wire().u32(given).add(facts.answer));
}

void library_model::read_cache(u8 which, u8 seed, u8 how) {
    const bool is_registered = standing_ == standing::registered;
    if (which % cache_reads == 3) {
        returned(is_registered ? 0 : 2004, wire().u8(!is_registered              ? 0xEE
                                                     : (capability_ & 0x20) != 0 ? 0
                                                                                 : 1));
        return;
    }
    const acl_key key = key_of(seed);
    cached_acl* acl = cache_.find(key);
    u32 error = 0;
    if (!is_valid(key)) {
        error = 22;
    } else if (!is_registered) {
        error = 2004;
    } else if (facts_.option != 1) {
        error = 2013;
    } else if (acl == nullptr) {
        error = 2005;
    }
    wire out;
    if (which % cache_reads == 0) {
        out.u32(error == 0 ? acl->key.acl_class : key.acl_class);
    } else if (error == 0 && which % cache_reads == 1) {
        for (const cached_ace& ace : acl->aces) {
            out.add(test::slice(ace.record, 16, 896));
        }
    } else if (error == 0) {
        const auto found = std::find_if(acl->aces.begin(), acl->aces.end(), [&](const cached_ace& ace) {
            return ace.sn == sequence_number_of(how);
        });
        if (found == acl->aces.end()) {
            error = 2006;
        } else {
            out.add(test::slice(found->record, 16, 896));
        }
    }
    returned(error, out);
}

}  // namespace model
