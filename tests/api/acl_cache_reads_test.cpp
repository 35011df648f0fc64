// Reading ACLs back from the cache: only what the daemon confirmed, only with registration option 1.
#include <future>
#include <optional>

#include "api/request_rows.h"
#include "client/acl_cache.h"

using test::bytes;
using test::patterned;
using test::record_bytes;
using test::side;

namespace {

constexpr scc_acl_key key{3, 12, 100, 0x77};

scc_acl_key same_acl(std::uint32_t acl_class) {
    return {3, 12, 100, acl_class};
}

scc_ace_record ace(std::uint32_t sn, std::uint32_t ace_id, std::uint8_t first = 9) {
    auto record = patterned<scc_ace_record>(first);
    record.sn = sn;
    record.ace_id = ace_id;
    return record;
}

// A record without its list link.
bytes rule_of(const scc_ace_record& record) {
    return test::slice(record_bytes(record), 16, 896);
}

// The copies that a read returns, freed at the end.
class ace_list {
  public:
    ~ace_list() { clear(); }

    std::uint32_t read(const scc_acl_key& from) { return scc_acl_get_ace(&from, &head_); }
    scc_list_head& head() { return head_; }

    std::vector<const scc_ace_record*> records() const {
        std::vector<const scc_ace_record*> out;
        for (const scc_list_head* link = head_.next; link != &head_; link = link->next) {
            EXPECT_EQ(link->next->prev, link);
            EXPECT_EQ(link->prev->next, link);
            out.push_back(reinterpret_cast<const scc_ace_record*>(link));
        }
        return out;
    }

    std::vector<std::pair<std::uint32_t, std::uint32_t>> numbers() const {
        std::vector<std::pair<std::uint32_t, std::uint32_t>> out;
        for (const scc_ace_record* record : records()) {
            out.emplace_back(record->sn, record->ace_id);
        }
        return out;
    }

    void clear() {
        while (head_.next != &head_) {
            scc_list_head* first = head_.next;
            head_.next = first->next;
            free(first);
        }
        head_.prev = &head_;
    }

  private:
    scc_list_head head_{&head_, &head_};
};

using numbers = std::vector<std::pair<std::uint32_t, std::uint32_t>>;

class AclCacheRead : public test::recording_client {
  protected:
    // Delivers the result of the last call and of one more, so that the cache has processed the first. The
    // second is a failure, so the receive thread neither touches the cache nor logs after its handler.
    void confirm(std::uint32_t code, std::uint32_t id, std::uint32_t result = 0) {
        ASSERT_EQ(code, 0U);
        std::uint32_t later = 0;
        ASSERT_EQ(scc_addr_learning(1, 1, &later), 0U);
        daemon.read_items(side::async, 2);
        daemon.send_result(id, result);
        daemon.send_result(later, 2010);
        ASSERT_EQ(test::results().wait()->call_id, id);
        ASSERT_EQ(test::results().wait()->call_id, later);
    }

    void create(const scc_acl_key& which = key, std::uint32_t result = 0) {
        std::uint32_t id = 0;
        const std::uint32_t code = scc_acl_create(&which, &id);
        confirm(code, id, result);
    }

    void remove() {
        std::uint32_t id = 0;
        const std::uint32_t code = scc_acl_delete(&key, &id);
        confirm(code, id);
    }

    void add(const scc_ace_record& record, std::uint32_t result = 0) {
        std::uint32_t id = 0;
        const std::uint32_t code = scc_acl_add_ace(&key, &record, &id);
        confirm(code, id, result);
    }

    void remove_ace(const scc_ace_record& record, std::uint32_t result = 0) {
        std::uint32_t id = 0;
        const std::uint32_t code = scc_acl_delete_ace(&key, &record, &id);
        confirm(code, id, result);
    }

