// The ACLs that the hardware would hold: their ACEs in sequence order, where they are applied, and their
// counters.
//
// During a data recovery (begin_recovery to end_recovery) all existing entries count as cleared: no
// operation finds them, and creating them again is no duplicate. Packets are still matched against them,
// so that a recovery opens no gap. Entries that are sent again keep their counters; the others are removed
// at the end.
//
// A back end that may fail calls keep_changes(): then changes can be taken back, and the ACLs that they
// touched are known. Begin and end of a recovery cannot be taken back.
//
// Not thread-safe: forwarding_table guards it.
#pragma once

#include <compare>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "service/application.h"
#include "service/packet.h"
#include "service/undo_log.h"

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

// A counter of an ACL, or of one of its ACEs. The numbers tell what has the same name apart: ACEs of an ACL
// with the same ACE id, and those that are created again while their deletion is not yet final. An ACE's
// number stays the same when its ACL is resequenced.
struct counter_name {
    acl_name acl;
    u32 acl_number = 0;
    bool of_ace = false;
    u32 ace_id = 0;
    u32 ace_number = 0;
};

// Counts the packets in place of the table.
class counter_source {
  public:
    virtual ~counter_source() = default;
    [[nodiscard]] virtual u32 read(const counter_name& name, u64& packets) = 0;
    [[nodiscard]] virtual u32 reset(const counter_name& name) = 0;
};

// Which ACEs of an ACL were changed.
struct touched_aces {
    bool all = false;
    std::set<u32> numbers;  // sequence numbers, unless all

    void add(const touched_aces& more) {
        all = all || more.all;
        numbers.insert(more.numbers.begin(), more.numbers.end());
    }
};

struct acl_counters {
    scc_acl_key key{};
    std::vector<scc_ace_counter> aces;
};

class acl_table {
  public:
    struct ace_entry {
        scc_ace_record record{};
        std::optional<ace::rule> rule;  // empty if the record holds no rule; such an ACE never matches
        u64 fingerprint = 0;            // of the record without its link and sequence number
        u32 number = 0;                 // of its counter
        u64 packets = 0;
        bool stale = false;
    };
    struct application {
        scc_acl_apply_record record{};
        application_place place;
        bool stale = false;
    };
    // By sequence number; ACEs with the same number in the order of their addition.
    using ace_list = std::multimap<u32, ace_entry>;
    struct acl_entry {
        scc_acl_key key{};
        ace_list aces;
        std::set<std::pair<u32, u32>> counters;  // ACE id and number of every ACE
        std::vector<application> applications;
        u32 number = 0;  // of its counter
        u64 packets = 0;
        bool stale = false;

        [[nodiscard]] bool is_applied() const;
        void mark_stale();
        void drop_stale();
    };

    [[nodiscard]] u32 create(const scc_acl_key& key);
    // An ACL that is still applied is refused with SCC_E_STILL_APPLIED.
    [[nodiscard]] u32 remove(const scc_acl_key& key);
    // ACEs may share a sequence number; sequence number and ACE id together identify an ACE.
    [[nodiscard]] u32 add_ace(const scc_acl_key& key, const scc_ace_record& record);
    [[nodiscard]] u32 delete_ace(const scc_acl_key& key, const scc_ace_record& record);
    // Everything after the record's key identifies where the ACL is applied, and to which user's frames.
    [[nodiscard]] u32 apply(const scc_acl_apply_record& record);
    [[nodiscard]] u32 unapply(const scc_acl_apply_record& record);
    // Renumbers as the applications' caches do: equal numbers stay equal; a leading 0 and numbers from
    // 0x7FFFFFFF on stay.
    [[nodiscard]] u32 resequence(const scc_acl_key& key, u32 sn_start, u32 sn_inc);

