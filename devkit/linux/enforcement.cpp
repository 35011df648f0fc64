#include "linux/enforcement.h"

#include <fmt/format.h>
#include <linux/netfilter.h>
#include <net/if.h>

#include <algorithm>
#include <charconv>
#include <iterator>
#include <set>

#include "ace/ace_text.h"
#include "common/records.h"
#include "linux/dropped_frames.h"
#include "linux/rule_expressions.h"

namespace scc::kernel {
namespace {

using service::acl_name;
using service::acl_table;
using service::counter_name;
using service::nac_app;
using service::nac_user;

constexpr u16 ether_type_eapol = 0x888E;

// The NAC applications that admit known users alone: IEEE 802.1X (MAC, port static, move, single, MAB) and
// port security.
constexpr u32 closing_first = 1;
constexpr u32 port_security = 6;
constexpr u32 closing_last = port_security;

std::string acl_text(const acl_name& name) {
    return fmt::format("{}-{}-{}.", name.vdev_id, name.app_type, name.acl_id);
}

chain_name acl_chain(const acl_name& name, u32 number) {
    return {family::netdev, fmt::format("{}{}{}", acl_prefix, acl_text(name), number)};
}

chain_name entry_chain_name(u32 ifx, const mapped_interface& interface, bool entering) {
    return {family::netdev, fmt::format("{}-{}-{}", entering ? "in" : "out", ifx, interface.name)};
}

chain_name access_chain_name(u32 ifx, u32 vlan) {
    return {family::netdev, fmt::format("nac-{}-{}", ifx, vlan)};
}

wanted_rule rule_doing(expressions what) {
    const rule_identity identity{kind_other, 0, 0, 0, what.fingerprint()};
    return {identity, nullptr, std::move(what)};
}

// One list of conditions for each rule that the application's frames need.
std::vector<expressions> conditions_of_frames(const service::application_place& place) {
    if (place.frames.empty()) {
        return {expressions()};
    }
    std::vector<expressions> all;
    for (const ace::rule& frames : place.frames) {
        for (expressions& conditions : conditions_of(frames)) {
            all.push_back(std::move(conditions));
        }
    }
    return all;
}

bool contains(const std::vector<u32>& numbers, u32 number) {
    return std::find(numbers.begin(), numbers.end(), number) != numbers.end();
}

bool closes(const nac_app& app) {
    return app.type >= closing_first && app.type <= closing_last;
}

// An address of zeros stands for any.
bool has_address(const nac_user& user) {
    return user.ip != ace::ip_bytes{};
}

scc_ace_address address_of(const nac_user& user) {
    scc_ace_address address{};
    for (std::size_t i = 0; i < user.ip.size(); ++i) {
        address.mask[i] = user.mask[i];
        address.bytes[i] = static_cast<u8>(user.ip[i] & user.mask[i]);
    }
    return address;
}

// What a user may send: everything, or packets from its address and what it needs to be found.
std::vector<expressions> admissions_of(const nac_user& user) {
    const expressions from =
        source_mac_condition(user.mac) + (user.vid == 0 ? expressions() : vlan_condition(user.vid));
    if (!has_address(user)) {
        return {from};
    }
    const scc_ace_address address = address_of(user);
    if (!user.is_ipv6) {
        return {from + source_address_condition(false, address), from + arp_sender_condition(address)};
    }
    scc_ace_address link_local{};
    link_local.bytes[0] = 0xFE;
    link_local.bytes[1] = 0x80;
    link_local.mask[0] = 0xFF;
    link_local.mask[1] = 0xC0;
    return {from + source_address_condition(true, address),
            from + source_address_condition(true, link_local)};
}

wanted_chain list_of(const acl_name& name, const acl_table::acl_entry& acl,
                     const service::touched_aces& touched) {
    wanted_chain list;
    list.counter = counter_text({name, acl.number});
    const auto add = [&list](const auto& entry) {
        const auto& [sn, ace] = entry;
        if (ace.rule && is_supported(*ace.rule)) {
            const rule_identity identity{kind_ace, sn, ace.record.ace_id, ace.number, ace.fingerprint};
            list.rules.push_back({identity, &*ace.rule, {}});
        }
    };
    if (touched.all) {
        list.rules.reserve(acl.aces.size());
        std::for_each(acl.aces.begin(), acl.aces.end(), add);
    } else {
        list.touched = touched.numbers;
        for (const u32 sn : touched.numbers) {
            const auto [first, last] = acl.aces.equal_range(sn);
            std::for_each(first, last, add);
        }
    }
    return list;
}

template <class Number>
bool take(std::string_view& text, Number& number, std::string_view before) {
    if (!text.starts_with(before)) {
        return false;
    }
    const auto [end, problem] =
        std::from_chars(text.data() + before.size(), text.data() + text.size(), number);
    if (problem != std::errc()) {
        return false;
    }
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    return true;
}

}  // namespace

std::string counter_text(const counter_name& name) {
    const std::string acl = fmt::format("{}{}", acl_text(name.acl), name.acl_number);
    return name.of_ace ? ace_counter(acl, name.ace_id, name.ace_number) : acl;
}

std::string access_counter(u32 ifx) {
    return fmt::format("nac-{}", ifx);
}

std::string user_counter(const nac_user& user) {
    std::string mac = ace::print_mac(user.mac);
    std::erase(mac, ':');
    return fmt::format("user-{}-{}", user.ifx, mac);
}

std::string enforcement::problem_of(const acl_table::ace_entry& ace) {
    if (!ace.rule) {
        return fmt::format("ACE {} holds no rule that is known", ace.record.ace_id);
    }
    return is_supported(*ace.rule)
               ? std::string()
               : fmt::format("ACE {}: the kernel compares no time of day and reports no packets",
                             ace.record.ace_id);
}

std::string enforcement::problem_of(const scc_acl_apply_record& application) const {
    const u32 ifx = service::place_of(application).ifx;
    if (ifx == 0) {
        return {};
    }
    const auto mapped = map_.interfaces.find(ifx);
    if (mapped == map_.interfaces.end()) {
        return fmt::format("interface {} is not in the map", ifx);
    }
    return if_nametoindex(mapped->second.name.c_str()) == 0
               ? fmt::format("interface {} ({}) is missing", ifx, mapped->second.name)
               : std::string();
}

std::string enforcement::problem_of(const service::nac_table& nac) const {
    for (const nac_app& app : nac.apps()) {
        if (!closes(app)) {
            return fmt::format("NAC application {} is not supported", app.type);
        }
        if (!map_.interfaces.contains(app.ifx)) {
            return fmt::format("interface {} is not in the map", app.ifx);
        }
    }
    for (const nac_user& user : nac.users()) {
        if (!map_.interfaces.contains(user.ifx)) {
            return fmt::format("interface {} is not in the map", user.ifx);
        }
    }
    for (const u32 ifx : nac.egress_ports()) {
        if (!map_.interfaces.contains(ifx)) {
            return fmt::format("interface {} is not in the map", ifx);
        }
    }
    for (const u32 type : nac.cpu_protection()) {
        if (!map_.protections.contains(type)) {
            return fmt::format("CPU protection {} is not in the map", type);
        }
    }
    return nac.l4ports().empty() ? std::string() : "the kernel redirects no ports";
}

void enforcement::add_acl(const contents& held, const acl_name& name, const service::touched_aces& touched,
                          const held_tables& kernel, change_request& request) {
    const auto found = held.acls.acls().find(name);
    const bool exists = found != held.acls.acls().end();
    std::optional<chain_name> own;
    if (exists) {
        own = acl_chain(name, found->second.number);
        request.chains[*own] = list_of(name, found->second, touched);
    }
    const std::string prefix = std::string(acl_prefix) + acl_text(name);
    for (auto at = kernel.chains.lower_bound({family::netdev, prefix});
         at != kernel.chains.end() && at->first.in == family::netdev && at->first.name.starts_with(prefix);
         ++at) {
        if (first_of_list(at->first) != own) {
            request.chains[at->first] = std::nullopt;
        }
    }
}

wanted_chain enforcement::entry_chain(const contents& held, u32 ifx, const mapped_interface& interface,
                                      bool entering) const {
    wanted_chain chain;
    chain.hook = {entering ? u32{NF_NETDEV_INGRESS} : u32{NF_NETDEV_EGRESS}, interface.name};
    const bool excepted = contains(held.nac.egress_ports(), ifx);
    if (entering && !excepted) {
        for (const auto& [vlan, how] : access_of(held, ifx)) {
            expressions frames = vlan == 0 ? expressions() : vlan_condition(static_cast<u16>(vlan));
            chain.rules.push_back(rule_doing(frames.jump(access_chain_name(ifx, vlan).name)));
        }
    }
    if (interface.router && !held.nac.router_acl()) {
        return chain;
    }
    for (const auto& [name, acl] : held.acls.acls()) {
        for (const acl_table::application& application : acl.applications) {
            const service::application_place& place = application.place;
            const bool here = place.ifx == ifx || (place.ifx == 0 && !excepted);
            if (!here || place.enters != entering) {
                continue;
            }
            for (expressions& frames : conditions_of_frames(place)) {
                chain.rules.push_back(rule_doing(frames.jump(acl_chain(name, acl.number).name)));
            }
        }
    }
    return chain;
}

std::map<u32, enforcement::access> enforcement::access_of(const contents& held, u32 ifx) {
    std::map<u32, access> vlans;
    for (const nac_app& app : held.nac.apps()) {
        if (closes(app) && app.ifx == ifx) {
            access& how = vlans[app.vid];
            how.is_closed = true;
            how.is_secured = how.is_secured || app.type == port_security;
        }
    }
    // Users are counted also where everybody is admitted.
    const std::vector<nac_user> users = held.nac.users();
    if (std::any_of(users.begin(), users.end(), [ifx](const nac_user& user) { return user.ifx == ifx; })) {
        vlans.try_emplace(0);
    }
    return vlans;
}

wanted_chain enforcement::access_chain(const contents& held, u32 ifx, u32 vlan, access how) const {
    wanted_chain chain;
    chain.rules.push_back(rule_doing(ether_type_condition(ether_type_eapol).leave_chain()));
    for (const nac_user& user : held.nac.users()) {
        if (user.ifx != ifx || (vlan != 0 && user.vid != 0 && user.vid != vlan)) {
            continue;
        }
        // Counted where all frames pass, so that no frame counts twice.
        for (expressions& admission : admissions_of(user)) {
            if (vlan == 0) {
                admission.count_in(user_counter(user));
            }
            chain.rules.push_back(rule_doing(admission.leave_chain()));
        }
    }
    if (how.is_secured && tells_) {
        chain.rules.push_back(rule_doing(expressions().up_to(dropped_max_per_second).log_to(dropped_group)));
    }
    if (how.is_closed) {
        chain.rules.push_back(rule_doing(expressions().count_in(access_counter(ifx)).drop()));
    }
    return chain;
}

wanted_chain enforcement::cpu_chain(const contents& held) const {
    wanted_chain chain;
    chain.hook = {NF_INET_LOCAL_IN, {}};
    for (const u32 type : held.nac.cpu_protection()) {
        const auto mapped = map_.protections.find(type);
        if (mapped == map_.protections.end()) {
            continue;
        }
        for (expressions& conditions : conditions_of(mapped->second.rule)) {
            chain.rules.push_back(
                rule_doing(conditions.above(mapped->second.packets_per_second).count().drop()));
        }
    }
    return chain;
}

void enforcement::add_interfaces(const contents& held, const held_tables& kernel,
                                 change_request& request) const {
    wanted_chains wanted;
    for (const auto& [ifx, interface] : map_.interfaces) {
        // Not every kernel can make a chain for an interface that is missing.
        if (if_nametoindex(interface.name.c_str()) == 0) {
            continue;
        }
        for (const bool entering : {true, false}) {
            wanted_chain chain = entry_chain(held, ifx, interface, entering);
            if (!chain.rules.empty()) {
                wanted[entry_chain_name(ifx, interface, entering)] = std::move(chain);
            }
        }
    }
    for (const auto& [ifx, interface] : map_.interfaces) {
        for (const auto& [vlan, how] : access_of(held, ifx)) {
            request.counters_added.insert(access_counter(ifx));
            wanted[access_chain_name(ifx, vlan)] = access_chain(held, ifx, vlan, how);
        }
    }
    for (const nac_user& user : held.nac.users()) {
        request.counters_added.insert(user_counter(user));
    }
    wanted_chain cpu = cpu_chain(held);
    if (!cpu.rules.empty()) {
        wanted[{family::inet, "cpu-limits"}] = std::move(cpu);
    }
    for (const auto& [name, rules] : kernel.chains) {
        if (!name.name.starts_with(acl_prefix) && !wanted.contains(name)) {
            wanted[name] = std::nullopt;
        }
    }
    for (const std::string_view prefix : {"nac-", "user-"}) {
        for (auto at = kernel.counters.lower_bound(prefix);
             at != kernel.counters.end() && at->starts_with(prefix); ++at) {
            if (!request.counters_added.contains(*at)) {
                request.counters_deleted.insert(*at);
            }
        }
    }
    request.chains.merge(wanted);
}

void enforcement::add_everything(const contents& held, const held_tables& kernel,
                                 change_request& request) const {
    for (const auto& [name, acl] : held.acls.acls()) {
        add_acl(held, name, {true, {}}, kernel, request);
    }
    add_interfaces(held, kernel, request);
    for (const auto& [name, rules] : kernel.chains) {
        const auto list = request.chains.find(first_of_list(name));
        if (list == request.chains.end() || !list->second) {
            request.chains.try_emplace(name, std::nullopt);
        }
    }
    // The planner keeps those that rules need; but it looks at the rules that change alone.
    std::set<std::string> needed = request.counters_added;
    for (const auto& [name, acl] : held.acls.acls()) {
        needed.insert(counter_text({name, acl.number}));
        for (const auto& [sn, ace] : acl.aces) {
            needed.insert(counter_text(acl_table::counter_of(acl, ace)));
        }
    }
    std::set_difference(kernel.counters.begin(), kernel.counters.end(), needed.begin(), needed.end(),
                        std::inserter(request.counters_deleted, request.counters_deleted.end()));
    request.counters_added.merge(needed);
}

void enforcement::adopt(const held_tables& kernel, contents& held) {
    for (const auto& [chain, rules] : kernel.chains) {
        std::string_view text = chain.name;
        scc_acl_key key{};
        u32 number = 0;
        if (chain.in != family::netdev || !take(text, key.vdev_id, "acl-") ||
            !take(text, key.app_type, "-") || !take(text, key.acl_id, "-") || !take(text, number, ".") ||
            (!text.empty() && text.front() != list_separator)) {
            continue;
        }
        held.acls.adopt(key, number);
        for (const held_rule& rule : rules) {
            if (rule.identity && rule.identity->kind == kind_ace) {
                scc_ace_record record{};
                record.sn = rule.identity->first;
                record.ace_id = rule.identity->second;
                held.acls.adopt(key, record, rule.identity->third);
            }
        }
    }
}

}  // namespace scc::kernel
