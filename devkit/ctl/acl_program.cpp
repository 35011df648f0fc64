// The commands for whole ACLs: those of files, and those that the daemon holds.
#include <fmt/format.h>

#include <algorithm>
#include <memory>

#include "ace_text.h"
#include "acl_daemon.h"
#include "acl_load.h"
#include "acl_steps.h"
#include "common/counted.h"
#include "common/number_option.h"
#include "msg/protocol.h"
#include "program.h"

namespace scc::ctl {
namespace {

struct acl_options {
    std::string file;
    std::string save_to;
    bool progress = false;
    bool check = false;
    bool replace = false;
    std::uint32_t acl_id = 0;  // 0: every ACL
    std::uint32_t app_type = 0;
};

int fail(const daemon_acls& read, std::string_view command, const context& within) {
    print_problem(command, read.problem, within.output);
    return read.unreachable ? exit_unreachable : exit_refused;
}

int report_checked(const acl_options& own, const acl_file& file, const context& within) {
    if (within.output.as_json) {
        print(json{{"command", "acl load"}, {"file", own.file}, {"requests", file.size()}, {"sent", 0}},
              within.output);
    } else {
        print(json(fmt::format("{}: no faulty line, {}, nothing sent", own.file,
                               devkit::counted(file.size(), "request"))),
              within.output);
    }
    return exit_success;
}

int load(const acl_options& own, context& within) {
    const auto file = read_acl_file(own.file, within.output);
    if (!file) {
        return exit_usage;
    }
    if (own.check) {
        return report_checked(own, *file, within);
    }
    return with_session(within, "acl load", [&](session& registered) {
        if (own.replace) {
            return replace_acls(own.file, *file, own.progress, registered, within.output);
        }
        const int status = load_acl_file(own.file, *file, own.progress, registered, within.output);
        if (status == exit_unreachable || own.save_to.empty()) {
            return status;
        }
        return std::max(status, save_acl_file(own.save_to, registered, within.output));
    });
}

int diff(const acl_options& own, const context& within) {
    const auto file = read_acl_file(own.file, within.output);
    if (!file) {
        return exit_usage;
    }
    const daemon_acls present = read_daemon_acls();
    if (!present.acls) {
        return fail(present, "acl diff", within);
    }
    const std::vector<acl_step> steps = steps_between(*present.acls, *file);
    json changes = json::array();
    for (const acl_step& each : steps) {
        changes.push_back(step_text(each));
        if (!within.output.as_json) {
            print(changes.back(), within.output);
        }
    }
    if (within.output.as_json) {
        print({{"command", "acl diff"}, {"file", own.file}, {"changes", changes}}, within.output);
    }
    return steps.empty() ? exit_success : exit_refused;
}

json shown(const file_acl& acl, const acl_file& within) {
    json made = {{"acl", acl.key.acl_id},   {"type", acl.key.app_type}, {"class", acl.key.acl_class},
                 {"vdev", acl.key.vdev_id}, {"aces", json::array()},    {"applications", json::array()}};
    for (const file_ace& each : acl.aces) {
        const auto text = ace::print_ace(each.record);
        made["aces"].push_back(
            {{"sn", each.record.sn}, {"id", each.record.ace_id}, {"rule", text ? json(*text) : json()}});
    }
    for (const file_application& each : within.applications) {
        scc_records_application where{};
        (void)scc_records_decode_application(&each.record, &where);
        if (name_of(where.key) == name_of(acl.key)) {
            made["applications"].push_back({{"ifx", where.ifx},
                                            {"direction", where.direction == 0 ? "in" : "out"},
                                            {"apply_type", where.apply_type}});
        }
    }
    return made;
}

void print_acls(const acl_file& acls, const context& within) {
    if (within.output.as_json) {
        json list = json::array();
        for (const file_acl& each : acls.acls) {
            list.push_back(shown(each, acls));
        }
        return print({{"acls", list}}, within.output);
    }
    std::string text = print_acl_file(acls);
    if (!text.empty()) {
        text.pop_back();  // print() ends the line
    }
    print(json(acls.acls.empty() ? "the daemon holds no ACL" : text), within.output);
}

int list(const acl_options& own, const context& within) {
    daemon_acls read = read_daemon_acls();
    if (!read.acls) {
        return fail(read, "acl list", within);
    }
    const auto is_other = [&](const scc_acl_key& key) {
        return (own.acl_id != 0 && key.acl_id != own.acl_id) ||
               (own.app_type != 0 && key.app_type != own.app_type);
    };
    std::erase_if(read.acls->acls, [&](const file_acl& each) { return is_other(each.key); });
    std::erase_if(read.acls->applications,
                  [&](const file_application& each) { return is_other(each.record.key); });
    if (own.acl_id != 0 && read.acls->acls.empty()) {
        print_problem("acl list", fmt::format("the daemon holds no ACL {}", own.acl_id), within.output);
        return exit_refused;
    }
    print_acls(*read.acls, within);
    return exit_success;
}

class acl_group {
  public:
    acl_group(CLI::App& app, context& within, std::function<int()>& action)
        : group_(*app.get_subcommand("acl")), within_(within), action_(action) {}

