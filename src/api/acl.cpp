// ACL management: requests to the daemon, and reads of the cache. Any thread; both take scc_lib_lock, and
// reads take scc_acl_lock inside it.
//
//   131, 140 bytes: call id, key at 4, pid at 20, app id at 24, process name at 28 (108), operation at 136
//   132, 944 bytes: call id, key at 4, ACE at 24 (912), operation at 936
//   133, 248 bytes: call id, apply record at 8 (232), operation at 240
//   138,  28 bytes: call id, key at 4, sn_start at 20, sn_inc at 24
// A delete sends zeros where a create sends pid, app id and name.
#include <array>
#include <cstdlib>
#include <cstring>
#include <optional>

#include "api/request.h"

using namespace scc;

static_assert(sizeof(scc_acl_key) == record::acl_key);
static_assert(sizeof(scc_ace_record) == record::ace);
static_assert(sizeof(scc_acl_apply_record) == record::acl_apply);
static_assert(offsetof(scc_acl_apply_record, apply_type) == 208);

namespace scc {
namespace {

constexpr u32 operation_on = 1;   // create, add, apply
constexpr u32 operation_off = 0;  // delete, delete, unapply

using acl_payload = payload<140>;

u32 acl_request(const request_row& row, const scc_acl_key* key, u32 operation, u32* call_id_out) {
    if (const u32 error = _scc_lib_acl_info_check(key); error != result::ok) {
        return error;
    }
    request call(row, call_id_out);
    if (!call.begin()) {
        return result::unavailable;
    }
    acl_payload sent(call.call_id());
    sent.put(4, *key).put(136, operation);
    if (operation == operation_on) {
        sent.put(20, g_scc_client_cb.pid.load(relaxed)).put(24, g_scc_client_cb.app_id.load(relaxed));
        std::memcpy(sent.bytes.data() + 28, g_scc_client_cb.process_name, record::process_name_field);
    }
    return call.finish({bytes_of(*key)}, {sent.bytes});
}

u32 ace_request(const request_row& row, const scc_acl_key* key, const scc_ace_record* ace, u32 operation,
                u32* call_id_out) {
    if (const u32 error = _scc_lib_acl_info_check(key); error != result::ok) {
        return error;
    }
    if (ace == nullptr) {
        SCC_LOG_FROM(row.function, "scclib param ace invalid.");
        return result::invalid;
    }
    request call(row, call_id_out);
    if (!call.begin()) {
        return result::unavailable;
    }
    // The record is long: it is copied to where it goes, and nowhere else.
    payload<24> head(call.call_id());
    head.put(4, *key);
    const std::array<u32, 2> tail{operation, 0};
    return call.finish({bytes_of(*key), bytes_of(*ace)}, {head.bytes, bytes_of(*ace), bytes_of(tail)});
}

// An apply type of 0 is replaced in the caller's own record, even when the call then fails.
u32 apply_request(const request_row& row, scc_acl_apply_record* record, u32 operation, u32* call_id_out) {
    if (record == nullptr) {
        SCC_LOG_FROM(row.function, "scclib param invalid.");
        return result::invalid;
    }
    if (const u32 error = _scc_lib_acl_info_check(&record->key); error != result::ok) {
        return error;
    }
    if (record->apply_type == 0) {
        record->apply_type = record->key.app_type;
    }
    if (record->apply_type > limits::app_type_max) {
        SCC_LOG_FROM(row.function, "apply type(%d) is invalid", record->apply_type);
        return result::invalid;
    }
    request call(row, call_id_out);
    if (!call.begin()) {
        return result::unavailable;
    }
    payload<248> sent(call.call_id());
    sent.put(8, *record).put(240, operation);
    return call.finish({bytes_of(*record)}, {sent.bytes});
}

// A read of one cached ACL: the locks, and the checks that every read makes.
class cache_read {
  public:
    explicit cache_read(const scc_acl_key& key, const char* function = __builtin_FUNCTION())
        : key_(key), function_(function) {}

    // Takes scc_acl_lock only if the cache may be read.
    [[nodiscard]] u32 find(cached_acl*& acl) SCC_ASSERT_HELD(acl_lock) SCC_NO_THREAD_SAFETY_ANALYSIS {
        if (!call_.is_registered(function_)) {
            return result::unavailable;
        }
        if (g_scc_client_cb.option.load(relaxed) != 1) {
            SCC_LOG_FROM(function_, "client don't support data query.");
            return result::no_data_query;
        }
        guard_.emplace(acl_lock);
        acl = _scc_acl_get(&key_);
        if (acl == nullptr) {
            SCC_LOG_FROM(function_, "no such acl in scclib.");
            return result::no_acl;
        }
        return result::ok;
    }

