// Each call with integer arguments at the limits of every argument's type: the bytes sent, the data saved for
// the result, and the handler's arguments.
#include <climits>

#include "api/query_rows.h"
#include "api/request_rows.h"

using test::bytes;
using test::side;
using test::wire;

namespace {

constexpr std::uint32_t ones = 0xFFFFFFFF;
constexpr scc_acl_key lowest_key{0, 1, 1, 0};
constexpr scc_acl_key highest_key{ones, 58, 32768, ones};

struct extreme_row {
    std::string name;
    std::function<std::uint32_t(std::uint32_t*)> call;
    std::uint16_t type;
    std::uint32_t kind;
    std::size_t position;
    bytes payload;    // after the call id
    bytes saved;      // unless the call id is part of it
    bytes arguments;  // of the handler
    bool saves_its_payload = false;
};

#define CALL(expression) [](std::uint32_t* id) { return expression; }

// A row whose handler gets exactly the saved bytes.
extreme_row plain(const std::string& name, std::function<std::uint32_t(std::uint32_t*)> call,
                  std::uint16_t type, std::uint32_t kind, std::size_t position, const bytes& payload,
                  const bytes& saved) {
    return {name, std::move(call), type, kind, position, payload, saved, saved};
}

struct int_case {
    int value;
    std::uint32_t sent;
    std::uint8_t low_byte;
};

constexpr int_case int_cases[] = {
    {0, 0, 0},
    {1, 1, 1},
    {255, 0xFF, 0xFF},
    {256, 0x100, 0},
    {-1, ones, 0xFF},
    {-256, 0xFFFFFF00, 0},
    {INT_MAX, 0x7FFFFFFF, 0xFF},
    {INT_MIN, 0x80000000, 0},
};

std::vector<extreme_row> int_rows() {
    static const scc_vlan_record vlans = test::patterned<scc_vlan_record>(5);
    const bytes vlan_bytes = test::record_bytes(vlans);
    std::vector<extreme_row> rows;
    for (const int_case& one : int_cases) {
        const int value = one.value;
        const std::string suffix = " " + std::to_string(value);
        rows.push_back(plain(
            "dot1x_redirect_enable" + suffix,
            [value](std::uint32_t* id) { return scc_dot1x_redirect_enable(value, id); }, 108, 8, 8,
            wire().u32(one.sent), wire().u8(one.low_byte)));
        rows.push_back(plain(
            "d1x_mac_move" + suffix, [value](std::uint32_t* id) { return scc_d1x_mac_move(value, id); }, 109,
            9, 9, wire().u32(one.sent), wire().u8(one.low_byte)));
        rows.push_back({"offline_detect_cfg" + suffix,
                        [value](std::uint32_t* id) { return scc_offline_detect_cfg(value, 0, ones, id); },
                        166,
                        57,
                        60,
                        wire().u32(one.sent).u32(0).u32(ones),
                        {},
                        wire().u8(one.low_byte).u32(0).u32(ones),
                        true});
        rows.push_back({"direct_vlan_set" + suffix,
                        [value](std::uint32_t* id) { return scc_direct_vlan_set(value, &vlans, id); },
                        167,
                        58,
                        62,
                        wire().u32(one.sent).add(vlan_bytes),
                        {},
                        wire().u8(one.low_byte).add(vlan_bytes),
                        true});
    }
    rows.push_back({"offline_detect_cfg the other way round",
                    CALL(scc_offline_detect_cfg(0, ones, 0, id)),
                    166,
                    57,
                    60,
                    wire().u32(0).u32(ones).u32(0),
                    {},
                    wire().u8(0).u32(ones).u32(0),
                    true});
    return rows;
}

// Each argument alone at its maximum, so that no two can be confused.
std::vector<extreme_row> channel_rows() {
    return {
        plain("http port", CALL(scc_http_dport_set(65535, 0, id)), 112, 11, 12, wire().u32(65535).u32(0),
              wire().u16(65535).u8(0)),
        plain("http flag", CALL(scc_http_dport_set(0, 255, id)), 112, 11, 12, wire().u32(0).u32(255),
              wire().u16(0).u8(255)),
        plain("host none", CALL(scc_dirchn_host_set(0, 0, 0, 0, 0, id)), 113, 12, 13, wire().zeros(20),
              wire().zeros(14)),
        plain("host first", CALL(scc_dirchn_host_set(ones, 0, 0, 0, 0, id)), 113, 12, 13,
              wire().u32(ones).zeros(16), wire().u32(ones).zeros(10)),
        plain("host second", CALL(scc_dirchn_host_set(0, ones, 0, 0, 0, id)), 113, 12, 13,
              wire().u32(0).u32(ones).zeros(12), wire().u32(0).u32(ones).zeros(6)),
        plain("host third", CALL(scc_dirchn_host_set(0, 0, 255, 0, 0, id)), 113, 12, 13,
              wire().zeros(8).u32(255).zeros(8), wire().zeros(8).u8(255).zeros(5)),
        plain("host fourth", CALL(scc_dirchn_host_set(0, 0, 0, ones, 0, id)), 113, 12, 13,
              wire().zeros(12).u32(ones).u32(0), wire().zeros(9).u32(ones).u8(0)),
        plain("host fifth", CALL(scc_dirchn_host_set(0, 0, 0, 0, 255, id)), 113, 12, 13,
              wire().zeros(16).u32(255), wire().zeros(13).u8(255)),
        plain("server first", CALL(scc_dirchn_server_set(ones, 0, id)), 114, 13, 14, wire().u32(ones).u32(0),
              wire().u32(ones).u8(0)),
        plain("server second", CALL(scc_dirchn_server_set(0, 255, id)), 114, 13, 14, wire().u32(0).u32(255),
              wire().u32(0).u8(255)),
        plain("site first", CALL(scc_dirchn_site_set(ones, 0, 0, 0, id)), 115, 14, 15,
              wire().u32(ones).zeros(12), wire().u32(ones).zeros(6)),
        plain("site second", CALL(scc_dirchn_site_set(0, ones, 0, 0, id)), 115, 14, 15,
              wire().u32(0).u32(ones).zeros(8), wire().u32(0).u32(ones).zeros(2)),
        plain("site third", CALL(scc_dirchn_site_set(0, 0, 255, 0, id)), 115, 14, 15,
              wire().zeros(8).u32(255).u32(0), wire().zeros(8).u8(255).u8(0)),
        plain("site fourth", CALL(scc_dirchn_site_set(0, 0, 0, 255, id)), 115, 14, 15,
              wire().zeros(12).u32(255), wire().zeros(9).u8(255)),
        {"arp none", CALL(scc_dirchn_arp_set(0, 0, 0, id)), 159, 15, 16, wire().zeros(8).u32(1).u32(0),
         wire().zeros(8).u8(1).u8(0), wire().zeros(9)},
        {"arp first", CALL(scc_dirchn_arp_set(ones, 0, 0, id)), 159, 15, 16,
         wire().u32(ones).u32(0).u32(1).u32(0), wire().u32(ones).u32(0).u8(1).u8(0),
         wire().u32(ones).zeros(5)},
        {"arp second", CALL(scc_dirchn_arp_set(0, ones, 0, id)), 159, 15, 16,
         wire().u32(0).u32(ones).u32(1).u32(0), wire().u32(0).u32(ones).u8(1).u8(0),
         wire().u32(0).u32(ones).u8(0)},
        {"arp third", CALL(scc_dirchn_arp_set(0, 0, 255, id)), 159, 15, 16, wire().zeros(8).u32(1).u32(255),
         wire().zeros(8).u8(1).u8(255), wire().zeros(8).u8(255)},
    };
}

std::vector<extreme_row> other_rows() {
    static const scc_neighbour_record neighbour = test::patterned<scc_neighbour_record>(9);
    const bytes neighbour_bytes = test::record_bytes(neighbour);
    const bytes lowest = wire().u32(0).u32(1).u32(1).u32(0);
    const bytes highest = wire().u32(ones).u32(58).u32(32768).u32(ones);
    return {
        plain("learning lowest", CALL(scc_addr_learning(0, 0, id)), 123, 23, 24, wire().zeros(8),
              wire().zeros(5)),
        plain("learning interface", CALL(scc_addr_learning(ones, 0, id)), 123, 23, 24,
              wire().u32(ones).u32(0), wire().u32(ones).u8(0)),
        plain("learning enable", CALL(scc_addr_learning(0, 255, id)), 123, 23, 24, wire().u32(0).u32(255),
              wire().u32(0).u8(255)),
        plain("escape lowest", CALL(scc_nac_esc_set(0, &lowest_key, 255, id)), 124, 24, 25,
              wire().u32(0).add(lowest).u32(255), wire().u32(0).add(lowest).u8(255)),
        plain("escape highest", CALL(scc_nac_esc_set(ones, &highest_key, 0, id)), 124, 24, 25,
              wire().u32(ones).add(highest).u32(0), wire().u32(ones).add(highest).u8(0)),
        plain("default bind first", CALL(scc_ndsnp_default_bind_set(ones, 0, 0, id)), 128, 28, 29,
              wire().u32(ones).zeros(8), wire().u32(ones).zeros(5)),
        plain("default bind second", CALL(scc_ndsnp_default_bind_set(0, ones, 0, id)), 128, 28, 29,
              wire().u32(0).u32(ones).u32(0), wire().u32(0).u32(ones).u8(0)),
        plain("default bind third", CALL(scc_ndsnp_default_bind_set(0, 0, 255, id)), 128, 28, 29,
              wire().zeros(8).u32(255), wire().zeros(8).u8(255)),
        plain("neighbour zero", CALL(scc_nac_nbr_set(&neighbour, 0, id)), 130, 30, 31,
              wire().zeros(4).add(neighbour_bytes).zeros(8), wire().add(neighbour_bytes).u8(0)),
        plain("neighbour highest", CALL(scc_nac_nbr_set(&neighbour, 255, id)), 130, 30, 31,
              wire().zeros(4).add(neighbour_bytes).u32(255).zeros(4), wire().add(neighbour_bytes).u8(255)),
        plain("protection off", CALL(scc_cpp_set(0, 0, id)), 163, 54, 54, wire().zeros(8), wire().zeros(5)),
        plain("protection highest", CALL(scc_cpp_set(0, 255, id)), 163, 54, 54, wire().u32(255).u32(0),
              wire().u32(0).u8(255)),
        plain("egress lowest", CALL(scc_acl_global_eport_set(1, 255, id)), 142, 44, 45,
              wire().u32(1).u32(255).zeros(4), wire().u32(1).u8(255)),
        plain("egress highest", CALL(scc_acl_global_eport_set(65535, 0, id)), 142, 44, 45,
              wire().u32(65535).u32(0).zeros(4), wire().u32(65535).u8(0)),
        plain("routed off", CALL(scc_svi_router_acl_set(0, id)), 143, 45, 46, wire().u32(0), wire().u8(0)),
        plain("routed highest", CALL(scc_svi_router_acl_set(255, id)), 143, 45, 46, wire().u32(255),
              wire().u8(255)),
        plain("resequence start", CALL(scc_acl_reseqence(&highest_key, INT_MAX, 1, id)), 138, 40, 41,
              wire().add(highest).u32(0x7FFFFFFF).u32(1), wire().add(highest).u32(0x7FFFFFFF).u32(1)),
        plain("resequence step", CALL(scc_acl_reseqence(&lowest_key, 1, INT_MAX, id)), 138, 40, 41,
              wire().add(lowest).u32(1).u32(0x7FFFFFFF), wire().add(lowest).u32(1).u32(0x7FFFFFFF)),
        plain("ace reset lowest", CALL(scc_ace_reset_counter(&lowest_key, 0, id)), 141, 43, 44,
              wire().add(lowest).zeros(20), wire().add(lowest).u64(0)),
        plain("ace reset highest", CALL(scc_ace_reset_counter(&highest_key, ~0ULL, id)), 141, 43, 44,
              wire().add(highest).zeros(4).u64(~0ULL).zeros(8), wire().add(highest).u64(~0ULL)),
        plain("filter reset lowest", CALL(scc_acl_reset_filter_counter(&lowest_key, id)), 139, 41, 42,
              wire().add(lowest).zeros(4), lowest),
        plain("counter reset highest", CALL(scc_acl_reset_counter(&highest_key, id)), 140, 42, 43,
              wire().add(highest).zeros(20), highest),
    };
}

class ExtremeValues : public test::recording_client {
  protected:
    // Each call is checked twice: by its saved data and by its result.
    void expect_rows(const std::vector<extreme_row>& rows) {
        start();
        for (const extreme_row& row : rows) {
            SCOPED_TRACE(row.name);
            std::uint32_t id = 0;
            send_ones();
            ASSERT_EQ(row.call(&id), 0U);
            expect_sent(row, id);
            const bytes value = wire().u32(id).add(row.payload);
            expect_saved(id, row.kind, row.saves_its_payload ? value : row.saved);

            ASSERT_EQ(row.call(&id), 0U);
            expect_sent(row, id);
            daemon.send_result(id, ones);
            const auto event = test::results().wait();
            ASSERT_TRUE(event.has_value());
            EXPECT_EQ(event->position, row.position);
            EXPECT_EQ(event->result, ones);
            EXPECT_EQ(event->call_id, id);
            EXPECT_EQ(event->arguments, row.arguments);
        }
        EXPECT_EQ(scc::pending_calls(), 0U);
    }

