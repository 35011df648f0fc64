// What a group does: rounds of kills, and what must hold after each.
#include "soak/group.h"

#include <algorithm>
#include <map>
#include <stdexcept>

#include "soak/deadline.h"
#include "soak/orders.h"
#include "support/temp_dir.h"

namespace soak {
namespace {

using clock = deadline::clock;
using std::chrono::milliseconds;

constexpr std::uint32_t clients_of_a_group = 4;
constexpr std::uint32_t first_app_id = 5;
constexpr std::uint32_t service_app_id = 16;
struct told_to_end {};
struct fault_found {};

class group {
  public:
    group(const group_plan& plan, shared_state& state);

    void run();

  private:
    struct act {
        member* who;
        bool kills;
    };

    void start_daemon();
    void start();
    void finish();
    void round();
    void kill_and_revive();
    std::vector<act> choose();
    void strike(const act& what);
    void revive(const act& what);
    void wait_until_all_work();
    void look_at_everybody();
    [[nodiscard]] bool everybody_is_registered() const;
    void check_stale_users(client_member& witness);
    void answer_dropped_calls(client_member& client);
    void wait_for_answers(client_member& client, std::uint32_t up_to);

    void wait_until(const std::string& what, const std::function<bool()>& holds);
    void pause(std::uint32_t longest_ms);
    void look_after();
    [[noreturn]] void fail(const std::string& text);
    std::uint32_t below(std::uint32_t limit) {
        return std::uniform_int_distribution<std::uint32_t>(0, limit - 1)(random_);
    }
    [[nodiscard]] std::vector<member*> members();

