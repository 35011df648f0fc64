#include "sccd/state_dump.h"

#include <fmt/format.h>

#include <iterator>

#include "common/records.h"
#include "sccd/rule_text.h"

namespace scc::sccd {
namespace {

using devkit::byte_buffer;
using devkit::byte_view;
using enum devkit::field_kind;
namespace config = devkit::config_record;

constexpr u64 state_format = 1;

// Of the request that created the ACL.
constexpr std::size_t creation_bytes = 140;
constexpr std::size_t creation_operation = 136;
constexpr record_field acl_fields[] = {{"vdev", 4},
                                       {"type", 8},
                                       {"id", 12},
                                       {"class", 16},
                                       {"pid", 20},
                                       {"app", 24},
                                       {"process", 28, text, 0, 0, record::process_name_field}};
constexpr record_field ace_fields[] = {{"sn", devkit::ace_record::sn}, {"id", devkit::ace_record::id}};
constexpr record_field apply_fields[] = {{"ifx", devkit::apply_record::ifx},
                                         {"direction", devkit::apply_record::direction, number32, 0, 1},
                                         {"apply_type", devkit::apply_record::apply_type}};
constexpr record_field user_acl_fields[] = {{"ifx", devkit::user_acl_record::ifx},
                                            {"phyid", devkit::user_acl_record::phyid, number64, 0, ~u64{0}},
                                            {"apptype", devkit::user_acl_record::app_type},
                                            {"direction", devkit::user_acl_record::direction},
                                            {"mac", devkit::user_acl_record::mac, mac},
                                            {"vid", devkit::user_acl_record::vid, number16},
                                            {"key", devkit::user_acl_record::key, key},
                                            {"ip", devkit::user_acl_record::ipv4, ipv4},
                                            {"ip6", devkit::user_acl_record::ipv6, ipv6}};
constexpr record_field user_fields[] = {{"mac", config::mac, mac},      {"ip", config::ipv4, ipv4},
                                        {"ip6", config::ipv6, ipv6},    {"mask", config::mask, ipv4},
                                        {"ifx", config::ifx},           {"vid", config::vid},
                                        {"app_type", config::app_type}, {"value", config::value},
                                        {"op", config::operation},      {"flags", config::flags}};

json key_fields(const devkit::acl_identity& key) {
    return {{"vdev", key.vdev}, {"type", key.app_type}, {"id", key.acl_id}, {"class", key.acl_class}};
}

json show_acl(const acl_entry& acl) {
    byte_buffer creation = acl.creation;
    devkit::write_at(creation, 0, 0u);
    devkit::write_at(creation, creation_operation, 0u);
    return show_record(acl_fields, creation);
}

json show_ace(const ace_entry& ace) {
    json shown = show_record(ace_fields, ace.record);
    const std::optional<std::string> rule = rule_text(ace.record);
    if (!rule) {
        return shown;
    }
    std::string ignored;
    if (parse_rule_text(*rule, ignored) == ace.record) {
        shown.erase("bytes");
    }
    shown["rule"] = *rule;
    return shown;
}

// The key is that of the ACL.
json show_apply(byte_view record) {
    byte_buffer entity = devkit::to_bytes(record);
    devkit::write_key(entity, 0, {});
    return show_record(apply_fields, entity);
}

}  // namespace

json dump_acls(const acl_store& store) {
    json list = json::array();
    for (const auto& [key, acl] : store.acls()) {
        json entry = show_acl(acl);
        entry["sn_start"] = acl.sn_start;
        entry["sn_increment"] = acl.sn_increment;
        entry["aces"] = json::array();
        for (const auto& [sn, ace] : acl.aces) {
            entry["aces"].push_back(show_ace(ace));
        }
        entry["applies"] = json::array();
        for (const auto& [entity, record] : acl.applies) {
            entry["applies"].push_back(show_apply(record));
        }
        list.push_back(std::move(entry));
    }
    return list;
}

json dump_counters(const acl_store& store) {
    json list = json::array();
    for (const auto& [key, acl] : store.acls()) {
        json entry = key_fields(acl.key);
        entry["acl"] = acl.counter;
        entry["filter"] = acl.filter_counter;
        entry["aces"] = json::array();
        for (const auto& [sn, ace] : acl.aces) {
            entry["aces"].push_back({{"sn", sn}, {"id", ace.id}, {"ace", ace.counter}});
        }
        list.push_back(std::move(entry));
    }
    return list;
}

json dump_users(const config_records& records) {
    json list = json::array();
    for (const auto& [mac, bytes] : records) {
        const bool is_ipv6 = (devkit::u32_at(bytes, config::flags) & config::flag_ipv6) != 0;
        list.push_back({{"mac", devkit::mac_text(mac)},
                        {"ip", is_ipv6 ? devkit::ipv6_text(devkit::slice(bytes, config::ipv6, 16))
                                       : devkit::ipv4_text(devkit::u32_at(bytes, config::ipv4))},
                        {"ifx", devkit::u32_at(bytes, config::ifx)},
                        {"vid", devkit::u32_at(bytes, config::vid)},
                        {"app_type", devkit::u32_at(bytes, config::app_type)}});
    }
    return list;
}

json dump_setting(const setting_store& settings, const setting_row& row) {
    json list = json::array();
    for (const auto& [key, record] : settings.records(row.type)) {
        list.push_back(show_record(row.fields, record));
    }
    return list;
}

json dump_settings(const setting_store& settings) {
    json all = json::object();
    for (const setting_row& row : setting_rows()) {
        if (!settings.records(row.type).empty()) {
            all[std::string(row.name())] = dump_setting(settings, row);
        }
    }
    return all;
}

namespace {

json dump_records(const config_records& records) {
    json list = json::array();
    for (const auto& [mac, record] : records) {
        list.push_back(show_record(user_fields, record));
    }
    return list;
}

json acls_with_counters(const acl_store& store) {
    json list = dump_acls(store);
    auto shown = list.begin();
    for (const auto& [key, acl] : store.acls()) {
        (*shown)["counter"] = acl.counter;
        (*shown)["filter_counter"] = acl.filter_counter;
        auto shown_ace = (*shown)["aces"].begin();
        for (const auto& [sn, ace] : acl.aces) {
            (*shown_ace++)["counter"] = ace.counter;
        }
        ++shown;
    }
    return list;
}

// Reads a state, and remembers the first problem and where it is.
class state_reader {
  public:
    explicit state_reader(daemon_core& daemon) : daemon_(daemon) {}

