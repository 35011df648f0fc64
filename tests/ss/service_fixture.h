// A scripted daemon with this process registered as the security service. Handlers report the bytes of their
// record or arguments, and act according to the script.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <type_traits>

#include "scclib.h"
#include "support/events.h"
#include "support/log_capture.h"
#include "support/scripted_daemon.h"

namespace test {

// One call of a handler: its position in the registration record and its arguments.
struct handler_call {
    int slot = -1;
    bytes given;
};

inline event_queue<handler_call>& handler_calls() {
    static auto* queue = new event_queue<handler_call>;
    return *queue;
}

inline event_queue<std::uint32_t>& service_statuses() {
    static auto* queue = new event_queue<std::uint32_t>;
    return *queue;
}

// What every handler does after it has reported its call.
struct handler_script {
    std::atomic<int> returns{0};
    std::atomic<int> answers{0};  // how often an operation record is answered from inside the handler
    std::atomic<std::uint32_t> ret{0};
    std::atomic<std::uint32_t> op{0};
    std::atomic<std::uint64_t> counter{0};
};

inline handler_script& script() {
    static auto* one = new handler_script;
    return *one;
}

inline void append_argument(wire& out, std::uint32_t value) {
    out.u32(value);
}

inline void append_argument(wire& out, std::uint8_t value) {
    out.u8(value);
}

inline void append_argument(wire& out, const scc_ss_user* user) {
    out.add(record_bytes(*user));
}

template <class Record>
void complete(Record& operation) {
    operation.ret = script().ret;
    operation.op = script().op;
    if constexpr (std::is_same_v<Record, scc_ss_counter_operation>) {
        operation.counter = script().counter;
    }
}

// A handler that takes an operation record.
template <int Slot, class Record>
int on_operation(Record* operation) {
    handler_calls().push({Slot, record_bytes(*operation)});
    for (int left = script().answers; left > 0; --left) {
        complete(*operation);
        operation->callback(operation, sizeof *operation);
    }
    return script().returns;
}

// A handler that takes its arguments one by one.
template <int Slot, class... Arguments>
int on_arguments(Arguments... arguments) {
    wire given;
    (append_argument(given, arguments), ...);
    handler_calls().push({Slot, given});
    return script().returns;
}

// Every byte that a handler is promised is read.
inline int on_user_list(std::uint32_t ifx, std::uint32_t app, std::uint32_t count, const void* users) {
    handler_calls().push(
        {21, wire().u32(ifx).u32(app).u32(count).raw(users, std::size_t{count} * sizeof(scc_ss_user))});
    return script().returns;
}

inline int on_port_list(std::uint32_t count, const void* ports) {
    handler_calls().push({22, wire().u32(count).raw(ports, std::size_t{count} * sizeof(std::uint32_t))});
    return script().returns;
}

inline void on_vlans(const scc_vlan_record* vlans) {
    handler_calls().push({13, wire().raw(vlans, sizeof *vlans)});
}

inline void on_authmode(std::uint32_t mode) {
    handler_calls().push({14, wire().u32(mode)});
}

// The byte of the recovery that expect_nothing_more sends; its handler does not report it.
inline constexpr std::uint8_t mark_byte = 0xFE;

inline int on_recovery(std::uint8_t start) {
    if (start == mark_byte) {
        return 0;
    }
    handler_calls().push({24, wire().u8(start)});
    return script().returns;
}

inline void on_service_status(std::uint32_t status) {
    service_statuses().push(status);
}

// All 26, in the record's order.
inline scc_ss_reg_info all_handlers() {
    scc_ss_reg_info info{};
    info.server_status = on_service_status;
    info.acl_create = on_operation<1>;
    info.acl_delete = on_operation<2>;
    info.add_ace = on_operation<3>;
    info.delete_ace = on_operation<4>;
    info.apply = on_operation<5>;
    info.unapply = on_operation<6>;
    info.resequence = on_operation<7>;
    info.svi_router_acl = on_operation<8>;
    info.acl_counter = on_operation<9>;
    info.ace_counter = on_operation<10>;
    info.uplink = on_operation<11>;
    info.cpp = on_operation<12>;
    info.direct_vlan_notify = on_vlans;
    info.authmode = on_authmode;
    info.app_set = on_arguments<15>;
    info.def_read = on_arguments<16>;
    info.http_l4port_set = on_arguments<17>;
    info.user_op = on_arguments<18>;
    info.user_read = on_arguments<19>;
    info.user_reinstall = on_arguments<20>;
    info.app_user_recover = on_user_list;
    info.l4port_recover = on_port_list;
    info.app_set_with_vid = on_arguments<23>;
    info.data_recover = on_recovery;
    info.offline_detect_cfg = on_arguments<25>;
    return info;
}

class registered_service : public ::testing::Test {
  protected:
    // Registers with the handlers that the test has set in info.
    void start() {
        info.server_status = on_service_status;
        ASSERT_EQ(scc_ss_reg(&info), 0U);
        daemon.accept_registration();
        ASSERT_EQ(service_statuses().wait(), 1U);
    }

    void start_with_all_handlers() {
        info = all_handlers();
        start();
    }

    void send(std::uint16_t type, const bytes& value, std::uint16_t scc_type = 0x0102) {
        daemon.send_item(side::async, type, value, scc_type);
    }

    // The next call of a handler, which must be the one in that slot.
    static bytes called(int slot) {
        const auto call = handler_calls().wait();
        EXPECT_TRUE(call.has_value()) << "no handler was called";
        EXPECT_EQ(call.value_or(handler_call{}).slot, slot);
        return call.value_or(handler_call{}).given;
    }

    // The next item sent on that side is a result with this scc-type and value.
    void expect_result(std::uint16_t scc_type, const bytes& value, side where = side::async) {
        const received_item item = daemon.read_item(where);
        EXPECT_EQ(item.type, 402);
        EXPECT_EQ(item.sub_id, scc_type);
        EXPECT_EQ(item.value, value);
    }

    // Sends an operation that is always answered at once, and expects its answer as the next thing on the
    // asynchronous socket: everything before has then been processed, and has sent nothing more.
    void expect_nothing_more() {
        constexpr std::uint32_t mark = 0xFACADE;
        daemon.send_item(side::async, 201, wire().u32(mark).u32(9).u8(mark_byte));
        const received_item item = daemon.read_item(side::async);
        EXPECT_EQ(item.type, 402);
        EXPECT_EQ(u32_at(item.value, 0), mark) << "something else was sent";
    }

    scc_ss_reg_info info{};
    scripted_daemon daemon;
};

// What the daemon's 131, 132, ... carry; the bytes between the fields differ from one another, so that a
// wrong offset shows.
inline bytes pattern(std::size_t size, std::uint8_t first) {
    bytes out(size);
    for (std::size_t i = 0; i < size; ++i) {
        out[i] = static_cast<std::uint8_t>(first + i * 7 + i / 251);
    }
    return out;
}

inline bytes with_u32(bytes value, std::size_t offset, std::uint32_t number) {
    std::memcpy(value.data() + offset, &number, sizeof number);
    return value;
}

// A record as a handler saw it, for a service that answers later.
template <class Record>
Record record_of(const bytes& seen) {
    Record record;
    EXPECT_EQ(seen.size(), sizeof record);
    std::memcpy(&record, seen.data(), std::min(seen.size(), sizeof record));
    return record;
}

}  // namespace test