    template <typename Run>
    CLI::App& add(const std::string& name, const std::string& help, Run run) {
        group_.description(group_.get_description() + ", " + name);
        CLI::App* made = group_.add_subcommand(name, help);
        made->callback([this_action = &action_, own = options_, in = &within_, run] {
            *this_action = [own, in, run] { return run(*own, *in); };
        });
        return *made;
    }
    [[nodiscard]] acl_options& options() { return *options_; }

  private:
    CLI::App& group_;
    context& within_;
    std::function<int()>& action_;
    std::shared_ptr<acl_options> options_ = std::make_shared<acl_options>();
};

void add_load(acl_group& group) {
    CLI::App& app = group.add("load", "create, fill and apply the ACLs of a file", &load);
    app.add_option("file", group.options().file, "a file of ACLs")->required()->type_name("FILE");
    app.add_flag("--progress", group.options().progress, "draw a bar when standard error is a terminal");
    CLI::Option* const save =
        app.add_option("--then-save", group.options().save_to, "write what the cache then holds")
            ->type_name("FILE");
    CLI::Option* const check =
        app.add_flag("--check", group.options().check, "send nothing: tell the faulty lines");
    CLI::Option* const replace =
        app.add_flag("--replace", group.options().replace,
                     "turn the daemon's ACLs of these names into the file's, all or nothing");
    // The cache has only what this process created.
    save->excludes(check)->excludes(replace);
    check->excludes(replace);
    app.footer("Example: sccctl acl load campus.acl --replace");
}

}  // namespace

void add_acl_commands(CLI::App& app, context& within, std::function<int()>& action) {
    acl_group group(app, within, action);
    add_load(group);

    CLI::App& difference =
        group.add("diff", "show what 'acl load --replace' would change; status 1 if anything", &diff);
    difference.add_option("file", group.options().file, "a file of ACLs")->required()->type_name("FILE");
    difference.footer("Exit status 0: no difference, 1: differences.\nExample: sccctl acl diff campus.acl");

    CLI::App& listing = group.add("list", "show the ACLs that the daemon holds, as a file of ACLs", &list);
    listing.add_option("acl", group.options().acl_id, "ACL id; every ACL unless given")
        ->transform(devkit::number_within(1, limits::acl_id_max))
        ->type_name("N");
    listing.add_option("--type", group.options().app_type, "application type; every type unless given")
        ->transform(devkit::number_within(1, limits::app_type_max))
        ->type_name("N");
    listing.footer("Example: sccctl acl list 101");

    // The cache belongs to the process, so a single command would find it empty.
    if (within.shared != nullptr) {
        CLI::App& save = group.add("save", "write the ACLs of this shell's cache to a file",
                                   [](const acl_options& own, const context& in) {
                                       return save_acl_file(own.file, *in.shared, in.output);
                                   });
        save.add_option("file", group.options().file, "a file of ACLs")->required()->type_name("FILE");
    }
}

}  // namespace scc::ctl
