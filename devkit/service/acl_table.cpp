#include "service/acl_table.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <utility>

#include "ace/ace_text.h"
#include "common/records.h"
#include "service/classify.h"

namespace scc::service {
namespace {

constexpr u32 direction_in = 0;
// A resequence keeps sequence numbers from here on.
constexpr u32 fixed_sn_min = 0x7FFFFFFF;

byte_view bytes_of(const scc_acl_apply_record& record) {
    return {reinterpret_cast<const u8*>(&record), sizeof record};
}

u32 ifx_of(const scc_acl_apply_record& record) {
    return devkit::u32_at(bytes_of(record), devkit::apply_record::ifx);
}

u32 direction_of(const scc_acl_apply_record& record) {
    return devkit::u32_at(bytes_of(record), devkit::apply_record::direction);
}

// Everything after the key identifies where the ACL is applied.
bool same_place(const scc_acl_apply_record& a, const scc_acl_apply_record& b) {
    const byte_view place = bytes_of(a).subspan(devkit::apply_record::entity);
    return std::ranges::equal(place, bytes_of(b).subspan(devkit::apply_record::entity));
}

// Interface 0 stands for every interface.
bool lies_on(const scc_acl_apply_record& record, const packet_path& path) {
    const u32 ifx = ifx_of(record);
    if (direction_of(record) == direction_in) {
        return ifx == 0 || ifx == path.ingress_ifx;
    }
    return path.egress_ifx != 0 && (ifx == 0 || ifx == path.egress_ifx);
}

bool is_positive(u32 number) {
    return static_cast<i32>(number) > 0;
}

}  // namespace

bool acl_table::acl_entry::is_applied() const {
    return std::any_of(applications.begin(), applications.end(),
                       [](const application& entry) { return !entry.stale; });
}

void acl_table::acl_entry::mark_stale() {
    stale = true;
    for (auto& [sn, ace] : aces) {
        ace.stale = true;
    }
    for (application& entry : applications) {
        entry.stale = true;
    }
}

void acl_table::acl_entry::drop_stale() {
    std::erase_if(aces, [](const auto& ace) { return ace.second.stale; });
    std::erase_if(applications, [](const application& entry) { return entry.stale; });
}

const acl_table::acl_entry* acl_table::find(const scc_acl_key& key) const {
    const auto found = acls_.find(acl_name(key));
    return found == acls_.end() || found->second.stale ? nullptr : &found->second;
}

acl_table::acl_entry* acl_table::find(const scc_acl_key& key) {
    return const_cast<acl_entry*>(std::as_const(*this).find(key));
}

acl_table::ace_list::iterator acl_table::find_ace(ace_list& aces, const scc_ace_record& record) {
    const auto [first, last] = aces.equal_range(record.sn);
    const auto found =
        std::find_if(first, last, [&](const auto& ace) { return ace.second.record.ace_id == record.ace_id; });
    return found == last ? aces.end() : found;
}

acl_table::application* acl_table::find_application(acl_entry& acl, const scc_acl_apply_record& record) {
    const auto found =
        std::find_if(acl.applications.begin(), acl.applications.end(),
                     [&](const application& entry) { return same_place(entry.record, record); });
    return found == acl.applications.end() ? nullptr : &*found;
}

u32 acl_table::create(const scc_acl_key& key) {
    acl_entry& acl = acls_.try_emplace(acl_name(key), acl_entry{key, {}, {}, 0, true}).first->second;
    if (!acl.stale) {
        return SCC_E_ACL_EXISTS;
    }
    acl.key = key;
    acl.stale = false;
    return 0;
}

u32 acl_table::remove(const scc_acl_key& key) {
    const acl_entry* acl = find(key);
    if (acl == nullptr) {
        return SCC_E_NO_ACL;
    }
    if (acl->is_applied()) {
        return SCC_E_STILL_APPLIED;
    }
    acls_.erase(acl_name(key));
    return 0;
}

u32 acl_table::add_ace(const scc_acl_key& key, const scc_ace_record& record) {
    acl_entry* acl = find(key);
    if (acl == nullptr) {
        return SCC_E_NO_ACL;
    }
    auto ace = find_ace(acl->aces, record);
    if (ace != acl->aces.end() && !ace->second.stale) {
        return SCC_E_ACE_EXISTS;
    }
    if (ace == acl->aces.end()) {
        ace = acl->aces.emplace(record.sn, ace_entry{});
    }
    ace->second.record = record;
    ace->second.rule = ace::decode(record);
    ace->second.stale = false;
    return 0;
}

u32 acl_table::delete_ace(const scc_acl_key& key, const scc_ace_record& record) {
    acl_entry* acl = find(key);
    if (acl == nullptr) {
        return SCC_E_NO_ACL;
    }
    const auto ace = find_ace(acl->aces, record);
    if (ace == acl->aces.end() || ace->second.stale) {
        return SCC_E_NO_ACE;
    }
    acl->aces.erase(ace);
    return 0;
}

u32 acl_table::apply(const scc_acl_apply_record& record) {
    acl_entry* acl = find(record.key);
    if (acl == nullptr) {
        return SCC_E_NO_ACL;
    }
    application* entry = find_application(*acl, record);
    if (entry == nullptr) {
        acl->applications.push_back({record, false});
        return 0;
    }
    if (!entry->stale) {
        return SCC_E_APPLIED_ALREADY;
    }
    *entry = {record, false};
    return 0;
}

u32 acl_table::unapply(const scc_acl_apply_record& record) {
    acl_entry* acl = find(record.key);
    if (acl == nullptr) {
        return SCC_E_NO_ACL;
    }
    const application* entry = find_application(*acl, record);
    if (entry == nullptr || entry->stale) {
        return SCC_E_NOT_APPLIED;
    }
    acl->applications.erase(acl->applications.begin() + (entry - acl->applications.data()));
    return 0;
}

u32 acl_table::resequence(const scc_acl_key& key, u32 sn_start, u32 sn_inc) {
    if (!is_positive(sn_start) || !is_positive(sn_inc)) {
        return EINVAL;
    }
    acl_entry* acl = find(key);
    if (acl == nullptr) {
        return SCC_E_NO_ACL;
    }
    ace_list renumbered;
    u32 next = sn_start;
    u32 number_before = 0;
    u32 number_after = 0;
    while (!acl->aces.empty()) {
        auto node = acl->aces.extract(acl->aces.begin());
        if (node.key() < fixed_sn_min) {
            if (node.key() != number_before) {
                number_before = node.key();
                number_after = next;
                next += sn_inc;
            }
            node.key() = number_after;
            node.mapped().record.sn = number_after;
        }
        renumbered.insert(std::move(node));
    }
    acl->aces = std::move(renumbered);
    return 0;
}

u32 acl_table::read_counter(const scc_acl_key& key, u64& counter) const {
    const acl_entry* acl = find(key);
    if (acl == nullptr) {
        return SCC_E_NO_ACL;
    }
    counter = acl->packets;
    return 0;
}

u32 acl_table::reset_counter(const scc_acl_key& key) {
    acl_entry* acl = find(key);
    if (acl == nullptr) {
        return SCC_E_NO_ACL;
    }
    acl->packets = 0;
    return 0;
}

std::vector<u64*> acl_table::ace_counters(acl_entry& acl, u64 number) {
    std::vector<u64*> by_id;
    std::vector<u64*> by_sn;
    for (auto& [sn, ace] : acl.aces) {
        if (ace.stale) {
            continue;
        }
        if (ace.record.ace_id == number) {
            by_id.push_back(&ace.packets);
        }
        if (sn == number) {
            by_sn.push_back(&ace.packets);
        }
    }
    return by_id.empty() ? by_sn : by_id;
}

u32 acl_table::read_ace_counter(const scc_acl_key& key, u64 number, u64& counter) {
    acl_entry* acl = find(key);
    if (acl == nullptr) {
        return SCC_E_NO_ACL;
    }
    const std::vector<u64*> counters = ace_counters(*acl, number);
    if (counters.empty()) {
        return SCC_E_NO_ACE;
    }
    counter = 0;
    for (const u64* packets : counters) {
        counter += *packets;
    }
    return 0;
}

u32 acl_table::reset_ace_counter(const scc_acl_key& key, u64 number) {
    acl_entry* acl = find(key);
    if (acl == nullptr) {
        return SCC_E_NO_ACL;
    }
    const std::vector<u64*> counters = ace_counters(*acl, number);
    if (counters.empty()) {
        return SCC_E_NO_ACE;
    }
    for (u64* packets : counters) {
        *packets = 0;
    }
    return 0;
}

void acl_table::begin_recovery() {
    for (auto& [name, acl] : acls_) {
        acl.mark_stale();
    }
}

void acl_table::end_recovery() {
    std::erase_if(acls_, [](const auto& acl) { return acl.second.stale; });
    for (auto& [name, acl] : acls_) {
        acl.drop_stale();
    }
}

bool acl_table::count_first_match(acl_entry& acl, const packet& packet, verdict& result) {
    const auto found = std::find_if(acl.aces.begin(), acl.aces.end(), [&](const auto& ace) {
        return ace.second.rule && matches(*ace.second.rule, packet);
    });
    if (found == acl.aces.end()) {
        return false;
    }
    ++found->second.packets;
    ++acl.packets;
    ++result.matches;
    result.denied = result.denied || found->second.rule->denies();
    if (found->second.rule->compares(SCC_ACE_LOG)) {
        result.logged.push_back(fmt::format("acl {} type {}: {}", acl.key.acl_id, acl.key.app_type,
                                            ace::print_ace(found->second.record).value_or("")));
    }
    return true;
}

verdict acl_table::classify(const packet& packet, const packet_path& path) {
    verdict result;
    for (auto& [name, acl] : acls_) {
        for (const application& entry : acl.applications) {
            if (lies_on(entry.record, path) && !count_first_match(acl, packet, result)) {
                break;
            }
        }
    }
    return result;
}

std::vector<acl_counters> acl_table::applied_counters() const {
    std::vector<acl_counters> all;
    for (const auto& [name, acl] : acls_) {
        if (acl.applications.empty()) {
            continue;
        }
        acl_counters counters{acl.key, {}};
        for (const auto& [sn, ace] : acl.aces) {
            counters.aces.push_back({ace.record.ace_id, ace.packets});
        }
        all.push_back(std::move(counters));
    }
    return all;
}

std::size_t acl_table::applied_count() const {
    return static_cast<std::size_t>(
        std::count_if(acls_.begin(), acls_.end(), [](const auto& acl) { return acl.second.is_applied(); }));
}

void acl_table::append_text(std::string& out, const acl_entry& acl) {
    const auto sink = std::back_inserter(out);
    fmt::format_to(sink, "acl vdev {} type {} id {} class {}: {} packets{}\n", acl.key.vdev_id,
                   acl.key.app_type, acl.key.acl_id, acl.key.acl_class, acl.packets,
                   acl.stale ? ", being recovered" : "");
    for (const auto& [sn, ace] : acl.aces) {
        fmt::format_to(sink, "  ace {}: {} packets\n",
                       ace::print_ace(ace.record)
                           .value_or(fmt::format("{} without a rule id {}", sn, ace.record.ace_id)),
                       ace.packets);
    }
    for (const application& entry : acl.applications) {
        fmt::format_to(sink, "  applied {} ifx {} type {}\n",
                       direction_of(entry.record) == direction_in ? "in" : "out", ifx_of(entry.record),
                       entry.record.apply_type);
    }
}

std::string acl_table::text() const {
    std::string out;
    for (const auto& [name, acl] : acls_) {
        append_text(out, acl);
    }
    return out;
}

}  // namespace scc::service
