#include "ss/id_map.h"

#include <cstdlib>
#include <utility>

#include "client/log.h"
#include "ss/service.h"

using namespace scc;

namespace scc {
namespace {

scc_ss_id_node* id_node(rb_node* node) {
    return reinterpret_cast<scc_ss_id_node*>(node);
}

// Ids wrap around, so they are ordered by signed difference.
i32 difference(u32 id, const scc_ss_id_node* node) {
    return static_cast<i32>(id - node->id);
}

// A node of each kind is kept when it is freed: most operations are answered before the next one comes.
template <class Node>
class spare_node {
  public:
    Node* allocate() {
        Node* node = std::exchange(kept_, nullptr);
        return node != nullptr ? node : static_cast<Node*>(std::malloc(sizeof(Node)));
    }
    void free(Node* node) { std::free(std::exchange(kept_, node)); }

  private:
    Node* kept_ = nullptr;
};

constinit spare_node<scc_ss_id_node> g_spare_id SCC_GUARDED_BY(id_map_lock){};
constinit spare_node<scc_ss_type_node> g_spare_type SCC_GUARDED_BY(id_map_lock){};

void remove_node(scc_ss_id_node* node) SCC_REQUIRES(id_map_lock) {
    scc_rb_erase(&node->link, &g_ss_id_map_root);
    g_spare_id.free(node);
}

void remove_type(scc_ss_type_node* type) SCC_REQUIRES(id_map_lock) {
    list_del(&type->link);
    g_spare_type.free(type);
}

// The map must not have a node of this id yet.
scc_ss_id_node* make_node(u32 id) SCC_REQUIRES(id_map_lock) {
    scc_ss_id_node* node = g_spare_id.allocate();
    if (node == nullptr) {
        return nullptr;
    }
    node->id = id;
    INIT_LIST_HEAD(&node->types);
    (void)_scc_ss_add_idtype(node);
    return node;
}

scc_ss_type_node* first_type(const scc_ss_id_node* node) {
    return reinterpret_cast<scc_ss_type_node*>(node->types.next);  // NOLINT(clang-analyzer-unix.Malloc)
}

}  // namespace

void empty_id_map() {
    const write_guard guard(id_map_lock);
    while (rb_node* first = scc_rb_first(&g_ss_id_map_root)) {
        scc_ss_id_node* node = id_node(first);
        while (!list_empty(&node->types)) {
            remove_type(first_type(node));
        }
        remove_node(node);
    }
}

}  // namespace scc

extern "C" {

constinit pthread_rwlock_t scc_ss_lock = PTHREAD_RWLOCK_INITIALIZER;
constinit rb_root g_ss_id_map_root{nullptr};

scc_ss_id_node* _scc_ss_find_idtype(u32 id) {
    rb_node* node = g_ss_id_map_root.node;
    while (node != nullptr) {
        const i32 order = difference(id, id_node(node));
        if (order == 0) {
            return id_node(node);
        }
        node = order > 0 ? node->right : node->left;
    }
    return nullptr;
}

bool _scc_ss_add_idtype(scc_ss_id_node* node) {
    rb_node** link = &g_ss_id_map_root.node;
    rb_node* parent = nullptr;
    while (*link != nullptr) {
        parent = *link;
        const i32 order = difference(node->id, id_node(parent));
        if (order == 0) {
            return false;
        }
        link = order > 0 ? &parent->right : &parent->left;
    }
    scc_rb_link_node(&node->link, parent, link);
    scc_rb_insert_color(&node->link, &g_ss_id_map_root);
    return true;
}

void _scc_ss_save_idtype(u32 id, u16 scc_type) {
    const write_guard guard(id_map_lock);
    scc_ss_id_node* node = _scc_ss_find_idtype(id);
    if (node == nullptr) {
        node = make_node(id);
    }
    if (node == nullptr) {
        SCC_LOG("save idtype node id:%u type:%d map failed.", id, scc_type);
        return;
    }
    scc_ss_type_node* type = g_spare_type.allocate();
    if (type == nullptr) {
        // Without memory nothing is kept.
        if (list_empty(&node->types)) {
            scc_rb_erase(&node->link, &g_ss_id_map_root);
            std::free(node);
        }
        SCC_LOG("save type node id:%u type:%d map failed.", id, scc_type);
        return;
    }
    type->scc_type = scc_type;
    list_add_tail(&type->link, &node->types);
    SCC_LOG("save type node id:%u type:%d.", id, scc_type);
}

u16 _scc_ss_get_type(u32 id) {
    const write_guard guard(id_map_lock);
    scc_ss_id_node* node = _scc_ss_find_idtype(id);
    if (node == nullptr) {
        SCC_LOG("no idtype_node.");
        return 0;
    }
    if (list_empty(&node->types)) {
        remove_node(node);
        SCC_LOG("no type list.");
        return 0;
    }
    scc_ss_type_node* oldest = first_type(node);
    const u16 scc_type = oldest->scc_type;
    remove_type(oldest);
    if (list_empty(&node->types)) {
        remove_node(node);
    }
    return scc_type;
}

// Logs even if the debug switch is off: turns it on and restores it at the end.
void _scc_ss_retlist_dump() {
    const u8 before = scc_lib_debug.exchange(1, std::memory_order_relaxed);
    const operation_count total = read_count(pair_total);
    SCC_LOG_ALWAYS(__func__, "ss-stat: recv_cnt(%d) callback_cnt(%d).", total.received, total.answered);
    for (u32 pair = 1; pair < operation_counts; ++pair) {
        const operation_count count = read_count(pair);
        SCC_LOG_ALWAYS(__func__, "fun(%-15s) : rcv(%d), cb(%d). %s", counter_name(pair), count.received,
                       count.answered, count.received != count.answered ? "*" : " ");
    }
    SCC_LOG_ALWAYS(__func__, "dump ss list.");
    {
        const write_guard guard(id_map_lock);
        for (rb_node* node = scc_rb_first(&g_ss_id_map_root); node != nullptr; node = scc_rb_next(node)) {
            SCC_LOG_ALWAYS(__func__, "[id:%d] ", id_node(node)->id);
        }
    }
    scc_lib_debug.store(before, std::memory_order_relaxed);
}
}
