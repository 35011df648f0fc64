#include "linux/kernel_back_end.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <future>
#include <iterator>
#include <system_error>
#include <utility>

#include "linux/dropped_frames.h"

namespace scc::kernel {
namespace {

constexpr int attempts_max = 5;  // while others change the kernel's rules, too

// Of this thread.
std::chrono::nanoseconds processor_time() {
    timespec time{};
    (void)clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

}  // namespace

using service::acl_table;
using service::counter_name;
using service::work_kind;

kernel_back_end::kernel_back_end(service::forwarding_table& table, interface_map map, packet_filter& filter,
                                 log_handler log, const list_limits& limits, const pace_limits& pace)
    : table_(table),
      enforcement_(std::move(map), dropped_frames::are_told()),
      filter_(filter),
      log_(std::move(log)),
      limits_(limits),
      pace_(pace) {}

u32 kernel_back_end::start() {
    const u32 error = table_.locked([this](contents& held) {
        const u32 result = read_kernel();
        if (result == 0) {
            enforcement::adopt(kernel_, held);
            held.begin_recovery();
            held.acls.keep_changes();
            held.acls.count_with(this);
        }
        return result;
    });
    if (error != 0) {
        return error;
    }
    const std::lock_guard guard(mutex_);
    try {
        thread_ = std::thread([this] { serve(); });
    } catch (const std::system_error& failed) {
        return static_cast<u32>(failed.code().value());
    }
    ending_ = false;
    return 0;
}

void kernel_back_end::stop() {
    {
        const std::lock_guard guard(mutex_);
        ending_ = true;
    }
    changed_.notify_one();
    if (thread_.joinable()) {
        thread_.join();
    }
}

void kernel_back_end::submit(work_kind kind, table_work work, completion done) {
    {
        const std::lock_guard guard(mutex_);
        if (!ending_) {
            waiting_.push_back({kind, std::move(work), std::exchange(done, {}), false, 0});
            is_urgent_ = is_urgent_ || kind == work_kind::query;
        }
    }
    if (done) {
        done(ECANCELED);
    }
    changed_.notify_one();
}

u32 kernel_back_end::run(work_kind kind, table_work work) {
    const auto promise = std::make_shared<std::promise<u32>>();
    std::future<u32> result = promise->get_future();
    {
        const std::lock_guard guard(mutex_);
        if (ending_) {
            return ECANCELED;
        }
        waiting_.push_back(
            {kind, std::move(work), [promise](u32 value) { promise->set_value(value); }, true, 0});
        is_urgent_ = true;
    }
    changed_.notify_one();
    return result.get();
}

void kernel_back_end::serve() {
    std::unique_lock lock(mutex_);
    while (!ending_) {
        if (!is_due(lock)) {
            continue;
        }
        std::deque<item> taken = std::exchange(waiting_, {});
        is_urgent_ = false;
        lock.unlock();
        const std::chrono::nanoseconds before = processor_time();
        process(taken);
        pace_.ended(transaction_pace::clock::now(), processor_time() - before, taken.size());
        lock.lock();
    }
    // Whoever waits in run() is released.
    for (item& left : waiting_) {
        left.done(ECANCELED);
    }
    waiting_.clear();
}

bool kernel_back_end::is_due(std::unique_lock<std::mutex>& lock) {
    if (waiting_.empty()) {
        changed_.wait(lock);
        return false;
    }
    const auto next = pace_.next(waiting_.size());
    if (is_urgent_ || next <= transaction_pace::clock::now()) {
        return true;
    }
    changed_.wait_until(lock, next);
    return false;
}

void kernel_back_end::process(std::deque<item>& taken) {
    items changes;
    for (item& next : taken) {
        if (next.kind == work_kind::change) {
            changes.push_back(std::move(next));
            continue;
        }
        commit(changes);
        changes.clear();
        next.done(table_.locked(next.work));
    }
    commit(changes);
}

void kernel_back_end::commit(items& changes) {
    if (changes.empty()) {
        return;
    }
    items finished;
    table_.locked([&](contents& held) {
        const bool was_recovering = held.recovering;
        execute(held, changes);
        if (held.recovering) {
            held.acls.confirm();
            finished = hold_back(changes);
            return;
        }
        const u32 error = synchronize(held);
        if (error == 0) {
            confirm(held);
        } else if (was_recovering) {
            // The daemon does not send it again; mend() or the next operation tries it again.
            held.acls.confirm();
            for (item& change : held_back_) {
                change.result = change.result == 0 ? error : change.result;
            }
        } else {
            take_back(held);
            retry_one_by_one(held, changes);
        }
        finished = std::exchange(held_back_, {});
        std::move(changes.begin(), changes.end(), std::back_inserter(finished));
    });
    finish(finished);
}

kernel_back_end::items kernel_back_end::hold_back(items& changes) {
    items finished;
    for (item& change : changes) {
        (change.is_awaited ? finished : held_back_).push_back(std::move(change));
    }
    return finished;
}

void kernel_back_end::confirm(contents& held) {
    held.acls.confirm();
    if (nac_confirmed_.version() != held.nac.version()) {
        nac_confirmed_ = held.nac;
    }
}

void kernel_back_end::take_back(contents& held) {
    held.acls.roll_back(0);
    held.nac = nac_confirmed_;
    interfaces_differ_ = true;
}

void kernel_back_end::retry_one_by_one(contents& held, items& changes) {
    for (item& change : changes) {
        // What failed may have failed for an earlier one that the kernel refuses.
        change.result = execute(held, change);
        const u32 error = change.result == 0 ? synchronize(held) : 0;
        if (error == 0) {
            confirm(held);
        } else {
            take_back(held);
            change.result = error;
        }
    }
}

void kernel_back_end::finish(items& changes) {
    for (item& change : changes) {
        change.done(change.result);
    }
    changes.clear();
}

void kernel_back_end::execute(contents& held, items& changes) {
    for (item& change : changes) {
        change.result = execute(held, change);
    }
}

u32 kernel_back_end::execute(contents& held, const item& change) {
    const std::size_t mark = held.acls.mark();
    if (held.nac.version() != nac_before_.version()) {
        nac_before_ = held.nac;
    }
    u32 result = change.work(held);
    const acl_table::change_notes notes = held.acls.take_notes();
    const bool nac_changed = held.nac.version() != nac_before_.version();
    note(notes);
    interfaces_differ_ = interfaces_differ_ || nac_changed;
    if (result != 0) {
        return result;
    }
    const std::string problem = problem_of(held, notes, nac_changed);
    if (!problem.empty()) {
        log_("refused: " + problem);
        held.acls.roll_back(mark);
        held.nac = nac_before_;
        result = EOPNOTSUPP;
    }
    return result;
}

std::string kernel_back_end::problem_of(const contents& held, const acl_table::change_notes& notes,
                                        bool nac_changed) const {
    for (const acl_table::ace_entry* ace : notes.aces) {
        std::string problem = enforcement::problem_of(*ace);
        if (!problem.empty()) {
            return problem;
        }
    }
    for (const scc_acl_apply_record& application : notes.applied) {
        std::string problem = enforcement_.problem_of(application);
        if (!problem.empty()) {
            return problem;
        }
    }
    return nac_changed ? enforcement_.problem_of(held.nac) : std::string();
}

u32 kernel_back_end::read_kernel() {
    everything_differs_ = true;
    const u32 error = filter_.read_tables(kernel_);
    is_known_ = error == 0;
    return error;
}

// A refusal may mean that somebody else changed the tables: they are read anew, and it is tried again. A
// transaction for what has been read in part would add rules that are there already.
u32 kernel_back_end::synchronize(contents& held) {
    u32 error = is_known_ ? send_changes(held) : u32{ERESTART};
    bool is_last = false;
    for (int attempt = 0; error != 0 && !is_last && attempt < attempts_max; ++attempt) {
        is_last = error != ERESTART;
        error = read_kernel();
        if (error == 0) {
            error = send_changes(held);
        }
    }
    if (error == ERESTART || !is_known_) {
        log_(fmt::format("the kernel's rules are not known: {}", std::strerror(static_cast<int>(error))));
    }
    return error;
}

void kernel_back_end::note(const acl_table::change_notes& notes) {
    for (const auto& [name, touched] : notes.acls) {
        differing_[name].add(touched);
    }
    interfaces_differ_ = interfaces_differ_ || notes.applications;
}

u32 kernel_back_end::plan_changes(const contents& held, transaction& changes) {
    change_request request;
    request.limits = limits_;
    if (everything_differs_) {
        enforcement_.add_everything(held, kernel_, request);
    } else {
        for (const auto& [name, touched] : differing_) {
            enforcement::add_acl(held, name, touched, kernel_, request);
        }
        if (interfaces_differ_) {
            enforcement_.add_interfaces(held, kernel_, request);
        }
    }
    return plan(
        request, kernel_, [this](const chain_name& chain) { return fetch_handles(chain); }, changes);
}

u32 kernel_back_end::send_changes(contents& held) {
    note(held.acls.take_notes());
    transaction changes;
    u32 error = plan_changes(held, changes);
    if (error == needs_all_rules) {
        for (auto& [name, touched] : differing_) {
            touched.all = true;
        }
        error = plan_changes(held, changes);
    }
    std::vector<u64> handles;
    std::string complaint;
    if (error == 0 && !changes.changes.is_empty()) {
        error = filter_.run(changes.changes, handles, complaint);
        transactions_ += error == 0 ? 1 : 0;
    }
    if (error == ERESTART) {
        return error;  // the next attempt tells if it is more than that
    }
    if (error != 0) {
        log_(fmt::format("the kernel refuses a change: {} {}", std::strerror(static_cast<int>(error)),
                         complaint));
        return error;
    }
    changes.done(kernel_, handles);
    differing_.clear();
    interfaces_differ_ = false;
    everything_differs_ = false;
    return 0;
}

u32 kernel_back_end::fetch_handles(const chain_name& chain) {
    std::vector<kernel_rule> rules;
    const u32 error = filter_.read_rules(chain, rules);
    if (error != 0) {
        return error;
    }
    return enter_handles(rules, kernel_.chains.at(chain)) ? 0 : ESTALE;
}

u32 kernel_back_end::read(const counter_name& name, u64& packets) {
    const std::string text = counter_text(name);
    // The kernel does not have what a recovery has brought so far.
    packets = 0;
    return kernel_.counters.contains(text) ? filter_.read_counter(text, false, packets) : 0;
}

u32 kernel_back_end::reset(const counter_name& name) {
    const std::string text = counter_text(name);
    u64 packets = 0;
    return kernel_.counters.contains(text) ? filter_.read_counter(text, true, packets) : 0;
}

u32 kernel_back_end::refresh_counters(std::map<std::string, counted>& all) {
    return run(work_kind::query, [this, &all](contents& held) {
        std::vector<counted> counters;
        const u32 error = filter_.read_counters(counters);
        for (counted& counter : counters) {
            const std::string name = counter.name;
            all.insert_or_assign(name, std::move(counter));
        }
        held.acls.set_packets([&](const counter_name& name) {
            const auto found = all.find(counter_text(name));
            return found == all.end() ? 0 : found->second.packets;
        });
        return error;
    });
}

void kernel_back_end::restore() {
    submit(
        work_kind::change, [this](contents&) { return read_kernel(); }, [](u32) {});
}

void kernel_back_end::mend() {
    const bool differs =
        table_.locked([this](const contents& held) { return everything_differs_ && !held.recovering; });
    if (differs) {
        submit(
            work_kind::change, [](contents&) { return 0u; }, [](u32) {});
    }
}

u64 kernel_back_end::transactions() {
    return table_.locked([this](contents&) { return transactions_; });
}

}  // namespace scc::kernel
