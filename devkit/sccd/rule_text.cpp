#include "sccd/rule_text.h"

#include <cstring>

#include "ace_text.h"

namespace scc::sccd {

static_assert(sizeof(scc_ace_record) == record::ace);

std::optional<std::string> rule_text(devkit::byte_view bytes) {
    scc_ace_record record{};
    if (bytes.size() != sizeof record) {
        return std::nullopt;
    }
    std::memcpy(&record, bytes.data(), sizeof record);
    return ace::print_ace(record);
}

std::optional<devkit::byte_buffer> parse_rule_text(const std::string& text, std::string& problem) {
    const std::optional<scc_ace_record> record = ace::parse_ace(text, problem);
    if (!record) {
        return std::nullopt;
    }
    devkit::byte_buffer bytes(sizeof *record);
    std::memcpy(bytes.data(), &*record, sizeof *record);
    return bytes;
}

}  // namespace scc::sccd
