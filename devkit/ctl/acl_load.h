// Loads a file of ACLs through one registration, and saves what the cache then holds.
#pragma once

#include <string>

#include "acl_file.h"
#include "output.h"
#include "session.h"

namespace scc::ctl {

// Reads the file's ACLs. If lines are faulty, prints each as "FILE:LINE:COLUMN: text" and returns nothing.
[[nodiscard]] std::optional<acl_file> read_acl_file(const std::string& name, const output_options& output);

// Creates, fills and applies everything in the file, with many requests outstanding at once. Prints the
// requests that the daemon refuses with their lines; the others take effect. Returns an exit status.
[[nodiscard]] int load_acl_file(const std::string& name, const acl_file& file, bool progress, session& within,
                                const output_options& output);

// Turns the file's ACLs on the daemon into what the file says: all of it, or, after a refusal, nothing, by
// taking back what was done. Returns an exit status.
[[nodiscard]] int replace_acls(const std::string& name, const acl_file& file, bool progress, session& within,
                               const output_options& output);

// Writes the ACLs of this process's cache and its applications. Returns an exit status.
[[nodiscard]] int save_acl_file(const std::string& name, session& within, const output_options& output);

}  // namespace scc::ctl