    [[nodiscard]] u32 read_counter(const scc_acl_key& key, u64& counter);
    [[nodiscard]] u32 reset_counter(const scc_acl_key& key);
    // The number is an ACE id or, if no ACE has that id, a sequence number. The counters of ACEs that share
    // it are added.
    [[nodiscard]] u32 read_ace_counter(const scc_acl_key& key, u64 number, u64& counter);
    [[nodiscard]] u32 reset_ace_counter(const scc_acl_key& key, u64 number);

    void begin_recovery();
    void end_recovery();

    // Counts the packet in the ACLs on its path, at the first matching ACE of each: first in those of its
    // ingress interface, then in those of its egress interface. A denied packet goes no further.
    verdict classify(const packet& packet, const packet_path& path);
    // The counters of every applied ACL, ACEs in sequence order.
    [[nodiscard]] std::vector<acl_counters> applied_counters() const;
    // How many ACLs are applied somewhere.
    [[nodiscard]] std::size_t applied_count() const;
    [[nodiscard]] std::string text() const;

    [[nodiscard]] const std::map<acl_name, acl_entry>& acls() const { return acls_; }

    void count_with(counter_source* source) { source_ = source; }
    // Takes over an ACL or ACE that is already enforced, as one that a recovery has to confirm.
    void adopt(const scc_acl_key& key, u32 acl_number);
    void adopt(const scc_acl_key& key, const scc_ace_record& record, u32 ace_number);

    void keep_changes() { undo_.record(); }
    [[nodiscard]] std::size_t mark() const { return undo_.mark(); }
    void roll_back(std::size_t mark);
    // The changes until now are final.
    void confirm();
    // What was changed since the last call, also if it was taken back.
    struct change_notes {
        std::map<acl_name, touched_aces> acls;
        bool applications = false;  // ACLs were applied or unapplied somewhere
        // What was added, in its latest state; not to be used after the next change.
        std::vector<const ace_entry*> aces;
        std::vector<scc_acl_apply_record> applied;
    };
    [[nodiscard]] change_notes take_notes() { return std::exchange(notes_, {}); }
    // Sets the packets of the ACL's counters, each to what the function returns for its name.
    template <class PacketsOf>
    void set_packets(PacketsOf packets_of) {
        for (auto& [name, acl] : acls_) {
            acl.packets = packets_of(counter_name{name, acl.number});
            for (auto& [sn, ace] : acl.aces) {
                ace.packets = packets_of(counter_of(acl, ace));
            }
        }
    }
    [[nodiscard]] static counter_name counter_of(const acl_entry& acl, const ace_entry& ace);

  private:
    [[nodiscard]] acl_entry* find(const scc_acl_key& key);
    [[nodiscard]] const acl_entry* find(const scc_acl_key& key) const;
    [[nodiscard]] static ace_list::iterator find_ace(ace_list& aces, const scc_ace_record& record);
    [[nodiscard]] static application* find_application(acl_entry& acl, const scc_acl_apply_record& record);
    [[nodiscard]] static std::vector<ace_entry*> counted_aces(acl_entry& acl, u64 number);
    // Calls act(ACL, ACE) for the ACEs of that number until one returns an error, and returns it.
    template <class Act>
    [[nodiscard]] u32 for_counted_aces(const scc_acl_key& key, u64 number, const Act& act);
    static void count_first_match(acl_entry& acl, const packet& packet, verdict& result);
    // Notes what takes the latest change of an ACL back; the undo gets the ACL.
    template <class Undo>
    void changed(const scc_acl_key& key, const touched_aces& touched, Undo undo);
    [[nodiscard]] static u32 free_number(const acl_entry& acl, u32 ace_id);
    // Gives every ACE the sequence number that the function returns; those that share one keep their order.
    template <class NumberOf>
    static void renumber(acl_entry& acl, NumberOf number_of);
    void note_order(const acl_entry& acl);
    static void append_text(std::string& out, const acl_entry& acl);

    std::map<acl_name, acl_entry> acls_;
    counter_source* source_ = nullptr;
    undo_log undo_;
    change_notes notes_;
    // Numbers that become free with confirm().
    std::vector<counter_name> released_;
};

}  // namespace scc::service
