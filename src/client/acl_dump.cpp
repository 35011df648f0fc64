// The debug display of the ACL cache, written whatever the debug switch says and without the usual line
// prefix. The switch's tools read it: texts, blanks and the lengths of lines are fixed. Deliberately, only
// the display of all ACLs has a blank line after each total.
#include "client/acl_cache.h"
#include "client/log.h"
#include "msg/bytes.h"

using namespace scc;

#define SCC_SHOW(format, ...) SCC_LOG_RAW("SHOW", format __VA_OPT__(, ) __VA_ARGS__)

namespace scc {
namespace {

constexpr u32 show_summary = 1;
constexpr u32 show_all = 3;

constexpr const char* acl_columns = "no      hash-id vdev-id app-type acl-id acl-cls ace-num   ";
constexpr const char* acl_line = "----------------------------------------------------------";

cached_acl* acl_of_bucket(list_node* node) {
    return reinterpret_cast<cached_acl*>(node);
}

void show_acl(u64 number, u32 bucket, const cached_acl& acl) {
    SCC_SHOW("%-7lu %-7d %-7d %-8d %-7d %-7d %-9lu", number, bucket, acl.key.vdev_id, acl.key.app_type,
             acl.key.acl_id, acl.key.acl_class, acl.ace_count);
}

void show_everything() SCC_REQUIRES(acl_lock) {
    SCC_SHOW("================== scclib all acl info ===================");
    SCC_SHOW("Total acl num:%lu\n", cached_acl_count());
    SCC_SHOW("%s", acl_columns);
    SCC_SHOW("%s", acl_line);
    u64 number = 0;
    u64 aces = 0;
    for (u32 i = 0; i < acl_buckets; ++i) {
        list_node* head = acl_bucket(i);
        for (list_node* node = head->next; node != head; node = node->next) {
            show_acl(++number, i, *acl_of_bucket(node));
            aces += acl_of_bucket(node)->ace_count;
        }
    }
    SCC_SHOW("%s", acl_line);
    SCC_SHOW("Total ace num:%lu\n", aces);
    SCC_SHOW("=========================end=============================");
}

// Deliberately, the second line of dashes is one longer than the first.
void show_counts() SCC_REQUIRES(acl_lock) {
    SCC_SHOW("================== scclib acl summary info ===================");
    SCC_SHOW("Total acl num:%lu", cached_acl_count());
    SCC_SHOW("hash-id acl-num   ace-num   ");
    SCC_SHOW("------------------");
    u64 all_aces = 0;
    for (u32 i = 0; i < acl_buckets; ++i) {
        u64 acls = 0;
        u64 aces = 0;
        list_node* head = acl_bucket(i);
        for (list_node* node = head->next; node != head; node = node->next) {
            ++acls;
            aces += acl_of_bucket(node)->ace_count;
        }
        SCC_SHOW("%-7d %-9lu %-9lu", i, acls, aces);
        all_aces += aces;
    }
    SCC_SHOW("-------------------");
    SCC_SHOW("Total ace num:%lu", all_aces);
    SCC_SHOW("==========================end============================");
}

void show_one(u32 vdev_id, u32 app_type, u32 acl_id) SCC_REQUIRES(acl_lock) {
    SCC_SHOW("================= scclib specific acl info ================");
    SCC_SHOW("Total acl num:%lu", cached_acl_count());
    SCC_SHOW("%s", acl_columns);
    SCC_SHOW("%s", acl_line);
    u64 number = 0;
    for (u32 i = 0; i < acl_buckets; ++i) {
        list_node* head = acl_bucket(i);
        for (list_node* node = head->next; node != head; node = node->next) {
            const scc_acl_key& key = acl_of_bucket(node)->key;
            if (key.vdev_id == vdev_id && key.app_type == app_type && key.acl_id == acl_id) {
                show_acl(++number, i, *acl_of_bucket(node));
                break;
            }
        }
    }
    SCC_SHOW("%s", acl_line);
    SCC_SHOW("==========================end============================");
}

}  // namespace
}  // namespace scc

extern "C" {

// Request: u32 mode; then for one ACL u32 vdev id, u32 app type, u32 acl id.
void _scc_lib_dbg_acl_show(const void* request) {
    const u32 mode = load<u32>(request);
    const write_guard guard(acl_lock);
    prepare_acl_buckets();
    if (mode == show_all) {
        show_everything();
    } else if (mode == show_summary) {
        show_counts();
    } else {
        show_one(load<u32>(request, 4), load<u32>(request, 8), load<u32>(request, 12));
    }
}
}
