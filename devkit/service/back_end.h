// What carries out the daemon's operations: the tables in memory, or those of the kernel. The handlers
// (security_service) are the same for both.
#pragma once

#include <functional>

#include "service/forwarding_table.h"

namespace scc::service {

// A query sees the effect of every change that was submitted before it.
enum class work_kind { change, query };

class back_end {
  public:
    // Works on the tables and returns the operation's result. Must not block or keep a reference. It may run
    // twice if its changes were taken back in between.
    using table_work = std::function<u32(forwarding_table::contents&)>;
    using completion = std::function<void(u32 result)>;

    virtual ~back_end() = default;

    // Calls done with the result once the change is in force, on any thread; works are done in the order in
    // which they were submitted. A change that cannot be put in force has no effect on the tables. done must
    // not wait for a lock of the library.
    virtual void submit(work_kind kind, table_work work, completion done) = 0;
    // Returns when the change is in force.
    [[nodiscard]] virtual u32 run(work_kind kind, table_work work) = 0;
};

// The tables are all there is.
class memory_back_end : public back_end {
  public:
    explicit memory_back_end(forwarding_table& table) : table_(table) {}

    void submit(work_kind, table_work work, completion done) override { done(table_.locked(work)); }
    [[nodiscard]] u32 run(work_kind, table_work work) override { return table_.locked(work); }

  private:
    forwarding_table& table_;
};

}  // namespace scc::service
