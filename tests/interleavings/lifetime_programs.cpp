// Generations, turns, unregistration and the start.
#include <array>
#include <cstddef>

#include "client/connection.h"
#include "client/control_block.h"
#include "client/descriptors.h"
#include "client/handlers.h"
#include "client/lifetime.h"
#include "client/log.h"
#include "client/start.h"
#include "library_locks.h"
#include "memory.h"
#include "program.h"
#include "system.h"

namespace interleavings {
namespace {

using scc::u32;

constexpr std::memory_order relaxed = std::memory_order_relaxed;

class process : public actors {
  public:
    process() {
        no_switches_at(&scc_lib_debug, sizeof scc_lib_debug);
        no_switches_at(&g_scc_client_cb.thread_mode, sizeof g_scc_client_cb.thread_mode);
        g_scc_client_cb.thread_mode.store(1, relaxed);
    }

  protected:
    // A registered client without sockets, so nothing is sent.
    void begin_registered() {
        require(scc::claim_start(scc::start_kind::thread, first_), "The first start is refused.");
        g_scc_client_cb.app_id.store(7, relaxed);
        _scc_client_state_set(scc::state_registered);
    }
    u32 first_ = 0;
};

// Handlers of two registrations never run together, and none of the first begins after one of the second.
class turns : public process {
  public:
    turns() { begin_registered(); }
    void run(unsigned thread) override {
        if (thread == 1) {
            deliver(first_);
        } else if (thread == 2) {
            scc::end_generation();
            second_.set(scc::begin_generation());
            deliver(second_.get());
        } else {
            deliver(first_);
        }
    }

  protected:
    void deliver(u32 generation) {
        const scc::delivery_turn turn(generation);
        if (!turn.granted()) {
            return;
        }
        step("a handler begins");
        const int others = generation == first_ ? of_second_.get() : of_first_.get();
        require(others == 0, "Handlers of two registrations run together.");
        require(generation != first_ || !second_delivered_.get(),
                "An ended registration delivers after the next.");
        ghost<int>& own = generation == first_ ? of_first_ : of_second_;
        own.add(1);
        if (generation != first_) {
            second_delivered_.set(true);
        }
        nested(generation);
        step("the handler returns");
        own.add(-1);
    }
    virtual void nested(u32 /*generation*/) {}
    ghost<u32> second_;

  private:
    ghost<int> of_first_;
    ghost<int> of_second_;
    ghost<bool> second_delivered_;
};

// The first registration's handler registers again within its turn, and does not wait.
class registers_in_handler : public turns {
  public:
    void run(unsigned thread) override {
        if (thread == 1) {
            deliver(first_);
            return;
        }
        step("asks for the next registration");
        if (const u32 next = second_.get(); next != 0) {
            deliver(next);
        }
    }
    void nested(u32 generation) override {
        if (generation == first_) {
            scc::end_generation();
            const u32 next = scc::begin_generation();
            step("tells of the next registration");
            second_.set(next);
            const scc::delivery_turn inner(generation);
            require(!inner.granted(), "An ended registration has a turn.");
            const scc::delivery_turn of_next(next);
            require(of_next.granted(), "A registration begun in a handler has no turn there.");
        }
    }
};

// A receive thread whose socket is dead waits for the outcome of an unregistration.
template <bool Agreed>
class outcome_of_unregistration : public process {
  public:
    outcome_of_unregistration() { begin_registered(); }
    void run(unsigned thread) override {
        if (thread == 1) {
            u32 app_id = 0;
            if (!scc::begin_unregistration(app_id)) {
                return;
            }
            require(app_id == 7, "The registration has lost its id.");
            step("the daemon answers");
            if (Agreed) {
                scc::end_generation();
                scc::end_unregistration();
            } else {
                scc::take_unregistration_back(app_id);
            }
            return;
        }
        const bool survived = scc::survives_unregistration(first_);
        if (survived && scc::app_id_now() == 0) {
            // The unregistration had not begun when the thread asked.
            require(scc::survives_unregistration(first_) != Agreed, "A registration outlives its end.");
        }
        if (!survived) {
            require(Agreed, "A registration that goes on is left.");
        }
    }
    void finish() override {
        require(Agreed || scc::app_id_now() == 7, "The registration has lost its id.");
        require(scc::is_current(first_) != Agreed, "The registration has another end than the daemon said.");
    }
};

// Two unregistrations at once: one of them ends the registration, once.
class two_unregistrations : public process {
  public:
    two_unregistrations() { begin_registered(); }
    void run(unsigned /*thread*/) override {
        u32 app_id = 0;
        if (scc::begin_unregistration(app_id)) {
            winners_.add(1);
            require(app_id == 7, "An unregistration has another one's id.");
            scc::end_generation();
            _scc_client_state_set(scc::state_idle);
            scc::end_unregistration();
        }
    }
    void finish() override { require(winners_.get() == 1, "Not one of two unregistrations went through."); }

