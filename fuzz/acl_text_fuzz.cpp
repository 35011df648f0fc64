// The text of rules, ACEs and ACL files: what is printed parses back to the same value, which prints as the
// same text. The first byte chooses what the rest is.
#include <cstring>
#include <string>
#include <string_view>

#include "ace/ace_text.h"
#include "ctl/acl_file.h"
#include "support/fail.h"
#include "support/input.h"

using namespace scc;
using namespace scc::fuzz;

namespace {

void check_rule(const ace::rule& rule) {
    const std::string text = ace::print_rule(rule);
    std::string error;
    const auto again = ace::parse_rule(text, error);
    FUZZ_EXPECT(again.has_value());
    FUZZ_EXPECT(*again == rule);
    scc_ace_record record{};
    ace::encode(rule, record);
    const auto decoded = ace::decode(record);
    FUZZ_EXPECT(decoded.has_value() && *decoded == rule);
}

void check_ace(const scc_ace_record& record) {
    const auto text = ace::print_ace(record);
    FUZZ_EXPECT(text.has_value());
    std::string error;
    const auto again = ace::parse_ace(*text, error);
    FUZZ_EXPECT(again.has_value());
    FUZZ_EXPECT(std::memcmp(&*again, &record, sizeof record) == 0);
}

bool same(const scc_acl_key& a, const scc_acl_key& b) {
    return std::memcmp(&a, &b, sizeof a) == 0;
}

// An apply type of 0 stands for the key's type.
scc_acl_apply_record with_its_type(scc_acl_apply_record record) {
    if (record.apply_type == 0) {
        record.apply_type = record.key.app_type;
    }
    return record;
}

void check_file(const ctl::acl_file& file) {
    const std::string text = ctl::print_acl_file(file);
    std::vector<ctl::file_error> errors;
    const auto again = ctl::parse_acl_file(text, errors);
    FUZZ_EXPECT(again.has_value());
    FUZZ_EXPECT(again->acls.size() == file.acls.size() && again->size() == file.size());
    for (std::size_t i = 0; i < file.acls.size(); ++i) {
        FUZZ_EXPECT(same(again->acls[i].key, file.acls[i].key));
        FUZZ_EXPECT(again->acls[i].aces.size() == file.acls[i].aces.size());
        for (std::size_t j = 0; j < file.acls[i].aces.size(); ++j) {
            FUZZ_EXPECT(std::memcmp(&again->acls[i].aces[j].record, &file.acls[i].aces[j].record,
                                    sizeof(scc_ace_record)) == 0);
        }
    }
    for (std::size_t i = 0; i < file.applications.size(); ++i) {
        const auto before = with_its_type(file.applications[i].record);
        const auto after = with_its_type(again->applications[i].record);
        FUZZ_EXPECT(std::memcmp(&before, &after, sizeof before) == 0);
    }
    FUZZ_EXPECT(ctl::print_acl_file(*again) == text);
}

// Bytes as another program might have written them.
void check_record(std::span<const u8> bytes) {
    scc_ace_record record{};
    constexpr std::size_t first = offsetof(scc_ace_record, match);
    std::memcpy(reinterpret_cast<u8*>(&record) + first, bytes.data(),
                std::min(bytes.size(), sizeof record - first));
    if (bytes.size() < sizeof(u32) || bytes[0] % 4 != 0) {
        const u32 marker = ace::layout_marker;
        std::memcpy(reinterpret_cast<u8*>(&record) + first, &marker, sizeof marker);
    }
    if (const auto rule = ace::decode(record)) {
        check_rule(*rule);
    }
    ctl::acl_file file;
    file.acls.push_back({1, {0, 1, 1, 0}, {{2, record}}});
    check_file(file);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const u8* data, std::size_t size) {
    input from(data, size);
    const u8 what = from.byte();
    const auto rest = from.rest();
    const std::string_view text(reinterpret_cast<const char*>(rest.data()), rest.size());
    std::string error;
    switch (what % 4) {
        case 0:
            if (const auto rule = ace::parse_rule(text, error)) {
                check_rule(*rule);
            } else {
                FUZZ_EXPECT(!error.empty());
            }
            break;
        case 1:
            if (const auto record = ace::parse_ace(text, error)) {
                check_ace(*record);
            } else {
                FUZZ_EXPECT(!error.empty());
            }
            break;
        case 2: {
            std::vector<ctl::file_error> errors;
            if (const auto file = ctl::parse_acl_file(text, errors)) {
                check_file(*file);
            } else {
                FUZZ_EXPECT(!errors.empty());
            }
            break;
        }
        default:
            if (!rest.empty()) {
                check_record(rest);
            }
            break;
    }
    return 0;
}
