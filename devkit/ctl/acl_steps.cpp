#include "acl_steps.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <map>

namespace scc::ctl {
namespace {

using kind = acl_step::kind;
using ace_group = std::vector<const file_ace*>;
using ace_groups = std::map<std::uint32_t, ace_group>;  // by sequence number

acl_step acl_change(kind what, unsigned line, const scc_acl_key& key) {
    acl_step step;
    step.what = what;
    step.line = line;
    step.key = key;
    return step;
}

acl_step ace_change(kind what, const file_ace& ace, const scc_acl_key& key) {
    acl_step step = acl_change(what, ace.line, key);
    step.ace = ace.record;
    return step;
}

acl_step application_change(kind what, const file_application& application) {
    acl_step step = acl_change(what, application.line, application.record.key);
    step.application = application.record;
    return step;
}

const file_acl* find_acl(const acl_file& within, const scc_acl_key& key) {
    const auto found = std::find_if(within.acls.begin(), within.acls.end(),
                                    [&](const file_acl& each) { return name_of(each.key) == name_of(key); });
    return found == within.acls.end() ? nullptr : &*found;
}

// The library replaces an apply type of 0 by the ACL's type; the class takes no part.
scc_acl_apply_record place_of(scc_acl_apply_record record) {
    record.apply_type = record.apply_type == 0 ? record.key.app_type : record.apply_type;
    record.key.acl_class = 0;
    return record;
}

bool is_applied(const acl_file& within, const scc_acl_apply_record& record) {
    const scc_acl_apply_record wanted = place_of(record);
    return std::any_of(within.applications.begin(), within.applications.end(), [&](const auto& each) {
        const scc_acl_apply_record place = place_of(each.record);
        return std::memcmp(&place, &wanted, sizeof place) == 0;
    });
}

// The steps for those applications of one ACL that the other file does not have.
void add_applications(std::vector<acl_step>& steps, kind what, const acl_file& of, const scc_acl_key& key,
                      const acl_file& unless_in) {
    for (const file_application& each : of.applications) {
        if (name_of(each.record.key) == name_of(key) && !is_applied(unless_in, each.record)) {
            steps.push_back(application_change(what, each));
        }
    }
}

ace_groups groups_of(const file_acl& acl) {
    ace_groups groups;
    for (const file_ace& each : acl.aces) {
        groups[each.record.sn].push_back(&each);
    }
    return groups;
}

bool same_ace(const file_ace* a, const file_ace* b) {
    scc_ace_record first = a->record;
    scc_ace_record second = b->record;
    first.link = second.link = {};
    return std::memcmp(&first, &second, sizeof first) == 0;
}

// ACEs that share a number match in the order of their addition, so they are compared and replaced together.
bool has_group(const ace_groups& groups, std::uint32_t sn, const ace_group& wanted) {
    const auto found = groups.find(sn);
    return found != groups.end() &&
           std::equal(found->second.begin(), found->second.end(), wanted.begin(), wanted.end(), same_ace);
}

void add_groups(std::vector<acl_step>& steps, kind what, const file_acl& of, const ace_groups& unless_in) {
    for (const auto& [sn, group] : groups_of(of)) {
        if (has_group(unless_in, sn, group)) {
            continue;
        }
        for (const file_ace* each : group) {
            steps.push_back(ace_change(what, *each, of.key));
        }
    }
}

void add_whole(std::vector<acl_step>& steps, const file_acl& acl) {
    steps.push_back(acl_change(kind::create, acl.line, acl.key));
    for (const file_ace& each : acl.aces) {
        steps.push_back(ace_change(kind::add_ace, each, acl.key));
    }
}

void remove_whole(std::vector<acl_step>& steps, const file_acl& acl) {
    for (const file_ace& each : acl.aces) {
        steps.push_back(ace_change(kind::delete_ace, each, acl.key));
    }
    steps.push_back(acl_change(kind::remove, acl.line, acl.key));
}

void replace(std::vector<acl_step>& steps, const acl_file& present, const file_acl& was,
             const acl_file& wanted, const file_acl& acl) {
    // The class of an ACL is given once, when it is created.
    if (was.key.acl_class != acl.key.acl_class) {
        add_applications(steps, kind::unapply, present, was.key, {});
        remove_whole(steps, was);
        add_whole(steps, acl);
        return add_applications(steps, kind::apply, wanted, acl.key, {});
    }
    add_applications(steps, kind::unapply, present, acl.key, wanted);
    add_groups(steps, kind::delete_ace, was, groups_of(acl));
    add_groups(steps, kind::add_ace, acl, groups_of(was));
    add_applications(steps, kind::apply, wanted, acl.key, present);
}

}  // namespace

std::vector<acl_step> steps_of(const acl_file& file) {
    std::vector<acl_step> steps;
    steps.reserve(file.size());
    for (const file_acl& acl : file.acls) {
        add_whole(steps, acl);
    }
    for (const file_application& each : file.applications) {
        steps.push_back(application_change(kind::apply, each));
    }
    return steps;
}

std::vector<acl_step> steps_between(const acl_file& present, const acl_file& wanted) {
    std::vector<acl_step> steps;
    for (const file_acl& acl : wanted.acls) {
        if (const file_acl* was = find_acl(present, acl.key)) {
            replace(steps, present, *was, wanted, acl);
        } else {
            add_whole(steps, acl);
            add_applications(steps, kind::apply, wanted, acl.key, {});
        }
    }
    // ACLs that the file applies without describing them.
    for (const file_application& each : wanted.applications) {
        if (find_acl(wanted, each.record.key) == nullptr && !is_applied(present, each.record)) {
            steps.push_back(application_change(kind::apply, each));
        }
    }
    return steps;
}

acl_step inverse(const acl_step& step) {
    constexpr kind opposite[] = {kind::remove, kind::delete_ace, kind::unapply,
                                 kind::apply,  kind::add_ace,    kind::create};
    acl_step back = step;
    back.what = opposite[static_cast<std::size_t>(step.what)];
    return back;
}

std::uint32_t send(const acl_step& step, std::uint32_t* call_id) {
    scc_acl_apply_record application = step.application;  // the library may complete the apply type
    switch (step.what) {
        case kind::create:
            return scc_acl_create(&step.key, call_id);
        case kind::add_ace:
            return scc_acl_add_ace(&step.key, &step.ace, call_id);
        case kind::apply:
            return scc_acl_apply(&application, call_id);
        case kind::unapply:
            return scc_acl_unapply(&application, call_id);
        case kind::delete_ace:
            return scc_acl_delete_ace(&step.key, &step.ace, call_id);
        case kind::remove:
            break;
    }
    return scc_acl_delete(&step.key, call_id);
}

void note(acl_book& book, const acl_step& step) {
    scc_acl_apply_record application = step.application;
    if (application.apply_type == 0) {
        application.apply_type = application.key.app_type;
    }
    switch (step.what) {
        case kind::create:
            return book.created(step.key);
        case kind::add_ace:
            return book.ace_added(step.key, step.ace);
        case kind::apply:
            return book.applied(application);
        case kind::unapply:
            return book.unapplied(application);
        case kind::delete_ace:
            return book.ace_deleted(step.key, step.ace);
        case kind::remove:
            break;
    }
    book.deleted(step.key);
}

std::string step_text(const acl_step& step) {
    switch (step.what) {
        case kind::create:
        case kind::remove:
            return (step.what == kind::create ? "+ " : "- ") + acl_line_text(step.key);
        case kind::add_ace:
        case kind::delete_ace:
            return fmt::format("{} acl {} type {}: {}", step.what == kind::add_ace ? '+' : '-',
                               step.key.acl_id, step.key.app_type, ace_line_text(step.ace));
        case kind::apply:
        case kind::unapply:
            break;
    }
    return (step.what == kind::apply ? "+ " : "- ") + apply_line_text(step.application);
}

}  // namespace scc::ctl