  private:
    locked_call call_;  // locked first, unlocked last
    std::optional<write_guard> guard_;
    const scc_acl_key& key_;
    const char* function_;
};

void free_list(list_node* head) {
    while (!list_empty(head)) {
        list_node* link = head->next;
        list_del(link);
        std::free(link);
    }
}

}  // namespace
}  // namespace scc

extern "C" {

uint32_t scc_acl_create(const struct scc_acl_key* key, uint32_t* call_id_out) {
    return acl_request({msg::acl, kind::acl_create, stat_acl_create}, key, operation_on, call_id_out);
}

uint32_t scc_acl_delete(const struct scc_acl_key* key, uint32_t* call_id_out) {
    return acl_request({msg::acl, kind::acl_delete, stat_acl_delete}, key, operation_off, call_id_out);
}

uint32_t scc_acl_add_ace(const struct scc_acl_key* key, const struct scc_ace_record* ace,
                         uint32_t* call_id_out) {
    return ace_request({msg::ace, kind::acl_add_ace, stat_ace_add}, key, ace, operation_on, call_id_out);
}

uint32_t scc_acl_delete_ace(const struct scc_acl_key* key, const struct scc_ace_record* ace,
                            uint32_t* call_id_out) {
    return ace_request({msg::ace, kind::acl_delete_ace, stat_ace_delete}, key, ace, operation_off,
                       call_id_out);
}

uint32_t scc_acl_apply(struct scc_acl_apply_record* record, uint32_t* call_id_out) {
    return apply_request({msg::acl_apply, kind::acl_apply, stat_acl_apply}, record, operation_on,
                         call_id_out);
}

uint32_t scc_acl_unapply(struct scc_acl_apply_record* record, uint32_t* call_id_out) {
    return apply_request({msg::acl_apply, kind::acl_unapply, stat_acl_unapply}, record, operation_off,
                         call_id_out);
}

uint32_t scc_acl_reseqence(const struct scc_acl_key* key, uint32_t sn_start, uint32_t sn_inc,
                           uint32_t* call_id_out) {
    if (const u32 error = _scc_lib_acl_info_check(key); error != result::ok) {
        return error;
    }
    if (static_cast<i32>(sn_start) < 1 || static_cast<i32>(sn_inc) < 1) {
        SCC_LOG("scclib param invalid. sn_start:%d, sn_inc:%d.", sn_start, sn_inc);
        return result::invalid;
    }
    return scalar_request({msg::acl_resequence, kind::acl_resequence}, call_id_out, *key, sn_start, sn_inc);
}

uint32_t scc_acl_cls_get(struct scc_acl_key* key) {
    if (const u32 error = _scc_lib_acl_info_check(key); error != result::ok) {
        return error;
    }
    cache_read read(*key);
    cached_acl* acl = nullptr;
    const u32 error = read.find(acl);
    if (error == result::ok) {
        key->acl_class = acl->key.acl_class;
    }
    return error;
}

uint32_t scc_acl_get_ace(const struct scc_acl_key* key, struct scc_list_head* aces) {
    if (const u32 error = _scc_lib_acl_info_check(key); error != result::ok) {
        return error;
    }
    if (aces == nullptr) {
        SCC_LOG("scclib param ace_list invalid.");
        return result::invalid;
    }
    cache_read read(*key);
    cached_acl* acl = nullptr;
    if (const u32 error = read.find(acl); error != result::ok) {
        return error;
    }
    INIT_LIST_HEAD(aces);
    for (list_node* link = acl->aces.next; link != &acl->aces; link = link->next) {
        auto* copy = static_cast<scc_ace_record*>(std::malloc(sizeof(scc_ace_record)));
        if (copy == nullptr) {
            SCC_LOG("scclib alloc memroy error.");
            free_list(aces);
            return result::no_memory;
        }
        read_record(*ace_of_link(link), *copy);
        list_add_tail(&copy->link, aces);
    }
    return result::ok;
}

uint32_t scc_acl_get_ace_by_sn(const struct scc_acl_key* key, uint32_t sn, struct scc_ace_record* ace) {
    if (const u32 error = _scc_lib_acl_info_check(key); error != result::ok) {
        return error;
    }
    if (ace == nullptr) {
        SCC_LOG("scclib param ace invalid.");
        return result::invalid;
    }
    cache_read read(*key);
    cached_acl* acl = nullptr;
    if (const u32 error = read.find(acl); error != result::ok) {
        return error;
    }
    const cached_ace* found = find_ace(*acl, sn);
    if (found == nullptr) {
        return result::no_ace;
    }
    read_record(*found, *ace);
    return result::ok;
}
}
