// Bulk loading and saving of ACLs.
#include "acl_load.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <map>

namespace scc::ctl {
namespace {

// Outstanding requests: enough to fill batches, few enough to keep the errors of a failure readable.
constexpr std::size_t window = 512;
constexpr std::size_t bar_columns = 40;

// One request of the file, made of key and ace, or of application.
struct step {
    enum class kind : std::uint8_t { create, add_ace, apply };
    kind what;
    unsigned line;
    const scc_acl_key* key;
    const scc_ace_record* ace;
    const scc_acl_apply_record* application;
};

std::vector<step> steps_of(const acl_file& file) {
    std::vector<step> steps;
    steps.reserve(file.size());
    for (const file_acl& acl : file.acls) {
        steps.push_back({step::kind::create, acl.line, &acl.key, nullptr, nullptr});
        for (const file_ace& ace : acl.aces) {
            steps.push_back({step::kind::add_ace, ace.line, &acl.key, &ace.record, nullptr});
        }
    }
    for (const file_application& each : file.applications) {
        steps.push_back({step::kind::apply, each.line, &each.record.key, nullptr, &each.record});
    }
    return steps;
}

std::uint32_t send(const step& each, std::uint32_t* call_id) {
    switch (each.what) {
        case step::kind::create:
            return scc_acl_create(each.key, call_id);
        case step::kind::add_ace:
            return scc_acl_add_ace(each.key, each.ace, call_id);
        case step::kind::apply:
            break;
    }
    scc_acl_apply_record record = *each.application;  // the library may complete the apply type
    return scc_acl_apply(&record, call_id);
}

void note(acl_book& book, const step& each) {
    switch (each.what) {
        case step::kind::create:
            return book.created(*each.key);
        case step::kind::add_ace:
            return book.ace_added(*each.key, *each.ace);
        case step::kind::apply:
            break;
    }
    scc_acl_apply_record record = *each.application;
    if (record.apply_type == 0) {
        record.apply_type = record.key.app_type;
    }
    book.applied(record);
}

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

class loader {
  public:
    loader(const std::string& name, const acl_file& file, bool progress, session& within,
           const output_options& output)
        : name_(name),
          steps_(steps_of(file)),
          bar_(progress, steps_.size()),
          session_(within),
          output_(output) {}

    int run() {
        for (const step& each : steps_) {
            begin(each);
            if (under_way_.size() >= window && !finish_one()) {
                return exit_unreachable;
            }
        }
        while (!under_way_.empty()) {
            if (!finish_one()) {
                return exit_unreachable;
            }
        }
        return failed_ == 0 ? exit_success : exit_refused;
    }

    [[nodiscard]] json summary() const {
        return {{"command", "acl load"},
                {"file", name_},
                {"requests", steps_.size()},
                {"done", done_ - failed_},
                {"failed", failed_}};
    }

  private:
    void begin(const step& each) {
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
            print_problem("acl load", session_.problem(), output_);
            return false;
        }
        const auto found = under_way_.extract(arrived->call_id);
        if (found) {
            finished(*found.mapped(), arrived->number);
        }
        return true;
    }

    void finished(const step& each, std::uint32_t result) {
        ++done_;
        if (result == 0) {
            note(session_.book(), each);
        } else {
            ++failed_;
            bar_.hide();
            print_problem(fmt::format("{}:{}", name_, each.line),
                          fmt::format("{} ({})", scc_strerror(static_cast<std::int32_t>(result)), result),
                          output_);
        }
        bar_.show(done_);
    }

    std::string name_;
    std::vector<step> steps_;
    progress_bar bar_;
    session& session_;
    output_options output_;
    std::map<std::uint32_t, const step*> under_way_;  // by call id
    std::size_t done_ = 0;
    std::size_t failed_ = 0;
};

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
        print_problem(fmt::format("{}:{}", name, each.line), each.text, output);
    }
    return file;
}

int load_acl_file(const std::string& name, const acl_file& file, bool progress, session& within,
                  const output_options& output) {
    json summary;
    int status = exit_success;
    {
        loader all(name, file, progress, within, output);
        status = all.run();
        summary = all.summary();
    }  // the bar's line ends before the summary begins
    if (status == exit_unreachable) {
        return status;
    }
    if (output.as_json) {
        print(summary, output);
    } else {
        print(json(fmt::format("{}: {} of {} requests done", name, summary["done"].get<std::size_t>(),
                               file.size())),
              output);
    }
    return status;
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
        print_problem("acl save", name + " cannot be written", output);
        return exit_refused;
    }
    print(output.as_json ? json{{"command", "acl save"}, {"file", name}, {"acls", file.acls.size()}}
                         : json(fmt::format("{}: {} ACLs saved", name, file.acls.size())),
          output);
    return exit_success;
}

}  // namespace scc::ctl
