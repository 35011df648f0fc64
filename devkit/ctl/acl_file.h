// The text file of ACLs; docs/acl-file.md is its manual.
//
//   file  := line*                       "#" begins a comment, empty lines are skipped
//   line  := "acl" ID ["type" N] ["class" N] ["vdev" N]       begins an ACL
//          | [SN] rule ["id" N]                               an ACE of the ACL above (scc_records.h)
//          | SN "raw" HEX ["id" N]                            an ACE byte by byte, from record offset 16 on
//          | "remark" TEXT                                    the remark of the ACE below
//          | "time-range" NAME [days] HH:MM-HH:MM             what "time-range" NAME stands for below
//          | "apply" ID ["type" N] ["vdev" N] "ifx" N ["direction" "in"|"out"] ["apply-type" N]
//
// An apply line without "type" and "vdev" takes them from the file's only ACL with that id. An ACE without
// a sequence number gets the next multiple of 10. Stateless; any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "scclib.h"

namespace scc::ctl {

struct file_ace {
    unsigned line = 0;
    scc_ace_record record{};
};

struct file_acl {
    unsigned line = 0;
    scc_acl_key key{};
    std::vector<file_ace> aces;
};

struct file_application {
    unsigned line = 0;
    scc_acl_apply_record record{};
};

struct acl_file {
    std::vector<file_acl> acls;
    std::vector<file_application> applications;

    // The number of requests that loading it takes.
    [[nodiscard]] std::size_t size() const;
};

struct file_error {
    unsigned line = 0;    // from 1
    unsigned column = 0;  // in bytes, from 1
    std::string text;
};

// Parses a file's text. On failure `errors` lists every faulty line.
[[nodiscard]] std::optional<acl_file> parse_acl_file(std::string_view text, std::vector<file_error>& errors);
// The lines of an ACL and of an application, without an end of line.
[[nodiscard]] std::string acl_line_text(const scc_acl_key& key);
[[nodiscard]] std::string ace_line_text(const scc_ace_record& record);
[[nodiscard]] std::string apply_line_text(const scc_acl_apply_record& record);

// Prints a text that parse_acl_file turns back into the same ACLs.
[[nodiscard]] std::string print_acl_file(const acl_file& from);

}  // namespace scc::ctl
