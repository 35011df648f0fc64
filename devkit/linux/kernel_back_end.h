// The kernel as the back end of the security service. A thread of its own takes all operations that wait,
// works them into the tables, and makes the kernel like the tables with one transaction; then it calls their
// completions. If the kernel refuses, the changes are taken back and tried one by one, so that each operation
// gets its own result and the tables stay what the kernel enforces.
//
// A few changes wait until the pace allows a transaction; many of them, and whatever somebody waits for or
// that reads, do not.
//
// During a recovery the kernel is left alone: its rules go on working until the end, when they are compared
// with what the daemon sent, and only what differs is changed. Operations that come meanwhile are answered
// then.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "linux/enforcement.h"
#include "linux/nftables.h"
#include "linux/transaction_pace.h"
#include "service/back_end.h"

namespace scc::kernel {

class kernel_back_end : public service::back_end, private service::counter_source {
  public:
    using log_handler = std::function<void(const std::string&)>;

    // The log gets a line for each thing that the kernel cannot do or refuses, on any thread.
    kernel_back_end(service::forwarding_table& table, interface_map map, packet_filter& filter,
                    log_handler log, const list_limits& limits = {}, const pace_limits& pace = {});
    ~kernel_back_end() override { stop(); }

    // Adopts the rules that the kernel has. Returns 0 or an errno value. Before and after a failure nothing
    // is carried out: the result is ECANCELED.
    [[nodiscard]] u32 start();
    // Cancels what waits, and all that comes later.
    void stop();

    void submit(service::work_kind kind, table_work work, completion done) override;
    [[nodiscard]] u32 run(service::work_kind kind, table_work work) override;

    // Reads all counters, also into the table. Returns 0 or an errno value.
    [[nodiscard]] u32 refresh_counters(std::map<std::string, counted>& all);
    // Makes the kernel like the tables again, after an interface came or went.
    void restore();
    // The same, if the latest attempt to do so failed.
    void mend();

    // How many transactions the kernel has carried out.
    [[nodiscard]] u64 transactions();

  private:
    struct item {
        service::work_kind kind{};
        table_work work;
        completion done;
        bool is_awaited = false;  // by run()
        u32 result = 0;
    };
    using items = std::vector<item>;

    void serve();
    // Whether what waits is taken now; otherwise waits for a change of that, with the lock.
    [[nodiscard]] bool is_due(std::unique_lock<std::mutex>& lock);
    void process(std::deque<item>& taken);
    void commit(items& changes);
    // Runs the works of all changes; those that fail have no effect.
    void execute(contents& held, items& changes);
    [[nodiscard]] u32 execute(contents& held, const item& change);
    void confirm(contents& held);
    void take_back(contents& held);
    void retry_one_by_one(contents& held, items& changes);
    // Takes out what may be answered although the recovery is not over.
    [[nodiscard]] items hold_back(items& changes);
    [[nodiscard]] std::string problem_of(const contents& held, const service::acl_table::change_notes& notes,
                                         bool nac_changed) const;
    [[nodiscard]] u32 read_kernel();
    [[nodiscard]] u32 synchronize(contents& held);
    [[nodiscard]] u32 send_changes(contents& held);
    void note(const service::acl_table::change_notes& notes);
    [[nodiscard]] u32 plan_changes(const contents& held, transaction& changes);
    [[nodiscard]] u32 fetch_handles(const chain_name& chain);
    static void finish(items& changes);

    [[nodiscard]] u32 read(const service::counter_name& name, u64& packets) override;
    [[nodiscard]] u32 reset(const service::counter_name& name) override;

    service::forwarding_table& table_;
    const enforcement enforcement_;
    packet_filter& filter_;  // guarded by the table's mutex
    const log_handler log_;
    const list_limits limits_;

    // Guarded by the table's mutex.
    held_tables kernel_;
    bool is_known_ = false;  // whether kernel_ is all that the kernel has
    // ACLs that the kernel may hold otherwise.
    std::map<service::acl_name, service::touched_aces> differing_;
    bool interfaces_differ_ = false;
    bool everything_differs_ = false;
    service::nac_table nac_before_;     // before the latest operation
    service::nac_table nac_confirmed_;  // as the kernel has it
    u64 transactions_ = 0;
    items held_back_;  // until the recovery ends

    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<item> waiting_;  // guarded by mutex_
    bool is_urgent_ = false;    // guarded by mutex_: something that waits must not wait any longer
    bool ending_ = true;        // also before it begins; guarded by mutex_
    transaction_pace pace_;     // of the back end's thread
    std::thread thread_;
};

}  // namespace scc::kernel
