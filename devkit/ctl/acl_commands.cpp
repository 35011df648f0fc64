// The rows of the ACL calls, the user ACL calls and the counters.
#include <cstddef>

#include "ace_text.h"
#include "acl_book.h"
#include "command.h"
#include "common/records.h"
#include "msg/protocol.h"

namespace scc::ctl {
namespace {

using h = scc_handlers;
using arguments = std::vector<argument>;

// The key's fields at `offset` of record number `record`.
arguments key_fields(int record, std::size_t offset, std::uint64_t acl_id_max = limits::acl_id_max) {
    return {
        number("acl", 4, "ACL id").within(1, acl_id_max).at(record, offset + offsetof(scc_acl_key, acl_id)),
        number("type", 4, "application type")
            .within(1, limits::app_type_max)
            .as(presence::option)
            .from(1)
            .at(record, offset + offsetof(scc_acl_key, app_type)),
        number("class", 4, "ACL class")
            .as(presence::option)
            .at(record, offset + offsetof(scc_acl_key, acl_class)),
        number("vdev", 4, "virtual device")
            .as(presence::option)
            .at(record, offset + offsetof(scc_acl_key, vdev_id))};
}

arguments key() {
    return key_fields(0, 0);
}

arguments with(arguments first, const arguments& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

arguments ace_number() {
    return with(key(), {number("ace", 8, "ACE id")});
}

arguments added_ace() {
    return with(
        key(),
        {number("rule", sizeof(scc_ace_record),
                "the rule: [SN] permit|deny PROTOCOL ...; SN is 0 unless given")
             .as(value_type::rule)
             .as(presence::optional_positional)
             .at(1, 0),
         field("sn", offsetof(scc_ace_record, sn), 4, "sequence number").at(1, offsetof(scc_ace_record, sn)),
         field("id", 0, 4, "ACE id").at(1, offsetof(scc_ace_record, ace_id))});
}

arguments deleted_ace() {
    return with(key(), {number("sn", 4, "sequence number").at(1, offsetof(scc_ace_record, sn)),
                        number("id", 4, "ACE id").at(1, offsetof(scc_ace_record, ace_id))});
}

arguments application() {
    namespace at = devkit::apply_record;
    return with(
        key(),
        {field("ifx", at::ifx, 4, "interface index"),
         field("direction", at::direction, 4, "of the packets").within(0, 1).named(devkit::names::direction),
         field("apply-type", at::apply_type, 4, "1 to 58; 0 stands for the ACL's type")
             .within(0, limits::app_type_max)});
}

arguments user_binding() {
    namespace at = devkit::user_acl_record;
    return with(
        key_fields(0, at::key),
        {field("ifx", at::ifx, 4, "interface index"), field("phyid", at::phyid, 8, "physical id"),
         field("apptype", at::app_type, 4, "the binding's application type"),
         field("direction", at::direction, 4, "of the packets").named(devkit::names::direction),
         field("mac", at::mac, 6, "MAC address").as(value_type::mac), field("vid", at::vid, 2, "VLAN id"),
         field("ip", at::ipv4, 4, "IPv4 address").as(value_type::ipv4),
         field("ipv6", at::ipv6, 16, "IPv6 address").as(value_type::address16)});
}

template <typename Record>
Record record_of(const call_values& values, std::size_t index) {
    Record record{};
    std::memcpy(&record, values.records.at(index).data(), sizeof record);
    return record;
}

scc_acl_key key_of(const call_values& values) {
    return record_of<scc_acl_key>(values, 0);
}

// How a confirmed change is entered in the book.
void on_created(acl_book& book, const call_values& values) {
    book.created(key_of(values));
}
void on_deleted(acl_book& book, const call_values& values) {
    book.deleted(key_of(values));
}
void on_ace_added(acl_book& book, const call_values& values) {
    book.ace_added(key_of(values), record_of<scc_ace_record>(values, 1));
}
void on_ace_deleted(acl_book& book, const call_values& values) {
    book.ace_deleted(key_of(values), record_of<scc_ace_record>(values, 1));
}
void on_applied(acl_book& book, const call_values& values) {
    book.applied(record_of<scc_acl_apply_record>(values, 0));
}
void on_unapplied(acl_book& book, const call_values& values) {
    book.unapplied(record_of<scc_acl_apply_record>(values, 0));
}
void on_resequenced(acl_book& book, const call_values& values) {
    book.resequenced(key_of(values), static_cast<std::uint32_t>(values.scalars.at(0)),
                     static_cast<std::uint32_t>(values.scalars.at(1)));
}

command changing(command row, void (*confirmed)(acl_book&, const call_values&)) {
    row.confirmed = confirmed;
    return row;
}

json shown_ace(const scc_ace_record& ace) {
    const auto text = ace::print_ace(ace);
    return {{"sn", ace.sn}, {"id", ace.ace_id}, {"rule", text ? json(*text) : json()}};
}

std::uint32_t show_acl(const scc_acl_key* acl, json* out) {
    std::vector<scc_ace_record> aces;
    const std::uint32_t result = read_cached_aces(*acl, aces);
    if (result != 0) {
        return result;
    }
    json& list = (*out)["aces"] = json::array();
    for (const scc_ace_record& each : aces) {
        list.push_back(shown_ace(each));
    }
    return 0;
}

std::uint32_t show_ace(const scc_acl_key* acl, std::uint32_t sn, json* out) {
    scc_ace_record ace{};
    const std::uint32_t result = scc_acl_get_ace_by_sn(acl, sn, &ace);
    if (result == 0) {
        (*out)["ace"] = shown_ace(ace);
    }
    return result;
}

std::uint32_t change_vmsup(const scc_user_acl_record* record, json* out) {
    std::uint8_t reply[16] = {};
    const std::uint32_t result = scc_user_acl_change_vmsup(record, reply);
    if (result == 0) {
        (*out)["reply"] = hex_of({std::begin(reply), std::end(reply)});
    }
    return result;
}

std::vector<command> management() {
    return {
        changing(request<scc_acl_create, &h::acl_create>("acl create", "scc_acl_create", "create an ACL",
                                                         "101 --type 3 --class 1", key()),
                 on_created),
        changing(request<scc_acl_delete, &h::acl_delete>(
                     "acl delete", "scc_acl_delete", "delete an ACL with its ACEs", "101 --type 3", key()),
                 on_deleted),
        changing(request<scc_acl_add_ace, &h::acl_add_ace>("acl add-ace", "scc_acl_add_ace", "add an ACE",
                                                           "101 10 permit ip 10.0.0.0/8 any", added_ace()),
                 on_ace_added),
        changing(request<scc_acl_delete_ace, &h::acl_delete_ace>(
                     "acl delete-ace", "scc_acl_delete_ace",
                     "delete the ACE with this sequence number and id", "101 10 10", deleted_ace()),
                 on_ace_deleted),
        changing(request<scc_acl_apply, &h::acl_apply>("acl apply", "scc_acl_apply", "apply an ACL",
                                                       "101 --ifx 5", application()),
                 on_applied),
        changing(request<scc_acl_unapply, &h::acl_unapply>(
                     "acl unapply", "scc_acl_unapply", "undo an application", "101 --ifx 5", application()),
                 on_unapplied),
        changing(request<scc_acl_reseqence, &h::acl_resequence>(
                     "acl resequence", "scc_acl_reseqence", "renumber the ACEs", "101 10 10",
                     with(key(), {number("start", 4, "first sequence number").within(1, INT32_MAX),
                                  number("increment", 4, "step").within(1, INT32_MAX)})),
                 on_resequenced),
    };
}

// The cache belongs to the process, so these find something only in `shell`.
std::vector<command> cache_reads() {
    std::vector<command> rows = {
        query<show_acl>("acl show", "scc_acl_get_ace", "show an ACL's ACEs from this process's cache", "101",
                        key(), {}),
        query<show_ace>("acl show-ace", "scc_acl_get_ace_by_sn",
                        "show the first ACE with a sequence number from the cache", "101 10",
                        with(key(), {number("sn", 4, "sequence number")}), {}),
        query<scc_acl_cls_get>("acl class", "scc_acl_cls_get", "show an ACL's class from the cache", "101",
                               key(), {}),
    };
    for (command& row : rows) {
        row.absent_hint =
            "the cache holds what this process created, so that of a single command is empty: 'sccctl acl "
            "list' "
            "asks the daemon, 'sccctl shell' keeps one process";
    }
    return rows;
}

command escape() {
    const arguments before = {number("value", 4, "the setting itself")};
    const arguments after = {number("flag", 1, "what to do").named(devkit::names::set_clear)};
    return request<scc_nac_esc_set, &h::nac_esc>("nac-esc-set", "scc_nac_esc_set",
                                                 "configure the NAC escape ACL", "1 101 set",
                                                 with(with(before, key()), after));
}

std::vector<command> user_acls() {
    constexpr std::string_view example = "101 --ifx 5 --mac 00:11:22:33:44:55 --vid 10";
    return {
        request<scc_user_acl_apply, &h::user_acl_apply>("user-acl apply", "scc_user_acl_apply",
                                                        "bind an ACL to a user", example, user_binding()),
        request<scc_user_acl_unapply, &h::user_acl_unapply>("user-acl unapply", "scc_user_acl_unapply",
                                                            "undo a binding", example, user_binding()),
        request<scc_user_acl_delete_vmsup, &h::user_acl_delete_vmsup>(
            "user-acl delete-vmsup", "scc_user_acl_delete_vmsup", "delete a VLAN binding", "101",
            key_fields(0, 0, INT32_MAX)),
        query<change_vmsup>("user-acl change-vmsup", "scc_user_acl_change_vmsup", "change a VLAN binding",
                            example, user_binding(), {}),
    };
}

command resettable(command row, std::string_view reset_row) {
    row.reset_row = reset_row;
    return row;
}

std::vector<command> counters() {
    return {
        resettable(
            query<scc_acl_get_filter_counter>("counter filter", "scc_acl_get_filter_counter",
                                              "read an ACL's filter counter", "101", key(), {{"counter"}}),
            "counter reset-filter"),
        resettable(query<scc_acl_get_counter>("counter acl", "scc_acl_get_counter", "read an ACL's counter",
                                              "101", key(), {{"counter"}}),
                   "counter reset-acl"),
        resettable(query<scc_ace_get_counter>("counter ace", "scc_ace_get_counter", "read an ACE's counter",
                                              "101 10", ace_number(), {{"counter"}}),
                   "counter reset-ace"),
        request<scc_acl_reset_filter_counter, &h::filter_counter_reset>(
            "counter reset-filter", "scc_acl_reset_filter_counter", "reset an ACL's filter counter", "101",
            key()),
        request<scc_acl_reset_counter, &h::acl_counter_reset>("counter reset-acl", "scc_acl_reset_counter",
                                                              "reset an ACL's counter", "101", key()),
        request<scc_ace_reset_counter, &h::ace_counter_reset>(
            "counter reset-ace", "scc_ace_reset_counter", "reset an ACE's counter", "101 10", ace_number()),
    };
}

}  // namespace

std::vector<command> acl_commands() {
    std::vector<command> all;
    for (auto part : {management(), cache_reads(), std::vector<command>{escape()}, user_acls(), counters()}) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

}  // namespace scc::ctl
