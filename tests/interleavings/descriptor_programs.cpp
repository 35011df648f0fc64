// Loans, epochs and closing: descriptors, and what is sent on them.
#include <array>
#include <cstring>

#include "client/batch.h"
#include "client/client_data.h"
#include "client/connection_scope.h"
#include "client/control_block.h"
#include "client/descriptors.h"
#include "client/log.h"
#include "client/pending_calls.h"
#include "client/send.h"
#include "library_locks.h"
#include "memory.h"
#include "msg/message.h"
#include "program.h"
#include "system.h"

namespace interleavings {
namespace {

using scc::borrowed_descriptor;
using scc::channel;
using scc::u32;
using scc::u8;

constexpr std::memory_order relaxed = std::memory_order_relaxed;

// A registered client in thread mode. Connection 1 has the sockets 3 and 4; later ones take the numbers that
// are free.
class client : public actors {
  public:
    client() {
        no_switches_at(&scc_lib_debug, sizeof scc_lib_debug);
        no_switches_at(&g_scc_client_cb.thread_mode, sizeof g_scc_client_cb.thread_mode);
        no_switches_at(&g_scc_client_cb.pid, sizeof g_scc_client_cb.pid);
        g_scc_client_cb.thread_mode.store(1, relaxed);
        g_scc_client_cb.app_id.store(7, relaxed);
        _scc_lib_data_init();
        generation_ = scc::begin_generation();
        connect();
        _scc_client_state_set(scc::state_registered);
    }
    void finish() override {
        (void)scc::close_descriptors();
        require(open_sockets() == 0, "A socket stays open.");
    }

  protected:
    // Like the receive thread, but without the daemon's replies.
    bool connect() {
        const unsigned connection = connections_.get() + 1;
        connections_.set(connection);
        epoch_[connection].set(scc::connection_epoch());
        return scc::install_descriptor(channel::sync, open_socket(connection), generation_) &&
               scc::install_descriptor(channel::async, open_socket(connection), generation_);
    }
    bool connect_anew() {
        if (!scc::reset_connection(generation_)) {
            return false;
        }
        const u32 epoch = scc::epoch_of(generation_);
        if (!connect() || !exchange_on(channel::sync, epoch) || !exchange_on(channel::async, epoch)) {
            return false;
        }
        step("is registered");
        registered_.set(epoch);
        return scc::set_state_of(generation_, scc::state_registered);
    }
    // The epoch that a request belongs to; any_epoch when the client is not registered.
    static u32 begin_request() {
        const u32 epoch = scc::connection_epoch();
        return scc::client_state_now() == scc::state_registered ? epoch : scc::any_epoch;
    }
    // A thread that reads a new epoch must not read the earlier one's state.
    void expect_registered(u32 epoch) {
        step("asks for the epoch");
        require(epoch <= registered_.get(), "A request is accepted before its connection is registered.");
    }
    // The only connection that bytes of this epoch may go to.
    void expect_connection(unsigned found, u32 epoch) {
        require(found <= connections_.get() && epoch_[found].get() == epoch,
                "Something went to another connection than it was meant for.");
    }
    u32 generation_ = 0;

  private:
    // A registration request with its reply.
    static bool exchange_on(channel which, u32 epoch) {
        const borrowed_descriptor borrowed(which, epoch);
        step("talks to the daemon");
        return borrowed.fd() >= 0 && !is_shut_down(borrowed.fd());
    }

