// The synchronous queries: their bytes, their replies, and the caller's memory after a short, wrong or
// hostile reply.
#include <climits>

#include "api/query_rows.h"

using test::bytes;
using test::patterned;
using test::query_row;
using test::record_bytes;
using test::side;
using test::wire;

namespace {

constexpr std::uint8_t mac[6] = {0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e};

const scc_config_record& any_record() {
    static const auto record = patterned<scc_config_record>(3);
    return record;
}

scc_user_record asked_user() {
    auto record = patterned<scc_user_record>(5);
    record.operation = 2;
    return record;
}

const bytes& found_user() {
    static const auto record = record_bytes(patterned<scc_user_record>(131));
    return record;
}

template <class T>
T taken(const bytes& memory) {
    return test::number_at<T>(memory, 0);
}

template <class T>
void put_back(bytes& memory, const T& value) {
    memory = wire().raw(&value, sizeof value);
}

const bytes word_before = wire().u32(0xA5A5A5A5);
const bytes entries = wire().fill(48, 0x11).fill(48, 0x22);

std::vector<query_row> value_rows() {
    return {
        {"mac_query",
         [](bytes& memory) {
             auto ip = taken<std::uint32_t>(memory);
             const std::uint32_t code = scc_mac_query(mac, &ip);
             put_back(memory, ip);
             return code;
         },
         word_before, 315, wire().u32(1).raw(mac, 6).to(152), 413, "SCC_LMSG_USER_MAC_QUERY_RET",
         wire().zeros(36).to(32).u32(0x0A01A8C0), wire().u32(0x0A01A8C0), wire().zeros(12).u32(2005),
         word_before, word_before},
        {"is_arp_check_enabled", [](bytes& memory) { return scc_is_arp_check_enabled(memory.data()); },
         wire().u8(0xA5), 303, bytes{}, 405, "SCC_LMSG_ARPCHK_STATUS_RET", wire().u32(0x100), wire().u8(1),
         bytes{}, wire().u8(0xA5), wire().u8(0xA5)},
        {"arp_check_user_count_get",
         [](bytes& memory) {
             auto count = taken<std::uint32_t>(memory);
             const std::uint32_t code = scc_arp_check_user_count_get(0xFEDCBA98, &count);
             put_back(memory, count);
             return code;
         },
         word_before, 304, wire().u32(0).u32(0xFEDCBA98).u32(0), 411, "SCC_LMSG_ARPCHK_USER_COUNT_RET",
         wire().u32(0).u32(0x77777777).u32(1234567890), wire().u32(1234567890), wire().u32(2005), word_before,
         word_before},
        {"arp_check_user_data_get",
         [](bytes& memory) {
             int count = 2;
             const std::uint32_t code = scc_arp_check_user_data_get(0x80000009, memory.data(), &count);
             EXPECT_EQ(count, 2);
             return code;
         },
         wire().fill(96, 0xA5), 305, wire().u32(0).u32(0x80000009).u32(2), 410,
         "SCC_LMSG_ARPCHK_USER_DATA_RET", wire().u32(0).u32(0x77777777).u32(2).add(entries), entries,
         wire().u32(2005), wire().fill(96, 0xA5), wire().fill(96, 0xA5)},
    };
}

std::vector<query_row> record_rows() {
    return {
        {"sp_port_addr_num", [](bytes&) { return scc_sp_port_addr_num(&any_record(), nullptr); }, bytes{},
         317, wire().u32(1).zeros(4).add(record_bytes(any_record())), 415, "SCC_LMSG_PORT_SECU_ADDR_NUM_RET",
         wire().u32(0), bytes{}, wire().u32(2005), bytes{}, bytes{}},
        {"nac_span_dport_set", [](bytes&) { return scc_nac_span_dport_set(&any_record(), nullptr); }, bytes{},
         316, wire().u32(1).zeros(4).add(record_bytes(any_record())), 414, "SCC_LMSG_SPAN_DEST_PORT_SYNC_RET",
         wire().u32(0), bytes{}, wire().u32(2005), bytes{}, bytes{}},
        {"nac_user_get",
         [](bytes& memory) {
             auto record = taken<scc_user_record>(memory);
             const std::uint32_t code = scc_nac_user_get(&record);
             put_back(memory, record);
             return code;
         },
         record_bytes(asked_user()), 307, wire().u32(0xFFFFFFFF).zeros(4).add(record_bytes(asked_user())),
         401, "SCC_LMSG_CALL_RET", wire().zeros(10).add(found_user()), found_user(), wire().u32(0).u32(2005),
         record_bytes(asked_user()), record_bytes(asked_user())},
    };
}

EVERY_QUERY_OF(ValueQuery, value_rows());
EVERY_QUERY_OF(RecordQuery, record_rows());

// ---- arguments -----------------------------------------------------------------------------------

using Query = test::querying_client;

void expect_every_refusal() {
    const test::debugging on;
    std::uint32_t word = 0xA5A5A5A5;
    int count = 1;
    std::uint8_t entry[48];
    EXPECT_EQ(scc_mac_query(nullptr, &word), 22U);
    EXPECT_EQ(scc_mac_query(mac, nullptr), 22U);
    EXPECT_EQ(scc_mac_query(nullptr, nullptr), 22U);
    EXPECT_EQ(scc_sp_port_addr_num(nullptr, &word), 22U);
    EXPECT_EQ(scc_nac_span_dport_set(nullptr, &word), 22U);
    EXPECT_EQ(scc_nac_user_get(nullptr), 22U);
    for (const std::uint32_t operation : {0U, 1U, 3U, 0x102U, 0x80000002U, 0xFFFFFFFFU}) {
        scc_user_record record = asked_user();
        record.operation = operation;
        const bytes before = record_bytes(record);
        EXPECT_EQ(scc_nac_user_get(&record), 22U) << operation;
        EXPECT_EQ(record_bytes(record), before);
    }
    EXPECT_EQ(scc_is_arp_check_enabled(nullptr), 22U);
    EXPECT_EQ(scc_arp_check_user_count_get(1, nullptr), 22U);
    EXPECT_EQ(scc_arp_check_user_data_get(1, nullptr, &count), 22U);
    EXPECT_EQ(scc_arp_check_user_data_get(1, entry, nullptr), 22U);
    EXPECT_EQ(test::log_texts(), std::vector<std::string>(16, "scclib param invalid."));
    EXPECT_EQ(word, 0xA5A5A5A5U);
    EXPECT_EQ(count, 1);
    EXPECT_EQ(g_scc_client_cb.last_call_id.load(), 0U);
}

TEST_F(Query, WithWrongArgumentsIsRefusedAlsoWhenNotRegistered) {
    expect_every_refusal();
}

TEST_F(Query, WithWrongArgumentsSendsNothing) {
    start(0);
    expect_every_refusal();
    ASSERT_EQ(scc_warterline_notify(9), 0U);
    const test::received_item next = daemon.read_item(side::sync);
    EXPECT_EQ(next.type, 220);
}

// ---- call ids ------------------------------------------------------------------------------------

query_row with_call_id(const query_row& row, std::function<std::uint32_t(std::uint32_t*)> call) {
    query_row out = row;
    out.memory = word_before;
    out.call = [call = std::move(call)](bytes& memory) {
        auto id = taken<std::uint32_t>(memory);
        const std::uint32_t code = call(&id);
        put_back(memory, id);
        return code;
    };
    return out;
}

query_row port_query() {
    return with_call_id(record_rows()[0],
                        [](std::uint32_t* id) { return scc_sp_port_addr_num(&any_record(), id); });
}

query_row span_query() {
    return with_call_id(record_rows()[1],
                        [](std::uint32_t* id) { return scc_nac_span_dport_set(&any_record(), id); });
}

TEST_F(Query, OfAPortOrAMirrorTellsItsCallIdWhateverTheReply) {
    start(0);
    std::uint32_t id = 0;
    for (const query_row& row : {port_query(), span_query()}) {
        const bytes good = test::message_bytes({test::item_bytes(row.reply, wire().u32(0))});
        const bytes failed = test::message_bytes({test::item_bytes(row.reply, wire().u32(2020))});
        const bytes wrong = test::message_bytes({test::item_bytes(413, wire().u32(0))});
        const std::pair<bytes, std::uint32_t> replies[] = {{good, 0}, {failed, 2020}, {wrong, 2007}};
        for (const auto& [reply, code] : replies) {
            const outcome out = exchange(row, reply);
            EXPECT_EQ(out.code, code);
            EXPECT_EQ(out.memory, bytes(wire().u32(++id)));
        }
    }
    EXPECT_EQ(id, 6U);
}

TEST_F(Query, OfAPortTellsItsCallIdAlsoWhenTheConnectionIsLost) {
    start(0);
    std::future<outcome> running = begin(port_query());
    daemon.read_item(side::sync);
    daemon.close_both();
    const outcome out = running.get();
    EXPECT_NE(out.code, 0U);
    EXPECT_EQ(out.memory, bytes(wire().u32(1)));
}

TEST_F(Query, OfAPortLeavesTheCallIdAloneWhenNotRegistered) {
    std::uint32_t id = 0xA5A5A5A5;
    EXPECT_EQ(scc_sp_port_addr_num(&any_record(), &id), 2004U);
    EXPECT_EQ(scc_nac_span_dport_set(&any_record(), &id), 2004U);
    EXPECT_EQ(id, 0xA5A5A5A5U);
}

TEST_F(Query, TakesACallIdForMacPortAndMirrorAlone) {
    start(0);
    const std::uint32_t expected_ids[] = {1, 1, 1, 1, 2, 3, 3};
    std::size_t next = 0;
    for (const auto& rows : {value_rows(), record_rows()}) {
        for (const query_row& row : rows) {
            expect_a_good_query(row);
            EXPECT_EQ(g_scc_client_cb.last_call_id.load(), expected_ids[next++]) << row.name;
        }
    }
}

// ---- the content of replies ----------------------------------------------------------------------

TEST_F(Query, OfTheArpCheckTellsOneForEveryStatusButZero) {
    start(0);
    const query_row row = value_rows()[1];
    for (const std::uint32_t status : {1U, 2U, 0x100U, 0x80000000U, 0xFFFFFFFFU}) {
        EXPECT_EQ(exchange_item(row, 405, wire().u32(status)).memory, bytes{1}) << status;
    }
    const outcome off = exchange_item(row, 405, wire().u32(0));
    EXPECT_EQ(off.code, 0U);
    EXPECT_EQ(off.memory, bytes{0});
}

TEST_F(Query, ReturnsEveryResultOfTheDaemon) {
    start(0);
    for (const std::uint32_t result : {1U, 12U, 22U, 2000U, 2004U, 2007U, 2020U, 0x80000000U, 0xFFFFFFFFU}) {
        EXPECT_EQ(exchange_item(value_rows()[0], 413, wire().zeros(12).u32(result)).code, result);
        EXPECT_EQ(exchange_item(value_rows()[2], 411, wire().u32(result)).code, result);
        EXPECT_EQ(exchange_item(value_rows()[3], 410, wire().u32(result)).code, result);
        EXPECT_EQ(exchange_item(record_rows()[0], 415, wire().u32(result)).code, result);
        EXPECT_EQ(exchange_item(record_rows()[1], 414, wire().u32(result)).code, result);
        const outcome user =
            exchange_item(record_rows()[2], 401, wire().u32(0).u32(result).zeros(2).add(found_user()));
        EXPECT_EQ(user.code, result);
        EXPECT_EQ(user.memory, found_user());
    }
}

// A refusal may come without a record or with a part of one.
TEST_F(Query, OfANacUserThatIsRefusedNeedsNoRecord) {
    start(0);
    const query_row row = record_rows()[2];
    const bytes refusal = wire().u32(0).u32(2019).zeros(2).add(found_user());
    for (std::size_t length = 0; length <= refusal.size(); ++length) {
        const outcome out = exchange_item(row, 401, test::slice(refusal, 0, length));
        EXPECT_EQ(out.code, length < 8 ? 2007U : 2019U) << length;
        EXPECT_EQ(out.memory, length < refusal.size() ? record_bytes(asked_user()) : found_user()) << length;
    }
}

TEST_F(Query, OfANacUserThatIsFoundNeedsTheWholeRecord) {
    start(0);
    const query_row row = record_rows()[2];
    for (const std::size_t length : {std::size_t{8}, std::size_t{10}, std::size_t{745}}) {
        const bytes answer = wire().zeros(10).add(found_user());
        const outcome out = exchange_item(row, 401, test::slice(answer, 0, length));
        EXPECT_EQ(out.code, 2007U) << length;
        EXPECT_EQ(out.memory, record_bytes(asked_user())) << length;
    }
}

TEST_F(Query, OfAMacLogsSuccessOrFailure) {
    const test::debugging on;
    start(0);
    const query_row row = value_rows()[0];
    test::clear_log();
    // 192.168.1.10 in network order.
    exchange_item(row, 413, wire().to(32).u8(192).u8(168).u8(1).u8(10));
    EXPECT_TRUE(test::logged("query by 001a.2b3c.4d5e success ,ip:192.168.1.10."));
    test::clear_log();
    const outcome failed =
        exchange_item(row, 413, wire().zeros(12).u32(2005).to(32).u8(10).u8(0).u8(0).u8(9));
    EXPECT_TRUE(test::logged("query by 001a.2b3c.4d5e fail ,ip:10.0.0.9."));
    EXPECT_EQ(failed.memory, word_before);
    test::clear_log();
    exchange_item(row, 413, wire().zeros(12).u32(2005));
    EXPECT_TRUE(test::logged("query by 001a.2b3c.4d5e fail ,ip:0.0.0.0."));
}

struct data_case {
    int capacity;
    std::uint32_t count_in_reply;
    std::size_t entries_in_reply;
    std::uint32_t code;
    int count_after;
    std::size_t entries_copied;
};

constexpr data_case data_cases[] = {
    {4, 0, 0, 0, 0, 0},
    {4, 1, 1, 0, 1, 1},
    {4, 3, 3, 0, 3, 3},
    {4, 4, 4, 0, 4, 4},
    {4, 5, 5, 0, 4, 4},
    {4, 5, 4, 0, 4, 4},  // as much as the caller's buffer takes is there
    {1, 0xFFFFFFFF, 1, 0, 1, 1},
    {0, 3, 3, 0, 0, 0},
    {4, 1, 0, 2007, 4, 0},
    {4, 4, 3, 2007, 4, 0},
    {4, 5, 3, 2007, 4, 0},
    {4, 0xFFFFFFFF, 3, 2007, 4, 0},
    {INT_MAX, 0xFFFFFFFF, 3, 2007, INT_MAX, 0},
    {INT_MAX, 0x7FFFFFFF, 3, 2007, INT_MAX, 0},
    {INT_MAX, 0x05555556, 3, 2007, INT_MAX, 0},  // 48 times this wraps at 32 bits
    {INT_MAX, 3, 3, 0, 3, 3},
};

TEST_F(Query, OfArpUsersCopiesNoMoreThanFitsAndThanCame) {
    start(0);
    bytes sent;
    for (std::uint8_t i = 1; i <= 5; ++i) {
        sent = wire().add(sent).fill(48, i);
    }
    for (const data_case& row : data_cases) {
        SCOPED_TRACE(::testing::Message() << row.capacity << " wanted, " << row.count_in_reply
                                          << " announced, " << row.entries_in_reply << " sent");
        bytes memory(4 * 48 + 16, 0xA5);
        int count = row.capacity;
        auto running = std::async(std::launch::async,
                                  [&] { return scc_arp_check_user_data_get(7, memory.data(), &count); });
        EXPECT_EQ(daemon.read_item(side::sync).value,
                  bytes(wire().u32(0).u32(7).u32(static_cast<std::uint32_t>(row.capacity))));
        daemon.send_item(side::sync, 410,
                         wire()
                             .u32(0)
                             .u32(9)
                             .u32(row.count_in_reply)
                             .add(test::slice(sent, 0, row.entries_in_reply * 48)));
        EXPECT_EQ(running.get(), row.code);
        EXPECT_EQ(count, row.count_after);
        EXPECT_EQ(memory, bytes(wire()
                                    .add(test::slice(sent, 0, row.entries_copied * 48))
                                    .fill(4 * 48 + 16 - row.entries_copied * 48, 0xA5)));
    }
}

TEST_F(Query, OfArpUsersWithANegativeCapacityTouchesNothing) {
    start(0);
    std::uint8_t memory = 0xA5;
    int count = -3;
    auto running =
        std::async(std::launch::async, [&] { return scc_arp_check_user_data_get(7, &memory, &count); });
    EXPECT_EQ(daemon.read_item(side::sync).value, bytes(wire().u32(0).u32(7).u32(0xFFFFFFFD)));
    daemon.send_item(side::sync, 410, wire().u32(0).u32(0).u32(1).fill(48, 1));
    EXPECT_EQ(running.get(), 0U);
    EXPECT_EQ(count, -3);
    EXPECT_EQ(memory, 0xA5);
}

}  // namespace
