// NAC users and ARP entries: the mask rules change what is sent and nothing else.
#include <algorithm>

#include "api/request_rows.h"

using test::bytes;
using test::patterned;
using test::record_bytes;
using test::request_row;
using test::side;
using test::wire;

namespace {

using user_function = std::uint32_t (*)(const scc_user_record*, std::uint32_t*);

struct user_member {
    const char* name;
    user_function function;
    std::uint16_t type;
    std::uint32_t kind;
    std::size_t position;
    bool counted;
};

constexpr user_member members[] = {
    {"nac_user_set", scc_nac_user_set, 127, 27, 28, true},
    {"arp_entry_set", scc_arp_entry_set, 165, 56, 59, false},
    {"arp_dyn_entry_set", scc_arp_dyn_entry_set, 168, 59, 68, false},
};

// The mask 2001:db8::7 in network order.
scc_user_record user(std::uint32_t operation, std::uint32_t flags = 0, std::uint32_t entry_type = 2) {
    auto record = patterned<scc_user_record>(29);
    record.operation = operation;
    record.flags = flags;
    record.entry_type = entry_type;
    const std::uint8_t mask[16] = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 7};
    std::memcpy(record.mask, mask, sizeof mask);
    return record;
}

std::vector<request_row> user_rows() {
    std::vector<request_row> rows;
    for (const user_member& member : members) {
        for (const std::uint32_t operation : {1U, 3U}) {
            const user_function function = member.function;
            const bytes record = record_bytes(user(operation));
            const int statistics = operation == 1 ? 6 : 7;
            rows.push_back({member.name + std::string(operation == 1 ? "_add" : "_delete"),
                            [function, operation](std::uint32_t* id) {
                                const scc_user_record sent = user(operation);
                                return function(&sent, id);
                            },
                            member.type, member.kind, member.position, wire().zeros(4).add(record), record,
                            record, member.counted ? statistics : test::counted_nowhere});
        }
    }
    return rows;
}

EVERY_REQUEST_OF(UserRequest, user_rows());

// ---- the mask ------------------------------------------------------------------------------------

enum class mask_sent { as_it_is, first_word, whole };

struct mask_case {
    std::uint32_t flags;
    std::uint32_t entry_type;
    mask_sent sent;
    const char* log;  // null for none
};

// The flag 0x2 stands for an IPv4 mask, which is the first word.
constexpr const char* kept = "mask flag set:32.1.13.184";
constexpr const char* guarded = "1x or ipv4 scg mask:32.1.13.184";

constexpr mask_case mask_cases[] = {
    {0x0, 2, mask_sent::as_it_is, nullptr},
    {0x1, 2, mask_sent::as_it_is, nullptr},
    {0x200, 2, mask_sent::as_it_is, nullptr},
    {0xFFFFFDF9, 2, mask_sent::as_it_is, nullptr},
    {0x4, 2, mask_sent::whole, nullptr},
    {0x4, 5, mask_sent::whole, nullptr},
    {0x4, 1, mask_sent::whole, nullptr},
    {0x6, 2, mask_sent::whole, nullptr},
    {0x204, 2, mask_sent::whole, nullptr},
    {0x206, 5, mask_sent::whole, nullptr},
    {0xFFFFFFFF, 1, mask_sent::whole, nullptr},
    {0x2, 0, mask_sent::first_word, nullptr},
    {0x2, 2, mask_sent::first_word, nullptr},
    {0x2, 3, mask_sent::first_word, nullptr},
    {0x2, 4, mask_sent::first_word, nullptr},
    {0x2, 6, mask_sent::first_word, nullptr},
    {0x2, 0x105, mask_sent::first_word, nullptr},
    {0x2, 0xFFFFFFFF, mask_sent::first_word, nullptr},
    {0xFFFFFDFB, 2, mask_sent::first_word, nullptr},
    {0x2, 5, mask_sent::as_it_is, guarded},
    {0x2, 1, mask_sent::as_it_is, guarded},
    {0xFFFFFDFB, 5, mask_sent::as_it_is, guarded},
    {0x202, 2, mask_sent::as_it_is, kept},
    {0x202, 5, mask_sent::as_it_is, kept},
    {0x202, 1, mask_sent::as_it_is, kept},
    {0xFFFFFFFB, 2, mask_sent::as_it_is, kept},
};

bytes record_with_mask(const scc_user_record& record, mask_sent sent) {
    bytes out = record_bytes(record);
    const std::size_t ones = sent == mask_sent::whole ? 16U : sent == mask_sent::first_word ? 4U : 0U;
    std::fill_n(out.begin() + 648, ones, std::uint8_t{0xFF});
    return out;
}

using UserMask = test::recording_client;

// The captured lines that name a mask, whichever.
std::ptrdiff_t mask_lines() {
    return std::ranges::count_if(test::log_texts(), [](const std::string& text) {
        return text.starts_with("mask flag set:") || text.starts_with("1x or ipv4 scg mask:");
    });
}