    std::string read(const json& state) {
        if (!state.is_object()) {
            return "not a JSON object";
        }
        json_fields fields(state);
        understand("the state", state, fields,
                   {"format", "acls", "user_acls", "users", "arp_entries", "settings"});
        if (fields.number("format", state_format) != state_format) {
            fail("format", "not 1");
        }
        each(state, "acls", [this](const json& entry) { read_acl(entry); });
        each(state, "user_acls", [this](const json& entry) {
            done(daemon_.acls.bind_user(record_of(entry, "a user ACL", user_acl_fields, record::user_acl)));
        });
        each(state, "users", [this](const json& entry) { done(daemon_.users.set_user(user_of(entry))); });
        each(state, "arp_entries",
             [this](const json& entry) { done(daemon_.users.set_arp_entry(user_of(entry))); });
        read_settings(state);
        return problem_;
    }

  private:
    using word_list = std::vector<std::string_view>;

    void fail(std::string_view what, std::string_view reason) {
        if (problem_.empty()) {
            problem_ = place_ + (place_.empty() || what.empty() ? "" : ".") + std::string(what) +
                       (what.empty() && place_.empty() ? "" : ": ") + std::string(reason);
        }
    }

    void understand(std::string_view what, const json& entry, const json_fields& fields,
                    const word_list& known) {
        if (const std::string unknown = unexpected_field(what, entry, {}, known); !unknown.empty()) {
            fail({}, unknown);
        }
        if (!fields.problem().empty()) {
            fail({}, fields.problem());
        }
    }

    void done(const state_change& change) {
        if (change.result != result::ok) {
            fail({}, fmt::format("refused with {}", change.result));
        }
    }

    // Calls `read` for each object of a list, with its place noted, until there is a problem.
    template <class Read>
    void each(const json& within, const char* name, Read read) {
        const auto list = within.find(name);
        if (list == within.end()) {
            return;
        }
        if (!list->is_array()) {
            return fail(name, "not a list");
        }
        const std::string outside = place_;
        for (std::size_t index = 0; index < list->size() && problem_.empty(); ++index) {
            place_ = fmt::format("{}{}{}[{}]", outside, outside.empty() ? "" : ".", name, index);
            if ((*list)[index].is_object()) {
                read((*list)[index]);
            } else {
                fail({}, "not an object");
            }
        }
        place_ = outside;
    }

    byte_buffer record_of(const json& entry, std::string_view what, record_fields all, std::size_t len,
                          const word_list& more = {}) {
        json_fields fields(entry);
        byte_buffer record = read_record(all, len, fields);
        word_list known = field_names(all);
        known.insert(known.end(), more.begin(), more.end());
        understand(what, entry, fields, known);
        return record;
    }

