// Bulk loading and saving of ACLs.
#include "acl_load.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <utility>
#include <vector>

#include "acl_daemon.h"
#include "acl_steps.h"
#include "common/counted.h"

namespace scc::ctl {
namespace {

// Outstanding requests: enough to fill batches, few enough to keep the errors of a failure readable.
constexpr std::size_t window = 512;
constexpr std::size_t bar_columns = 40;

// Redraws one line of a terminal. Silent unless it was asked for and standard error is a terminal.
class progress_bar {
  public:
    progress_bar(bool wanted, std::size_t total)
        : drawn_(wanted && isatty(STDERR_FILENO) == 1), total_(total) {}
    ~progress_bar() {
        if (drawn_) {
            std::fputc('\n', stderr);
        }
    }
    progress_bar(const progress_bar&) = delete;
    progress_bar& operator=(const progress_bar&) = delete;

    void show(std::size_t done) {
        const std::size_t percent = total_ == 0 ? 100 : 100 * done / total_;
        if (!drawn_ || percent == shown_percent_) {
            return;
        }
        shown_percent_ = percent;
        const std::size_t filled = bar_columns * percent / 100;
        fmt::print(stderr, "\r[{:#<{}}{:.<{}}] {:3}% {}/{}", "", filled, "", bar_columns - filled, percent,
                   done, total_);
        std::fflush(stderr);
    }

    // Erases the bar, so that another line can be printed; the next show() draws it again.
    void hide() {
        if (!drawn_ || shown_percent_ > 100) {
            return;
        }
        fmt::print(stderr, "\r\033[K");
        std::fflush(stderr);
        shown_percent_ = 101;
    }

  private:
    bool drawn_;
    std::size_t total_;
    std::size_t shown_percent_ = 101;
};

std::string result_text(std::uint32_t result) {
    return fmt::format("{} ({})", scc_strerror(static_cast<std::int32_t>(result)), result);
}

enum class on_refusal : std::uint8_t { go_on, take_back };

class loader {
  public:
    loader(const std::string& name, std::vector<acl_step> steps, on_refusal then, bool progress,
           session& within, const output_options& output)
        : name_(name),
          steps_(std::move(steps)),
          on_refusal_(then),
          bar_(progress, steps_.size()),
          session_(within),
          output_(output) {}

    int run() {
        if (!carry_out(steps_)) {
            return unreachable();
        }
        if (failed_ != 0 && on_refusal_ == on_refusal::take_back && !take_back()) {
            return unreachable();
        }
        return failed_ == 0 ? exit_success : exit_refused;
    }

    [[nodiscard]] json summary() const {
        json made = {{"command", "acl load"},
                     {"file", name_},
                     {"requests", steps_.size()},
                     {"done", done_.size()},
                     {"failed", failed_}};
        if (on_refusal_ == on_refusal::take_back) {
            made["taken_back"] = taken_back_;
        }
        return made;
    }

    [[nodiscard]] std::string summary_text() const {
        if (on_refusal_ == on_refusal::go_on) {
            return fmt::format("{}: {} of {} done", name_, done_.size(),
                               devkit::counted(steps_.size(), "request"));
        }
        if (failed_ == 0) {
            return fmt::format("{}: {} made", name_, devkit::counted(done_.size(), "change"));
        }
        return fmt::format("{}: nothing changed: {} taken back", name_,
                           devkit::counted(taken_back_, "change"));
    }
    // Whether what was refused could not be taken back as a whole.
    [[nodiscard]] bool is_half_done() const { return not_taken_back_ != 0; }

  private:
    [[nodiscard]] bool gives_up() const {
        return failed_ != 0 && on_refusal_ == on_refusal::take_back && !is_taking_back_;
    }

    // Sends the steps in order, many at once. False if the daemon does not answer.
    bool carry_out(const std::vector<acl_step>& steps) {
        for (const acl_step& each : steps) {
            if (gives_up()) {
                break;
            }
            begin(each);
            if (under_way_.size() >= window && !finish_one()) {
                return false;
            }
        }
        while (!under_way_.empty()) {
            if (!finish_one()) {
                return false;
            }
        }
        return true;
    }

    bool take_back() {
        is_taking_back_ = true;
        std::vector<acl_step> back;
        back.reserve(done_.size());
        // Requests are confirmed in their order, so the last confirmed one is taken back first.
        std::transform(done_.rbegin(), done_.rend(), std::back_inserter(back),
                       [](const acl_step* each) { return inverse(*each); });
        return carry_out(back);
    }

    void begin(const acl_step& each) {
        std::uint32_t call_id = 0;
        const std::uint32_t result = send(each, &call_id);
        if (result == 0) {
            under_way_.emplace(call_id, &each);
        } else {
            finished(each, result);
        }
    }

    bool finish_one() {
        const auto arrived = session_.wait_any_result();
        if (!arrived) {
            return false;
        }
        const auto found = under_way_.extract(arrived->call_id);
        if (found) {
            finished(*found.mapped(), arrived->number);
        }
        return true;
    }

