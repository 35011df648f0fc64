// The programs of a group and how they are started.
#include <filesystem>

#include "soak/group.h"

namespace soak {
namespace {

// Longer than any process is stopped.
constexpr const char* service_timeout_ms = "600000";
// Keeps requests outstanding, so that a kill meets some.
constexpr const char* answer_delay_ms = "20";
constexpr std::uint32_t ledger_window = 1U << 14;

std::vector<std::uint32_t> work_of(const test::call_ledger& ledger) {
    std::vector<std::uint32_t> work(std::begin(ledger.answered_of), std::end(ledger.answered_of));
    work.push_back(ledger.queries);
    return work;
}

}  // namespace

void daemon_member::start() {
    spawn(SCCD_DEV_PATH, {"--service-timeout", service_timeout_ms});
}

void service_member::start() {
    spawn(SERVICE_PATH, {"--delay", answer_delay_ms});
}

client_member::client_member(std::uint32_t app_id, bool on_loop, std::uint32_t option,
                             const std::string& directory, group_report& report,
                             std::chrono::milliseconds warm_up)
    : member(target::client,
             "client " + std::to_string(app_id) + (on_loop ? " (event loop)" : " (thread)") +
                 (option == 1 ? " with cache" : ""),
             warm_up),
      app_id_(app_id),
      on_loop_(on_loop),
      option_(option),
      directory_(directory),
      report_(report) {}

void client_member::start() {
    ++life_;
    const std::string path = directory_ + "/ledger." + std::to_string(app_id_) + "." + std::to_string(life_);
    ledger_ = std::make_unique<test::mapped_ledger>(path);
    if (!ledger_->is_there()) {
        throw std::runtime_error(path + ": cannot be mapped");
    }
    ledger().window = ledger_window;
    stale_users_seen_ = 0;
    audit_.emplace(ledger(), report_, name() + ", life " + std::to_string(life_));
    spawn(SOAK_CLIENT_PATH, {std::to_string(app_id_), std::to_string(life_), path,
                             on_loop_ ? "loop" : "thread", std::to_string(option_)});
    mark();
}

void client_member::kill_hard() {
    member::kill_hard();
    audit_->finish(true);
    std::filesystem::remove(directory_ + "/ledger." + std::to_string(app_id_) + "." + std::to_string(life_));
}

void client_member::mark() {
    mark_ = work_of(ledger());
    marked_call_ = ledger().last_call_id;
}

bool client_member::has_worked(std::uint32_t notification) const {
    const std::vector<std::uint32_t> now = work_of(ledger());
    for (std::size_t index = 0; index < now.size(); ++index) {
        if (now[index] == mark_[index]) {
            return false;
        }
    }
    return ledger().last_notification == notification;
}

std::string client_member::state() const {
    std::string text = "connected " + std::to_string(ledger().connected) + ", connection " +
                       std::to_string(ledger().connections) + ", calls " +
                       std::to_string(ledger().last_call_id) + ", judged below " +
                       std::to_string(ledger().audited) + ", outstanding " +
                       std::to_string(ledger().outstanding) + ", notification " +
                       std::to_string(ledger().last_notification) + ", answered of each kind and queries";
    const std::vector<std::uint32_t> now = work_of(ledger());
    for (std::size_t index = 0; index < now.size(); ++index) {
        text += " +" + std::to_string(now[index] - mark_[index]);
    }
    return text;
}

}  // namespace soak