  private:
    // They remain in the batch's memory, where the next request's zeros must replace them.
    void send_ones() {
        const bytes all_ones(300, 0xFF);
        ASSERT_EQ(_scc_lib_msg_send_bt(0, 900, all_ones.data(), 300, 0), 0U);
        EXPECT_EQ(daemon.read_item(side::async).value, all_ones);
    }

    void expect_sent(const extreme_row& row, std::uint32_t id) {
        const test::received_item item = daemon.read_item(side::async);
        EXPECT_EQ(item.type, row.type);
        EXPECT_EQ(item.sub_id, 0);
        EXPECT_EQ(item.value, bytes(wire().u32(id).add(row.payload)));
    }
};

TEST_F(ExtremeValues, OfIntegersAreSentWholeAndHandedBackByTheirLowByte) {
    expect_rows(int_rows());
}

TEST_F(ExtremeValues, OfChannelsAndPortsLieInTheirOwnSlots) {
    expect_rows(channel_rows());
}

TEST_F(ExtremeValues, OfEveryOtherRequestLieInTheirOwnSlots) {
    expect_rows(other_rows());
}

// ---- queries -------------------------------------------------------------------------------------

class ExtremeQueryValues : public test::querying_client {
  protected:
    // The query's value; it is answered with another type, so that it ends.
    bytes sent_by(const std::function<std::uint32_t()>& query, std::uint16_t type) {
        daemon.send_item(side::sync, 999, {});
        EXPECT_EQ(query(), 2007U);
        const test::received_item item = daemon.read_item(side::sync);
        EXPECT_EQ(item.type, type);
        return item.value;
    }
};

TEST_F(ExtremeQueryValues, OfTheArpCheckPassUnchanged) {
    start(0);
    std::uint32_t number = 0;
    std::uint8_t room[48];
    for (const std::uint32_t value : {0U, 1U, 0x7FFFFFFFU, 0x80000000U, ones}) {
        EXPECT_EQ(sent_by([&] { return scc_arp_check_user_count_get(value, &number); }, 304),
                  bytes(wire().u32(0).u32(value).u32(0)));
        int count = 1;
        EXPECT_EQ(sent_by([&] { return scc_arp_check_user_data_get(value, room, &count); }, 305),
                  bytes(wire().u32(0).u32(value).u32(1)));
        EXPECT_EQ(count, 1);
    }
    for (const int_case& one : int_cases) {
        int count = one.value;
        EXPECT_EQ(sent_by([&] { return scc_arp_check_user_data_get(7, room, &count); }, 305),
                  bytes(wire().u32(0).u32(7).u32(one.sent)));
        EXPECT_EQ(count, one.value);
    }
}

TEST_F(ExtremeQueryValues, OfMacAddressesPassUnchanged) {
    start(0);
    std::uint32_t ip = 0;
    const std::uint8_t macs[][6] = {{0, 0, 0, 0, 0, 0}, {255, 255, 255, 255, 255, 255}, {1, 2, 3, 4, 5, 254}};
    std::uint32_t id = 0;
    for (const auto& mac : macs) {
        EXPECT_EQ(sent_by([&] { return scc_mac_query(mac, &ip); }, 315),
                  bytes(wire().u32(++id).raw(mac, 6).to(152)));
    }
    EXPECT_EQ(ip, 0U);
}

TEST_F(ExtremeQueryValues, OfKeysAndAcesPassUnchanged) {
    start(0);
    const bytes lowest = wire().u32(0).u32(1).u32(1).u32(0);
    const bytes highest = wire().u32(ones).u32(58).u32(32768).u32(ones);
    std::uint64_t counter = 0;
    for (const auto& [key, raw] : {std::pair{lowest_key, lowest}, std::pair{highest_key, highest}}) {
        const scc_acl_key asked = key;
        EXPECT_EQ(sent_by([&] { return scc_acl_get_filter_counter(&asked, &counter); }, 311),
                  bytes(wire().u32(0).add(raw).u32(1)));
        EXPECT_EQ(sent_by([&] { return scc_acl_get_counter(&asked, &counter); }, 312),
                  bytes(wire().u32(0).add(raw).zeros(12).u32(1).u32(0)));
        for (const std::uint64_t ace : {std::uint64_t{0}, ~std::uint64_t{0}}) {
            EXPECT_EQ(sent_by([&] { return scc_ace_get_counter(&asked, ace, &counter); }, 313),
                      bytes(wire().u32(0).add(raw).zeros(4).u64(ace).u32(1).u32(0)));
        }
    }
}

}  // namespace
