#include "acl_daemon.h"

#include <cstring>

#include "ace_text.h"
#include "common/bytes.h"
#include "common/control.h"
#include "common/control_client.h"

namespace scc::ctl {
namespace {

// A record from its bytes in hexadecimal pairs. False if they do not fit.
template <typename Record>
bool fill(Record& record, const std::string& hex) {
    const auto bytes = devkit::parse_hex(hex);
    if (!bytes || bytes->size() != sizeof record) {
        return false;
    }
    std::memcpy(&record, bytes->data(), sizeof record);
    return true;
}

// "bytes" is there when the other fields do not give the whole record, "rule" when it holds one.
std::optional<scc_ace_record> ace_of(const json& shown) {
    scc_ace_record record{};
    if (shown.contains("bytes")) {
        const bool is_whole = fill(record, shown.at("bytes").get<std::string>());
        record.link = {};
        return is_whole ? std::optional(record) : std::nullopt;
    }
    if (shown.contains("rule")) {
        std::string error;
        return ace::parse_ace(shown.at("rule").get<std::string>(), error);
    }
    record.sn = shown.at("sn").get<std::uint32_t>();
    record.ace_id = shown.at("id").get<std::uint32_t>();
    return record;
}

std::optional<scc_acl_apply_record> application_of(const json& shown, const scc_acl_key& key) {
    scc_acl_apply_record record{};
    if (shown.contains("bytes")) {
        const bool is_whole = fill(record, shown.at("bytes").get<std::string>());
        record.key = key;
        return is_whole ? std::optional(record) : std::nullopt;
    }
    scc_records_application from{};
    from.key = key;
    from.ifx = shown.at("ifx").get<std::uint32_t>();
    from.direction = shown.at("direction").get<std::uint32_t>();
    from.apply_type = shown.at("apply_type").get<std::uint32_t>();
    const bool fits = scc_records_encode_application(&from, &record, nullptr) == 0;
    return fits ? std::optional(record) : std::nullopt;
}

// False if an entry is malformed.
bool add_acl(const json& shown, acl_file& into) {
    file_acl acl;
    acl.key = {shown.at("vdev").get<std::uint32_t>(), shown.at("type").get<std::uint32_t>(),
               shown.at("id").get<std::uint32_t>(), shown.at("class").get<std::uint32_t>()};
    for (const json& each : shown.at("aces")) {
        const auto record = ace_of(each);
        if (!record) {
            return false;
        }
        acl.aces.push_back({0, *record});
    }
    for (const json& each : shown.at("applies")) {
        const auto record = application_of(each, acl.key);
        if (!record) {
            return false;
        }
        into.applications.push_back({0, *record});
    }
    into.acls.push_back(std::move(acl));
    return true;
}

}  // namespace

std::optional<acl_file> acls_of_reply(const json& reply) try {
    acl_file file;
    for (const json& each : reply.at("acls")) {
        if (!add_acl(each, file)) {
            return std::nullopt;
        }
    }
    return file;
} catch (const json::exception&) {
    return std::nullopt;
}

daemon_acls read_daemon_acls() {
    const json reply = devkit::control_call({{"do", devkit::control::acls}});
    daemon_acls read;
    if (!reply.value("ok", false)) {
        read.problem = reply.value("error", std::string("the daemon gave no reason"));
        read.unreachable = reply.value("unreachable", false);
        return read;
    }
    read.acls = acls_of_reply(reply);
    if (!read.acls) {
        read.problem = "the daemon's answer is malformed";
    }
    return read;
}

}  // namespace scc::ctl
