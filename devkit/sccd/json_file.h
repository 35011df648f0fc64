// Reads a JSON file that a user names. Every problem is one line with the file's name and the place.
#pragma once

#include <optional>
#include <string>

#include "sccd/json_fields.h"

namespace scc::sccd {

// Null if the line or text is not JSON, or nested so deeply that copying it, which takes stack for each
// level, could crash the daemon; `problem`, if not null, then says why.
[[nodiscard]] json parse_json(const std::string& text, std::string* problem);

// Empty if there is no such file. Throws std::runtime_error for anything but a regular file with JSON in it.
[[nodiscard]] std::optional<json> read_json_file(const std::string& path);

}  // namespace scc::sccd
