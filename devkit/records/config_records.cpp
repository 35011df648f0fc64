// The configuration records: structs of the desk's layout, copied to and from the library's opaque ones, and
// the text of one. The header describes the layouts.
#include <arpa/inet.h>

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "words.h"

namespace scc::records {
namespace {

constexpr std::uint32_t vlan_max = 4094;
constexpr std::uint32_t app_type_max = 58;

static_assert(sizeof(scc_records_config) == sizeof(scc_config_record));
static_assert(sizeof(scc_records_config) == sizeof(scc_user_record));
static_assert(sizeof(scc_records_application) == sizeof(scc_acl_apply_record));
static_assert(sizeof(scc_records_arp_user) == sizeof(scc_arp_check_entry));
static_assert(sizeof(scc_records_user_acl) == sizeof(scc_user_acl_record));
static_assert(offsetof(scc_records_config, app_type) == offsetof(scc_config_record, form));
static_assert(offsetof(scc_records_config, operation) == offsetof(scc_user_record, operation));
static_assert(offsetof(scc_records_config, flags) == offsetof(scc_user_record, flags));
static_assert(offsetof(scc_records_config, mask) == offsetof(scc_user_record, mask));
static_assert(offsetof(scc_records_application, apply_type) == offsetof(scc_acl_apply_record, apply_type));
static_assert(offsetof(scc_records_application, ipv6) == 36);
static_assert(offsetof(scc_records_user_acl, direction) == offsetof(scc_user_acl_record, direction));
static_assert(offsetof(scc_records_user_acl, vid) == offsetof(scc_user_acl_record, vid));
static_assert(offsetof(scc_records_user_acl, key) == offsetof(scc_user_acl_record, key));
static_assert(offsetof(scc_records_user_acl, ipv4) == 48 && offsetof(scc_records_user_acl, ipv6) == 52);
static_assert(SCC_RECORDS_ADD == SCC_USER_OPERATION_ADD && SCC_RECORDS_GET == SCC_USER_OPERATION_GET &&
              SCC_RECORDS_DELETE == SCC_USER_OPERATION_DELETE);

template <typename From, typename To>
std::uint32_t copy(const From* from, To* to) {
    static_assert(sizeof(From) == sizeof(To));
    if (from == nullptr || to == nullptr) {
        return result_invalid;
    }
    std::memcpy(to, from, sizeof *to);
    return result_ok;
}

std::uint32_t check(const scc_records_config* config, const void* record, scc_records_error* error) {
    if (config == nullptr || record == nullptr) {
        return refuse(error, "a null pointer");
    }
    if (config->vid > vlan_max) {
        return refuse(error, "a VLAN id is 0 to 4094");
    }
    if (config->operation > SCC_RECORDS_DELETE) {
        return refuse(error, "an operation is 0 to 3");
    }
    return result_ok;
}

// Of an application and of a user's ACL.
template <typename Place>
std::uint32_t check_place(const Place* place, const void* record, scc_records_error* error) {
    if (place == nullptr || record == nullptr) {
        return refuse(error, "a null pointer");
    }
    if (place->direction > 1) {
        return refuse(error, "a direction is 0 (in) or 1 (out)");
    }
    if (place->vid > vlan_max) {
        return refuse(error, "a VLAN id is 0 to 4094");
    }
    return result_ok;
}

// ---- text ----------------------------------------------------------------------------------------

struct operation_name {
    string_view name;
    std::uint32_t number;
};
constexpr operation_name operations[] = {
    {"add", SCC_RECORDS_ADD}, {"get", SCC_RECORDS_GET}, {"delete", SCC_RECORDS_DELETE}};

int length(string_view word) {
    return static_cast<int>(word.size());
}

// Four bytes of an IPv4 or 16 of an IPv6 address.
void take_ip(word_reader& words, string_view word, int family, std::uint8_t* into) {
    if (word.size() >= sizeof(c_string::text) || inet_pton(family, c_string(word).text, into) != 1) {
        words.fail(word, "'%.*s' is not an %s address", length(word), word.data(),
                   family == AF_INET ? "IPv4" : "IPv6");
    }
}

template <int Family, std::uint32_t Flag>
void take_address(word_reader& words, string_view word, scc_records_config& into, std::uint8_t* bytes) {
    take_ip(words, word, Family, bytes);
    into.flags |= Flag;
}

void take_mask(word_reader& words, string_view word, scc_records_config& into) {
    const int family = word.find(':') == string_view::npos ? AF_INET : AF_INET6;
    take_ip(words, word, family, into.mask);
    into.flags |= SCC_RECORDS_HAS_MASK;
}

std::uint32_t operation_of(word_reader& words, string_view word) {
    const auto* known = std::find_if(std::begin(operations), std::end(operations),
                                     [&](const operation_name& each) { return each.name == word; });
    if (known != std::end(operations)) {
        return known->number;
    }
    return static_cast<std::uint32_t>(words.number(word, "operation", 0, SCC_RECORDS_DELETE));
}

std::uint32_t u32_of(word_reader& words, string_view word, const char* what, std::uint32_t max = UINT32_MAX) {
    return static_cast<std::uint32_t>(words.number(word, what, 0, max));
}

struct field_row {
    string_view name;
    void (*take)(word_reader& words, string_view word, scc_records_config& into);
};

constexpr field_row fields[] = {
    {"ifx", [](word_reader& words, string_view word,
               scc_records_config& into) { into.ifx = u32_of(words, word, "ifx"); }},
    {"vid", [](word_reader& words, string_view word,
               scc_records_config& into) { into.vid = u32_of(words, word, "vid", vlan_max); }},
    {"mac",
     [](word_reader& words, string_view word, scc_records_config& into) {
         if (!parse_mac(word, into.mac)) {
             words.fail(word, "'%.*s' is not a MAC address", length(word), word.data());
         }
     }},
    {"app-type", [](word_reader& words, string_view word,
                    scc_records_config& into) { into.app_type = u32_of(words, word, "app-type"); }},
    {"value", [](word_reader& words, string_view word,
                 scc_records_config& into) { into.value = u32_of(words, word, "value"); }},
    {"operation", [](word_reader& words, string_view word,
                     scc_records_config& into) { into.operation = operation_of(words, word); }},
    {"ip",
     [](word_reader& words, string_view word, scc_records_config& into) {
         take_address<AF_INET, SCC_RECORDS_HAS_IPV4>(words, word, into,
                                                     reinterpret_cast<std::uint8_t*>(&into.ipv4));
     }},
    {"ipv6",
     [](word_reader& words, string_view word, scc_records_config& into) {
         take_address<AF_INET6, SCC_RECORDS_HAS_IPV6>(words, word, into, into.ipv6);
     }},
    {"mask",
     [](word_reader& words, string_view word, scc_records_config& into) { take_mask(words, word, into); }},
};

void take_field(word_reader& words, scc_records_config& into, unsigned& given) {
    const string_view name = words.take("field");
    const auto* row = std::find_if(std::begin(fields), std::end(fields),
                                   [&](const field_row& each) { return each.name == name; });
    if (row == std::end(fields)) {
        words.fail(name, "unknown field '%.*s'", length(name), name.data());
        return;
    }
    const unsigned bit = 1u << (row - std::begin(fields));
    if ((given & bit) != 0) {
        words.fail(name, "'%.*s' is given twice", length(name), name.data());
        return;
    }
    given |= bit;
    const string_view word = words.take(row->name.data());
    if (!words.failed()) {
        row->take(words, word, into);
    }
}

template <std::size_t Bytes>
bool is_set(const std::uint8_t (&bytes)[Bytes]) {
    return std::any_of(std::begin(bytes), std::end(bytes), [](auto byte) { return byte != 0; });
}

void print_addresses(text_writer& out, const scc_records_config& config) {
    if ((config.flags & SCC_RECORDS_HAS_IPV4) != 0 || config.ipv4 != 0) {
        out.add(" ip ");
        out.add_ip(AF_INET, reinterpret_cast<const std::uint8_t*>(&config.ipv4));
    }
    if ((config.flags & SCC_RECORDS_HAS_IPV6) != 0 || is_set(config.ipv6)) {
        out.add(" ipv6 ");
        out.add_ip(AF_INET6, config.ipv6);
    }
    if ((config.flags & SCC_RECORDS_HAS_MASK) != 0 || is_set(config.mask)) {
        const bool is_ipv6 =
            (config.flags & (SCC_RECORDS_HAS_IPV4 | SCC_RECORDS_HAS_IPV6)) == SCC_RECORDS_HAS_IPV6 ||
            std::any_of(config.mask + 4, std::end(config.mask), [](auto byte) { return byte != 0; });
        out.add(" mask ");
        out.add_ip(is_ipv6 ? AF_INET6 : AF_INET, config.mask);
    }
}

void print_config(text_writer& out, const scc_records_config& config) {
    const auto add = [&](const char* name, std::uint32_t value) {
        if (value != 0) {
            out.add(" %s %u", name, value);
        }
    };
    out.add("ifx %u", config.ifx);
    add("vid", config.vid);
    if (is_set(config.mac)) {
        out.add(" mac ");
        out.add_mac(config.mac);
    }
    add("app-type", config.app_type);
    add("value", config.value);
    const auto* known =
        std::find_if(std::begin(operations), std::end(operations),
                     [&](const operation_name& each) { return each.number == config.operation; });
    if (known != std::end(operations)) {
        out.add(" operation %s", known->name.data());
    } else {
        add("operation", config.operation);
    }
    print_addresses(out, config);
}

}  // namespace
}  // namespace scc::records

