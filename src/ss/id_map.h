// The id/type map: for each call id of the daemon, the scc-types of the requests that await a result, oldest
// first. Operations save, result callbacks take. Any thread; guarded by scc_ss_lock, which is taken after
// scc_lib_lock where both are held. It survives a reconnection; the service's registration empties it.
#pragma once

#include "client/locks.h"
#include "msg/protocol.h"
#include "util/list.h"
#include "util/rbtree.h"

namespace scc {

struct scc_ss_type_node {
    list_node link;
    u16 scc_type;
};

// Exists only while its list is not empty.
struct scc_ss_id_node {
    rb_node link;
    list_node types;
    u32 id;
};

void empty_id_map();

}  // namespace scc

extern "C" {
extern pthread_rwlock_t scc_ss_lock;
}

namespace scc {
inline constexpr named_lock id_map_lock{scc_ss_lock};
}

extern "C" {
extern scc::rb_root g_ss_id_map_root SCC_GUARDED_BY(scc::id_map_lock);

void _scc_ss_save_idtype(scc::u32 id, scc::u16 scc_type);
[[nodiscard]] scc::u16 _scc_ss_get_type(scc::u32 id);
[[nodiscard]] scc::scc_ss_id_node* _scc_ss_find_idtype(scc::u32 id) SCC_REQUIRES(scc::id_map_lock);
// False when the map already has the id.
[[nodiscard]] bool _scc_ss_add_idtype(scc::scc_ss_id_node* node) SCC_REQUIRES(scc::id_map_lock);
void _scc_ss_retlist_dump();
}