TEST_F(UserMask, IsSentByTheFlagsAndTheEntryTypeWhileRecordAndSavedDataStay) {
    start();
    std::uint32_t id = 0;
    for (const user_member& member : members) {
        for (const mask_case& row : mask_cases) {
            SCOPED_TRACE(::testing::Message() << member.name << " flags " << std::hex << row.flags
                                              << " entry type " << row.entry_type);
            const scc_user_record record = user(1, row.flags, row.entry_type);
            const bytes before = record_bytes(record);
            ASSERT_EQ(member.function(&record, &id), 0U);
            EXPECT_EQ(record_bytes(record), before);
            const test::received_item item = daemon.read_item(side::async);
            EXPECT_EQ(item.type, member.type);
            EXPECT_EQ(item.value, bytes(wire().u32(id).zeros(4).add(record_with_mask(record, row.sent))));
            expect_saved(id, member.kind, before);
        }
    }
}

TEST_F(UserMask, OfADeletedUserFollowsTheSameRules) {
    start();
    for (const user_member& member : members) {
        const scc_user_record record = user(3, 0x2, 2);
        ASSERT_EQ(member.function(&record, nullptr), 0U);
        EXPECT_EQ(test::slice(daemon.read_item(side::async).value, 8, 736),
                  record_with_mask(record, mask_sent::first_word));
    }
}

TEST_F(UserMask, IsLoggedWhenAFlagKeepsIt) {
    start();
    for (const user_member& member : members) {
        for (const mask_case& row : mask_cases) {
            SCOPED_TRACE(::testing::Message() << member.name << " flags " << std::hex << row.flags
                                              << " entry type " << row.entry_type);
            const test::debugging on;
            const scc_user_record record = user(1, row.flags, row.entry_type);
            ASSERT_EQ(member.function(&record, nullptr), 0U);
            EXPECT_EQ(test::logged(kept), row.log == kept);
            EXPECT_EQ(test::logged(guarded), row.log == guarded);
            EXPECT_EQ(mask_lines(), row.log == nullptr ? 0 : 1);
        }
    }
}

TEST_F(UserMask, OfTheHandlersRecordIsTheCallers) {
    start();
    for (const user_member& member : members) {
        std::uint32_t id = 0;
        const scc_user_record record = user(1, 0x4, 2);
        ASSERT_EQ(member.function(&record, &id), 0U);
        daemon.read_item(side::async);
        daemon.send_result(id, 0);
        const auto event = test::results().wait();
        ASSERT_TRUE(event.has_value());
        EXPECT_EQ(event->position, member.position);
        EXPECT_EQ(event->arguments, record_bytes(record));
    }
}

// ---- refusals and statistics ---------------------------------------------------------------------

using UserOperation = test::recording_client;

void expect_every_refusal() {
    std::uint32_t id = 0xAAAAAAAA;
    for (const user_member& member : members) {
        const test::debugging on;
        EXPECT_EQ(member.function(nullptr, &id), 22U) << member.name;
        for (const std::uint32_t operation : {0U, 2U, 4U, 0x101U, 0x80000001U, 0xFFFFFFFFU}) {
            const scc_user_record record = user(operation);
            EXPECT_EQ(member.function(&record, &id), 22U) << member.name << " " << operation;
        }
        EXPECT_EQ(test::log_texts(), std::vector<std::string>(7, "scclib param invalid."));
    }
    EXPECT_EQ(id, 0xAAAAAAAAU);
    EXPECT_EQ(g_scc_client_cb.last_call_id.load(), 0U);
    test::expect_counted(test::counted_nowhere, {});
}

TEST_F(UserOperation, OtherThanOneAndThreeIsRefusedAlsoWhenNotRegistered) {
    expect_every_refusal();
}

TEST_F(UserOperation, OtherThanOneAndThreeIsNotSent) {
    start();
    expect_every_refusal();
    expect_nothing_was_sent();
}

TEST_F(UserOperation, OfANacUserIsCountedWithOrWithoutAHandler) {
    test::record_all_results(info.handlers);
    info.handlers.nac_user = nullptr;
    registered_client::start(0);
    for (const std::uint32_t operation : {1U, 3U, 3U}) {
        const scc_user_record record = user(operation);
        ASSERT_EQ(scc_nac_user_set(&record, nullptr), 0U);
    }
    std::uint32_t id = 0;
    ASSERT_EQ(scc_addr_learning(1, 1, &id), 0U);
    daemon.read_items(side::async, 4);
    daemon.send_result(1, 0);
    daemon.send_result(2, 2005);
    daemon.send_result(3, 0);
    daemon.send_result(id, 0);
    ASSERT_EQ(test::results().wait()->call_id, id);
    EXPECT_EQ(test::counters_of(6), (std::vector<std::uint32_t>{1, 1, 1, 0, 0}));
    EXPECT_EQ(test::counters_of(7), (std::vector<std::uint32_t>{2, 1, 2, 1, 0}));
}

}  // namespace
