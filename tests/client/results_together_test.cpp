// Several results in one message: each finds its call, whatever the handlers of the earlier ones do.
#include <numeric>

#include "client/connection.h"
#include "client/control_block.h"
#include "client/dispatch.h"
#include "client/results_support.h"

using test::bytes;
using test::key_bytes;
using test::Results;
using test::wire;

namespace {

// What the handlers of a message do and observe: each of its results belongs to a call of kind 45 or 31.
struct script {
    std::uint32_t acting_id = 0;  // the call whose handler acts
    void (*act)() = nullptr;
    std::vector<std::uint32_t> delivered;
};

script& the_script() {
    static auto* one = new script;
    return *one;
}

void act_in(std::uint32_t call_id) {
    the_script().delivered.push_back(call_id);
    if (the_script().acting_id == call_id) {
        the_script().act();
    }
}

using ids = std::vector<std::uint32_t>;

bytes result_item(std::uint32_t call_id) {
    return test::item_bytes(401, wire().u32(call_id).u32(0));
}

bytes other_item() {
    return test::item_bytes(210, wire().u32(1).u8(1));
}

ids from_one_to(std::uint32_t last) {
    ids all(last);
    std::iota(all.begin(), all.end(), 1U);
    return all;
}

std::vector<std::string> unknown(const ids& calls) {
    std::vector<std::string> texts;
    for (const std::uint32_t id : calls) {
        texts.push_back("no such call id:" + std::to_string(id) + " in scc lib");
    }
    return texts;
}

class ResultsTogether : public Results {
  protected:
    ResultsTogether() {
        scc_handlers handlers{};
        handlers.svi_router_acl = [](std::uint32_t, std::uint32_t call_id, std::uint8_t) { act_in(call_id); };
        handlers.acl_create = [](std::uint32_t, std::uint32_t call_id, const scc_acl_key*) {
            act_in(call_id);
        };
        test::use_handlers(handlers);
    }

    static void save_up_to(std::uint32_t last) {
        for (std::uint32_t id = 1; id <= last; ++id) {
            save(id, 45, wire().u8(1));
        }
    }

    static void act_at(std::uint32_t call_id, void (*act)()) { the_script() = {call_id, act, {}}; }

    // One message with these items is dispatched; returns what was delivered.
    static ids deliver_items(const std::vector<bytes>& items) {
        const bytes message = test::message_bytes(items);
        the_script().delivered.clear();
        _scc_lib_async_msg_proc(static_cast<std::uint32_t>(items.size()), message.data() + 8);
        return the_script().delivered;
    }

    static ids deliver_together(const ids& calls) {
        std::vector<bytes> items;
        for (const std::uint32_t id : calls) {
            items.push_back(result_item(id));
        }
        return deliver_items(items);
    }
};

// Looking up many results at once has no visible effect.
constexpr std::uint32_t run_lengths[] = {2, 31, 32, 33, 64, 65};

TEST_F(ResultsTogether, AreDeliveredInTheirOrder) {
    for (const std::uint32_t count : run_lengths) {
        const test::debugging on;
        save_up_to(count);
        EXPECT_EQ(deliver_together(from_one_to(count)), from_one_to(count));
        EXPECT_TRUE(test::log_texts().empty());
        EXPECT_EQ(scc::pending_calls(), 0U);
    }
}

TEST_F(ResultsTogether, AreDeliveredThoughTheirConnectionIsClosedMeanwhile) {
    for (const std::uint32_t count : run_lengths) {
        for (const std::uint32_t at : ids{1, count / 2, count - 1}) {
            SCOPED_TRACE(std::to_string(at) + " of " + std::to_string(count));
            save_up_to(count);
            act_at(at, [] { EXPECT_GE(_scc_lib_client_close(), 0); });
            EXPECT_EQ(deliver_together(from_one_to(count)), from_one_to(count));
            EXPECT_EQ(scc::pending_calls(), 0U);
        }
    }
}

TEST_F(ResultsTogether, WithAnotherItemBetweenAreDeliveredThoughTheirConnectionIsClosed) {
    save_up_to(3);
    act_at(1, [] { EXPECT_GE(_scc_lib_client_close(), 0); });
    EXPECT_EQ(deliver_items({result_item(1), other_item(), result_item(2), result_item(3)}), (ids{1, 2, 3}));
}

// The result of a handler's request may be further on in the same message.
TEST_F(ResultsTogether, FindTheCallsThatTheirHandlersMakeMeanwhile) {
    for (const std::uint32_t count : run_lengths) {
        SCOPED_TRACE(count);
        save_up_to(count - 1);
        static std::uint32_t made;
        made = count;
        act_at(1, [] { save(made, 45, wire().u8(1)); });
        EXPECT_EQ(deliver_together(from_one_to(count)), from_one_to(count));
        EXPECT_EQ(scc::pending_calls(), 0U);
    }
}

TEST_F(ResultsTogether, FindAChainOfCallsEachMadeByTheHandlerOfTheOneBefore) {
    scc_handlers handlers{};
    handlers.svi_router_acl = [](std::uint32_t, std::uint32_t call_id, std::uint8_t) {
        the_script().delivered.push_back(call_id);
        save(call_id + 1, 45, wire().u8(1));
    };
    test::use_handlers(handlers);
    save(1, 45, wire().u8(1));
    EXPECT_EQ(deliver_together(from_one_to(65)), from_one_to(65));
    EXPECT_EQ(scc::pending_calls(), 1U);
}

TEST_F(ResultsTogether, AreUnknownOnceTheirCallsWereFreedMeanwhile) {
    for (const std::uint32_t count : run_lengths) {
        SCOPED_TRACE(count);
        const test::debugging on;
        save_up_to(count);
        act_at(1, _scc_lib_data_free);
        EXPECT_EQ(deliver_together(from_one_to(count)), ids{1});
        ids rest = from_one_to(count);
        rest.erase(rest.begin());
        EXPECT_EQ(test::log_texts(), unknown(rest));
        EXPECT_EQ(scc::pending_calls(), 0U);
    }
}

TEST_F(ResultsTogether, LeaveTheCacheAloneWhenItWasFreedDuringTheHandler) {
    g_scc_client_cb.option.store(1);
    save(1, 31, key_bytes(1));
    save(2, 31, key_bytes(2));
    act_at(1, _scc_lib_data_free);
    EXPECT_EQ(deliver_together({1, 2}), ids{1});
    EXPECT_EQ(held_acls(), 0U);
}

// Like the thread whose request turned out too large.
TEST_F(ResultsTogether, AreUnknownOnceTheirCallWasDeletedMeanwhile) {
    const test::debugging on;
    save_up_to(3);
    act_at(1, [] { _scc_lib_del_call_data(2); });
    EXPECT_EQ(deliver_together({1, 2, 3}), (ids{1, 3}));
    EXPECT_EQ(test::log_texts(), unknown({2}));
    EXPECT_EQ(scc::pending_calls(), 0U);
}

TEST_F(ResultsTogether, OfOneCallAreDeliveredOnce) {
    const test::debugging on;
    save_up_to(2);
    EXPECT_EQ(deliver_together({1, 1, 2, 2, 1}), (ids{1, 2}));
    EXPECT_EQ(test::log_texts(), unknown({1, 2, 1}));
}

}  // namespace
