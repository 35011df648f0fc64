#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>

#include "common/counted.h"
#include "common/describe.h"
#include "common/frame.h"
#include "common/messages.h"
#include "sccd/change.h"

namespace scc::devkit {
namespace {

constexpr u32 len_max = 1000;

TEST(DevkitCounted, OneIsSingular) {
    EXPECT_EQ(counted(0, "ACL"), "0 ACLs");
    EXPECT_EQ(counted(1, "ACL"), "1 ACL");
    EXPECT_EQ(counted(2, "ACL"), "2 ACLs");
    EXPECT_EQ(counted(1, "ARP entry", "ARP entries"), "1 ARP entry");
    EXPECT_EQ(counted(2, "ARP entry", "ARP entries"), "2 ARP entries");
}

TEST(DevkitNames, EveryResultOfTheDaemonHasOne) {
    namespace result = sccd::result;
    for (const u32 each :
         {result::ok, result::not_found, result::invalid_argument, result::no_space,
          result::registration_rejected, result::already_registered, result::already_unregistered,
          result::no_such_acl, result::no_such_ace, result::not_applied, result::already_applied,
          result::acl_exists, result::ace_exists, result::no_such_http_port, result::no_such_direct_host,
          result::no_such_direct_site, result::service_timeout}) {
        EXPECT_NE(name_of(names::results, each), "") << each;
    }
}

TEST(DevkitFrame, AStreamIsCutAtTheLengthOfItsFirstMessage) {
    const byte_buffer stream{20, 0, 0, 0, 1, 1, 0, 0, 4, 0, 0, 0, 7, 0, 0x91, 0x01, 1, 2, 3, 4, 99, 99};

    const message_frame frame = first_frame(stream, len_max);

    EXPECT_EQ(frame.state, frame_state::complete);
    EXPECT_EQ(frame.len, 20u);
    ASSERT_EQ(frame.items.size(), 1u);
    EXPECT_EQ(frame.items[0].sub_id, 7);
    EXPECT_EQ(frame.items[0].type, 401);
    EXPECT_EQ(to_bytes(frame.items[0].value), (byte_buffer{1, 2, 3, 4}));
}

TEST(DevkitFrame, EveryProperPrefixOfAMessageIsIncomplete) {
    const byte_buffer message{20, 0, 0, 0, 1, 1, 0, 0, 4, 0, 0, 0, 7, 0, 0x91, 0x01, 1, 2, 3, 4};

    for (std::size_t len = 0; len < message.size(); ++len) {
        EXPECT_EQ(first_frame(byte_view(message).first(len), len_max).state, frame_state::incomplete) << len;
    }
}

TEST(DevkitFrame, LengthsThatCannotBeBelievedBreakTheStream) {
    EXPECT_EQ(first_frame(byte_buffer{7, 0, 0, 0, 1, 1, 0, 0}, len_max).state, frame_state::broken);
    EXPECT_EQ(first_frame(byte_buffer{0xe9, 3, 0, 0, 1, 1, 0, 0}, len_max).state, frame_state::broken);
    EXPECT_EQ(first_frame(byte_buffer{0xe8, 3, 0, 0, 1, 1, 0, 0}, len_max).state, frame_state::incomplete);
}

TEST(DevkitFrame, ABuiltMessageHasHeaderAndItemsBackToBack) {
    message_builder builder;
    builder.add(0, 108, byte_buffer{1, 2});
    builder.add(5, 402, byte_buffer{});

    EXPECT_EQ(builder.take(), (byte_buffer{26, 0,   0, 0, 1, 2, 0, 0, 2, 0, 0, 0,    0,
                                           0,  108, 0, 1, 2, 0, 0, 0, 0, 5, 0, 0x92, 0x01}));
    EXPECT_TRUE(builder.empty());
}

TEST(DevkitFrame, AnItemFitsUpToExactlyTheMessageLimit) {
    message_builder builder;
    builder.add(0, 108, byte_buffer(4, 0));

    EXPECT_TRUE(builder.fits(2, 8 + 12 + 10));
    EXPECT_FALSE(builder.fits(3, 8 + 12 + 10));
}

TEST(DevkitMessages, NoTwoTypesOfARouteShareAName) {
    std::map<message_route, std::set<std::string>> names;

    for (const message_type& type : message_types()) {
        EXPECT_TRUE(names[type.route].insert(std::string(type.name)).second) << type.name;
    }
}

TEST(DevkitMessages, TheServiceUnderstandsWhatEveryClientDoes) {
    ASSERT_NE(find_message(message_route::operation, 301), nullptr);
    EXPECT_EQ(find_message(message_route::operation, 301)->name, "registration-reply");
    EXPECT_EQ(find_message(message_route::report, 319)->name, "is-alive");
    EXPECT_EQ(find_message(message_route::operation, 131)->name, "ss-acl");
    EXPECT_EQ(find_message(message_route::request, 402), nullptr);
}

TEST(DevkitDescribe, FieldsBeyondTheValueAreLeftOut) {
    const byte_buffer value{9, 0, 0, 0, 1, 2};

    EXPECT_EQ(describe(message_route::to_client, {0, 401, value}),
              "401 call-ret call=9 (6 bytes) 090000000102");
    EXPECT_EQ(describe(message_route::to_client, {3, 999, {}}), "999 unknown scc-type=3 (0 bytes)");
}

TEST(DevkitMessages, NoLayoutHasTwoFieldsOfAName) {
    for (const message_type& type : message_types()) {
        for (const auto& layout : type.layouts) {
            std::set<std::string_view> names;
            for (const auto& field : layout.fields) {
                EXPECT_TRUE(names.insert(field.name).second) << type.name << " has two fields " << field.name;
            }
        }
    }
}

TEST(DevkitDescribe, AFullLineShowsNamesListsAndEveryByte) {
    byte_buffer value(8 + 2 * 16, 0);
    value[4] = 2;   // count
    value[8] = 3;   // the first ifx
    value[24] = 4;  // the second
    const std::string text = describe(message_route::to_client, {0, 110, value}, trace_detail::full);

    EXPECT_TRUE(text.starts_with("110 d1x-addr-move count=2 moves[0].ifx=3 moves[0].vid=0 ")) << text;
    EXPECT_NE(text.find(" moves[1].ifx=4 "), std::string::npos) << text;
    EXPECT_TRUE(
        text.ends_with("(40 bytes) 000000000200000003" + std::string(30, '0') + "04" + std::string(30, '0')))
        << text;
    EXPECT_EQ(describe(message_route::to_client, {0, 401, byte_buffer{1, 0, 0, 0, 0xd5, 7, 0, 0}},
                       trace_detail::full),
              "401 call-ret call=1 result=no-acl(2005) (8 bytes) 01000000d5070000");
}

TEST(DevkitBytes, AddressesAndHexadecimalTextAreReadStrictly) {
    EXPECT_EQ(parse_mac("02:00:00:00:00:ff"), (mac_address{2, 0, 0, 0, 0, 0xff}));
    EXPECT_EQ(parse_mac("0200.0000.00ff"), (mac_address{2, 0, 0, 0, 0, 0xff}));
    EXPECT_EQ(parse_mac("02:00:00:00:00"), std::nullopt);
    EXPECT_EQ(parse_hex("01 fF"), (byte_buffer{1, 0xff}));
    EXPECT_EQ(parse_hex("0 1"), std::nullopt);
    EXPECT_EQ(parse_hex("012"), std::nullopt);
    EXPECT_EQ(parse_ipv4("10.0.0.256"), std::nullopt);
    EXPECT_EQ(ipv4_text(*parse_ipv4("10.0.0.2")), "10.0.0.2");
}

TEST(DevkitBytes, NothingOutsideABufferIsReadOrWritten) {
    byte_buffer bytes{1, 2, 3, 4};

    EXPECT_EQ(u32_at(bytes, 1), 0u);
    EXPECT_EQ(u64_at(bytes, static_cast<std::size_t>(-1)), 0u);
    write_at(bytes, 2, u32{0xffffffff});
    copy_at(bytes, 3, byte_buffer{9, 9});

    EXPECT_EQ(bytes, (byte_buffer{1, 2, 3, 4}));
    EXPECT_EQ(slice(bytes, 3, 10).size(), 1u);
    EXPECT_EQ(slice(bytes, 5, 1).size(), 0u);
}

}  // namespace
}  // namespace scc::devkit
