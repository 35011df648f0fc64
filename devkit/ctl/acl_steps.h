// Changes to the daemon's ACLs, one request each: what loading a file takes, and what turns the ACLs that the
// daemon holds into those of a file. Stateless; main thread only, except step_text.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "acl_book.h"
#include "acl_file.h"

namespace scc::ctl {

// Made of key and ace, or of key and application.
struct acl_step {
    enum class kind : std::uint8_t { create, add_ace, apply, unapply, delete_ace, remove };
    kind what = kind::create;
    unsigned line = 0;  // of the file; 0 if no line of it asks for the step
    scc_acl_key key{};
    scc_ace_record ace{};
    scc_acl_apply_record application{};
};

// Creates, fills and applies everything in the file.
[[nodiscard]] std::vector<acl_step> steps_of(const acl_file& file);

// Turns the file's ACLs, as `present` has them, into what the file says. ACLs that the file does not name
// stay as they are; so do the ACEs that are already right, with their counters.
[[nodiscard]] std::vector<acl_step> steps_between(const acl_file& present, const acl_file& wanted);

// The step that takes another back.
[[nodiscard]] acl_step inverse(const acl_step& step);

// Sends the step's request. Returns the library's result.
[[nodiscard]] std::uint32_t send(const acl_step& step, std::uint32_t* call_id);
// Enters a confirmed step in the book.
void note(acl_book& book, const acl_step& step);

// One line, "+ ..." or "- ...", with the words of a file of ACLs.
[[nodiscard]] std::string step_text(const acl_step& step);

}  // namespace scc::ctl
