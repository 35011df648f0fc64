// The three processes, each of which can be killed and restarted, and the checks of an application's call ids
// afterwards.
#pragma once

#include <scclib.h>

#include <algorithm>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "devkit/sccd_support.h"
#include "support/call_ledger.h"
#include "support/call_verdict.h"
#include "support/child_process.h"

namespace kill_test {

using test::call_entry;
using test::call_kind;
using test::call_ledger;
using test::load_command;

inline constexpr std::uint32_t service_timeout = 2020;

// Waits for something that the other processes do.
template <class Condition>
bool wait_until(const Condition& condition) {
    const auto until = std::chrono::steady_clock::now() + test::child_process::patience;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > until) {
            return false;
        }
        usleep(2000);
    }
    return true;
}

// Waits until there are so many. Each more begins the patience anew, since a busy machine may be slow.
template <class Count>
bool wait_for_count(std::size_t wanted, const Count& count) {
    for (std::size_t most = 0; most < wanted;) {
        std::size_t now = 0;
        if (!wait_until([&] { return (now = count()) > most; })) {
            return false;
        }
        most = now;
    }
    return true;
}

// The outcomes of the calls of one life of an application.
struct tally {
    std::uint32_t accepted = 0;
    std::uint32_t answered = 0;
    std::uint32_t dropped = 0;
    std::uint32_t timed_out = 0;         // answered with a time-out
    std::set<std::uint32_t> users;       // added on the last connection
    std::set<std::uint32_t> no_users;    // not added, by the answer
    std::set<std::uint32_t> open_users;  // accepted, outcome unknown
};

enum class receives { with_a_thread, on_a_loop };

inline void PrintTo(receives way, std::ostream* out) {
    *out << (way == receives::with_a_thread ? "thread" : "event loop");
}

// An application under load, one life of it after the other.
class application {
  public:
    application(const std::string& directory, std::uint32_t app_id, std::uint32_t users_at_once = 500,
                receives way = receives::with_a_thread)
        : directory_(directory), app_id_(app_id), users_at_once_(users_at_once), way_(way) {}

    void start() {
        ++life_;
        const std::string path =
            directory_ + "/ledger." + std::to_string(app_id_) + "." + std::to_string(life_);
        ledger_ = std::make_unique<test::mapped_ledger>(path);
        ASSERT_TRUE(ledger_->is_there());
        process_ = std::make_unique<test::child_process>(
            LOAD_APPLICATION_PATH, std::vector<std::string>{std::to_string(app_id_), std::to_string(life_),
                                                            path, std::to_string(users_at_once_),
                                                            way_ == receives::on_a_loop ? "loop" : "thread"});
    }
    void kill_hard() {
        process_->kill_hard();
        killed_ = true;
    }
    void start_again() {
        ASSERT_FALSE(process_->runs());
        killed_ = false;
        start();
    }

    [[nodiscard]] const call_ledger& ledger() const { return **ledger_; }
    [[nodiscard]] std::uint32_t app_id() const { return app_id_; }
    [[nodiscard]] std::uint32_t life() const { return life_; }
    [[nodiscard]] pid_t pid() const { return process_->pid(); }
    [[nodiscard]] bool runs() const { return process_->runs(); }

    void wait_for_connection(std::uint32_t count) const {
        EXPECT_TRUE(wait_until([&] { return ledger().connections >= count && ledger().connected == 1; }))
            << "application " << app_id_ << " has connection " << ledger().connections;
    }
    // Waits for that many more answers, and for requests in flight.
    void wait_for_load(std::uint32_t answers = 300, std::uint32_t on_their_way = 20) const {
        const std::uint32_t before = ledger().answered;
        EXPECT_TRUE(wait_for_count(answers + on_their_way,
                                   [&] {
                                       return std::min(ledger().answered - before, answers) +
                                              std::min(ledger().users_in_flight.load(), on_their_way);
                                   }))
            << ledger().answered - before << " answers, " << ledger().users_in_flight
            << " users on their way";
    }
    // Ends the load and waits until nothing is outstanding on this connection.
    void settle() {
        (*ledger_)->command = load_command::rest;
        EXPECT_TRUE(wait_until([&] { return ledger().resting == ledger().load_threads; }));
        const std::uint32_t last = ledger().last_call_id;
        EXPECT_TRUE(wait_for_count(last, [&] { return last - unanswered_on_this_connection(); }))
            << unanswered_on_this_connection() << " calls were never answered";
    }
    void run_on() { (*ledger_)->command = load_command::run; }
    // The application unregisters and ends by itself.
    void leave() {
        (*ledger_)->command = load_command::leave;
        const int status = process_->wait_for_end();
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    }