    void renumber(std::uint32_t sn_start, std::uint32_t sn_inc, std::uint32_t result = 0) {
        std::uint32_t id = 0;
        const std::uint32_t code = scc_acl_reseqence(&key, sn_start, sn_inc, &id);
        confirm(code, id, result);
    }

    // All three reads of the key return this code, log this text and leave the caller's memory alone.
    static void expect_refused(const scc_acl_key& which, std::uint32_t code, const std::string& text) {
        const test::debugging on;
        scc_acl_key asked = which;
        EXPECT_EQ(scc_acl_cls_get(&asked), code);
        EXPECT_EQ(record_bytes(asked), record_bytes(which));
        scc_list_head head{nullptr, nullptr};
        EXPECT_EQ(scc_acl_get_ace(&which, &head), code);
        EXPECT_EQ(head.next, nullptr);
        scc_ace_record found = ace(1, 2);
        EXPECT_EQ(scc_acl_get_ace_by_sn(&which, 1, &found), code);
        EXPECT_EQ(record_bytes(found), record_bytes(ace(1, 2)));
        EXPECT_EQ(test::log_texts(), std::vector<std::string>(3, text));
    }

    static numbers cached() {
        ace_list list;
        EXPECT_EQ(list.read(key), 0U);
        return list.numbers();
    }
};

TEST_F(AclCacheRead, NeedsTheRegisteredStateBeforeAnythingElse) {
    expect_refused(key, 2004, "scclib no registered or scc svr no available.");
}

TEST_F(AclCacheRead, IsNotSupportedWithAnyRegistrationOptionButOne) {
    start(0);
    create();
    expect_refused(key, 2013, "client don't support data query.");
    expect_refused({9, 9, 9, 9}, 2013, "client don't support data query.");
}

TEST_F(AclCacheRead, IsNotSupportedWithOptionTwoThoughTheCacheIsFilled) {
    start(2);
    create();
    expect_refused(key, 2013, "client don't support data query.");
    const scc::write_guard guard(scc::acl_lock);
    EXPECT_NE(_scc_acl_get(&key), nullptr);
}

TEST_F(AclCacheRead, FindsNoAclThatTheDaemonHasNotConfirmed) {
    start(1);
    expect_refused(key, 2005, "no such acl in scclib.");
    create(key, 2010);
    expect_refused(key, 2005, "no such acl in scclib.");
    ASSERT_EQ(scc_acl_create(&key, nullptr), 0U);
    daemon.read_item(side::async);
    expect_refused(key, 2005, "no such acl in scclib.");
    create();
    for (const scc_acl_key other :
         {scc_acl_key{4, 12, 100, 0x77}, scc_acl_key{3, 13, 100, 0x77}, scc_acl_key{3, 12, 101, 0x77}}) {
        expect_refused(other, 2005, "no such acl in scclib.");
    }
}

TEST_F(AclCacheRead, GivesBothLocksBackOnEveryWayOut) {
    const auto expect_outcome = [](std::uint32_t code, std::uint32_t sn = 1) {
        scc_acl_key asked = key;
        ace_list list;
        scc_ace_record found;
        const std::uint32_t outcomes[] = {scc_acl_cls_get(&asked), list.read(key),
                                          scc_acl_get_ace_by_sn(&key, sn, &found)};
        EXPECT_EQ(outcomes[0], code == 2006 ? 0 : code);
        EXPECT_EQ(outcomes[1], code == 2006 ? 0 : code);
        EXPECT_EQ(outcomes[2], code);
        for (pthread_rwlock_t* lock : {&scc_lib_lock, &scc_acl_lock}) {
            EXPECT_EQ(pthread_rwlock_trywrlock(lock), 0) << code;
            pthread_rwlock_unlock(lock);
        }
    };
    expect_outcome(2004);
    start(1);
    expect_outcome(2005);
    create();
    expect_outcome(2006);
    add(ace(1, 1));
    expect_outcome(0);
    g_scc_client_cb.option.store(2);
    expect_outcome(2013);
}

TEST_F(AclCacheRead, WaitsForTheCacheOnlyWhereItLooksIntoIt) {
    const auto refused_at_once = [](std::uint32_t code) {
        std::optional<scc::write_guard> held(std::in_place, scc::acl_lock);
        auto reading = std::async(std::launch::async, [] {
            scc_acl_key asked = key;
            return scc_acl_cls_get(&asked);
        });
        EXPECT_EQ(reading.wait_for(std::chrono::seconds(60)), std::future_status::ready);
        held.reset();
        EXPECT_EQ(reading.get(), code);
    };
    refused_at_once(2004);
    start(0);
    refused_at_once(2013);
}

TEST_F(AclCacheRead, SendsNothingAndTakesNoCallId) {
    start(1);
    create();
    const std::uint32_t before = g_scc_client_cb.last_call_id.load();
    scc_acl_key asked = key;
    EXPECT_EQ(scc_acl_cls_get(&asked), 0U);
    EXPECT_EQ(cached(), numbers{});
    EXPECT_EQ(g_scc_client_cb.last_call_id.load(), before);
    expect_nothing_was_sent();
    test::expect_nothing_was_sent(daemon, side::sync);
}

TEST_F(AclCacheRead, TellsTheClassOfTheFirstCreation) {
    start(1);
    create(same_acl(0x77));
    create(same_acl(0x88));
    scc_acl_key asked = same_acl(0);
    EXPECT_EQ(scc_acl_cls_get(&asked), 0U);
    EXPECT_EQ(record_bytes(asked), record_bytes(same_acl(0x77)));
}

TEST_F(AclCacheRead, GivesAnEmptyListForAnAclWithoutAces) {
    start(1);
    create();
    scc_list_head head{nullptr, nullptr};
    EXPECT_EQ(scc_acl_get_ace(&key, &head), 0U);
    EXPECT_EQ(head.next, &head);
    EXPECT_EQ(head.prev, &head);
}

TEST_F(AclCacheRead, GivesTheAcesInTheOrderOfTheirNumbersThenOfTheirAddition) {
    start(1);
    create();
    add(ace(10, 1));
    add(ace(5, 2));
    add(ace(10, 3));
    add(ace(0xFFFFFFFF, 4));
    add(ace(0, 5));
    EXPECT_EQ(cached(), (numbers{{0, 5}, {5, 2}, {10, 1}, {10, 3}, {0xFFFFFFFF, 4}}));
}

TEST_F(AclCacheRead, HandsOutWholeCopiesThatTheCallerOwns) {
    start(1);
    create();
    add(ace(10, 1, 50));
    add(ace(20, 2, 60));
    ace_list first;
    ace_list second;
    ASSERT_EQ(first.read(key), 0U);
    ASSERT_EQ(second.read(key), 0U);
    ASSERT_EQ(first.records().size(), 2U);
    EXPECT_EQ(rule_of(*first.records()[0]), rule_of(ace(10, 1, 50)));
    EXPECT_EQ(rule_of(*first.records()[1]), rule_of(ace(20, 2, 60)));
    EXPECT_NE(first.records()[0], second.records()[0]);
    std::memset(reinterpret_cast<std::uint8_t*>(first.head().next) + 16, 0, 896);
    first.clear();
    EXPECT_EQ(second.numbers(), (numbers{{10, 1}, {20, 2}}));
    EXPECT_EQ(cached(), (numbers{{10, 1}, {20, 2}}));
    remove();
    EXPECT_EQ(second.numbers(), (numbers{{10, 1}, {20, 2}}));
}

TEST_F(AclCacheRead, ForgetsWhateverTheCallersListHeld) {
    start(1);
    create();
    scc_list_head stranger{&stranger, &stranger};
    scc_list_head head{&stranger, &stranger};
    EXPECT_EQ(scc_acl_get_ace(&key, &head), 0U);
    EXPECT_EQ(head.next, &head);
    EXPECT_EQ(stranger.next, &stranger);
}

TEST_F(AclCacheRead, FindsTheFirstAceOfANumber) {
    start(1);
    create();
    add(ace(10, 1, 50));
    add(ace(20, 2, 60));
    add(ace(20, 3, 70));
    scc_ace_record found{};
    EXPECT_EQ(scc_acl_get_ace_by_sn(&key, 20, &found), 0U);
    EXPECT_EQ(rule_of(found), rule_of(ace(20, 2, 60)));
    EXPECT_EQ(scc_acl_get_ace_by_sn(&key, 10, &found), 0U);
    EXPECT_EQ(rule_of(found), rule_of(ace(10, 1, 50)));
    const scc_ace_record before = found;
    for (const std::uint32_t missing : {0U, 9U, 11U, 21U, 0xFFFFFFFFU}) {
        EXPECT_EQ(scc_acl_get_ace_by_sn(&key, missing, &found), 2006U) << missing;
    }
    EXPECT_EQ(record_bytes(found), record_bytes(before));
}

TEST_F(AclCacheRead, SeesNoChangeThatFailed) {
    start(1);
    create();
    add(ace(10, 1));
    add(ace(20, 2), 2011);
    remove_ace(ace(10, 1), 2006);
    renumber(100, 1, 2017);
    EXPECT_EQ(cached(), (numbers{{10, 1}}));
}

TEST_F(AclCacheRead, SeesADeletedAceGone) {
    start(1);
    create();
    add(ace(10, 1));
    add(ace(20, 2));
    remove_ace(ace(10, 2));
    EXPECT_EQ(cached(), (numbers{{10, 1}, {20, 2}}));
    remove_ace(ace(10, 1));
    EXPECT_EQ(cached(), (numbers{{20, 2}}));
}

TEST_F(AclCacheRead, SeesNewNumbersOnceTheDaemonConfirmed) {
    start(1);
    create();
    add(ace(5, 1));
    add(ace(5, 2));
    add(ace(7, 3));
    add(ace(0x7FFFFFFF, 4));
    ASSERT_EQ(scc_acl_reseqence(&key, 1000, 1000, nullptr), 0U);
    daemon.read_item(side::async);
    EXPECT_EQ(cached(), (numbers{{5, 1}, {5, 2}, {7, 3}, {0x7FFFFFFF, 4}}));
    renumber(10, 10);
    EXPECT_EQ(cached(), (numbers{{10, 1}, {10, 2}, {20, 3}, {0x7FFFFFFF, 4}}));
    scc_ace_record found{};
    EXPECT_EQ(scc_acl_get_ace_by_sn(&key, 20, &found), 0U);
    EXPECT_EQ(found.ace_id, 3U);
    EXPECT_EQ(scc_acl_get_ace_by_sn(&key, 7, &found), 2006U);
}

TEST_F(AclCacheRead, KeepsALeadingZeroWhenRenumbered) {
    start(1);
    create();
    add(ace(0, 1));
    add(ace(3, 2));
    renumber(10, 10);
    EXPECT_EQ(cached(), (numbers{{0, 1}, {10, 2}}));
}

TEST_F(AclCacheRead, FindsNothingAfterADeletionOrALostConnection) {
    start(1);
    create();
    add(ace(10, 1));
    remove();
    expect_refused(key, 2005, "no such acl in scclib.");
    create();
    EXPECT_EQ(cached(), numbers{});
    daemon.close_both();
    EXPECT_EQ(test::statuses().wait(), 0U);
    daemon.accept_registration();
    EXPECT_EQ(test::statuses().wait(), 1U);
    expect_refused(key, 2005, "no such acl in scclib.");
}

TEST_F(AclCacheRead, OfADeletionThatNobodyCachedIsLogged) {
    start(1);
    const test::debugging on;
    remove();
    EXPECT_TRUE(test::logged("specific acl not found!!!"));
}

}  // namespace