    shared_state& state_;
    group_report& report_;
    std::uint32_t index_;
    std::mt19937_64 random_;
    test::temp_dir directory_{"scc-soak"};
    daemon_member daemon_;
    service_member service_;
    std::vector<std::unique_ptr<client_member>> clients_;
    std::uint32_t notification_ = 0;
    std::uint32_t wakes_ = 0;
};

// The first two clients live for the whole run, and so may either the daemon or the service, so that their
// memory can be compared over a long time.
group::group(const group_plan& plan, shared_state& state)
    : state_(state),
      report_(state.groups[plan.index]),
      index_(plan.index),
      random_(plan.seed * 1'000'003 + plan.index),
      daemon_(plan.warm_up),
      service_(plan.warm_up) {
    constexpr std::uint32_t kinds_of_groups = 4;
    if (index_ % kinds_of_groups == 1) {
        daemon_.never_kill();
    } else if (index_ % kinds_of_groups == 2) {
        service_.never_kill();
    }
    for (std::uint32_t number = 0; number < clients_of_a_group; ++number) {
        const std::uint32_t option = (number + index_) / 2 % 2 == 0 ? 1 : 0;
        clients_.push_back(std::make_unique<client_member>(first_app_id + number, number % 2 != 0, option,
                                                           directory_.path(), report_, plan.warm_up));
        if (number < 2) {
            clients_.back()->never_kill();
        }
    }
}

std::vector<member*> group::members() {
    std::vector<member*> all{&daemon_, &service_};
    for (const auto& client : clients_) {
        all.push_back(client.get());
    }
    return all;
}

void group::fail(const std::string& text) {
    report_.tell_fault("group " + std::to_string(index_) + ": " + text);
    throw fault_found{};
}

// While waiting: judges the calls made so far, and checks that no process died by itself.
void group::look_after() {
    if (state_.end == ending::interrupted) {
        throw told_to_end{};
    }
    for (member* one : members()) {
        if (one->has_died()) {
            fail(one->name() + " has ended by itself");
        }
    }
    for (const auto& client : clients_) {
        if (client->is_alive()) {
            client->audit().advance();
        }
    }
    if (report_.faults != 0) {
        throw fault_found{};
    }
}

void group::wait_until(const std::string& what, const std::function<bool()>& holds) {
    const deadline until(report_);
    while (!holds()) {
        look_after();
        if (until.is_over()) {
            std::string text = "never came true: " + what;
            for (const auto& client : clients_) {
                text += "; " + client->name() + ": " + client->state();
            }
            fail(text);
        }
        usleep(2000);
    }
}

// The random moments of the kills.
void group::pause(std::uint32_t longest_ms) {
    const auto until = clock::now() + milliseconds(below(longest_ms));
    do {
        look_after();
        usleep(1000);
    } while (clock::now() < until);
}

void group::start_daemon() {
    daemon_.start();
    wait_until("the daemon is ready", [&] {
        return daemon_.process().line_after("sccd-dev: ready", 0, milliseconds(0)).has_value();
    });
}

void group::start() {
    start_daemon();
    service_.start();
    for (const auto& client : clients_) {
        client->start();
    }
    wait_until_all_work();
}

bool group::everybody_is_registered() const {
    const std::map<std::uint32_t, pid_t> pids = registered_clients();
    const auto holds = [&](std::uint32_t app_id, const member& one) {
        const auto entry = pids.find(app_id);
        return entry != pids.end() && entry->second == one.process().pid();
    };
    return holds(service_app_id, service_) &&
           std::all_of(clients_.begin(), clients_.end(), [&](const auto& client) {
               return client->ledger().connected == 1 && holds(client->app_id(), *client);
           });
}

// Until every client is registered, and every kind of request, queries and notifications work.
void group::wait_until_all_work() {
    const auto all_connected = [&] {
        return std::all_of(clients_.begin(), clients_.end(),
                           [](const auto& client) { return client->ledger().connected == 1; });
    };
    // Asking the daemon is expensive, so it is asked only now and then.
    wait_until("service and clients are registered",
               [&] { return all_connected() && ++wakes_ % 5 == 0 && everybody_is_registered(); });
    for (const auto& client : clients_) {
        client->mark();
        answer_dropped_calls(*client);
    }
    if (notify_all(++notification_) != clients_.size()) {
        fail("a notification did not go to every client");
    }
    for (const auto& client : clients_) {
        wait_until(client->name() + " works again", [&] { return client->has_worked(notification_); });
    }
    for (const auto& client : clients_) {
        wait_for_answers(*client, client->marked_call());
    }
    for (const auto& client : clients_) {
        check_stale_users(*client);
    }
}

// A request that was lost with its connection must not be carried out on the next one.
void group::check_stale_users(client_member& witness) {
    witness.take_stale_users([&](std::uint32_t app_id, std::uint32_t life, std::uint32_t number) {
        client_member& sender = *clients_.at(app_id - first_app_id);
        if (sender.life() == life && !sender.audit().has_straddling_user(number)) {
            ++report_.wrong;
            fail("the user request " + std::to_string(number) + " of " + sender.name() +
                 " went out on a later connection than the one that it was made on");
        }
    });
}

// A result for a call that was lost with an earlier connection must not be delivered.
void group::answer_dropped_calls(client_member& client) {
    for (const std::uint32_t id : client.audit().take_dropped()) {
        if (!send_result(client.app_id(), id)) {
            fail("a result was not sent to " + client.name());
        }
    }
}

void group::wait_for_answers(client_member& client, std::uint32_t up_to) {
    const deadline until(report_);
    while (const std::optional<std::uint32_t> open = client.audit().first_open(up_to)) {
        look_after();
        if (until.is_over()) {
            client.audit().give_up(*open);
            throw fault_found{};
        }
        usleep(2000);
    }
}

void group::look_at_everybody() {
    for (member* one : members()) {
        const deadline until(report_);
        while (!one->watch().is_steady(one->process().pid())) {
            look_after();
            if (until.is_over()) {
                (void)one->watch().take(report_.drifts[static_cast<std::size_t>(one->kind())]);
                fail(one->name() + " " + one->watch().text());
            }
            usleep(2000);
        }
        const std::string fault = one->watch().take(report_.drifts[static_cast<std::size_t>(one->kind())]);
        if (!fault.empty()) {
            fail(one->name() + " " + fault);
        }
    }
}

// ---- one round ----

// Chooses up to three processes to kill or stop; those that must survive are stopped.
std::vector<group::act> group::choose() {
    std::vector<member*> all = members();
    std::shuffle(all.begin(), all.end(), random_);
    // A dead daemon costs seconds of recovery, in which nothing else is killed.
    const bool spares_daemon = below(2) != 0;
    std::vector<act> acts;
    const std::uint32_t count = 1 + below(3);
    for (member* one : all) {
        const bool kills = one->can_be_killed() && !(one == &daemon_ && spares_daemon) && below(5) != 0;
        if (acts.size() < count && (kills || below(3) == 0)) {
            acts.push_back({one, kills});
        }
    }
    return acts;
}

void group::strike(const act& what) {
    const auto kind = static_cast<std::size_t>(what.who->kind());
    if (what.kills) {
        what.who->kill_hard();
        ++report_.kills[kind];
    } else {
        what.who->stop();
        ++report_.stops[kind];
    }
}

void group::revive(const act& what) {
    if (!what.kills) {
        return what.who->go_on();
    }
    if (what.who == &daemon_) {
        start_daemon();
    } else {
        what.who->start();
    }
}

void group::kill_and_revive() {
    std::vector<act> acts = choose();
    for (const act& one : acts) {
        pause(30);
        strike(one);
    }
    pause(60);
    std::shuffle(acts.begin(), acts.end(), random_);
    for (const act& one : acts) {
        revive(one);
        pause(20);
    }
}

void group::round() {
    do {
        kill_and_revive();
    } while (below(4) == 0);  // again, while the others are still recovering
    wait_until_all_work();
    look_at_everybody();
}

// ---- the end ----

void group::finish() {
    for (const auto& client : clients_) {
        client->ledger().command = test::load_command::rest;
    }
    for (const auto& client : clients_) {
        test::call_ledger& ledger = client->ledger();
        wait_until(client->name() + " rests", [&] { return ledger.resting == ledger.load_threads; });
        wait_for_answers(*client, ledger.last_call_id);
        client->audit().finish(false);
    }
    for (const auto& client : clients_) {
        client->ledger().command = test::load_command::leave;
    }
    const auto expect_end = [&](member& one) {
        std::optional<int> status;
        const deadline until(report_);
        while (!status && !until.is_over()) {
            status = one.process().end();
            usleep(2000);
        }
        if (!status || *status != 0) {
            fail(one.name() + " did not end by itself with status 0");
        }
    };
    for (const auto& client : clients_) {
        expect_end(*client);
    }
    for (member* one : {static_cast<member*>(&service_), static_cast<member*>(&daemon_)}) {
        one->process().signal(SIGTERM);
        expect_end(*one);
    }
    if (report_.faults != 0) {
        throw fault_found{};
    }
}

void group::run() {
    start();
    look_at_everybody();
    while (state_.end == ending::none) {
        round();
    }
    finish();
}

}  // namespace

bool run_group(const group_plan& plan, shared_state& state) {
    try {
        group(plan, state).run();
        return true;
    } catch (const told_to_end&) {
        return true;
    } catch (const fault_found&) {
        return false;
    } catch (const std::exception& error) {
        state.groups[plan.index].tell_fault("group " + std::to_string(plan.index) + ": " + error.what());
        return false;
    }
}

}  // namespace soak