    void finished(const acl_step& each, std::uint32_t result) {
        if (result == 0) {
            note(session_.book(), each);
        }
        if (is_taking_back_) {
            return finished_taking_back(each, result);
        }
        if (result == 0) {
            done_.push_back(&each);
        } else if (++failed_ == 1 || on_refusal_ == on_refusal::go_on) {
            // Steps that were under way fail for lack of the first one.
            bar_.hide();
            const std::string place = each.line == 0 ? name_ : fmt::format("{}:{}", name_, each.line);
            const std::string step = each.line == 0 ? step_text(each) + ": " : "";
            print_problem(place, step + result_text(result), output_);
        }
        bar_.show(done_.size() + failed_);
    }

    void finished_taking_back(const acl_step& each, std::uint32_t result) {
        if (result == 0) {
            ++taken_back_;
            return;
        }
        ++not_taken_back_;
        bar_.hide();
        print_problem(name_,
                      fmt::format("cannot be taken back: {}: {}", step_text(each), result_text(result)),
                      output_);
    }

    int unreachable() {
        bar_.hide();
        std::string problem = session_.problem();
        if (on_refusal_ == on_refusal::take_back) {
            problem += fmt::format("; {} of {} made, {} taken back", done_.size(),
                                   devkit::counted(steps_.size(), "change"), taken_back_);
        }
        print_problem("acl load", problem, output_);
        return exit_unreachable;
    }

    std::string name_;
    std::vector<acl_step> steps_;
    on_refusal on_refusal_;
    progress_bar bar_;
    session& session_;
    output_options output_;
    std::map<std::uint32_t, const acl_step*> under_way_;  // by call id
    std::vector<const acl_step*> done_;                   // in the order of the confirmations
    std::size_t failed_ = 0;
    bool is_taking_back_ = false;
    std::size_t taken_back_ = 0;
    std::size_t not_taken_back_ = 0;
};

int run_steps(const std::string& name, std::vector<acl_step> steps, on_refusal then, bool progress,
              session& within, const output_options& output) {
    json summary;
    std::string text;
    int status = exit_success;
    {
        loader all(name, std::move(steps), then, progress, within, output);
        status = all.run();
        summary = all.summary();
        text = all.is_half_done() ? std::string() : all.summary_text();
    }  // the bar's line ends before the summary begins
    if (status == exit_unreachable) {
        return status;
    }
    if (output.as_json) {
        print(summary, output);
    } else if (!text.empty()) {
        print(json(text), output);
    }
    return status;
}

std::uint32_t add_cached_acl(scc_acl_key key, acl_file& into) {
    if (const std::uint32_t result = scc_acl_cls_get(&key); result != 0) {
        return result;
    }
    std::vector<scc_ace_record> aces;
    if (const std::uint32_t result = read_cached_aces(key, aces); result != 0) {
        return result;
    }
    file_acl acl;
    acl.key = key;
    for (const scc_ace_record& each : aces) {
        acl.aces.push_back({0, each});
    }
    into.acls.push_back(std::move(acl));
    return 0;
}

}  // namespace

std::optional<acl_file> read_acl_file(const std::string& name, const output_options& output) {
    const auto text = text_of_file(name);
    if (!text) {
        print_problem(name, "cannot be read", output);
        return std::nullopt;
    }
    std::vector<file_error> errors;
    auto file = parse_acl_file(*text, errors);
    for (const file_error& each : errors) {
        print_problem(fmt::format("{}:{}:{}", name, each.line, each.column), each.text, output);
    }
    return file;
}

int load_acl_file(const std::string& name, const acl_file& file, bool progress, session& within,
                  const output_options& output) {
    return run_steps(name, steps_of(file), on_refusal::go_on, progress, within, output);
}

int replace_acls(const std::string& name, const acl_file& file, bool progress, session& within,
                 const output_options& output) {
    const daemon_acls present = read_daemon_acls();
    if (!present.acls) {
        print_problem("acl load", present.problem, output);
        return present.unreachable ? exit_unreachable : exit_refused;
    }
    return run_steps(name, steps_between(*present.acls, file), on_refusal::take_back, progress, within,
                     output);
}

int save_acl_file(const std::string& name, session& within, const output_options& output) {
    if (!within.book().settle()) {
        print_problem("acl save", "the cache is not up to date; saving what it holds", output);
    }
    acl_file file;
    for (const scc_acl_key& key : within.book().keys()) {
        const std::uint32_t result = add_cached_acl(key, file);
        if (result == 0) {
            continue;
        }
        print_problem("acl save", scc_strerror(static_cast<std::int32_t>(result)), output);
        return exit_refused;
    }
    for (const scc_acl_apply_record& each : within.book().applications()) {
        file.applications.push_back({0, each});
    }
    std::ofstream stream(name);
    stream << print_acl_file(file) << std::flush;
    if (!stream) {
        print_problem("acl save", fmt::format("{}: {}", name, std::strerror(errno)), output);
        return exit_refused;
    }
    print(output.as_json ? json{{"command", "acl save"}, {"file", name}, {"acls", file.acls.size()}}
                         : json(fmt::format("{}: {} saved", name, devkit::counted(file.acls.size(), "ACL"))),
          output);
    return exit_success;
}

}  // namespace scc::ctl