namespace records = scc::records;

uint32_t scc_records_encode_config(const scc_records_config* config, scc_config_record* record,
                                   scc_records_error* error) {
    const std::uint32_t result = records::check(config, record, error);
    return result != records::result_ok ? result : records::copy(config, record);
}

uint32_t scc_records_encode_user(const scc_records_config* config, scc_user_record* record,
                                 scc_records_error* error) {
    const std::uint32_t result = records::check(config, record, error);
    if (result != records::result_ok) {
        return result;
    }
    if (config->operation == 0) {
        return records::refuse(error, "a user's operation is 1 to 3");
    }
    return records::copy(config, record);
}

uint32_t scc_records_decode_config(const scc_config_record* record, scc_records_config* config) {
    return records::copy(record, config);
}

uint32_t scc_records_decode_user(const scc_user_record* record, scc_records_config* config) {
    return records::copy(record, config);
}

uint32_t scc_records_parse_config(const char* text, scc_records_config* config, scc_records_error* error) {
    if (text == nullptr || config == nullptr) {
        return records::refuse(error, "a null pointer");
    }
    records::word_reader words(text, error);
    scc_records_config read{};
    unsigned given = 0;
    do {
        records::take_field(words, read, given);
    } while (!words.failed() && !words.done());
    if (words.failed()) {
        return records::result_invalid;
    }
    *config = read;
    return records::result_ok;
}

