// The bytes are those of the kernel's interface (linux/netfilter/nf_tables.h), written by hand, with numbers
// of headers in the order of a little-endian machine.
#include "linux/batch.h"

#include <gtest/gtest.h>

#include "hand_written.h"

namespace scc::kernel {
namespace {

using testing::bytes;

const chain_name chain{family::netdev, "c"};

// The messages, without the beginning and the end of the transaction.
std::vector<std::string> messages_of(const batch& changes, bool with_rules = false) {
    const std::string all = changes.bytes(with_rules);
    std::vector<std::string> messages;
    for (std::size_t at = 0; at < all.size(); at += messages.back().size()) {
        messages.push_back(all.substr(at, static_cast<u8>(all[at]) + 256u * static_cast<u8>(all[at + 1])));
    }
    messages.erase(messages.begin());
    messages.pop_back();
    return messages;
}

// Of the only message: what follows its length, and is none of the numbers that depend on its place.
std::string only_message(const batch& changes) {
    const std::vector<std::string> messages = messages_of(changes);
    EXPECT_EQ(messages.size(), 1u);
    const std::string& message = messages.at(0);
    EXPECT_EQ(message.substr(8, 8), bytes({2, 0, 0, 0, 0, 0, 0, 0}));
    return message.substr(4, 4) + message.substr(16);
}

TEST(Batch, BeginsAndEndsATransactionOfTheGeneration) {
    batch changes;
    EXPECT_TRUE(changes.is_empty());
    changes.add_table(family::inet);
    EXPECT_FALSE(changes.is_empty());
    const std::string all = changes.bytes(false, 0x01020304);
    EXPECT_EQ(all.substr(0, 28), bytes({
                                     28, 0, 0, 0,  16, 0, 1, 0, 1, 0, 0, 0, 0, 0, 0, 0,  //
                                     0,  0, 0, 10,                                       // of nftables
                                     8,  0, 1, 0,  1,  2, 3, 4,                          // generation
                                 }));
    EXPECT_EQ(all.substr(all.size() - 20), bytes({
                                               20, 0, 0, 0,  17, 0, 1, 0, 3, 0, 0, 0, 0, 0, 0, 0,  //
                                               0,  0, 0, 10,                                       //
                                           }));
}

TEST(Batch, AddsAndDeletesATable) {
    batch added;
    added.add_table(family::inet);
    EXPECT_EQ(only_message(added), bytes({
                                       0,  10, 5, 4,                                     // create, and answer
                                       1,  0,  0, 0,                                     // inet
                                       11, 0,  1, 0, 's', 'c', 'c', 'l', 'i', 'b', 0, 0  // name
                                   }));
    batch deleted;
    deleted.delete_table(family::netdev);
    EXPECT_EQ(only_message(deleted), bytes({
                                         2,  10, 5, 0,                                     //
                                         5,  0,  0, 0,                                     // netdev
                                         11, 0,  1, 0, 's', 'c', 'c', 'l', 'i', 'b', 0, 0  //
                                     }));
}

TEST(Batch, AddsAChainForJumpsAndOneOnAnInterface) {
    batch plain;
    plain.add_chain(chain, std::nullopt);
    EXPECT_EQ(only_message(plain), bytes({
                                       3,  10, 5, 4,                                      //
                                       5,  0,  0, 0,                                      //
                                       11, 0,  1, 0, 's', 'c', 'c', 'l', 'i', 'b', 0, 0,  // table
                                       6,  0,  3, 0, 'c', 0,   0,   0                     // name
                                   }));
    batch hooked;
    hooked.add_chain(chain, chain_hook{1, "eth0"});
    EXPECT_EQ(only_message(hooked), bytes({
                                        3,  10, 5, 4,                                         //
                                        5,  0,  0, 0,                                         //
                                        11, 0,  1, 0,    's', 'c', 'c', 'l', 'i', 'b', 0, 0,  //
                                        6,  0,  3, 0,    'c', 0,   0,   0,                    //
                                        11, 0,  7, 0,    'f', 'i', 'l', 't', 'e', 'r', 0, 0,  // type
                                        8,  0,  5, 0,    0,   0,   0,   1,                    // accepts
                                        32, 0,  4, 0x80,                                      // hook
                                        8,  0,  1, 0,    0,   0,   0,   1,                    // egress
                                        8,  0,  2, 0,    0,   0,   0,   0,                    // priority
                                        9,  0,  3, 0,    'e', 't', 'h', '0', 0,   0,   0, 0   // device
                                    }));
    batch local;
    local.add_chain({family::inet, "c"}, chain_hook{1, ""});
    EXPECT_EQ(only_message(local).substr(48), bytes({
                                                  20, 0, 4, 0x80,              // hook
                                                  8,  0, 1, 0,    0, 0, 0, 1,  // local in
                                                  8,  0, 2, 0,    0, 0, 0, 0   // no device
                                              }));
}

TEST(Batch, DeletesAChainOrItsRulesOrOneOfThem) {
    const std::string place = bytes({
        5, 0, 0, 0,                                       //
        11, 0, 1, 0, 's', 'c', 'c', 'l', 'i', 'b', 0, 0,  // table
    });
    batch all;
    all.delete_chain(chain);
    EXPECT_EQ(only_message(all), bytes({5, 10, 5, 0}) + place + bytes({6, 0, 3, 0, 'c', 0, 0, 0}));
    batch rules;
    rules.flush_chain(chain);
    EXPECT_EQ(only_message(rules), bytes({8, 10, 5, 0}) + place + bytes({6, 0, 2, 0, 'c', 0, 0, 0}));
    batch rule;
    rule.delete_rule(chain, 0x0102030405060708);
    EXPECT_EQ(only_message(rule), bytes({8, 10, 5, 0}) + place + bytes({6, 0, 2, 0, 'c', 0, 0, 0}) +
                                      bytes({12, 0, 3, 0, 1, 2, 3, 4, 5, 6, 7, 8}));
}

TEST(Batch, AddsAndDeletesACounter) {
    const std::string name = bytes({
        5,  0, 0, 0,                                      //
        11, 0, 1, 0, 's', 'c', 'c', 'l', 'i', 'b', 0, 0,  // table
        6,  0, 2, 0, 'n', 0,   0,   0,                    // name
        8,  0, 3, 0, 0,   0,   0,   1                     // a counter
    });
    batch added;
    added.add_counter("n");
    EXPECT_EQ(only_message(added), bytes({18, 10, 5, 4}) + name +
                                       bytes({
                                           28, 0, 4, 0x80,                          // data
                                           12, 0, 1, 0,    0, 0, 0, 0, 0, 0, 0, 0,  // bytes
                                           12, 0, 2, 0,    0, 0, 0, 0, 0, 0, 0, 0   // packets
                                       }));
    batch deleted;
    deleted.delete_counter("n");
    EXPECT_EQ(only_message(deleted), bytes({20, 10, 5, 0}) + name);
}

TEST(Batch, AddsARuleAtTheEndOrBeforeAnother) {
    const std::string place = bytes({
        5,  0, 0, 0,                                      //
        11, 0, 1, 0, 's', 'c', 'c', 'l', 'i', 'b', 0, 0,  // table
        6,  0, 2, 0, 'c', 0,   0,   0,                    // chain
    });
    const std::string rule = bytes({
        52, 0, 4, 0x80,                                                        // expressions
        48, 0, 1, 0x80,                                                        // element
        14, 0, 1, 0,    'i', 'm', 'm', 'e', 'd', 'i', 'a', 't', 'e', 0, 0, 0,  // name
        28, 0, 2, 0x80,                                                        // data
        8,  0, 1, 0,    0,   0,   0,   0,                                      // verdict
        16, 0, 2, 0x80,                                                        //
        12, 0, 2, 0x80,                                                        //
        8,  0, 1, 0,    0,   0,   0,   0,                                      // drop
        9,  0, 7, 0,    0,   3,   'h', 'i', 0,   0,   0,   0                   // user data
    });
    const std::string position = bytes({12, 0, 6, 0, 0, 0, 0, 0, 0, 0, 0, 9});
    const expressions drop = expressions().drop();
    batch last;
    last.add_rule(chain, 0, "hi", drop);
    EXPECT_EQ(only_message(last), bytes({6, 10, 5, 12}) + place + rule);
    batch before;
    before.add_rule(chain, 9, "hi", drop);
    EXPECT_EQ(only_message(before), bytes({6, 10, 5, 4}) + place + position + rule);
}

TEST(Batch, PutsChangesInAnOrderThatWorks) {
    batch changes;
    changes.delete_counter("x");
    changes.delete_chain(chain);
    changes.delete_rule(chain, 1);
    changes.add_rule(chain, 0, "hi", expressions().drop());
    changes.flush_chain(chain);
    changes.add_chain(chain, std::nullopt);
    changes.add_counter("y");
    changes.add_table(family::netdev);
    std::string types;
    std::string numbers;
    for (const std::string& message : messages_of(changes)) {
        types += message[4];
        numbers += message[8];
    }
    // Counter, table, chain, rules in the order of the calls, chain, counter.
    EXPECT_EQ(types, bytes({18, 0, 3, 8, 6, 8, 5, 20}));
    EXPECT_EQ(numbers, bytes({2, 3, 4, 5, 6, 7, 8, 9}));
    EXPECT_EQ(changes.added_rules(), 1u);
}

TEST(Batch, AsksForAnAnswerToTheFirstChangeAndToEachNewRule) {
    batch changes;
    changes.add_rule(chain, 0, "a", expressions().drop());
    changes.add_rule(chain, 1, "b", expressions().drop());
    changes.delete_rule(chain, 1);
    const auto flags_of = [&changes](bool with_rules) {
        std::string flags;
        for (const std::string& message : messages_of(changes, with_rules)) {
            flags += message[6];
        }
        return flags;
    };
    EXPECT_EQ(flags_of(false), bytes({1 + 4, 1, 1}));
    EXPECT_EQ(flags_of(true), bytes({1 + 4 + 8, 1 + 8, 1}));
}

}  // namespace
}  // namespace scc::kernel
