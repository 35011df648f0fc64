// Loading a file of ACLs through one registration, and saving what the cache then holds.
#pragma once

#include <string>

#include "acl_file.h"
#include "output.h"
#include "session.h"

namespace scc::ctl {

// Reads the file's ACLs. Faulty lines are printed as "FILE:LINE: text"; then the result is empty.
[[nodiscard]] std::optional<acl_file> read_acl_file(const std::string& name, const output_options& output);

// Creates, fills and applies everything in the file, many requests under way at once. Requests that the
// daemon refuses are printed with their lines; the others take place. Returns an exit status.
[[nodiscard]] int load_acl_file(const std::string& name, const acl_file& file, bool progress, session& within,
                                const output_options& output);

// Writes the ACLs of this process's cache and its applications. Returns an exit status.
[[nodiscard]] int save_acl_file(const std::string& name, session& within, const output_options& output);

}  // namespace scc::ctl
