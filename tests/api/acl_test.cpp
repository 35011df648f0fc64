// ACL requests, and reads from the cache that their results fill.
#include <unistd.h>

#include <fstream>
#include <memory>

#include "api/request_rows.h"

using test::bytes;
using test::patterned;
using test::record_bytes;
using test::request_row;
using test::side;
using test::texts;
using test::texts_of;
using test::wire;

namespace {

constexpr scc_acl_key key{0xFFFFFFFE, 58, 32768, 0x80000003};
constexpr scc_acl_key lowest{0, 1, 1, 0};

wire key_bytes() {
    return wire().u32(0xFFFFFFFE).u32(58).u32(32768).u32(0x80000003);
}

wire lowest_bytes() {
    return wire().u32(0).u32(1).u32(1).u32(0);
}

scc_ace_record ace(std::uint32_t sn, std::uint32_t ace_id, std::uint8_t first = 9) {
    auto record = patterned<scc_ace_record>(first);
    record.sn = sn;
    record.ace_id = ace_id;
    return record;
}

scc_acl_apply_record application(std::uint32_t apply_type) {
    auto record = patterned<scc_acl_apply_record>(41);
    record.key = key;
    record.apply_type = apply_type;
    return record;
}

// The first argument of this process's command line, cut to 106 characters, in 108 bytes.
bytes process_name() {
    std::ifstream file("/proc/self/cmdline");
    std::string name;
    std::getline(file, name, '\0');
    return wire().text(name.substr(0, 106)).to(108);
}

// ---- requests ------------------------------------------------------------------------------------

std::vector<request_row> acl_rows() {
    const auto pid = static_cast<std::uint32_t>(getpid());
    return {
        {"acl_create", [](std::uint32_t* id) { return scc_acl_create(&key, id); }, 131, 31, 32,
         key_bytes().u32(pid).u32(7).add(process_name()).u32(1), key_bytes(), key_bytes(), 0},
        {"acl_create_lowest", [](std::uint32_t* id) { return scc_acl_create(&lowest, id); }, 131, 31, 32,
         lowest_bytes().u32(pid).u32(7).add(process_name()).u32(1), lowest_bytes(), lowest_bytes(), 0},
        {"acl_delete", [](std::uint32_t* id) { return scc_acl_delete(&key, id); }, 131, 32, 33,
         key_bytes().zeros(116).u32(0), key_bytes(), key_bytes(), 1},
        {"acl_reseqence", [](std::uint32_t* id) { return scc_acl_reseqence(&key, 10, 5, id); }, 138, 40, 41,
         key_bytes().u32(10).u32(5), key_bytes().u32(10).u32(5), key_bytes().u32(10).u32(5)},
        {"acl_reseqence_lowest", [](std::uint32_t* id) { return scc_acl_reseqence(&lowest, 1, 1, id); }, 138,
         40, 41, lowest_bytes().u32(1).u32(1), lowest_bytes().u32(1).u32(1), lowest_bytes().u32(1).u32(1)},
        {"acl_reseqence_highest",
         [](std::uint32_t* id) { return scc_acl_reseqence(&key, 0x7FFFFFFF, 0x7FFFFFFF, id); }, 138, 40, 41,
         key_bytes().u32(0x7FFFFFFF).u32(0x7FFFFFFF), key_bytes().u32(0x7FFFFFFF).u32(0x7FFFFFFF),
         key_bytes().u32(0x7FFFFFFF).u32(0x7FFFFFFF)},
    };
}

std::vector<request_row> ace_rows() {
    const bytes record = record_bytes(ace(10, 20));
    const bytes saved = key_bytes().add(record);
    return {
        {"acl_add_ace",
         [](std::uint32_t* id) {
             const scc_ace_record sent = ace(10, 20);
             return scc_acl_add_ace(&key, &sent, id);
         },
         132, 33, 34, key_bytes().zeros(4).add(record).u32(1).zeros(4), saved, saved, 2},
        {"acl_delete_ace",
         [](std::uint32_t* id) {
             const scc_ace_record sent = ace(10, 20);
             return scc_acl_delete_ace(&key, &sent, id);
         },
         132, 34, 35, key_bytes().zeros(4).add(record).u32(0).zeros(4), saved, saved, 3},
    };
}

std::vector<request_row> apply_rows() {
    std::vector<request_row> rows;
    struct {
        const char* name;
        std::uint32_t given;
        std::uint32_t sent;
    } const types[] = {{"lowest_type", 1, 1}, {"highest_type", 58, 58}, {"type_of_the_key", 0, 58}};
    for (const auto& type : types) {
        const bytes record = record_bytes(application(type.sent));
        rows.push_back({std::string("acl_apply_") + type.name,
                        [given = type.given](std::uint32_t* id) {
                            scc_acl_apply_record sent = application(given);
                            return scc_acl_apply(&sent, id);
                        },
                        133, 35, 36, wire().zeros(4).add(record).u32(1).zeros(4), record, record, 4});
        rows.push_back({std::string("acl_unapply_") + type.name,
                        [given = type.given](std::uint32_t* id) {
                            scc_acl_apply_record sent = application(given);
                            return scc_acl_unapply(&sent, id);
                        },
                        133, 36, 37, wire().zeros(4).add(record).u32(0).zeros(4), record, record, 5});
    }
    return rows;
}

EVERY_REQUEST_OF(AclRequest, acl_rows());
EVERY_REQUEST_OF(AceRequest, ace_rows());
EVERY_REQUEST_OF(ApplyRequest, apply_rows());

// ---- refusals ------------------------------------------------------------------------------------

struct bad_key {
    scc_acl_key key;
    const char* text;
};

constexpr const char* bad_id = "acl id is invalid (<1 or >32768).";

constexpr bad_key bad_keys[] = {
    {{1, 1, 0, 1}, bad_id},
    {{1, 1, 32769, 1}, bad_id},
    {{1, 1, 0x80000000, 1}, bad_id},
    {{1, 1, 0xFFFFFFFF, 1}, bad_id},
    {{1, 0, 1, 1}, "acl app_type(0) is invalid"},
    {{1, 59, 1, 1}, "acl app_type(59) is invalid"},
    {{1, 0xFFFFFFFF, 1, 1}, "acl app_type(-1) is invalid"},
    {{1, 0, 0, 1}, bad_id},
};

// Every call that takes a key, with its other arguments in order.
std::vector<std::function<std::uint32_t(const scc_acl_key*)>> calls_with_a_key() {
    static const scc_ace_record given = ace(1, 1);
    static scc_ace_record found;
    static scc_list_head head;
    return {
        [](const scc_acl_key* bad) { return scc_acl_create(bad, nullptr); },
        [](const scc_acl_key* bad) { return scc_acl_delete(bad, nullptr); },
        [](const scc_acl_key* bad) { return scc_acl_add_ace(bad, &given, nullptr); },
        [](const scc_acl_key* bad) { return scc_acl_add_ace(bad, nullptr, nullptr); },
        [](const scc_acl_key* bad) { return scc_acl_delete_ace(bad, &given, nullptr); },
        [](const scc_acl_key* bad) { return scc_acl_reseqence(bad, 1, 1, nullptr); },
        [](const scc_acl_key* bad) { return scc_acl_reseqence(bad, 0, 0, nullptr); },
        [](const scc_acl_key* bad) { return scc_acl_cls_get(const_cast<scc_acl_key*>(bad)); },
        [](const scc_acl_key* bad) { return scc_acl_get_ace(bad, &head); },
        [](const scc_acl_key* bad) { return scc_acl_get_ace(bad, nullptr); },
        [](const scc_acl_key* bad) { return scc_acl_get_ace_by_sn(bad, 1, &found); },
        [](const scc_acl_key* bad) { return scc_acl_get_ace_by_sn(bad, 1, nullptr); },
    };
}

void expect_key_refusals() {
    for (const auto& call : calls_with_a_key()) {
        EXPECT_EQ(texts_of([&] { EXPECT_EQ(call(nullptr), 22U); }), texts{"scclib param invalid."});
        for (const bad_key& row : bad_keys) {
            scc_acl_key wrong = row.key;
            EXPECT_EQ(texts_of([&] { EXPECT_EQ(call(&wrong), 22U); }), texts{row.text});
            EXPECT_EQ(record_bytes(wrong), record_bytes(row.key));
        }
    }
}

struct bad_apply_type {
    std::uint32_t type;
    const char* text;
};

constexpr bad_apply_type bad_apply_types[] = {
    {59, "apply type(59) is invalid"},
    {0x7FFFFFFF, "apply type(2147483647) is invalid"},
    {0xFFFFFFFF, "apply type(-1) is invalid"},
};

void expect_apply_refusals(std::uint32_t (*function)(scc_acl_apply_record*, std::uint32_t*)) {
    EXPECT_EQ(texts_of([&] { EXPECT_EQ(function(nullptr, nullptr), 22U); }), texts{"scclib param invalid."});
    for (const bad_key& row : bad_keys) {
        scc_acl_apply_record record = application(0);
        record.key = row.key;
        EXPECT_EQ(texts_of([&] { EXPECT_EQ(function(&record, nullptr), 22U); }), texts{row.text});
        EXPECT_EQ(record.apply_type, 0U);
    }
    for (const bad_apply_type& row : bad_apply_types) {
        scc_acl_apply_record record = application(row.type);
        EXPECT_EQ(texts_of([&] { EXPECT_EQ(function(&record, nullptr), 22U); }), texts{row.text});
        EXPECT_EQ(record.apply_type, row.type);
    }
}

struct bad_numbers {
    std::uint32_t first;
    std::uint32_t step;
    const char* text;
};

constexpr bad_numbers bad_sequences[] = {
    {0, 1, "scclib param invalid. sn_start:0, sn_inc:1."},
    {1, 0, "scclib param invalid. sn_start:1, sn_inc:0."},
    {0x80000000, 1, "scclib param invalid. sn_start:-2147483648, sn_inc:1."},
    {1, 0xFFFFFFFF, "scclib param invalid. sn_start:1, sn_inc:-1."},
};

void expect_every_refusal() {
    expect_key_refusals();
    expect_apply_refusals(scc_acl_apply);
    expect_apply_refusals(scc_acl_unapply);
    EXPECT_EQ(texts_of([] { EXPECT_EQ(scc_acl_add_ace(&key, nullptr, nullptr), 22U); }),
              texts{"scclib param ace invalid."});
    EXPECT_EQ(texts_of([] { EXPECT_EQ(scc_acl_delete_ace(&key, nullptr, nullptr), 22U); }),
              texts{"scclib param ace invalid."});
    EXPECT_EQ(texts_of([] { EXPECT_EQ(scc_acl_get_ace(&key, nullptr), 22U); }),
              texts{"scclib param ace_list invalid."});
    EXPECT_EQ(texts_of([] { EXPECT_EQ(scc_acl_get_ace_by_sn(&key, 1, nullptr), 22U); }),
              texts{"scclib param ace invalid."});
    for (const bad_numbers& row : bad_sequences) {
        EXPECT_EQ(texts_of([&] { EXPECT_EQ(scc_acl_reseqence(&key, row.first, row.step, nullptr), 22U); }),
                  texts{row.text});
    }
    EXPECT_EQ(g_scc_client_cb.last_call_id.load(), 0U);
    test::expect_counted(test::counted_nowhere, {});
}

using AclRefusal = test::recording_client;

TEST_F(AclRefusal, ComesWithItsReasonAlsoWhenNotRegistered) {
    expect_every_refusal();
}

TEST_F(AclRefusal, SendsNothing) {
    start(1);
    expect_every_refusal();
    EXPECT_EQ(scc::pending_calls(), 0U);
    expect_nothing_was_sent();
}

TEST_F(AclRefusal, OfAnUnregisteredCallerStillReplacesAnApplyTypeOfZero) {
    for (const auto function : {scc_acl_apply, scc_acl_unapply}) {
        scc_acl_apply_record record = application(0);
        EXPECT_EQ(function(&record, nullptr), 2004U);
        EXPECT_EQ(record_bytes(record), record_bytes(application(58)));
    }
}

TEST_F(AclRefusal, LeavesTheRestOfAnAppliedRecordAlone) {
    start();
    for (const auto function : {scc_acl_apply, scc_acl_unapply}) {
        scc_acl_apply_record record = application(0);
        EXPECT_EQ(function(&record, nullptr), 0U);
        EXPECT_EQ(record_bytes(record), record_bytes(application(58)));
        scc_acl_apply_record typed = application(3);
        EXPECT_EQ(function(&typed, nullptr), 0U);
        EXPECT_EQ(record_bytes(typed), record_bytes(application(3)));
    }
}

}  // namespace