    // Every accepted call was answered exactly once, on the connection that it was made on, or dropped with
    // that connection.
    [[nodiscard]] tally check() const {
        tally sum;
        std::uint32_t half_noted = 0;
        const bool failed_before = ::testing::Test::HasFailure();
        for (std::uint32_t id = 0; id < call_ledger::calls_max; ++id) {
            const call_entry& call = ledger().calls[id];
            if (call.accepted != 0) {
                check_accepted(id, call, sum);
            } else if (call.answers != 0) {
                ++half_noted;
            }
            if (!failed_before && ::testing::Test::HasFailure()) {
                break;  // one fault, not a million
            }
        }
        // A kill can come between an answer and the record that its request was accepted: once for each
        // thread.
        EXPECT_LE(half_noted, killed_ ? 2u : 0u) << "answers to calls that were never accepted";
        EXPECT_EQ(ledger().strange_returns, 0u);
        EXPECT_EQ(ledger().out_of_order, 0u);
        EXPECT_EQ(sum.accepted, sum.answered + sum.dropped);
        if (ledger().losses == 0 && !killed_) {
            EXPECT_EQ(sum.dropped, 0u);
        }
        return sum;
    }

  private:
    [[nodiscard]] std::uint32_t unanswered_on_this_connection() const {
        std::uint32_t count = 0;
        for (std::uint32_t id = 1; id <= ledger().last_call_id; ++id) {
            const call_entry& call = ledger().calls[id];
            count +=
                call.accepted != 0 && call.answers == 0 && call.connection_before == ledger().connections;
        }
        return count;
    }

    void check_accepted(std::uint32_t id, const call_entry& call, tally& sum) const {
        ++sum.accepted;
        const test::call_verdict verdict = test::judge(id, call, ledger(), killed_);
        EXPECT_EQ(verdict.fault, test::call_fault::none) << verdict.text;
        if (call.answers == 0) {
            ++sum.dropped;
            if (call.kind == call_kind::user) {
                sum.open_users.insert(call.number);
            }
            return;
        }
        ++sum.answered;
        EXPECT_TRUE(call.result == 0 || call.result == service_timeout)
            << "call " << id << " of kind " << static_cast<int>(call.kind.load()) << " got " << call.result;
        sum.timed_out += call.result == service_timeout;
        if (call.kind != call_kind::user) {
            return;
        }
        if (call.result != 0) {
            sum.no_users.insert(call.number);
        }
        if (call.result == 0 && call.answered_on == ledger().connections) {
            sum.users.insert(call.number);
        }
    }

    std::string directory_;
    std::uint32_t app_id_;
    std::uint32_t users_at_once_;
    receives way_;
    std::uint32_t life_ = 0;
    bool killed_ = false;
    std::unique_ptr<test::mapped_ledger> ledger_;
    std::unique_ptr<test::child_process> process_;
};

// The workstation's security service.
class service {
  public:
    explicit service(std::vector<std::string> arguments) : arguments_(std::move(arguments)) {}

    void start() {
        process_ = std::make_unique<test::child_process>(SERVICE_PATH, arguments_);
        read_ = 0;
    }
    void start_with(std::vector<std::string> arguments) {
        arguments_ = std::move(arguments);
        start();
    }
    void kill_hard() { process_->kill_hard(); }
    // Each call waits for one more registration.
    void wait_for_registration() { read_ = process_->wait_for_line("scc-ss-dev: registered", read_); }
    [[nodiscard]] test::child_process& process() { return *process_; }

    // What it prints of its tables.
    std::vector<std::string> tables() {
        const std::size_t from = process_->line_count();
        process_->signal(SIGUSR2);
        const std::size_t to = process_->wait_for_line("scc-ss-dev: end of tables", from);
        return process_->lines(from, to);
    }
    // The numbers of the users that an application's life has added.
    std::set<std::uint32_t> users_of(const application& owner) {
        std::set<std::uint32_t> numbers;
        for (const std::string& line : tables()) {
            unsigned app = 0;
            unsigned life = 0;
            unsigned number[3] = {};
            const int fields = std::sscanf(line.c_str(), "user ifx %*u vid 0 mac 02:%x:%x:%x:%x:%x", &app,
                                           &life, &number[0], &number[1], &number[2]);
            if (fields == 5 && app == owner.app_id() && life == owner.life()) {
                numbers.insert(number[0] << 16 | number[1] << 8 | number[2]);
            }
        }
        return numbers;
    }

  private:
    std::vector<std::string> arguments_;
    std::unique_ptr<test::child_process> process_;
    std::size_t read_ = 0;
};

// A daemon that waits for its service longer than any test does.
class patient_daemon : public sccd_test::daemon_process {
  public:
    patient_daemon() : daemon_process({"--service-timeout", "600000"}) {}

    void kill_hard() {
        signal(SIGKILL);
        wait_for_end();
    }
};

// The pid that the daemon has for an app id; 0 without one.
inline pid_t registered_pid(std::uint32_t app_id) {
    const nlohmann::json answer = sccd_test::control({{"do", "clients"}});
    for (const auto& client : answer["clients"]) {
        if (client["app"] == app_id && client["sync"] == true && client["async"] == true) {
            return client["pid"];
        }
    }
    return 0;
}

}  // namespace kill_test