    byte_buffer user_of(const json& entry) {
        byte_buffer record = record_of(entry, "a user", user_fields, record::config);
        devkit::write_at(record, config::operation, devkit::user_operation::add);
        return record;
    }

    void read_acl(const json& entry) {
        byte_buffer creation =
            record_of(entry, "an ACL", acl_fields, creation_bytes,
                      {"sn_start", "sn_increment", "counter", "filter_counter", "aces", "applies"});
        devkit::write_at(creation, creation_operation, 1u);
        const devkit::acl_identity key = devkit::key_at(creation, 4);
        done(daemon_.acls.create(key, creation));
        each(entry, "aces", [this, &key](const json& ace) { read_ace(key, ace); });
        each(entry, "applies", [this, &key](const json& apply) {
            byte_buffer record =
                record_of(apply, "an application of an ACL", apply_fields, record::acl_apply);
            devkit::write_key(record, 0, key);
            done(daemon_.acls.apply(record));
        });
        json_fields fields(entry);
        if (acl_entry* const acl = daemon_.acls.find(key); acl != nullptr && problem_.empty()) {
            acl->sn_start = fields.number32("sn_start");
            acl->sn_increment = fields.number32("sn_increment");
            acl->counter = fields.number("counter");
            acl->filter_counter = fields.number("filter_counter");
        }
        if (!fields.problem().empty()) {
            fail({}, fields.problem());
        }
    }

    void read_ace(const devkit::acl_identity& key, const json& entry) {
        byte_buffer record = record_of(entry, "an ACE", ace_fields, record::ace, {"rule", "counter"});
        json_fields fields(entry);
        if (fields.has("rule") && !fields.has("bytes")) {
            record = ruled(entry, fields.text("rule"), std::move(record));
        }
        const u64 counter = fields.number("counter");
        if (!fields.problem().empty()) {
            fail({}, fields.problem());
        }
        done(daemon_.acls.add_ace(key, record));
        acl_entry* const acl = daemon_.acls.find(key);
        if (acl == nullptr || !problem_.empty()) {
            return;
        }
        // Of equal numbers, the new one is the last.
        const auto after = acl->aces.upper_bound(devkit::u32_at(record, devkit::ace_record::sn));
        std::prev(after)->second.counter = counter;
    }

    // The record of a rule's text; numbers that are given beside it count.
    byte_buffer ruled(const json& entry, const std::string& text, byte_buffer numbers) {
        std::string reason;
        const std::optional<byte_buffer> parsed = parse_rule_text(text, reason);
        if (!parsed) {
            fail("rule", reason);
            return numbers;
        }
        byte_buffer record = *parsed;
        for (const record_field& field : ace_fields) {
            if (entry.contains(field.name)) {
                devkit::copy_at(record, field.offset, devkit::slice(numbers, field.offset, sizeof(u32)));
            }
        }
        return record;
    }

    void read_settings(const json& state) {
        const auto settings = state.find("settings");
        if (settings == state.end()) {
            return;
        }
        if (!settings->is_object()) {
            return fail("settings", "not an object");
        }
        place_ = "settings";
        for (const auto& [name, list] : settings->items()) {
            const setting_row* const row = find_setting(std::string_view(name));
            if (row == nullptr) {
                return fail(name, "there is no such setting");
            }
            each(*settings, name.c_str(), [this, row](const json& entry) {
                const byte_buffer record = record_of(entry, row->name(), row->fields, row->bytes);
                if (removes(*row, record)) {
                    return fail(row->removal_field, "this would remove the record");
                }
                done(daemon_.settings.change(*row, record));
            });
        }
        place_.clear();
    }

    daemon_core& daemon_;
    std::string place_;
    std::string problem_;
};

}  // namespace

json dump_state(const daemon_core& daemon) {
    json bindings = json::array();
    for (const auto& [user, record] : daemon.acls.user_acls()) {
        bindings.push_back(show_record(user_acl_fields, record));
    }
    return {{"format", state_format},
            {"acls", acls_with_counters(daemon.acls)},
            {"user_acls", std::move(bindings)},
            {"users", dump_records(daemon.users.users())},
            {"arp_entries", dump_records(daemon.users.arp_entries())},
            {"settings", dump_settings(daemon.settings)}};
}

std::string load_state(daemon_core& daemon, const json& state) {
    return state_reader(daemon).read(state);
}

}  // namespace scc::sccd
