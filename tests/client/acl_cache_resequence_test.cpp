// Renumbering the ACEs of a cached ACL, and whether its list stays in order.
#include "client/acl_cache_support.h"
#include "support/log_capture.h"

using test::ace_of;
using test::AclCache;
using test::numbers;

namespace {

using texts = std::vector<std::string>;

class Resequence : public AclCache {
  protected:
    // The numbers after renumbering ACEs of these numbers.
    numbers renumbered(const numbers& before, std::uint32_t start, std::uint32_t increment) {
        _scc_lib_acl_del(&key);
        _scc_lib_acl_add(&key);
        std::uint32_t id = 0;
        for (const std::uint32_t sn : before) {
            add_aces(key, {{sn, ++id}});
        }
        _scc_lib_acl_reseq(&key, start, increment);
        return look(key).sns;
    }
};

TEST_F(Resequence, EqualNumbersStayEqualAndTheLargestStay) {
    EXPECT_EQ(renumbered({5, 5, 7, 0x7FFFFFFF}, 10, 10), (numbers{10, 10, 20, 0x7FFFFFFF}));
    EXPECT_EQ(renumbered({3, 9, 9, 9, 12}, 1, 1), (numbers{1, 2, 2, 2, 3}));
}

TEST_F(Resequence, NumbersFrom0x7FFFFFFFOnNeitherChangeNorAdvance) {
    EXPECT_EQ(renumbered({1, 0x7FFFFFFE, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF}, 100, 5),
              (numbers{100, 105, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF}));
}

TEST_F(Resequence, ALeadingZeroStaysZeroWithAllItsEquals) {
    EXPECT_EQ(renumbered({0, 0, 4, 6}, 10, 10), (numbers{0, 0, 10, 20}));
    EXPECT_EQ(renumbered({0}, 10, 10), (numbers{0}));
}

TEST_F(Resequence, KeepsStartAndIncrementInTheAcl) {
    renumbered({1}, 30, 7);
    EXPECT_EQ(look(key).sn_start, 30U);
    EXPECT_EQ(look(key).sn_inc, 7U);
    EXPECT_EQ(renumbered({}, 0x7FFFFFFF, 0x7FFFFFFF), numbers{});
    EXPECT_EQ(look(key).sn_start, 0x7FFFFFFFU);
    EXPECT_EQ(look(key).sn_inc, 0x7FFFFFFFU);
}

TEST_F(Resequence, StartAndIncrementBelowOneAreRefused) {
    renumbered({5, 6}, 10, 10);
    const auto refused = [this](const scc_acl_key* k, std::uint32_t start, std::uint32_t increment) {
        const test::debugging on;
        _scc_lib_acl_reseq(k, start, increment);
        EXPECT_EQ(look(key).sns, (numbers{10, 20}));
        EXPECT_EQ(look(key).sn_start, 10U);
        return test::log_texts();
    };
    char expected[128];
    const auto text = [&](const scc_acl_key* k, int start, int increment) {
        std::snprintf(expected, sizeof expected, "scclib param invalid. acl_info:%p, sn_start:%d, sn_inc:%d.",
                      static_cast<const void*>(k), start, increment);
        return texts{expected};
    };
    EXPECT_EQ(refused(nullptr, 1, 1), text(nullptr, 1, 1));
    EXPECT_EQ(refused(&key, 0, 1), text(&key, 0, 1));
    EXPECT_EQ(refused(&key, 0x80000000U, 1), text(&key, INT32_MIN, 1));
    EXPECT_EQ(refused(&key, 1, 0), text(&key, 1, 0));
    EXPECT_EQ(refused(&key, 1, 0xFFFFFFFFU), text(&key, 1, -1));
}

// A large start puts small numbers after larger ones: the list is then no longer ascending, and later
// operations use list order.
TEST_F(Resequence, ALargeStartLeavesTheListUnsortedAndLaterCallsWalkItInOrder) {
    EXPECT_EQ(renumbered({1, 2, 3, 0x7FFFFFFF}, 0x7FFFFFFE, 0x7FFFFFFF),
              (numbers{0x7FFFFFFE, 0xFFFFFFFD, 0x7FFFFFFC, 0x7FFFFFFF}));
    // Before the first greater one, in list order.
    add_aces(key, {{0x7FFFFFFD, 9}});
    EXPECT_EQ(look(key).sns, (numbers{0x7FFFFFFD, 0x7FFFFFFE, 0xFFFFFFFD, 0x7FFFFFFC, 0x7FFFFFFF}));
    add_aces(key, {{0xFFFFFFFF, 10}});
    EXPECT_EQ(look(key).sns,
              (numbers{0x7FFFFFFD, 0x7FFFFFFE, 0xFFFFFFFD, 0x7FFFFFFC, 0x7FFFFFFF, 0xFFFFFFFF}));
    // Deleted though a greater number comes before it.
    const scc_ace_record target = ace_of(0x7FFFFFFC, 3);
    const test::debugging on;
    _scc_lib_ace_del(&key, &target);
    EXPECT_EQ(test::log_texts(), texts{"delete specific ace done."});
    EXPECT_EQ(look(key).sns, (numbers{0x7FFFFFFD, 0x7FFFFFFE, 0xFFFFFFFD, 0x7FFFFFFF, 0xFFFFFFFF}));
    const scc::write_guard guard(scc::acl_lock);
    scc::cached_acl* acl = _scc_acl_get(&key);
    EXPECT_EQ(scc::find_ace(*acl, 0x7FFFFFFF)->record.ace_id, 4U);
    EXPECT_EQ(scc::find_ace(*acl, 0x7FFFFFFC), nullptr);
}

TEST_F(Resequence, InALongUnsortedListANewAceStillStandsInFrontOfTheFirstThatIsGreater) {
    numbers expected = renumbered({1, 2, 3, 4, 5, 6, 7, 8, 9, 10}, 0x40000000, 0x40000001);
    EXPECT_EQ(expected, (numbers{0x40000000, 0x80000001, 0xC0000002, 0x00000003, 0x40000004, 0x80000005,
                                 0xC0000006, 0x00000007, 0x40000008, 0x80000009}));
    add_aces(key, {{0x50000000, 11}});
    expected.insert(expected.begin() + 1, 0x50000000);
    EXPECT_EQ(look(key).sns, expected);
    const scc_ace_record target = ace_of(0x00000007, 8);
    _scc_lib_ace_del(&key, &target);
    expected.erase(std::find(expected.begin(), expected.end(), 0x00000007U));
    EXPECT_EQ(look(key).sns, expected);
}

TEST_F(Resequence, AZeroAfterOtherNumbersIsRenumberedLikeAny) {
    // The third number wraps to 0.
    EXPECT_EQ(renumbered({1, 2, 3}, 0x7FFFFFFE, 0x40000001), (numbers{0x7FFFFFFE, 0xBFFFFFFF, 0}));
    _scc_lib_acl_reseq(&key, 10, 10);
    EXPECT_EQ(look(key).sns, (numbers{10, 0xBFFFFFFF, 20}));
}

TEST_F(Resequence, EqualNumbersStayEqualWhereOnlyUnnumberedOnesStandBetweenThem) {
    // The last number wraps to that of the first.
    const numbers wrapped{5, 0x40000005, 0x80000005, 0xC0000005, 5};
    EXPECT_EQ(renumbered({1, 2, 3, 4, 6}, 5, 0x40000000), wrapped);
    _scc_lib_acl_reseq(&key, 10, 10);
    EXPECT_EQ(look(key).sns, (numbers{10, 20, 0x80000005, 0xC0000005, 30})) << "another number stood between";
    EXPECT_EQ(renumbered({1, 2, 3, 4, 6}, 5, 0x40000000), wrapped);
    const scc_ace_record between = ace_of(0x40000005, 2);
    _scc_lib_ace_del(&key, &between);
    _scc_lib_acl_reseq(&key, 10, 10);
    EXPECT_EQ(look(key).sns, (numbers{10, 0x80000005, 0xC0000005, 10}));
}

TEST_F(Resequence, OfAWrappedListDeletesTheFirstInListOrder) {
    renumbered({1, 2, 3, 4, 6}, 5, 0x40000000);
    const scc_ace_record last = ace_of(5, 5);
    _scc_lib_ace_del(&key, &last);
    EXPECT_EQ(look(key).ids, (numbers{1, 2, 3, 4})) << "the number alone was compared";
    const scc_ace_record again = ace_of(0xFFFFFFF0, 1);
    _scc_lib_ace_add(&key, &again);
    EXPECT_EQ(look(key).ids, (numbers{1, 2, 3, 4, 1}));
    const scc_ace_record first = ace_of(5, 1);
    _scc_lib_ace_del(&key, &first);
    EXPECT_EQ(look(key).ids, (numbers{2, 3, 4, 1}));
}

TEST_F(Resequence, WithoutAKeyTheLineShowsANullPointer) {
    const test::debugging on;
    _scc_lib_acl_reseq(nullptr, 10, 0x80000000U);
    EXPECT_EQ(test::log_texts(),
              texts{"scclib param invalid. acl_info:(nil), sn_start:10, sn_inc:-2147483648."});
}

// ---- whether a list is in order -------------------------------------------------------------------------

class Order : public Resequence {
  protected:
    std::uint64_t out_of_order() const {
        const scc::write_guard guard(scc::acl_lock);
        return _scc_acl_get(&key)->out_of_order;
    }
};

TEST_F(Order, IsLostWhenNumbersDescendAndFoundAgainByTheNextResequence) {
    renumbered({1, 2, 3, 4, 6}, 5, 0x40000000);
    EXPECT_EQ(out_of_order(), 1U);
    renumbered({1, 2, 3}, 0x7FFFFFFE, 0x40000001);
    EXPECT_EQ(out_of_order(), 1U);
    _scc_lib_acl_reseq(&key, 1, 1);
    EXPECT_EQ(look(key).sns, (numbers{1, 0xBFFFFFFF, 2}));
    EXPECT_EQ(out_of_order(), 1U);
    const scc_ace_record large = ace_of(0xBFFFFFFF, 2);
    _scc_lib_ace_del(&key, &large);
    _scc_lib_acl_reseq(&key, 1, 1);
    EXPECT_EQ(out_of_order(), 0U);
}

TEST_F(Order, IsKeptByEqualNumbersAndByALeadingZero) {
    renumbered({5, 5, 7}, 10, 10);
    EXPECT_EQ(out_of_order(), 0U);
    renumbered({0, 0, 7}, 10, 10);
    EXPECT_EQ(out_of_order(), 0U);
}

}  // namespace
