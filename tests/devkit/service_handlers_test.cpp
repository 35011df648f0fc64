// The handlers as the library calls them, without a connection: the records carry the test's callback, and
// the operations without a record are not answered.
#include <cerrno>
#include <cstring>
#include <future>
#include <memory>
#include <random>
#include <thread>

#include "msg/protocol.h"
#include "service/security_service.h"
#include "service_frames.h"

namespace scc::service {
namespace {

using namespace testing;

struct answer {
    std::vector<u8> record;
    std::thread::id thread;

    template <class Record>
    [[nodiscard]] Record as() const {
        Record copy{};
        EXPECT_EQ(record.size(), sizeof copy);
        if (record.size() == sizeof copy) {
            std::memcpy(&copy, record.data(), sizeof copy);
        }
        return copy;
    }
};

// The callback of a record has no context either.
std::promise<answer>* awaited = nullptr;

void take_answer(const void* record, u32 size) {
    const auto* bytes = static_cast<const u8*>(record);
    awaited->set_value({{bytes, bytes + size}, std::this_thread::get_id()});
}

class ServiceHandlers : public ::testing::Test {
  protected:
    void start(answer_policy policy = {}) {
        service_ = std::make_unique<security_service>(
            back_end_, table_, std::move(policy),
            security_service::observer{[this](const std::string& line) { lines_.push_back(line); },
                                       {},
                                       [this](std::size_t applied) { applied_.push_back(applied); }});
        ASSERT_EQ(service_->start_answers(), 0u);
        service_->activate();
    }

    // Calls the handler with the record and waits for its answer.
    template <class Record>
    answer answer_to(int (*handler)(Record*), Record& record) {
        std::promise<answer> promise;
        awaited = &promise;
        record.callback = take_answer;
        EXPECT_EQ(handler(&record), 0);
        // A service that answers later must not need the caller's record any more.
        if (service_delays_) {
            std::memset(static_cast<void*>(&record), 0xEE, sizeof record);
        }
        return promise.get_future().get();
    }

    // The result of an operation whose record has only an ACL key.
    u32 result_of(int (*handler)(scc_ss_acl_operation*), u32 acl_id) {
        scc_ss_acl_operation operation{};
        operation.key = key_of(acl_id);
        return answer_to(handler, operation).template as<scc_ss_acl_operation>().ret;
    }

    std::string table_text() {
        return table_.locked([](const forwarding_table::contents& held) { return held.text(); });
    }