size_t scc_records_print_config(const scc_records_config* config, char* buffer, size_t size) {
    records::text_writer out(buffer, size);
    if (config != nullptr) {
        records::print_config(out, *config);
    }
    return out.length();
}

uint32_t scc_records_encode_application(const scc_records_application* application,
                                        scc_acl_apply_record* record, scc_records_error* error) {
    const std::uint32_t result = records::check_place(application, record, error);
    if (result != records::result_ok) {
        return result;
    }
    if (application->apply_type > records::app_type_max) {
        return records::refuse(error, "an apply type is 0 to 58");
    }
    return records::copy(application, record);
}

uint32_t scc_records_decode_application(const scc_acl_apply_record* record,
                                        scc_records_application* application) {
    return records::copy(record, application);
}

uint32_t scc_records_encode_user_acl(const scc_records_user_acl* user, scc_user_acl_record* record,
                                     scc_records_error* error) {
    const std::uint32_t result = records::check_place(user, record, error);
    return result != records::result_ok ? result : records::copy(user, record);
}

uint32_t scc_records_decode_user_acl(const scc_user_acl_record* record, scc_records_user_acl* user) {
    return records::copy(record, user);
}

uint32_t scc_records_decode_arp_user(const scc_arp_check_entry* record, scc_records_arp_user* user) {
    return records::copy(record, user);
}

uint32_t scc_records_set_vlan(scc_vlan_record* record, uint32_t vlan, int member) {
    if (record == nullptr || vlan >= sizeof record->bytes * 8) {
        return records::result_invalid;
    }
    const unsigned bit = 1u << vlan % 8;
    std::uint8_t& byte = record->bytes[vlan / 8];
    byte = static_cast<std::uint8_t>(member != 0 ? byte | bit : byte & ~bit);
    return records::result_ok;
}

int scc_records_has_vlan(const scc_vlan_record* record, uint32_t vlan) {
    if (record == nullptr || vlan >= sizeof record->bytes * 8) {
        return 0;
    }
    return (record->bytes[vlan / 8] >> vlan % 8) & 1;
}
