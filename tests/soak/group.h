// One group of the soak: a daemon, a service and clients in a directory of their own, some of which are
// killed or stopped again and again. A group is a process; its programs end with it.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "soak/audit.h"
#include "soak/footprint.h"
#include "soak/report.h"
#include "support/spawned_process.h"

namespace soak {

struct group_plan {
    std::uint32_t index = 0;
    std::uint64_t seed = 0;
    std::chrono::milliseconds warm_up{};  // of each process, before its memory is compared
};

// Runs until the state tells it to end. Returns whether every check passed.
bool run_group(const group_plan& plan, shared_state& state);

// ---- members of a group ----

// A program that is killed and started again.
class member {
  public:
    member(target kind, std::string name, std::chrono::milliseconds warm_up)
        : kind_(kind), name_(std::move(name)), warm_up_(warm_up) {}
    virtual ~member() = default;
    member(const member&) = delete;
    member& operator=(const member&) = delete;

    virtual void start() = 0;
    virtual void kill_hard() {
        process_->kill_hard();
        killed_ = true;
    }
    void stop() { process_->signal(SIGSTOP); }
    void go_on() { process_->signal(SIGCONT); }

    [[nodiscard]] target kind() const { return kind_; }
    [[nodiscard]] const std::string& name() const { return name_; }
    // Started, and not killed since.
    [[nodiscard]] bool is_alive() const { return process_ != nullptr && !killed_; }
    [[nodiscard]] bool has_died() const { return is_alive() && !process_->runs(); }
    [[nodiscard]] bool can_be_killed() const { return mortal_; }
    void never_kill() { mortal_ = false; }
    [[nodiscard]] test::spawned_process& process() const { return *process_; }
    [[nodiscard]] footprint_watch& watch() { return *watch_; }

  protected:
    void spawn(const std::string& program, std::vector<std::string> arguments) {
        process_ = std::make_unique<test::spawned_process>(program, std::move(arguments),
                                                           test::child_life::of_its_parent);
        watch_.emplace(warm_up_);
        killed_ = false;
    }

  private:
    target kind_;
    std::string name_;
    std::chrono::milliseconds warm_up_;
    bool killed_ = false;
    bool mortal_ = true;
    std::unique_ptr<test::spawned_process> process_;
    std::optional<footprint_watch> watch_;
};

class daemon_member : public member {
  public:
    explicit daemon_member(std::chrono::milliseconds warm_up) : member(target::daemon, "daemon", warm_up) {}
    void start() override;
};

class service_member : public member {
  public:
    explicit service_member(std::chrono::milliseconds warm_up)
        : member(target::service, "service", warm_up) {}
    void start() override;
};

class client_member : public member {
  public:
    client_member(std::uint32_t app_id, bool on_loop, std::uint32_t option, const std::string& directory,
                  group_report& report, std::chrono::milliseconds warm_up);
    void start() override;
    void kill_hard() override;

    [[nodiscard]] test::call_ledger& ledger() const { return **ledger_; }
    [[nodiscard]] std::uint32_t app_id() const { return app_id_; }
    [[nodiscard]] std::uint32_t life() const { return life_; }
    [[nodiscard]] auditor& audit() { return *audit_; }
    // Remembers the progress of each kind of work; the client works again once each has advanced.
    void mark();
    // The newest call at the mark.
    [[nodiscard]] std::uint32_t marked_call() const { return marked_call_; }
    [[nodiscard]] bool has_worked(std::uint32_t notification) const;
    [[nodiscard]] std::string state() const;
    // Calls take(app id, life, number) for each stale user found since the last time.
    template <class Take>
    void take_stale_users(const Take& take) {
        const std::uint32_t count = ledger().stale_user_count;
        for (; stale_users_seen_ != count; ++stale_users_seen_) {
            const test::stale_user& one =
                ledger().stale_users[stale_users_seen_ % test::call_ledger::stale_users_max];
            take(one.app_id.load(), one.life.load(), one.number.load());
        }
    }

  private:
    std::uint32_t app_id_;
    bool on_loop_;
    std::uint32_t option_;
    std::string directory_;
    group_report& report_;
    std::uint32_t life_ = 0;
    std::unique_ptr<test::mapped_ledger> ledger_;
    std::optional<auditor> audit_;
    std::vector<std::uint32_t> mark_;
    std::uint32_t marked_call_ = 0;
    std::uint32_t stale_users_seen_ = 0;
};

}  // namespace soak
