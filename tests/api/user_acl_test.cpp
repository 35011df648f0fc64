// ACLs bound to users, and the counters of ACLs, filters and ACEs.
#include "api/query_rows.h"
#include "api/request_rows.h"

using test::bytes;
using test::patterned;
using test::query_row;
using test::record_bytes;
using test::request_row;
using test::side;
using test::texts;
using test::texts_of;
using test::wire;

namespace {

constexpr scc_acl_key key{0xFFFFFFFE, 58, 32768, 0x80000003};
constexpr std::uint64_t ace_number = 0xFEDCBA9876543210;

wire key_bytes() {
    return wire().u32(0xFFFFFFFE).u32(58).u32(32768).u32(0x80000003);
}

scc_user_acl_record user(const scc_acl_key& acl = key) {
    auto record = patterned<scc_user_acl_record>(19);
    record.ifx = 0xFFFFFFFF;
    record.phyid = 0x8000000000000001;
    record.apptype = 0x80000000;
    record.direction = 0xFFFFFFFE;
    const std::uint8_t mac[6] = {0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e};
    std::memcpy(record.mac, mac, sizeof mac);
    record.vid = 65535;
    record.key = acl;
    return record;
}

// ---- requests ------------------------------------------------------------------------------------

std::vector<request_row> user_acl_rows() {
    static const scc_acl_key without_upper_bound{5, 1, 0x7FFFFFFF, 6};
    const bytes record = record_bytes(user());
    const bytes high_key = wire().u32(5).u32(1).u32(0x7FFFFFFF).u32(6);
    return {
        {"user_acl_apply",
         [](std::uint32_t* id) {
             const scc_user_acl_record sent = user();
             return scc_user_acl_apply(&sent, id);
         },
         134, 37, 38, wire().zeros(4).add(record).u32(1).zeros(4), record, record},
        {"user_acl_unapply",
         [](std::uint32_t* id) {
             const scc_user_acl_record sent = user();
             return scc_user_acl_unapply(&sent, id);
         },
         134, 38, 39, wire().zeros(4).add(record).u32(0).zeros(4), record, record},
        {"user_acl_delete_vmsup", [](std::uint32_t* id) { return scc_user_acl_delete_vmsup(&key, id); }, 137,
         39, 40, wire().zeros(212).add(key_bytes()), key_bytes(), key_bytes()},
        {"user_acl_delete_vmsup_above_32768",
         [](std::uint32_t* id) { return scc_user_acl_delete_vmsup(&without_upper_bound, id); }, 137, 39, 40,
         wire().zeros(212).add(high_key), high_key, high_key},
    };
}

std::vector<request_row> reset_rows() {
    return {
        {"acl_reset_filter_counter", [](std::uint32_t* id) { return scc_acl_reset_filter_counter(&key, id); },
         139, 41, 42, key_bytes().zeros(4), key_bytes(), key_bytes()},
        {"acl_reset_counter", [](std::uint32_t* id) { return scc_acl_reset_counter(&key, id); }, 140, 42, 43,
         key_bytes().zeros(20), key_bytes(), key_bytes()},
        {"ace_reset_counter", [](std::uint32_t* id) { return scc_ace_reset_counter(&key, ace_number, id); },
         141, 43, 44, key_bytes().zeros(4).u64(ace_number).zeros(8), key_bytes().u64(ace_number),
         key_bytes().u64(ace_number)},
        {"ace_reset_counter_highest",
         [](std::uint32_t* id) { return scc_ace_reset_counter(&key, ~0ULL, id); }, 141, 43, 44,
         key_bytes().zeros(4).fill(8, 0xFF).zeros(8), key_bytes().fill(8, 0xFF), key_bytes().fill(8, 0xFF)},
    };
}

EVERY_REQUEST_OF(UserAclRequest, user_acl_rows());
EVERY_REQUEST_OF(CounterReset, reset_rows());

// ---- queries -------------------------------------------------------------------------------------

template <class Read>
auto reading_counter(Read read) {
    return [read](bytes& memory) {
        auto counter = test::number_at<std::uint64_t>(memory, 0);
        const std::uint32_t code = read(&counter);
        memory = wire().u64(counter);
        return code;
    };
}

const bytes counter_before = wire().u64(0xA5A5A5A5A5A5A5A5);
const bytes counter_read = wire().u64(0xFEDCBA9876543210);

std::vector<query_row> counter_rows() {
    const bytes zero = wire().u64(0);
    return {
        {"acl_get_filter_counter",
         reading_counter([](std::uint64_t* counter) { return scc_acl_get_filter_counter(&key, counter); }),
         counter_before, 311, wire().u32(0).add(key_bytes()).u32(1), 409, "SCC_LMSG_ACL_FILTER_COUNTER_RET",
         wire().fill(16, 0x33).add(counter_read).u32(0), counter_read,
         wire().fill(16, 0x33).add(counter_read).u32(2005), zero, zero},
        {"acl_get_counter",
         reading_counter([](std::uint64_t* counter) { return scc_acl_get_counter(&key, counter); }),
         counter_before, 312, wire().u32(0).add(key_bytes()).zeros(12).u32(1).zeros(4), 408,
         "SCC_LMSG_ACL_COUNTER_RET", wire().fill(32, 0x33).add(counter_read).u32(0), counter_read,
         wire().fill(32, 0x33).add(counter_read).u32(2005), counter_before, counter_before},
        {"ace_get_counter", reading_counter([](std::uint64_t* counter) {
             return scc_ace_get_counter(&key, ace_number, counter);
         }),
         counter_before, 313, wire().u32(0).add(key_bytes()).zeros(4).u64(ace_number).u32(1).zeros(4), 407,
         "SCC_LMSG_ACE_COUNTER_RET", wire().fill(32, 0x33).add(counter_read).u32(0), counter_read,
         wire().fill(32, 0x33).add(counter_read).u32(2005), counter_before, counter_before},
        {"user_acl_change_vmsup",
         [](bytes& memory) {
             const scc_user_acl_record sent = user();
             return scc_user_acl_change_vmsup(&sent, memory.data());
         },
         wire().fill(16, 0xA5), 314, wire().zeros(8).add(record_bytes(user())).to(232), 136,
         "SCC_LMSG_ACL_USER_VMSUP_RET", wire().u64(0x1122334455667788).u64(0x99AABBCCDDEEFF00),
         wire().u64(0x1122334455667788).u64(0x99AABBCCDDEEFF00), bytes{}, wire().fill(16, 0xA5),
         wire().fill(16, 0xA5)},
    };
}

EVERY_QUERY_OF(CounterQuery, counter_rows());

// ---- refusals ------------------------------------------------------------------------------------

struct bad_key {
    scc_acl_key key;
    const char* text;
};

constexpr const char* bad_id = "acl id is invalid (<1 or >32768).";

constexpr bad_key bad_keys[] = {
    {{1, 1, 0, 1}, bad_id},
    {{1, 1, 32769, 1}, bad_id},
    {{1, 1, 0xFFFFFFFF, 1}, bad_id},
    {{1, 0, 1, 1}, "acl app_type(0) is invalid"},
    {{1, 59, 1, 1}, "acl app_type(59) is invalid"},
    {{1, 0xFFFFFFFF, 1, 1}, "acl app_type(-1) is invalid"},
};

constexpr std::uint64_t untouched = 0xA5A5A5A5A5A5A5A5;

// Each counter call, with a counter or null where it has one.
void expect_counter_refusals() {
    const std::vector<std::function<std::uint32_t(const scc_acl_key*, std::uint64_t*)>> reads = {
        [](const scc_acl_key* acl, std::uint64_t* counter) {
            return scc_acl_get_filter_counter(acl, counter);
        },
        [](const scc_acl_key* acl, std::uint64_t* counter) { return scc_acl_get_counter(acl, counter); },
        [](const scc_acl_key* acl, std::uint64_t* counter) { return scc_ace_get_counter(acl, 1, counter); },
        [](const scc_acl_key* acl, std::uint64_t*) { return scc_acl_reset_filter_counter(acl, nullptr); },
        [](const scc_acl_key* acl, std::uint64_t*) { return scc_acl_reset_counter(acl, nullptr); },
        [](const scc_acl_key* acl, std::uint64_t*) { return scc_ace_reset_counter(acl, 1, nullptr); },
    };
    for (std::size_t i = 0; i < reads.size(); ++i) {
        std::uint64_t counter = untouched;
        for (const bad_key& row : bad_keys) {
            EXPECT_EQ(texts_of([&] { EXPECT_EQ(reads[i](&row.key, &counter), 22U); }), texts{row.text});
            EXPECT_EQ(texts_of([&] { EXPECT_EQ(reads[i](&row.key, nullptr), 22U); }), texts{row.text});
        }
        EXPECT_EQ(texts_of([&] { EXPECT_EQ(reads[i](nullptr, &counter), 22U); }),
                  texts{"scclib param invalid."});
        EXPECT_EQ(counter, untouched);
        if (i < 3) {
            EXPECT_EQ(texts_of([&] { EXPECT_EQ(reads[i](&key, nullptr), 22U); }),
                      texts{"scclib param counter invalid."});
        }
    }
}

constexpr const char* unapply_text =
    "applyinfo-vid:65535,mac:001a.2b3c.4d5e,apptype:-2147483648,phyid:9223372036854775809,ifx:4294967295,"
    "direction:-2,";
constexpr const char* change_text =
    "applyinfo-vid:65535,mac:001a.2b3c.4d5e,apptype:-2147483648,phyid:9223372036854775809,ifx:-1,direction:-"
    "2,";
constexpr const char* unavailable = "scclib no registered or scc svr no available.";

void expect_user_refusals() {
    std::uint8_t out[16] = {};
    EXPECT_EQ(texts_of([] { EXPECT_EQ(scc_user_acl_apply(nullptr, nullptr), 22U); }),
              texts{"scclib param invalid."});
    EXPECT_EQ(texts_of([] { EXPECT_EQ(scc_user_acl_unapply(nullptr, nullptr), 22U); }),
              texts{"scclib param invalid."});
    for (const bad_key& row : bad_keys) {
        const scc_user_acl_record record = user(row.key);
        EXPECT_EQ(texts_of([&] { EXPECT_EQ(scc_user_acl_apply(&record, nullptr), 22U); }), texts{row.text});
        EXPECT_EQ(texts_of([&] { EXPECT_EQ(scc_user_acl_unapply(&record, nullptr), 22U); }),
                  (texts{unapply_text, row.text}));
    }
    const scc_user_acl_record record = user();
    EXPECT_EQ(texts_of([&] { EXPECT_EQ(scc_user_acl_change_vmsup(nullptr, out), 22U); }),
              texts{"scclib param invalid."});
    EXPECT_EQ(texts_of([&] { EXPECT_EQ(scc_user_acl_change_vmsup(&record, nullptr), 22U); }),
              texts{"scclib param invalid."});
}

void expect_binding_refusals() {
    EXPECT_EQ(texts_of([] { EXPECT_EQ(scc_user_acl_delete_vmsup(nullptr, nullptr), 22U); }),
              texts{"scclib param invalid."});
    const bad_key rows[] = {{{1, 1, 0, 1}, "acl id is invalid."},
                            {{1, 1, 0x80000000, 1}, "acl id is invalid."},
                            {{1, 1, 0xFFFFFFFF, 1}, "acl id is invalid."},
                            {{1, 0, 0, 1}, "acl id is invalid."},
                            {{1, 0, 40000, 1}, "acl app_type(0) is invalid"},
                            {{1, 59, 40000, 1}, "acl app_type(59) is invalid"},
                            {{1, 0xFFFFFFFF, 40000, 1}, "acl app_type(-1) is invalid"}};
    for (const bad_key& row : rows) {
        EXPECT_EQ(texts_of([&] { EXPECT_EQ(scc_user_acl_delete_vmsup(&row.key, nullptr), 22U); }),
                  texts{row.text});
    }
}

class UserAcl : public test::recording_client {
  protected:
    static void expect_every_refusal() {
        expect_counter_refusals();
        expect_user_refusals();
        expect_binding_refusals();
        EXPECT_EQ(g_scc_client_cb.last_call_id.load(), 0U);
    }
};

TEST_F(UserAcl, RefusesWrongArgumentsWithTheirReasonAlsoWhenNotRegistered) {
    expect_every_refusal();
}

TEST_F(UserAcl, SendsNothingForWrongArguments) {
    start();
    expect_every_refusal();
    EXPECT_EQ(scc::pending_calls(), 0U);
    expect_nothing_was_sent();
    ASSERT_EQ(scc_warterline_notify(1), 0U);
    EXPECT_EQ(daemon.read_item(side::sync).type, 220);
}

TEST_F(UserAcl, DeletesABindingOfAnAclIdThatApplyingRefuses) {
    const scc_acl_key high{1, 1, 40000, 1};
    const scc_user_acl_record record = user(high);
    EXPECT_EQ(scc_user_acl_delete_vmsup(&high, nullptr), 2004U);
    EXPECT_EQ(scc_user_acl_apply(&record, nullptr), 22U);
    EXPECT_EQ(scc_user_acl_unapply(&record, nullptr), 22U);
}

TEST_F(UserAcl, ChangesABindingWithoutLookingAtItsKey) {
    const scc_user_acl_record record = user({0, 0, 0, 0});
    std::uint8_t out[16];
    std::memset(out, 0xA5, sizeof out);
    EXPECT_EQ(scc_user_acl_change_vmsup(&record, out), 2004U);
    EXPECT_EQ(out[0], 0xA5);
}

// ---- logs ----------------------------------------------------------------------------------------

TEST_F(UserAcl, LogsItsCallsInTheirOrderWhenNotRegistered) {
    const scc_user_acl_record record = user();
    std::uint8_t out[16];
    EXPECT_EQ(texts_of([&] { scc_user_acl_apply(&record, nullptr); }),
              (texts{"scclib scc_user_acl_apply is called.", unavailable}));
    EXPECT_EQ(texts_of([&] { scc_user_acl_unapply(&record, nullptr); }),
              (texts{unapply_text, "scclib scc_user_acl_unapply is called.", unavailable}));
    EXPECT_EQ(texts_of([&] { scc_user_acl_change_vmsup(&record, out); }),
              (texts{change_text, "scclib func is called.", unavailable}));
}

TEST_F(UserAcl, LogsAnAddressMadeOfSmallNumbersUnpadded) {
    scc_user_acl_record record{};
    record.key = key;
    record.vid = 7;
    record.ifx = 3;
    record.phyid = 12;
    record.apptype = 4;
    record.direction = 1;
    EXPECT_EQ(texts_of([&] { scc_user_acl_unapply(&record, nullptr); })[0],
              "applyinfo-vid:7,mac:0000.0000.0000,apptype:4,phyid:12,ifx:3,direction:1,");
}

class UserAclQuery : public test::querying_client {};

TEST_F(UserAclQuery, OfACounterLogsTheTextOfItsFailure) {
    const test::debugging on;
    start(0);
    const char* names[] = {"scc_acl_get_filter_counter", "scc_acl_get_counter", "scc_ace_get_counter"};
    const std::pair<std::uint32_t, const char*> results[] = {{2005, "specific acl not exist"},
                                                             {2020, "lowlayer ret timeout"},
                                                             {2021, "unknown errno"},
                                                             {0xFFFFFFFF, "unknown errno"}};
    const std::vector<query_row> rows = counter_rows();
    for (std::size_t i = 0; i < 3; ++i) {
        const std::size_t result_offset = i == 0 ? 24 : 40;
        for (const auto& [result, text] : results) {
            test::clear_log();
            const outcome out =
                exchange_item(rows[i], rows[i].reply, wire().zeros(result_offset).u32(result));
            EXPECT_EQ(out.code, result);
            EXPECT_EQ(out.memory, rows[i].memory_after_failure);
            EXPECT_TRUE(test::logged(std::string(names[i]) + " failed. " + text + ".\n"))
                << names[i] << result;
        }
    }
}

TEST_F(UserAclQuery, OfACounterCopiesAllItsBits) {
    start(0);
    const std::vector<query_row> rows = counter_rows();
    for (std::size_t i = 0; i < 3; ++i) {
        const std::size_t counter_offset = i == 0 ? 16 : 32;
        for (const std::uint64_t value : {0ULL, 1ULL, 0x100000000ULL, ~0ULL}) {
            const outcome out =
                exchange_item(rows[i], rows[i].reply, wire().fill(counter_offset, 0xEE).u64(value).u32(0));
            EXPECT_EQ(out.code, 0U);
            EXPECT_EQ(out.memory, bytes(wire().u64(value)));
        }
    }
}

TEST_F(UserAclQuery, OfABindingFindsNoResultCodeInItsReply) {
    start(0);
    const query_row row = counter_rows()[3];
    const outcome out = exchange_item(row, 136, wire().fill(16, 0xFF));
    EXPECT_EQ(out.code, 0U);
    EXPECT_EQ(out.memory, bytes(wire().fill(16, 0xFF)));
}

TEST_F(UserAclQuery, OfABindingLogsWhyItsReplyDidNotCome) {
    const test::debugging on;
    start(0);
    const query_row row = counter_rows()[3];
    EXPECT_EQ(exchange(row, wire().u32(8).u8(1).u16(0).u8(0)).code, 2007U);
    EXPECT_TRUE(test::logged("SCC_LMSG_ACL_USER_VMSUP_RET recv msg failed. errno:2007."));
    test::clear_log();
    EXPECT_EQ(exchange_item(row, 409, row.good).code, 2007U);
    EXPECT_TRUE(test::logged("msg type is not SCC_LMSG_ACL_USER_VMSUP_RET."));
    EXPECT_FALSE(test::logged("SCC_LMSG_ACL_USER_VMSUP_RET recv msg failed. errno:2007."));
    auto running = begin(row);
    daemon.read_item(side::sync);
    daemon.close_side(side::sync);
    EXPECT_EQ(running.get().code, 32U);
    EXPECT_TRUE(test::logged("SCC_LMSG_ACL_USER_VMSUP_RET recv msg failed. errno:32."));
}

TEST_F(UserAclQuery, ClearsAFilterCounterAfterTheArgumentCheckAndBeforeTheStateTest) {
    std::uint64_t counter = untouched;
    const scc_acl_key wrong{1, 1, 0, 1};
    EXPECT_EQ(scc_acl_get_filter_counter(&wrong, &counter), 22U);
    EXPECT_EQ(counter, untouched);
    EXPECT_EQ(scc_acl_get_filter_counter(&key, &counter), 2004U);
    EXPECT_EQ(counter, 0U);
    counter = untouched;
    EXPECT_EQ(scc_acl_get_counter(&key, &counter), 2004U);
    EXPECT_EQ(scc_ace_get_counter(&key, 1, &counter), 2004U);
    EXPECT_EQ(counter, untouched);
}

TEST(UserAclBounds, TheLowestAclIdIsNotRefusedBeforeTheStateIs) {
    scc_acl_key lowest{};
    lowest.app_type = 1;
    lowest.acl_id = 1;
    EXPECT_EQ(scc_user_acl_delete_vmsup(&lowest, nullptr), 2004U);
    lowest.acl_id = 0;
    EXPECT_EQ(scc_user_acl_delete_vmsup(&lowest, nullptr), 22U);
}

TEST_F(UserAcl, AChangedBindingWritesItsSixteenBytesAlone) {
    start();
    const scc_user_acl_record sent = user();
    bytes memory(20, 0xA5);
    daemon.send_item(side::sync, 136, wire().fill(24, 0x5A));
    EXPECT_EQ(scc_user_acl_change_vmsup(&sent, memory.data()), 0U);
    EXPECT_EQ(memory, bytes(wire().fill(16, 0x5A).fill(4, 0xA5)));
}

}  // namespace
