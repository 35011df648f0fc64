// A look into the client's copy of the ACLs.
#pragma once

#include <gtest/gtest.h>
#include <malloc.h>

#include <utility>
#include <vector>

#include "client/acl_cache.h"
#include "client/client_data.h"
#include "client/locks.h"
#include "support/wire_bytes.h"

namespace test {

using numbers = std::vector<std::uint32_t>;

inline scc_acl_key key_of(std::uint32_t vdev, std::uint32_t app, std::uint32_t id,
                          std::uint32_t acl_class = 0) {
    return {vdev, app, id, acl_class};
}

inline scc_ace_record ace_of(std::uint32_t sn, std::uint32_t ace_id) {
    scc_ace_record ace = patterned<scc_ace_record>(static_cast<std::uint8_t>(ace_id));
    ace.sn = sn;
    ace.ace_id = ace_id;
    return ace;
}

inline std::size_t allocated_bytes() {
    return mallinfo2().uordblks;  // 0 under the address sanitizer, which looks for leaks itself
}

// More than the allocator keeps of freed blocks, far less than a leak of any of the tests with it.
inline constexpr std::size_t noise = std::size_t{128} << 10U;

class AclCache : public ::testing::Test {
  protected:
    AclCache() { _scc_lib_data_init(); }
    ~AclCache() override { _scc_lib_data_free(); }

    static std::uint64_t held() {
        const scc::write_guard guard(scc::acl_lock);
        return scc::cached_acl_count();
    }

    struct view {
        scc_acl_key key{};
        std::uint64_t ace_count = 0;
        std::uint32_t sn_start = 0;
        std::uint32_t sn_inc = 0;
        numbers sns;
        numbers ids;
    };

    // What is cached under a key, in list order, read forwards and checked backwards.
    static view look(const scc_acl_key& key) {
        const scc::write_guard guard(scc::acl_lock);
        view seen;
        scc::cached_acl* acl = _scc_acl_get(&key);
        EXPECT_NE(acl, nullptr);
        if (acl == nullptr) {
            return seen;
        }
        seen.key = acl->key;
        seen.ace_count = acl->ace_count;
        seen.sn_start = acl->sn_start;
        seen.sn_inc = acl->sn_inc;
        const scc::list_node* before = &acl->aces;
        for (scc::list_node* link = acl->aces.next; link != &acl->aces; link = link->next) {
            EXPECT_EQ(link->prev, before);
            before = link;
            seen.sns.push_back(scc::ace_of_link(link)->record.sn);
            seen.ids.push_back(scc::ace_of_link(link)->record.ace_id);
        }
        EXPECT_EQ(acl->aces.prev, before);
        EXPECT_EQ(seen.ace_count, seen.sns.size());
        return seen;
    }

    static bool is_held(const scc_acl_key& key) {
        const scc::write_guard guard(scc::acl_lock);
        return _scc_acl_get(&key) != nullptr;
    }

    // The ACLs of a bucket in chain order, by acl id.
    static numbers chain(std::uint32_t bucket) {
        const scc::write_guard guard(scc::acl_lock);
        numbers ids;
        scc::list_node* head = scc::acl_bucket(bucket);
        for (scc::list_node* node = head->next; node != head; node = node->next) {
            ids.push_back(reinterpret_cast<scc::cached_acl*>(node)->key.acl_id);
        }
        return ids;
    }

    static void add_aces(const scc_acl_key& key,
                         const std::vector<std::pair<std::uint32_t, std::uint32_t>>& aces) {
        for (const auto& [sn, id] : aces) {
            const scc_ace_record ace = ace_of(sn, id);
            _scc_lib_ace_add(&key, &ace);
        }
    }

    const scc_acl_key key = key_of(1, 2, 3, 4);
};

}  // namespace test
