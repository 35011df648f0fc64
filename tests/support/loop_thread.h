// An event loop of the platform on a thread of its own, which runs to the end of the process.
#pragma once

#include <qx_thread.h>

#include <cstdint>
#include <future>
#include <thread>

namespace test {

class loop_thread {
  public:
    loop_thread() : master_(qx_thread_master_create()) {
        std::thread([this] { qx_thread_master_run(master_); }).detach();
    }
    // Runs a function on the loop's thread and waits for its result.
    template <class Function>
    std::uint32_t run(Function function) {
        std::packaged_task<std::uint32_t()> work(function);
        auto result = work.get_future();
        qx_thread_add_event_withname(master_, run_work, &work, 0, "load");
        return result.get();
    }

    [[nodiscard]] qx_thread_master* master() const { return master_; }

  private:
    static int run_work(qx_thread* task) {
        (*static_cast<std::packaged_task<std::uint32_t()>*>(qx_thread_arg(task)))();
        return 0;
    }
    qx_thread_master* master_;
};

}  // namespace test