    ghost<u32> registered_{1};  // the last epoch that was registered
    ghost<unsigned> connections_;
    std::array<ghost<u32>, 6> epoch_;
};

// A borrowed descriptor stays open and keeps its connection, whoever closes and reconnects.
class borrow : public client {
  public:
    void run(unsigned thread) override {
        if (thread == 2) {
            (void)connect_anew();
            return;
        }
        const u32 epoch = begin_request();
        if (epoch == scc::any_epoch) {
            return;
        }
        expect_registered(epoch);
        const borrowed_descriptor borrowed(channel::async, epoch);
        for (int i = 0; i < 2; ++i) {
            step("uses the descriptor");
            if (borrowed.fd() >= 0) {
                expect_connection(connection_of(borrowed.fd()), epoch);
            }
        }
    }
};

// Two borrowers of one descriptor, and one that closes it.
class two_borrowers : public client {
  public:
    void run(unsigned thread) override {
        if (thread == 3) {
            (void)scc::close_descriptors();
            return;
        }
        const borrowed_descriptor borrowed(channel::sync);
        step("uses the descriptor");
        if (borrowed.fd() >= 0) {
            require(connection_of(borrowed.fd()) == 1, "A borrowed descriptor was closed.");
        }
    }
};

// The receive thread and the checker both end the connection, while a request uses it.
class two_closers : public client {
  public:
    void run(unsigned thread) override {
        const u32 epoch = thread == 3 ? scc::any_epoch : begin_request();
        if (thread != 3 && epoch == scc::any_epoch) {
            return;
        }
        if (thread == 1) {
            const borrowed_descriptor borrowed(channel::async, epoch);
            step("uses the descriptor");
            if (borrowed.fd() >= 0) {
                expect_connection(connection_of(borrowed.fd()), epoch);
            }
        } else if (thread == 2) {
            (void)scc::close_descriptors_of(epoch);
        } else {
            (void)connect_anew();
        }
    }
};

// A late report that the first connection is dead does not harm the second one.
class late_report : public client {
  public:
    late_report() : first_(scc::connection_epoch()) {}
    void run(unsigned thread) override {
        if (thread == 1) {
            (void)connect_anew();
            return;
        }
        scc::report_broken(first_);
        scc::shut_down_connection(first_);
        (void)scc::close_descriptors_of(first_);
    }
    void finish() override {
        const int fd = g_scc_client_cb.async_fd.load(relaxed);
        require(connection_of(fd) == 2 && !is_shut_down(fd),
                "A report of the old connection ended the new one.");
        require(!scc::is_shut_down(scc::connection_epoch()), "The new connection counts as shut down.");
        client::finish();
    }

  private:
    u32 first_;
};

// A request that was accepted on one connection never goes out on the next one.
template <bool ByBatch>
class send_over_reconnection : public client {
  public:
    void run(unsigned thread) override {
        if (thread == 2) {
            (void)connect_anew();
            return;
        }
        if (thread == 3) {
            scc::flush_waiting_batch();
            return;
        }
        request();
    }
    void finish() override {
        request();
        if (ByBatch) {
            scc::flush_waiting_batch();
        }
        for (const sent_bytes& message : sent()) {
            for (std::size_t at = scc::wire::header_bytes; at < message.bytes.size(); at += item_bytes) {
                expect_connection(message.connection, message.bytes[at + scc::wire::item_header_bytes]);
            }
        }
        client::finish();
    }

  private:
    static constexpr std::size_t item_bytes = scc::wire::item_header_bytes + 4;

    // The item's value is its epoch.
    static void request() {
        const u32 epoch = client::begin_request();
        if (epoch == scc::any_epoch) {
            return;
        }
        const scc::connection_scope scope(epoch);
        const std::array<u8, 4> value{static_cast<u8>(epoch)};
        if (ByBatch) {
            (void)scc::send_in_batch(0, 1, {value});
        } else {
            (void)scc::send_one_item(channel::sync, epoch, 0, 1, {value});
        }
    }
};

// A request saves its call while the connection ends: no call of a lost connection stays pending.
class request_over_reset : public client {
  public:
    void run(unsigned thread) override {
        if (thread == 1) {
            (void)scc_addr_learning(7, 1, nullptr);
        } else {
            (void)scc::reset_connection(generation_);
        }
    }
    void finish() override {
        require(scc::pending_calls() == 0, "A call outlives its connection.");
        client::finish();
    }
};

// The registration ends and another begins while the receive thread of the first reconnects.
class end_over_reconnection : public client {
  public:
    void run(unsigned thread) override {
        if (thread == 1) {
            (void)connect_anew();
            return;
        }
        scc::end_generation();
        _scc_client_state_set(scc::state_idle);
        (void)scc::close_descriptors();
        u32 next = 0;
        begun_.set(scc::claim_start(scc::start_kind::thread, next));
    }
    void finish() override {
        require(begun_.get(), "The next registration is refused.");
        require(g_scc_client_cb.async_fd.load(relaxed) < 0 && open_sockets() == 0,
                "A socket of the ended registration is installed in the next one.");
    }

  private:
    ghost<bool> begun_;
};

constexpr bounds all{};
constexpr bounds few{.preemptions = 2, .old_values = 1};

constexpr program programs[] = {
    {"a borrowed descriptor outlives a reconnection", 2, all, all, make<borrow>},
    {"two borrow one descriptor, a third closes it", 3, all, all, make<two_borrowers>},
    {"two close one connection, a third uses it", 3, few, all, make<two_closers>},
    {"a late report spares the next connection", 2, all, all, make<late_report>},
    {"a message stays with its connection", 2, all, all, make<send_over_reconnection<false>>},
    {"a batched request stays with its connection", 3, few, all, make<send_over_reconnection<true>>},
    {"no call outlives its connection", 2, all, all, make<request_over_reset>},
    {"no socket of an ended registration is installed", 2, all, all, make<end_over_reconnection>},
};

}  // namespace

std::span<const program> descriptor_programs() {
    return programs;
}

}  // namespace interleavings
