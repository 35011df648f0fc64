// The ACLs that the hardware would hold: their ACEs in sequence order, where they are applied, and their
// counters.
//
// During a data recovery (begin_recovery to end_recovery) all existing entries count as cleared: no
// operation finds them, and creating them again is no duplicate. Packets are still matched against them,
// so that a recovery opens no gap. Entries that are sent again keep their counters; the others are removed
// at the end.
//
// Not thread-safe: forwarding_table guards it.
#pragma once

#include <compare>
#include <map>
#include <string>
#include <vector>

#include "service/packet.h"

namespace scc::service {

// Identifies an ACL; the class is not part of it.
struct acl_name {
    u32 vdev_id = 0;
    u32 app_type = 0;
    u32 acl_id = 0;

    explicit acl_name(const scc_acl_key& key)
        : vdev_id(key.vdev_id), app_type(key.app_type), acl_id(key.acl_id) {}
    auto operator<=>(const acl_name&) const = default;
};

// The interfaces by which a packet enters and, if its destination has been seen, leaves.
struct packet_path {
    u32 ingress_ifx = 0;
    u32 egress_ifx = 0;  // 0: unknown
};

// How many ACLs on the packet's path had a matching ACE, whether one of them denied it, and which of the ACEs
// ask for a line in the log.
struct verdict {
    u32 matches = 0;
    bool denied = false;
    std::vector<std::string> logged;  // "acl ID type N: ACE"
};

struct acl_counters {
    scc_acl_key key{};
    std::vector<scc_ace_counter> aces;
};

class acl_table {
  public:
    [[nodiscard]] u32 create(const scc_acl_key& key);
    // An ACL that is still applied is refused with SCC_E_STILL_APPLIED.
    [[nodiscard]] u32 remove(const scc_acl_key& key);
    // ACEs may share a sequence number; sequence number and ACE id together identify an ACE.
    [[nodiscard]] u32 add_ace(const scc_acl_key& key, const scc_ace_record& record);
    [[nodiscard]] u32 delete_ace(const scc_acl_key& key, const scc_ace_record& record);
    // Everything after the record's key identifies where the ACL is applied.
    [[nodiscard]] u32 apply(const scc_acl_apply_record& record);
    [[nodiscard]] u32 unapply(const scc_acl_apply_record& record);
    // Renumbers as the applications' caches do: equal numbers stay equal; a leading 0 and numbers from
    // 0x7FFFFFFF on stay.
    [[nodiscard]] u32 resequence(const scc_acl_key& key, u32 sn_start, u32 sn_inc);

    [[nodiscard]] u32 read_counter(const scc_acl_key& key, u64& counter) const;
    [[nodiscard]] u32 reset_counter(const scc_acl_key& key);
    // The number is an ACE id or, if no ACE has that id, a sequence number. The counters of ACEs that share
    // it are added.
    [[nodiscard]] u32 read_ace_counter(const scc_acl_key& key, u64 number, u64& counter);
    [[nodiscard]] u32 reset_ace_counter(const scc_acl_key& key, u64 number);

    void begin_recovery();
    void end_recovery();

    // Counts the packet in every ACL on its path, at the first matching ACE.
    verdict classify(const packet& packet, const packet_path& path);
    // The counters of every applied ACL, ACEs in sequence order.
    [[nodiscard]] std::vector<acl_counters> applied_counters() const;
    // How many ACLs are applied somewhere.
    [[nodiscard]] std::size_t applied_count() const;
    [[nodiscard]] std::string text() const;

  private:
    struct ace_entry {
        scc_ace_record record{};
        std::optional<ace::rule> rule;  // empty if the record holds no rule; such an ACE never matches
        u64 packets = 0;
        bool stale = false;
    };
    struct application {
        scc_acl_apply_record record{};
        bool stale = false;
    };
    // By sequence number; ACEs with the same number in the order of their addition.
    using ace_list = std::multimap<u32, ace_entry>;
    struct acl_entry {
        scc_acl_key key{};
        ace_list aces;
        std::vector<application> applications;
        u64 packets = 0;
        bool stale = false;

        [[nodiscard]] bool is_applied() const;
        void mark_stale();
        void drop_stale();
    };

    [[nodiscard]] acl_entry* find(const scc_acl_key& key);
    [[nodiscard]] const acl_entry* find(const scc_acl_key& key) const;
    [[nodiscard]] static ace_list::iterator find_ace(ace_list& aces, const scc_ace_record& record);
    [[nodiscard]] static application* find_application(acl_entry& acl, const scc_acl_apply_record& record);
    [[nodiscard]] static std::vector<u64*> ace_counters(acl_entry& acl, u64 number);
    static bool count_first_match(acl_entry& acl, const packet& packet, verdict& result);
    static void append_text(std::string& out, const acl_entry& acl);

    std::map<acl_name, acl_entry> acls_;
};

}  // namespace scc::service
