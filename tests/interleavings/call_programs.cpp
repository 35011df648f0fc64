// Pending calls with their two rings, and the service's queue.
#include <array>
#include <cstring>

#include "client/log.h"
#include "client/message_queue.h"
#include "client/pending_calls.h"
#include "library_locks.h"
#include "memory.h"
#include "program.h"
#include "system.h"

namespace interleavings {
namespace {

using scc::u32;

constexpr int most_calls = 4;

// A requesting thread saves calls under scc_lib_lock, as every request does.
class calls : public actors {
  public:
    calls() {
        no_switches_at(&scc_lib_debug, sizeof scc_lib_debug);
        scc::init_pending_calls();
    }
    void finish() override {
        for (u32 id = 1; id <= saved_.get(); ++id) {
            if (scc::pending_call* left = scc::take_pending_call(id); left != nullptr) {
                found(id, left);
                scc::release_pending_call(left);
            }
            require(found_[id].get() == 1, "A call is lost.");
        }
        require(scc::pending_calls() == 0, "A call is pending that was not saved.");
        expect_no_block();
    }

  protected:
    static void expect_no_block() {
        scc::free_idle_blocks();
        scc::free_idle_blocks();
        scc::init_pending_calls();  // the grown index
        require(live_blocks() == 0, "A block is leaked.");
    }
    void save() {
        const lib_lock guard;
        const u32 id = saved_.get() + 1;
        const u32 data = id * 11;
        require(_scc_lib_save_call_data(id, id, &data, sizeof data) == 0, "A call is not saved.");
        saved_.set(id);
    }
    // Returns whether it was there.
    bool take(u32 id) {
        scc::pending_call* call = scc::take_pending_call(id);
        if (call == nullptr) {
            return false;
        }
        found(id, call);
        scc::release_pending_call(call);
        return true;
    }
    void found(u32 id, const scc::pending_call* call) {
        u32 data = 0;
        std::memcpy(&data, call->data(), sizeof data);
        require(call->call_id == id && call->kind == id && data == id * 11, "A call has another one's data.");
        require(found_[id].add(1) == 1, "A call is found twice.");
    }

    ghost<u32> saved_;
    std::array<ghost<int>, most_calls + 1> found_;
};

// The third call finds the two-slot ring full.
class save_and_take : public calls {
  public:
    void run(unsigned thread) override {
        for (u32 id = 1; id <= 3; ++id) {
            if (thread == 1) {
                save();
            } else {
                (void)take(id);
            }
        }
    }
};

// A block comes back and is used for the next call, while the checker grows the index and frees spare blocks.
class with_the_checker : public calls {
  public:
    void run(unsigned thread) override {
        if (thread == 1) {
            save();
            save();
        } else if (thread == 2) {
            (void)take(1);
        } else {
            scc::grow_pending_index();
            scc::free_idle_blocks();
            scc::free_idle_blocks();
        }
    }
};

// Two threads look for the same calls: a synchronous failure deletes a call that a result may find.
class taken_by_two : public calls {
  public:
    taken_by_two() {
        save();
        save();
    }
    void run(unsigned thread) override {
        (void)take(thread);
        (void)take(3 - thread);
    }
};

// The calls of two results are in hand while the connection ends, or while a request deletes its own.
template <bool DropsAll>
class in_hand : public calls {
  public:
    in_hand() {
        save();
        save();
    }
    void run(unsigned thread) override {
        if (thread == 2) {
            if (DropsAll) {
                scc::free_pending_calls();
            } else {
                _scc_lib_del_call_data(2);
            }
            return;
        }
        const std::array<u32, 2> ids{1, 2};
        scc::calls_in_hand hand(ids);
        for (std::size_t i = 0; i < ids.size(); ++i) {
            if (scc::pending_call* call = hand.take(i); call != nullptr) {
                found(ids[i], call);
                scc::release_pending_call(call);
            }
        }
    }
    void finish() override {
        require(scc::pending_calls() == 0, "A call outlives its connection.");
        expect_no_block();
    }
};

// The service's queue: first in, first out, and no thread waits for a message that has already arrived.
class queue : public actors {
  public:
    queue() {
        no_switches_at(&scc_lib_debug, sizeof scc_lib_debug);
        scc::init_message_queue();
    }
    void run(unsigned thread) override {
        if (thread == 1) {
            for (int i = 1; i <= 2; ++i) {
                require(scc::enqueue_message(i, nullptr), "A message is not queued.");
                given_.set(i);
            }
            scc::give_queue_memory_back();
            return;
        }
        for (int i = 0; i < 3; ++i) {
            receive();
        }
    }
    void finish() override {
        while (taken_.get() < given_.get()) {
            receive();
        }
        require(live_blocks() == 0, "A block is leaked.");
    }

  private:
    void receive() {
        const unsigned before = waits_timed_out();
        if (scc::scc_lib_msg_node* node = scc::dequeue_message(); node != nullptr) {
            require(waits_timed_out() == before, "A message that had come was waited for.");
            require(node->fd == taken_.add(1), "A message came out of order, twice or not at all.");
            woven_free(node);
        }
    }

    ghost<int> given_;
    ghost<int> taken_;
};

constexpr bounds all{};
constexpr bounds few{.preemptions = 2, .old_values = 2};

constexpr program programs[] = {
    {"each saved call is found once, with its data", 2, few, all, make<save_and_take>},
    {"the checker grows and frees while calls come and go", 3, few, all, make<with_the_checker>},
    {"a call that two threads look for is found once", 2, all, all, make<taken_by_two>},
    {"calls in hand are delivered or dropped, once", 2, all, all, make<in_hand<true>>},
    {"a call in hand is delivered or deleted, once", 2, all, all, make<in_hand<false>>},
    {"the service's queue keeps each message and the order", 2, all, all, make<queue>},
};

}  // namespace

std::span<const program> call_programs() {
    return programs;
}

}  // namespace interleavings