    const scc_ss_reg_info& handlers_ = security_service::handlers();
    forwarding_table table_;
    memory_back_end back_end_{table_};
    std::vector<std::string> lines_;
    std::vector<std::size_t> applied_;
    bool service_delays_ = false;
    std::unique_ptr<security_service> service_;
};

TEST_F(ServiceHandlers, EveryHandlerIsThere) {
    const auto* words = reinterpret_cast<void* const*>(&handlers_);
    static_assert(sizeof handlers_ == 26 * sizeof(void*));
    for (int slot = 0; slot < 26; ++slot) {
        EXPECT_NE(words[slot], nullptr) << slot;
    }
}

TEST_F(ServiceHandlers, ACreateIsAnsweredFromItsHandlerWithItsOwnRecord) {
    start();
    scc_ss_acl_operation operation{};
    operation.id = 77;
    operation.flag = 1;
    operation.key = key_of(5);
    const answer first = answer_to(handlers_.acl_create, operation);
    EXPECT_EQ(first.thread, std::this_thread::get_id());
    const auto record = first.as<scc_ss_acl_operation>();
    EXPECT_EQ(record.id, 77u);
    EXPECT_EQ(record.ret, 0u);
    EXPECT_EQ(record.op, 0u);
    EXPECT_EQ(record.flag, 1);
    EXPECT_EQ(record.key.acl_id, 5u);
    EXPECT_EQ(result_of(handlers_.acl_create, 5), 2010u);
    EXPECT_EQ(lines_, (std::vector<std::string>{"131 create acl 1/2/5: 0", "131 create acl 1/2/5: 2010"}));
}

// The daemon's operations may come before the recovery that the service asks for.
TEST_F(ServiceHandlers, WhatALostDaemonHadCreatedIsNotInTheWayOfTheNextOnes) {
    start();
    EXPECT_EQ(result_of(handlers_.acl_create, 5), 0u);
    handlers_.server_status(0);
    EXPECT_EQ(result_of(handlers_.acl_create, 5), 2010u);
    handlers_.server_status(1);
    EXPECT_EQ(result_of(handlers_.acl_create, 5), 0u);
    EXPECT_EQ(result_of(handlers_.acl_create, 5), 2010u);
}

TEST_F(ServiceHandlers, EachAclOperationCarriesItsOwnCode) {
    start();
    scc_ss_acl_operation acl{};
    acl.key = key_of(5);
    EXPECT_EQ(answer_to(handlers_.acl_create, acl).as<scc_ss_acl_operation>().op, 0u);
    scc_ss_ace_operation ace{};
    ace.key = key_of(5);
    ace.ace = ace_of("10 permit ether");
    const auto added = answer_to(handlers_.add_ace, ace).as<scc_ss_ace_operation>();
    EXPECT_EQ(added.op, 2u);
    EXPECT_EQ(added.ret, 0u);
    scc_ss_apply_operation apply{};
    apply.apply = application_of(5, 1);
    const auto applied = answer_to(handlers_.apply, apply).as<scc_ss_apply_operation>();
    EXPECT_EQ(applied.op, 4u);
    EXPECT_EQ(applied.ret, 0u);
    EXPECT_EQ(applied_, (std::vector<std::size_t>{1}));
    EXPECT_EQ(lines_.back(), "133 apply acl 1/2/5 type 2 ifx 1 in: 0");
    const auto unapplied = answer_to(handlers_.unapply, apply).as<scc_ss_apply_operation>();
    EXPECT_EQ(unapplied.op, 5u);
    EXPECT_EQ(unapplied.ret, 0u);
    scc_ss_resequence_operation resequence{};
    resequence.key = key_of(5);
    resequence.sn_start = 100;
    resequence.sn_inc = 10;
    EXPECT_EQ(answer_to(handlers_.resequence, resequence).as<scc_ss_resequence_operation>().op, 6u);
    ace.ace = ace_of("100 permit ether id 10");
    const auto deleted = answer_to(handlers_.delete_ace, ace).as<scc_ss_ace_operation>();
    EXPECT_EQ(deleted.op, 3u);
    EXPECT_EQ(deleted.ret, 0u);
    EXPECT_EQ(answer_to(handlers_.acl_delete, acl).as<scc_ss_acl_operation>().op, 1u);
}

TEST_F(ServiceHandlers, SwitchWideSettingsAreKeptAndAnswered) {
    start();
    scc_ss_svi_operation svi{};
    svi.open = 1;
    EXPECT_EQ(answer_to(handlers_.svi_router_acl, svi).as<scc_ss_svi_operation>().op, 7u);
    scc_ss_eport_operation eport{};
    eport.ifx = 12;
    eport.set = 1;
    EXPECT_EQ(answer_to(handlers_.uplink, eport).as<scc_ss_eport_operation>().op, 8u);
    scc_ss_cpp_operation cpp{};
    cpp.type = 3;
    cpp.set = 1;
    EXPECT_EQ(answer_to(handlers_.cpp, cpp).as<scc_ss_cpp_operation>().op, 11u);
    EXPECT_EQ(table_text(),
              "egress ports 12\ncpu protection 3\nrouter acl open\n"
              "offline detection closed interval 0 threshold 0\nauthentication mode 0\n");
}

TEST_F(ServiceHandlers, ACounterIsReadWhenTheSyncWordIsSetAndResetOtherwise) {
    start();
    ASSERT_EQ(result_of(handlers_.acl_create, 5), 0u);
    table_.locked([](forwarding_table::contents& held) {
        EXPECT_EQ(held.acls.add_ace(key_of(5), ace_of("10 permit ether id 7")), 0u);
        EXPECT_EQ(held.acls.apply(application_of(5, 1)), 0u);
        held.acls.classify(packet_of(tcp_frame()), {1, 0});
    });
    scc_ss_counter_operation query{};
    query.key = key_of(5);
    query.ace = 7;
    query.sync = 1;
    scc_ss_counter_operation reset = query;
    reset.sync = 0;

    const auto read = answer_to(handlers_.ace_counter, query).as<scc_ss_counter_operation>();
    EXPECT_EQ(read.ret, 0u);
    EXPECT_EQ(read.op, 9u);
    EXPECT_EQ(read.counter, 1u);
    EXPECT_EQ(read.sync, 1u);
    EXPECT_EQ(answer_to(handlers_.ace_counter, reset).as<scc_ss_counter_operation>().ret, 0u);
    EXPECT_EQ(answer_to(handlers_.ace_counter, query).as<scc_ss_counter_operation>().counter, 0u);
    EXPECT_EQ(answer_to(handlers_.acl_counter, query).as<scc_ss_counter_operation>().counter, 1u);
    EXPECT_EQ(answer_to(handlers_.acl_counter, reset).as<scc_ss_counter_operation>().ret, 0u);
    EXPECT_EQ(answer_to(handlers_.acl_counter, query).as<scc_ss_counter_operation>().counter, 0u);
    query.ace = 8;
    EXPECT_EQ(answer_to(handlers_.ace_counter, query).as<scc_ss_counter_operation>().ret, 2006u);
}

TEST_F(ServiceHandlers, ADelayedAnswerIsSentFromAnotherThreadWithACopy) {
    service_delays_ = true;
    start({std::chrono::milliseconds(5), {}, {}});
    scc_ss_acl_operation operation{};
    operation.id = 77;
    operation.key = key_of(5);
    const answer later = answer_to(handlers_.acl_create, operation);
    EXPECT_NE(later.thread, std::this_thread::get_id());
    EXPECT_EQ(later.as<scc_ss_acl_operation>().id, 77u);
    EXPECT_EQ(later.as<scc_ss_acl_operation>().key.acl_id, 5u);
}

TEST_F(ServiceHandlers, ARefusedOperationIsNotCarriedOut) {
    start({std::chrono::milliseconds(0), {{msg::acl, 28}}, {}});
    EXPECT_EQ(result_of(handlers_.acl_create, 5), 28u);
    EXPECT_EQ(table_.locked([](forwarding_table::contents& held) { return held.acls.create(key_of(5)); }),
              0u);
    EXPECT_EQ(lines_, (std::vector<std::string>{"131 create acl 1/2/5: 28"}));
}

TEST_F(ServiceHandlers, ASilentOperationIsCarriedOutWithoutAnAnswer) {
    start({std::chrono::milliseconds(0), {}, {msg::acl}});
    scc_ss_acl_operation operation{};
    operation.key = key_of(5);
    operation.callback = [](const void*, u32) { ADD_FAILURE() << "answered"; };
    EXPECT_EQ(handlers_.acl_create(&operation), 0);
    EXPECT_EQ(table_.locked([](forwarding_table::contents& held) { return held.acls.create(key_of(5)); }),
              2010u);
    EXPECT_EQ(lines_, (std::vector<std::string>{"131 create acl 1/2/5: 0, not answered"}));
}

TEST_F(ServiceHandlers, OperationsWithArgumentsReachTheTables) {
    start({std::chrono::milliseconds(0), {}, {148, 149, 150, 151, 153, 158, 209}});
    const scc_ss_user user = user_of(1, 4);
    const u32 ports[] = {8080, 8081};
    const scc_ss_user users[] = {user_of(2, 4), user_of(3, 4)};
    EXPECT_EQ(handlers_.app_set(1, 1, 4, 5), 0);
    EXPECT_EQ(handlers_.app_set_with_vid(2, 1, 4, 20, 6), 0);
    EXPECT_EQ(handlers_.def_read(3, 4, 9), 0);
    EXPECT_EQ(handlers_.http_l4port_set(4, 1, 80), 0);
    EXPECT_EQ(handlers_.user_op(5, 1, &user), 0);
    EXPECT_EQ(handlers_.user_reinstall(6, 1, 4), 0);
    EXPECT_EQ(handlers_.app_user_recover(4, 5, 2, users), 0);
    EXPECT_EQ(handlers_.user_reinstall(7, 0, 4), 0);
    EXPECT_EQ(handlers_.l4port_recover(2, ports), 0);
    EXPECT_EQ(handlers_.offline_detect_cfg(8, 1, 60, 2), 0);
    handlers_.authmode(1);
    EXPECT_EQ(table_text(),
              "user ifx 4 vid 0 mac 02:00:00:00:00:02 ip 192.0.2.2\n"
              "user ifx 4 vid 0 mac 02:00:00:00:00:03 ip 192.0.2.3\n"
              "app type 5 ifx 4 vid 0 operation 1\n"
              "app type 6 ifx 4 vid 20 operation 1\n"
              "default read ifx 4 type 9\n"
              "layer-4 ports 80 8080 8081\n"
              "router acl closed\n"
              "offline detection open interval 60 threshold 2\n"
              "authentication mode 1\n");
}

// ---- what our own daemon never sends ----

constexpr u32 hostile_words[] = {0, 1, 3, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF};

// In the first rounds every byte is the same; in the others the bytes are random.
class hostile_bytes {
  public:
    explicit hostile_bytes(int round) : round_(round), random_(static_cast<unsigned>(round)) {}

