#include "service/acl_table.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <memory>
#include <tuple>
#include <utility>

#include "ace/ace_text.h"
#include "common/counted.h"
#include "common/records.h"
#include "service/classify.h"

namespace scc::service {
namespace {

// A resequence keeps sequence numbers from here on.
constexpr u32 fixed_sn_min = 0x7FFFFFFF;

byte_view bytes_of(const scc_acl_apply_record& record) {
    return {reinterpret_cast<const u8*>(&record), sizeof record};
}

// Everything after the key identifies where the ACL is applied.
bool same_place(const scc_acl_apply_record& a, const scc_acl_apply_record& b) {
    const byte_view place = bytes_of(a).subspan(devkit::apply_record::entity);
    return std::ranges::equal(place, bytes_of(b).subspan(devkit::apply_record::entity));
}

constexpr u64 hash_start = 0xCBF29CE484222325;
constexpr u64 hash_factor = 0x100000001B3;

u64 hash_of(byte_view bytes, u64 hash) {
    for (const u8 byte : bytes) {
        hash = (hash ^ byte) * hash_factor;
    }
    return hash;
}

u64 fingerprint_of(const scc_ace_record& record) {
    const u64 match = hash_of({record.match, sizeof record.match}, hash_start);
    return hash_of({record.action, sizeof record.action}, match);
}

bool lies_on(const application_place& place, const packet_path& path) {
    const u32 ifx = place.enters ? path.ingress_ifx : path.egress_ifx;
    return (place.enters || ifx != 0) && (place.ifx == 0 || place.ifx == ifx);
}

bool sees(const application_place& place, const packet& packet) {
    return place.frames.empty() ||
           std::any_of(place.frames.begin(), place.frames.end(),
                       [&](const ace::rule& frames) { return matches(frames, packet); });
}

const touched_aces no_aces{false, {}};
const touched_aces all_aces{true, {}};

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
    std::erase_if(aces, [&](const auto& ace) {
        if (ace.second.stale) {
            counters.erase({ace.second.record.ace_id, ace.second.number});
        }
        return ace.second.stale;
    });
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

template <class Undo>
void acl_table::changed(const scc_acl_key& key, const touched_aces& touched, Undo undo) {
    if (!undo_.recording()) {
        return;
    }
    const acl_name name(key);
    notes_.acls[name].add(touched);
    undo_.note([this, name, undo] { undo(acls_.at(name)); });
}

u32 acl_table::free_number(const acl_entry& acl, u32 ace_id) {
    u32 number = 0;
    for (auto taken = acl.counters.lower_bound({ace_id, 0});
         taken != acl.counters.end() && *taken == std::pair(ace_id, number); ++taken) {
        ++number;
    }
    return number;
}

u32 acl_table::create(const scc_acl_key& key) {
    const acl_name name(key);
    const auto [entry, is_new] = acls_.try_emplace(name, acl_entry{key, {}, {}, {}, 0, 0, true});
    if (!entry->second.stale) {
        return SCC_E_ACL_EXISTS;
    }
    if (is_new) {
        const auto removed = std::find_if(released_.rbegin(), released_.rend(), [&](const counter_name& one) {
            return !one.of_ace && one.acl == name;
        });
        entry->second.number = removed == released_.rend() ? 0 : removed->acl_number + 1;
    }
    entry->second.key = key;
    entry->second.stale = false;
    if (is_new && undo_.recording()) {
        notes_.acls[name].add(all_aces);
        undo_.note([this, name] { acls_.erase(name); });
    } else {
        changed(key, all_aces, [](acl_entry& created) { created.stale = true; });
    }
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
    const acl_name name(key);
    const auto removed = std::make_shared<decltype(acls_)::node_type>(acls_.extract(name));
    if (undo_.recording()) {
        released_.push_back({name, removed->mapped().number});
        notes_.acls[name].add(all_aces);
        undo_.note([this, removed] {
            acls_.insert(std::move(*removed));
            released_.pop_back();
        });
    }
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
        ace->second.number = free_number(*acl, record.ace_id);
        acl->counters.insert({record.ace_id, ace->second.number});
        changed(key, {false, {record.sn}}, [sn = record.sn, id = record.ace_id](acl_entry& changed_acl) {
            scc_ace_record added{};
            added.sn = sn;
            added.ace_id = id;
            const auto found = find_ace(changed_acl.aces, added);
            changed_acl.counters.erase({id, found->second.number});
            changed_acl.aces.erase(found);
        });
    } else {
        changed(key, {false, {record.sn}}, [before = ace->second](acl_entry& changed_acl) {
            find_ace(changed_acl.aces, before.record)->second = before;
        });
    }
    ace->second.record = record;
    ace->second.rule = ace::decode(record);
    ace->second.fingerprint = fingerprint_of(record);
    ace->second.stale = false;
    if (undo_.recording()) {
        notes_.aces.push_back(&ace->second);
    }
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
    if (undo_.recording()) {
        released_.push_back(counter_of(*acl, ace->second));
    } else {
        acl->counters.erase({record.ace_id, ace->second.number});
    }
    const auto next = std::next(ace);
    const auto following = next == acl->aces.end() ? std::nullopt : std::optional(next->second.record);
    const auto deleted = std::make_shared<ace_list::node_type>(acl->aces.extract(ace));
    changed(key, {false, {record.sn}}, [this, following, deleted](acl_entry& changed_acl) {
        const auto place = following ? find_ace(changed_acl.aces, *following) : changed_acl.aces.end();
        released_.pop_back();
        changed_acl.aces.insert(place, std::move(*deleted));
    });
    return 0;
}

void acl_table::roll_back(std::size_t mark) {
    notes_.applications = true;
    undo_.roll_back(mark);
}

void acl_table::confirm() {
    undo_.clear();
    for (const counter_name& released : released_) {
        const auto acl = acls_.find(released.acl);
        if (released.of_ace && acl != acls_.end() && acl->second.number == released.acl_number) {
            acl->second.counters.erase({released.ace_id, released.ace_number});
        }
    }
    released_.clear();
}

u32 acl_table::apply(const scc_acl_apply_record& record) {
    acl_entry* acl = find(record.key);
    if (acl == nullptr) {
        return SCC_E_NO_ACL;
    }
    if (undo_.recording()) {
        notes_.applications = true;
        notes_.applied.push_back(record);
    }
    application* entry = find_application(*acl, record);
    if (entry == nullptr) {
        acl->applications.push_back({record, place_of(record), false});
        changed(record.key, no_aces, [](acl_entry& changed_acl) { changed_acl.applications.pop_back(); });
        return 0;
    }
    if (!entry->stale) {
        return SCC_E_APPLIED_ALREADY;
    }
    changed(record.key, no_aces, [before = *entry](acl_entry& changed_acl) {
        *find_application(changed_acl, before.record) = before;
    });
    *entry = {record, place_of(record), false};
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
    notes_.applications = true;
    const auto place = entry - acl->applications.data();
    changed(record.key, no_aces, [before = *entry, place](acl_entry& changed_acl) {
        changed_acl.applications.insert(changed_acl.applications.begin() + place, before);
    });
    acl->applications.erase(acl->applications.begin() + place);
    return 0;
}

template <class NumberOf>
void acl_table::renumber(acl_entry& acl, NumberOf number_of) {
    ace_list renumbered;
    while (!acl.aces.empty()) {
        auto node = acl.aces.extract(acl.aces.begin());
        node.key() = number_of(node.mapped());
        node.mapped().record.sn = node.key();
        renumbered.insert(std::move(node));
    }
    acl.aces = std::move(renumbered);
}

u32 acl_table::resequence(const scc_acl_key& key, u32 sn_start, u32 sn_inc) {
    if (!is_positive(sn_start) || !is_positive(sn_inc)) {
        return EINVAL;
    }
    acl_entry* acl = find(key);
    if (acl == nullptr) {
        return SCC_E_NO_ACL;
    }
    note_order(*acl);
    u32 next = sn_start;
    u32 number_before = 0;
    u32 number_after = 0;
    renumber(*acl, [&](const ace_entry& ace) {
        const u32 sn = ace.record.sn;
        if (sn >= fixed_sn_min) {
            return sn;
        }
        if (sn != number_before) {
            number_before = sn;
            number_after = next;
            next += sn_inc;
        }
        return number_after;
    });
    return 0;
}

// ACE ids and the numbers of their counters identify ACEs also after a resequence.
void acl_table::note_order(const acl_entry& acl) {
    if (!undo_.recording()) {
        return;
    }
    std::vector<std::tuple<u32, u32, u32>> order;  // sequence number, ACE id, number
    for (const auto& [sn, ace] : acl.aces) {
        order.emplace_back(sn, ace.record.ace_id, ace.number);
    }
    changed(acl.key, all_aces, [order](acl_entry& changed_acl) {
        std::map<std::pair<u32, u32>, ace_list::node_type> nodes;
        while (!changed_acl.aces.empty()) {
            auto node = changed_acl.aces.extract(changed_acl.aces.begin());
            const std::pair counter(node.mapped().record.ace_id, node.mapped().number);
            nodes.emplace(counter, std::move(node));
        }
        for (const auto& [sn, id, number] : order) {
            auto node = std::move(nodes.at({id, number}));
            node.key() = sn;
            node.mapped().record.sn = sn;
            changed_acl.aces.insert(std::move(node));
        }
    });
}

void acl_table::adopt(const scc_acl_key& key, u32 acl_number) {
    acls_.try_emplace(acl_name(key), acl_entry{key, {}, {}, {}, acl_number, 0, true});
}

void acl_table::adopt(const scc_acl_key& key, const scc_ace_record& record, u32 ace_number) {
    const auto acl = acls_.find(acl_name(key));
    if (acl == acls_.end() || find_ace(acl->second.aces, record) != acl->second.aces.end() ||
        !acl->second.counters.insert({record.ace_id, ace_number}).second) {
        return;
    }
    ace_entry adopted;
    adopted.record = record;
    adopted.number = ace_number;
    adopted.stale = true;
    acl->second.aces.emplace(record.sn, adopted);
}

u32 acl_table::read_counter(const scc_acl_key& key, u64& counter) {
    acl_entry* acl = find(key);
    if (acl == nullptr) {
        return SCC_E_NO_ACL;
    }
    const u32 result = source_ == nullptr ? 0 : source_->read({acl_name(key), acl->number}, acl->packets);
    counter = acl->packets;
    return result;
}

u32 acl_table::reset_counter(const scc_acl_key& key) {
    acl_entry* acl = find(key);
    if (acl == nullptr) {
        return SCC_E_NO_ACL;
    }
    acl->packets = 0;
    return source_ == nullptr ? 0 : source_->reset({acl_name(key), acl->number});
}

counter_name acl_table::counter_of(const acl_entry& acl, const ace_entry& ace) {
    return {acl_name(acl.key), acl.number, true, ace.record.ace_id, ace.number};
}

std::vector<acl_table::ace_entry*> acl_table::counted_aces(acl_entry& acl, u64 number) {
    std::vector<ace_entry*> by_id;
    std::vector<ace_entry*> by_sn;
    for (auto& [sn, ace] : acl.aces) {
        if (ace.stale) {
            continue;
        }
        if (ace.record.ace_id == number) {
            by_id.push_back(&ace);
        }
        if (sn == number) {
            by_sn.push_back(&ace);
        }
    }
    return by_id.empty() ? by_sn : by_id;
}

template <class Act>
u32 acl_table::for_counted_aces(const scc_acl_key& key, u64 number, const Act& act) {
    acl_entry* acl = find(key);
    if (acl == nullptr) {
        return SCC_E_NO_ACL;
    }
    const std::vector<ace_entry*> counted = counted_aces(*acl, number);
    if (counted.empty()) {
        return SCC_E_NO_ACE;
    }
    for (ace_entry* ace : counted) {
        if (const u32 result = act(*acl, *ace); result != 0) {
            return result;
        }
    }
    return 0;
}

u32 acl_table::read_ace_counter(const scc_acl_key& key, u64 number, u64& counter) {
    u64 sum = 0;
    const u32 result = for_counted_aces(key, number, [this, &sum](const acl_entry& acl, ace_entry& ace) {
        const u32 read = source_ == nullptr ? 0 : source_->read(counter_of(acl, ace), ace.packets);
        sum += ace.packets;
        return read;
    });
    counter = result == 0 ? sum : counter;
    return result;
}

u32 acl_table::reset_ace_counter(const scc_acl_key& key, u64 number) {
    return for_counted_aces(key, number, [this](const acl_entry& acl, ace_entry& ace) {
        ace.packets = 0;
        return source_ == nullptr ? 0 : source_->reset(counter_of(acl, ace));
    });
}

void acl_table::begin_recovery() {
    for (auto& [name, acl] : acls_) {
        acl.mark_stale();
    }
}

void acl_table::end_recovery() {
    for (auto& [name, acl] : acls_) {
        notes_.acls[name].add(all_aces);
        acl.drop_stale();
    }
    std::erase_if(acls_, [](const auto& acl) { return acl.second.stale; });
    notes_.applications = true;
    confirm();
}

void acl_table::count_first_match(acl_entry& acl, const packet& packet, verdict& result) {
    const auto found = std::find_if(acl.aces.begin(), acl.aces.end(), [&](const auto& ace) {
        return ace.second.rule && matches(*ace.second.rule, packet);
    });
    if (found == acl.aces.end()) {
        return;
    }
    ++found->second.packets;
    ++acl.packets;
    ++result.matches;
    result.denied = result.denied || found->second.rule->denies();
    if (found->second.rule->compares(SCC_ACE_LOG)) {
        result.logged.push_back(fmt::format("acl {} type {}: {}", acl.key.acl_id, acl.key.app_type,
                                            ace::print_ace(found->second.record).value_or("")));
    }
}

verdict acl_table::classify(const packet& packet, const packet_path& path) {
    verdict result;
    for (const bool entering : {true, false}) {
        for (auto& [name, acl] : acls_) {
            for (const application& entry : acl.applications) {
                if (result.denied) {
                    return result;
                }
                if (entry.place.enters == entering && lies_on(entry.place, path) &&
                    sees(entry.place, packet)) {
                    count_first_match(acl, packet, result);
                }
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
    fmt::format_to(sink, "acl vdev {} type {} id {} class {}: {}{}\n", acl.key.vdev_id, acl.key.app_type,
                   acl.key.acl_id, acl.key.acl_class, devkit::counted(acl.packets, "packet"),
                   acl.stale ? ", being recovered" : "");
    for (const auto& [sn, ace] : acl.aces) {
        fmt::format_to(sink, "  ace {}: {}\n",
                       ace::print_ace(ace.record)
                           .value_or(fmt::format("{} without a rule id {}", sn, ace.record.ace_id)),
                       devkit::counted(ace.packets, "packet"));
    }
    for (const application& entry : acl.applications) {
        fmt::format_to(sink, "  applied {} type {}\n", text_of(entry.record), entry.record.apply_type);
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