  private:
    ghost<int> winners_;
};

void server_status(u32 status);

// An unregistration races with a delivery of the receive thread, which then leaves, and with the next start.
class unregister_and_start : public process {
  public:
    unregister_and_start() {
        begin_registered();
        no_switches_at(&g_scc_client_cb.handlers, offsetof(scc_handlers, server_status));
        constexpr std::size_t rest =
            offsetof(scc_handlers, server_status) + sizeof g_scc_client_cb.handlers.server_status;
        no_switches_at(reinterpret_cast<const char*>(&g_scc_client_cb.handlers) + rest,
                       sizeof(scc_handlers) - rest);
        set_handler();
        handling_.set(0);
        next_started_.set(false);
    }
    void run(unsigned thread) override {
        if (thread == 1) {
            scc::notify_status(1, first_);
            if (!scc::is_current(first_)) {
                scc::leave_generation(first_);
            }
            return;
        }
        const lib_lock guard;
        require(scc::unregister_client("scc_svr_unreg") == 0, "The unregistration fails.");
        u32 next = 0;
        require(scc::claim_start(scc::start_kind::thread, next), "The next registration is refused.");
        _scc_client_state_set(scc::state_connecting);
        set_handler();
        next_started_.set(true);
        scc::notify_status(2, next);
    }
    void finish() override {
        require(scc::client_state_now() == scc::state_connecting,
                "The thread that leaves has changed the next one's state.");
        require(scc::is_started(scc::start_kind::thread),
                "The thread that leaves has ended the next registration.");
    }

    static ghost<int> handling_;
    static ghost<bool> next_started_;

  private:
    static void set_handler() {
        scc_reg_info info{};
        info.handlers.server_status = server_status;
        _scc_lib_handler_set(&info);
    }
};
ghost<int> unregister_and_start::handling_;
ghost<bool> unregister_and_start::next_started_;

void server_status(u32 status) {
    step("a handler begins");
    require(unregister_and_start::handling_.add(1) == 1, "Two handlers run together.");
    require(status != 2 || unregister_and_start::next_started_.get(),
            "The next registration is told of too early.");
    step("the handler returns");
    unregister_and_start::handling_.add(-1);
}

// Two starts at once: one wins, and the identity is the winner's.
template <scc::start_kind First, scc::start_kind Second>
class starts : public process {
  public:
    void run(unsigned thread) override {
        const scc::start_kind kind = thread == 1 ? First : Second;
        u32 generation = 0;
        const scc::start_identity identity{thread, 0, kind};
        if (scc::is_already_started(identity, "start")) {
            refused_.add(1);
            return;
        }
        if (scc::claim_start(kind, generation)) {
            winners_.add(1);
            winner_.set(generation);
        } else {
            refused_.add(1);
        }
    }
    void finish() override {
        const bool replaces = First == scc::start_kind::agent && Second == scc::start_kind::agent;
        require(winners_.get() == (replaces ? 2 : 1), "Not one of the starts went through.");
        require(winners_.get() + refused_.get() == 2, "A start neither went through nor was refused.");
        require(replaces || scc::is_current(winner_.get()),
                "The start that went through is not the current one.");
    }

  private:
    ghost<int> winners_;
    ghost<int> refused_;
    ghost<u32> winner_;
};

// A start that is undone because no thread could be created, against another start: nothing of the first
// stays.
class undone : public process {
  public:
    void run(unsigned thread) override {
        u32 generation = 0;
        if (!scc::claim_start(scc::start_kind::thread, generation)) {
            return;
        }
        if (thread == 1) {
            first_.set(generation);
            (void)scc::install_descriptor(scc::channel::sync, open_socket(1), generation);
            scc::undo_start(_scc_lib_handler_clear);
            return;
        }
        second_.set(generation);
        (void)scc::install_descriptor(scc::channel::sync, open_socket(2), generation);
    }
    void finish() override {
        if (second_.get() > first_.get()) {
            require(scc::is_current(second_.get()), "Undoing one start ended another.");
            require(open_sockets() == 1 && connection_of(g_scc_client_cb.sync_fd.load(relaxed)) == 2,
                    "Undoing one start closed another's socket.");
        } else {
            require(open_sockets() == 0, "A socket of an undone start stays open.");
        }
    }

  private:
    ghost<u32> first_;
    ghost<u32> second_;
};

constexpr bounds all{};

constexpr scc::start_kind thread_mode = scc::start_kind::thread;
constexpr scc::start_kind agent = scc::start_kind::agent;

constexpr program programs[] = {
    {"handlers of two registrations never run together", 3, all, all, make<turns>},
    {"a handler that registers anew waits for nothing", 2, all, all, make<registers_in_handler>},
    {"a receive thread waits for an unregistration that is agreed", 2, all, all,
     make<outcome_of_unregistration<true>>},
    {"a receive thread waits for one that is refused", 2, all, all, make<outcome_of_unregistration<false>>},
    {"one of two unregistrations goes through", 2, all, all, make<two_unregistrations>},
    {"unregistration and start against a delivery", 2, all, all, make<unregister_and_start>},
    {"one of two starts of threads goes through", 2, all, all, make<starts<thread_mode, thread_mode>>},
    {"one of two starts of both kinds goes through", 2, all, all, make<starts<thread_mode, agent>>},
    {"one start of an event loop replaces another", 2, all, all, make<starts<agent, agent>>},
    {"undoing one start spares another", 2, all, all, make<undone>},
};

}  // namespace

std::span<const program> lifetime_programs() {
    return programs;
}

}  // namespace interleavings