    template <class Record>
    [[nodiscard]] Record record() {
        Record made;
        auto* bytes = reinterpret_cast<u8*>(&made);
        for (std::size_t index = 0; index < sizeof made; ++index) bytes[index] = next();
        return made;
    }

  private:
    u8 next() {
        constexpr u8 fills[] = {0x00, 0xFF, 0x80, 0x7F, 0x01};
        return round_ < 5 ? fills[round_] : static_cast<u8>(random_());
    }

    int round_;
    std::mt19937 random_;
};

constexpr int hostile_rounds = 60;

TEST_F(ServiceHandlers, AnyContentOfARecordIsAnsweredAndHarmsNothing) {
    start();
    ASSERT_EQ(result_of(handlers_.acl_create, 5), 0u);
    for (int round = 0; round < hostile_rounds; ++round) {
        hostile_bytes bytes(round);
        const auto answered = [&](auto* handler, auto record) {
            record.id = 77;
            EXPECT_EQ(answer_to(handler, record).template as<decltype(record)>().id, 77u);
        };
        // On an ACL with an arbitrary key, and on an existing one.
        for (const bool is_there : {false, true}) {
            const scc_acl_key key = is_there ? key_of(5) : bytes.record<scc_acl_key>();
            const auto with_key = [&](auto record) {
                record.key = key;
                return record;
            };
            if (!is_there) answered(handlers_.acl_create, with_key(bytes.record<scc_ss_acl_operation>()));
            auto ace = with_key(bytes.record<scc_ss_ace_operation>());
            answered(handlers_.add_ace, ace);
            std::memcpy(ace.ace.match, &ace::layout_marker, sizeof ace::layout_marker);
            ++ace.ace.ace_id;
            answered(handlers_.add_ace, ace);
            auto apply = with_key(bytes.record<scc_ss_apply_operation>());
            apply.apply.key = key;
            answered(handlers_.apply, apply);
            answered(handlers_.resequence, with_key(bytes.record<scc_ss_resequence_operation>()));
            answered(handlers_.acl_counter, with_key(bytes.record<scc_ss_counter_operation>()));
            answered(handlers_.ace_counter, with_key(bytes.record<scc_ss_counter_operation>()));
            table_.locked([](forwarding_table::contents& held) {
                for (const auto& frame : {tcp_frame(), tcp6_frame(), arp_frame()}) {
                    held.acls.classify(packet_of(frame), {1, 2});
                }
                EXPECT_FALSE(held.text().empty());
            });
            answered(handlers_.delete_ace, ace);
            if (round % 2 == 0) answered(handlers_.unapply, apply);
            if (!is_there) answered(handlers_.acl_delete, with_key(bytes.record<scc_ss_acl_operation>()));
        }
        answered(handlers_.svi_router_acl, bytes.record<scc_ss_svi_operation>());
        answered(handlers_.uplink, bytes.record<scc_ss_eport_operation>());
        answered(handlers_.cpp, bytes.record<scc_ss_cpp_operation>());
    }
    EXPECT_EQ(result_of(handlers_.acl_create, 6), 0u);
}

TEST_F(ServiceHandlers, AnyArgumentsOfAnOperationAreTakenAndHarmNothing) {
    start({std::chrono::milliseconds(0), {}, {148, 149, 150, 151, 153, 158, 209}});
    for (const u32 first : hostile_words) {
        for (const u32 second : hostile_words) {
            for (const u32 third : hostile_words) {
                EXPECT_EQ(handlers_.app_set(first, second, third, first), 0);
                EXPECT_EQ(handlers_.app_set_with_vid(first, second, third, first, second), 0);
                EXPECT_EQ(handlers_.def_read(first, second, third), 0);
                EXPECT_EQ(handlers_.http_l4port_set(first, second, third), 0);
                EXPECT_EQ(handlers_.user_reinstall(first, second, third), 0);
                EXPECT_EQ(handlers_.offline_detect_cfg(first, static_cast<u8>(second), second, third), 0);
            }
        }
        handlers_.authmode(first);
    }
    for (int round = 0; round < hostile_rounds; ++round) {
        hostile_bytes bytes(round);
        const auto vlans = bytes.record<scc_vlan_record>();
        handlers_.direct_vlan_notify(&vlans);
        auto user = bytes.record<scc_ss_user>();
        EXPECT_EQ(handlers_.user_op(1, 1, &user), 0);
        EXPECT_EQ(handlers_.user_read(1, &user), 0);
        EXPECT_FALSE(table_text().empty());
        EXPECT_EQ(handlers_.user_op(1, 0, &user), 0);
        EXPECT_EQ(handlers_.user_read(1, &user), ENOENT);
    }
    for (int start = 0; start < 256; ++start) EXPECT_EQ(handlers_.data_recover(static_cast<u8>(start)), 0);
}

// The entries lie one byte off, as they may in a message.
TEST_F(ServiceHandlers, AnyContentOfARecoveryListIsTaken) {
    start();
    for (int round = 0; round < hostile_rounds; ++round) {
        hostile_bytes bytes(round);
        struct {
            u8 before;
            u8 list[3 * sizeof(scc_ss_user)];
        } message = bytes.record<decltype(message)>();
        EXPECT_EQ(handlers_.app_user_recover(hostile_words[round % 6], 5, 3, message.list), 0);
        EXPECT_EQ(handlers_.l4port_recover(6, message.list), 0);
        EXPECT_FALSE(table_text().empty());
    }
}

// The length of a message is 32 bits wide.
TEST_F(ServiceHandlers, AListThatNoMessageHasRoomForIsRefusedUnread) {
    start();
    const scc_ss_user users[1] = {user_of(1, 4)};
    const u32 ports[1] = {80};
    const std::string before = table_text();
    for (const u32 count : {48'806'447u, 0x80000000u, 0xFFFFFFFFu}) {
        EXPECT_EQ(handlers_.app_user_recover(4, 5, count, users), 22) << count;
    }
    for (const u32 count : {1'073'741'823u, 0x80000000u, 0xFFFFFFFFu}) {
        EXPECT_EQ(handlers_.l4port_recover(count, ports), 22) << count;
    }
    EXPECT_EQ(handlers_.app_user_recover(4, 5, 3, nullptr), 22);
    EXPECT_EQ(handlers_.l4port_recover(3, nullptr), 22);
    EXPECT_EQ(table_text(), before);
    EXPECT_EQ(handlers_.app_user_recover(4, 5, 0, nullptr), 0);
    EXPECT_EQ(handlers_.l4port_recover(0, nullptr), 0);
}

TEST_F(ServiceHandlers, AUserReadCompletesTheEntryOrReturnsTheResult) {
    start();
    table_.locked([](forwarding_table::contents& held) { held.nac.add_user(user_of(1, 4)); });
    scc_ss_user asked = user_of(1, 0);
    EXPECT_EQ(handlers_.user_read(9, &asked), 0);
    EXPECT_EQ(asked.ifx, 4u);
    scc_ss_user missing = user_of(2, 4);
    EXPECT_EQ(handlers_.user_read(9, &missing), ENOENT);
}

TEST_F(ServiceHandlers, ADataRecoveryDropsWhatIsNotSentAgain) {
    start();
    ASSERT_EQ(result_of(handlers_.acl_create, 5), 0u);
    ASSERT_EQ(result_of(handlers_.acl_create, 6), 0u);
    EXPECT_EQ(handlers_.data_recover(1), 0);
    EXPECT_EQ(result_of(handlers_.acl_create, 6), 0u);
    EXPECT_EQ(handlers_.data_recover(0), 0);
    EXPECT_EQ(result_of(handlers_.acl_delete, 5), 2005u);
    EXPECT_EQ(result_of(handlers_.acl_delete, 6), 0u);
}

TEST_F(ServiceHandlers, ARefusedRecoveryIsReturnedFromItsHandler) {
    start({std::chrono::milliseconds(0), {{msg::data_recover, 5}, {msg::nacm_user_read, 6}}, {}});
    scc_ss_user user = user_of(1, 4);
    EXPECT_EQ(handlers_.data_recover(1), 5);
    EXPECT_EQ(handlers_.user_read(1, &user), 6);
}

}  // namespace
}  // namespace scc::service
