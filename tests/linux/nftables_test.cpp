// The kernel's part is played by the test. Its messages are those of linux/netlink.h and
// linux/netfilter/nf_tables.h, written by hand, with numbers in the order of a little-endian machine.
#include "linux/nftables.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <variant>

#include "hand_written.h"

namespace scc::kernel {
namespace {

using testing::bytes;

// What the sockets of a filter send and receive.
struct script {
    std::deque<std::variant<std::string, int>> answers;  // messages, or an error
    std::deque<int> send_errors;
    std::vector<std::string> sent;
    unsigned opened = 0;
    int open_error = 0;
};

class scripted_socket : public netlink_socket {
  public:
    explicit scripted_socket(script& played) : script_(played) { ++script_.opened; }

    ssize_t send(std::string_view messages) override {
        if (!script_.send_errors.empty()) {
            errno = script_.send_errors.front();
            script_.send_errors.pop_front();
            return -1;
        }
        script_.sent.emplace_back(messages);
        return static_cast<ssize_t>(messages.size());
    }
    ssize_t receive(std::span<char> buffer) override {
        errno = EAGAIN;
        if (script_.answers.empty()) {
            return -1;
        }
        const auto next = script_.answers.front();
        script_.answers.pop_front();
        if (const int* const error = std::get_if<int>(&next)) {
            errno = *error;
            return -1;
        }
        const std::string& message = std::get<std::string>(next);
        std::memcpy(buffer.data(), message.data(), std::min(buffer.size(), message.size()));
        return static_cast<ssize_t>(message.size());
    }

  private:
    script& script_;
};

class Nftables : public ::testing::Test {
  protected:
    u32 run(const batch& changes) { return filter_->run(changes, handles_, complaint_); }
    u32 read_rules() { return filter_->read_rules({family::netdev, "c"}, rules_); }
    // The numbers of what is read: the only rule's handle and comment.
    [[nodiscard]] std::string rules_text() const {
        std::string text;
        for (const kernel_rule& rule : rules_) {
            text += std::to_string(rule.handle) + " " + rule.comment + "\n";
        }
        return text;
    }
    void expect_new_socket() {
        const unsigned before = script_.opened;
        script_.answers = {end_of_dump};
        EXPECT_EQ(read_rules(), 0u);
        EXPECT_EQ(script_.opened, before + 1);
    }

    static batch one_table() {
        batch changes;
        changes.add_table(family::netdev);
        return changes;
    }

    // To the message 2, which is a new table.
    const std::string success = bytes({
        36, 0, 0, 0, 2, 0,  0, 0, 2, 0, 0, 0, 9, 0, 0, 0,  // length, error, sequence number, port
        0,  0, 0, 0,                                       // none
        40, 0, 0, 0, 0, 10, 5, 4, 2, 0, 0, 0, 0, 0, 0, 0   // header of the message
    });
    // ENOENT for the message 4, a new rule.
    const std::string refusal = bytes({
        36,   0,    0,    0,    2, 0,  0, 0, 4, 0, 0, 0, 9, 0, 0, 0,  //
        0xFE, 0xFF, 0xFF, 0xFF,                                       //
        40,   0,    0,    0,    6, 10, 5, 4, 4, 0, 0, 0, 0, 0, 0, 0   //
    });
    const std::string end_of_dump = bytes({
        20, 0, 0, 0, 3, 0, 2, 0, 1, 0, 0, 0, 9, 0, 0, 0,  //
        0,  0, 0, 0                                       // no error
    });
    const std::string failed_dump = bytes({
        20,   0,    0,    0,   3, 0, 2, 0, 1, 0, 0, 0, 9, 0, 0, 0,  //
        0xF4, 0xFF, 0xFF, 0xFF                                      // ENOMEM
    });

    // The rule 7 of the chain "c" with the comment "hi".
    static std::string rule(int flags = 2, int handle = 7) {
        return bytes({
            64, 0, 0, 0, 6,   10,  flags, 0,   1,   0,   0, 0,      9, 0, 0, 0,  // length, type
            5,  0, 0, 0,                                                         // netdev
            11, 0, 1, 0, 's', 'c', 'c',   'l', 'i', 'b', 0, 0,                   // table, padded
            6,  0, 2, 0, 'c', 0,   0,     0,                                     // chain
            12, 0, 3, 0, 0,   0,   0,     0,   0,   0,   0, handle,              // handle
            9,  0, 7, 0, 0,   3,   'h',   'i', 0,   0,   0, 0                    // user data
        });
    }

    script script_;
    const std::unique_ptr<packet_filter> filter_ =
        packet_filter_on([this]() -> std::unique_ptr<netlink_socket> {
            if (script_.open_error != 0) {
                errno = script_.open_error;
                return nullptr;
            }
            return std::make_unique<scripted_socket>(script_);
        });
    std::vector<u64> handles_;
    std::string complaint_;
    std::vector<kernel_rule> rules_;
};

// ---- transactions ----

TEST_F(Nftables, ATransactionIsConfirmedByTheAnswerToItsFirstChange) {
    script_.answers = {success};
    EXPECT_EQ(run(one_table()), 0u);
    ASSERT_EQ(script_.sent.size(), 1u);
    EXPECT_EQ(script_.sent[0], bytes({
                                   28, 0, 0, 0,  16,  0,   1,   0,   1,   0,   0, 0, 0, 0, 0, 0,  // begin
                                   0,  0, 0, 10,                    // of nftables
                                   8,  0, 1, 0,  0,   0,   0,   0,  // generation
                                   32, 0, 0, 0,  0,   10,  5,   4,   2,   0,   0, 0, 0, 0, 0, 0,  // new table
                                   5,  0, 0, 0,                                                   // netdev
                                   11, 0, 1, 0,  's', 'c', 'c', 'l', 'i', 'b', 0, 0,              // its name
                                   20, 0, 0, 0,  17,  0,   1,   0,   3,   0,   0, 0, 0, 0, 0, 0,  // end
                                   0,  0, 0, 10,                                                  //
                               }));
}

TEST_F(Nftables, ARefusalOfALaterMessageIsToldAfterTheConfirmationOfTheFirst) {
    script_.answers = {success + refusal};
    EXPECT_EQ(run(one_table()), u32{ENOENT});
    EXPECT_EQ(complaint_, "rule");
}

TEST_F(Nftables, TheFirstOfSeveralRefusalsIsTold) {
    std::string last = refusal;
    last[16] = static_cast<char>(0xF4);  // ENOMEM
    script_.answers = {refusal, last, success};
    EXPECT_EQ(run(one_table()), u32{ENOENT});
}

TEST_F(Nftables, AnEchoTellsTheHandlesOfNewRules) {
    script_.answers = {rule(0, 21) + rule(0, 22), success};
    EXPECT_EQ(run(one_table()), 0u);
    EXPECT_EQ(handles_, (std::vector<u64>{21, 22}));
}

TEST_F(Nftables, ATransactionWithoutAnAnswerIsAnError) {
    EXPECT_EQ(run(one_table()), u32{ENOMSG});
}

TEST_F(Nftables, ATransactionWhoseAnswerIsLostIsAnError) {
    script_.answers = {rule(0, 21), ENOBUFS, success};
    EXPECT_EQ(run(one_table()), u32{ENOBUFS});
    expect_new_socket();
}

TEST_F(Nftables, ARefusalCountsMoreThanALossAfterIt) {
    script_.answers = {refusal, ENOBUFS};
    EXPECT_EQ(run(one_table()), u32{ENOENT});
}

TEST_F(Nftables, AnInterruptedCallIsRepeated) {
    script_.send_errors = {EINTR, EINTR};
    script_.answers = {EINTR, success, EINTR};
    EXPECT_EQ(run(one_table()), 0u);
    script_.send_errors = {EINTR};
    script_.answers = {EINTR, rule(), EINTR, end_of_dump};
    EXPECT_EQ(read_rules(), 0u);
    EXPECT_EQ(rules_text(), "7 hi\n");
    EXPECT_EQ(script_.opened, 1u);
}

TEST_F(Nftables, WhatIsNotSentHasTheErrorOfTheSocket) {
    script_.send_errors = {ENOBUFS, EPERM};
    EXPECT_EQ(run(one_table()), u32{ENOBUFS});
    EXPECT_EQ(read_rules(), u32{EPERM});
}

TEST_F(Nftables, ASocketThatDoesNotOpenIsTriedAgainForTheNextCall) {
    script_.open_error = EMFILE;
    EXPECT_EQ(run(one_table()), u32{EMFILE});
    EXPECT_EQ(read_rules(), u32{EMFILE});
    script_.open_error = 0;
    script_.answers = {success};
    EXPECT_EQ(run(one_table()), 0u);
}

TEST_F(Nftables, WhatItsLengthFieldCannotSayIsNotSent) {
    batch comment;
    comment.add_rule({family::netdev, "c"}, 0, std::string(254, 'x'), expressions());
    EXPECT_TRUE(comment.fits());
    comment.add_rule({family::netdev, "c"}, 0, std::string(255, 'x'), expressions());
    EXPECT_EQ(run(comment), u32{EMSGSIZE});
    batch counter;
    counter.add_counter(std::string(65'530, 'x'));  // with a final 0 and a header of 4 bytes: 65,535
    EXPECT_TRUE(counter.fits());
    counter.add_counter(std::string(65'531, 'x'));
    EXPECT_EQ(run(counter), u32{EMSGSIZE});
    EXPECT_TRUE(script_.sent.empty());
}

// ---- generations ----

TEST_F(Nftables, ATransactionBuildsOnTheGenerationThatWasRead) {
    const auto generation = [](int last) {
        return bytes({
            28, 0, 0, 0, 15,   10,   0,    0,   1, 0, 0, 0, 9, 0, 0, 0,  //
            0,  0, 0, 0,                                                 //
            8,  0, 1, 0, last, last, last, last                          // id
        });
    };
    const auto generation_sent = [this] { return script_.sent.back().substr(24, 4); };
    held_tables tables;
    // No tables of either family.
    script_.answers = {generation(0x11), success, end_of_dump, end_of_dump};
    EXPECT_EQ(filter_->read_tables(tables), 0u);
    script_.answers = {success};
    EXPECT_EQ(run(one_table()), 0u);
    EXPECT_EQ(generation_sent(), bytes({0x11, 0x11, 0x11, 0x11}));
    script_.answers = {refusal};
    EXPECT_EQ(run(one_table()), u32{ENOENT});
    EXPECT_EQ(generation_sent(), bytes({0x11, 0x11, 0x11, 0x12}));
    script_.answers = {success};
    EXPECT_EQ(run(one_table()), 0u);
    EXPECT_EQ(generation_sent(), bytes({0x11, 0x11, 0x11, 0x12}));
    std::string no_number = generation(0x11);
    no_number[20] = 4;
    script_.answers = {no_number, success, end_of_dump, end_of_dump};
    EXPECT_EQ(filter_->read_tables(tables), 0u);
    script_.answers = {success};
    EXPECT_EQ(run(one_table()), 0u);
    EXPECT_EQ(generation_sent(), bytes({0, 0, 0, 0}));
    script_.answers = {generation(0xFF), success, end_of_dump, end_of_dump};
    EXPECT_EQ(filter_->read_tables(tables), 0u);
    script_.answers = {success};
    EXPECT_EQ(run(one_table()), 0u);
    script_.answers = {success};
    EXPECT_EQ(run(one_table()), 0u);
    EXPECT_EQ(generation_sent(), bytes({0, 0, 0, 1}));
}

// ---- dumps ----

TEST_F(Nftables, ADumpOfRulesAsksForOneChain) {
    script_.answers = {rule() + rule(2, 8), end_of_dump};
    EXPECT_EQ(read_rules(), 0u);
    EXPECT_EQ(rules_text(), "7 hi\n8 hi\n");
    EXPECT_EQ(script_.sent.at(0),
              bytes({
                  40, 0, 0, 0, 7,   10,  1,   3,   1,   0,   0, 0, 0, 0, 0, 0,  // get rules, dump
                  5,  0, 0, 0,                                                  // netdev
                  11, 0, 1, 0, 's', 'c', 'c', 'l', 'i', 'b', 0, 0,              // table
                  6,  0, 2, 0, 'c', 0,   0,   0                                 // chain
              }));
}

TEST_F(Nftables, RulesOfOtherChainsAndTablesAreLeftOut) {
    std::string other_chain = rule();
    other_chain[36] = 'd';
    std::string other_table = rule();
    other_table[24] = 'x';
    script_.answers = {other_chain + other_table + rule(), end_of_dump};
    EXPECT_EQ(read_rules(), 0u);
    EXPECT_EQ(rules_text(), "7 hi\n");
}

TEST_F(Nftables, ADumpThatTheKernelEndsWithAnErrorFails) {
    script_.answers = {rule(), failed_dump};
    EXPECT_EQ(read_rules(), u32{ENOMEM});
    EXPECT_EQ(rules_text(), "");
    EXPECT_EQ(script_.opened, 1u);
}

TEST_F(Nftables, ADumpThatWasInterruptedIsBegunAgain) {
    constexpr int interrupted = 2 + 16;
    script_.answers = {rule(interrupted, 5), end_of_dump, rule(), end_of_dump};
    EXPECT_EQ(read_rules(), 0u);
    EXPECT_EQ(rules_text(), "7 hi\n");
    EXPECT_EQ(script_.opened, 1u);
}

TEST_F(Nftables, ADumpThatIsAlwaysInterruptedFails) {
    std::string interrupted = end_of_dump;
    interrupted[6] = 2 + 16;
    for (int attempt = 0; attempt < 10; ++attempt) {
        script_.answers.emplace_back(interrupted);
    }
    EXPECT_EQ(read_rules(), u32{EINTR});
    EXPECT_EQ(script_.answers.size(), 5u);
}

TEST_F(Nftables, ADumpThatWasLostInPartIsBegunAgainOnANewSocket) {
    script_.answers = {rule(2, 5), ENOBUFS, rule(), end_of_dump};
    EXPECT_EQ(read_rules(), 0u);
    EXPECT_EQ(rules_text(), "7 hi\n");
    EXPECT_EQ(script_.opened, 2u);
}

TEST_F(Nftables, ADumpWithoutAnEndFails) {
    script_.answers = {rule()};
    EXPECT_EQ(read_rules(), u32{ENOMSG});
    expect_new_socket();
}

// ---- messages that no kernel sends ----

TEST_F(Nftables, AMessageThatIsNotWholeIsAnError) {
    const std::string whole = rule();
    std::string short_header = whole;
    short_header[0] = 15;
    std::string long_header = whole;
    long_header[0] = 72;
    for (const std::string& broken :
         {std::string(), bytes({1, 2, 3}), whole.substr(0, 15), whole.substr(0, 60), short_header,
          long_header, whole + bytes({1, 2, 3, 4})}) {
        script_.answers = {broken, end_of_dump};
        EXPECT_EQ(read_rules(), u32{EBADMSG}) << broken.size();
        script_.answers = {broken, success};
        EXPECT_EQ(run(one_table()), u32{EBADMSG}) << broken.size();
        expect_new_socket();
    }
}

TEST_F(Nftables, AMessageThatExceedsTheBufferIsAnError) {
    script_.answers = {std::string(64 * 1024 + 1, '\1')};
    EXPECT_EQ(read_rules(), u32{EMSGSIZE});
    expect_new_socket();
}

TEST_F(Nftables, AnAnswerWithoutAnErrorNumberIsAnError) {
    const std::string empty = bytes({16, 0, 0, 0, 2, 0, 0, 0, 2, 0, 0, 0, 9, 0, 0, 0});
    std::string positive = success;
    positive[16] = 5;
    std::string lowest = success;
    lowest[19] = static_cast<char>(0x80);
    script_.answers = {empty};
    EXPECT_EQ(run(one_table()), u32{EBADMSG});
    script_.answers = {empty};
    EXPECT_EQ(read_rules(), u32{EBADMSG});
    script_.answers = {positive};
    EXPECT_EQ(run(one_table()), u32{EBADMSG});
    script_.answers = {lowest};
    EXPECT_NE(run(one_table()), 0u);
}

TEST_F(Nftables, ARefusalNeedNotNameItsMessage) {
    std::string nameless = refusal.substr(0, 20);
    nameless[0] = 20;
    script_.answers = {nameless};
    EXPECT_EQ(run(one_table()), u32{ENOENT});
    EXPECT_EQ(complaint_, "");
}

TEST_F(Nftables, AnAttributeThatIsTooLongOrTooShortIsNotRead) {
    // Without its final 0 the name goes on in the padding, and then in the next attribute.
    std::string table_without_end = rule();
    table_without_end[20] = 12;
    table_without_end[30] = 'x';
    table_without_end[31] = 'x';
    std::string long_comment = rule();
    long_comment[57] = 4;
    std::string short_comment = rule();
    short_comment[57] = 0;
    std::string short_handle = rule();
    short_handle[40] = 8;
    script_.answers = {table_without_end + long_comment + short_comment, end_of_dump};
    EXPECT_EQ(read_rules(), 0u);
    EXPECT_EQ(rules_text(), "7 \n7 \n");
    std::string beyond_the_end = rule();
    beyond_the_end[52] = 13;
    script_.answers = {beyond_the_end, end_of_dump};
    EXPECT_EQ(read_rules(), 0u);
    EXPECT_EQ(rules_text(), "7 \n");
    script_.answers = {short_handle, end_of_dump};
    EXPECT_EQ(read_rules(), 0u);
    EXPECT_EQ(rules_.at(0).handle, 0u);
}

TEST_F(Nftables, AMessageWithoutItsOwnHeaderIsOfNoTable) {
    const std::string empty = bytes({16, 0, 0, 0, 6, 10, 2, 0, 1, 0, 0, 0, 9, 0, 0, 0});
    script_.answers = {empty + rule(), end_of_dump};
    EXPECT_EQ(read_rules(), 0u);
    EXPECT_EQ(rules_text(), "7 hi\n");
}

// ---- maps ----

// The chain "a" with a run that has the number 7, and the run's two maps.
class NftablesMaps : public Nftables {
  protected:
    static std::string attribute(int type, const std::string& payload) {
        const int length = static_cast<int>(payload.size()) + 4;
        return bytes({length, 0, type, 0}) + payload +
               std::string(static_cast<std::size_t>(-length & 3), '\0');
    }
    static std::string name(int type, const std::string& text) { return attribute(type, text + '\0'); }
    static std::string message(int type, const std::string& attributes) {
        const int length = static_cast<int>(attributes.size()) + 20;
        const std::string netdev = bytes({5, 0, 0, 0});
        return bytes({length % 256, length / 256, 0, 0, type, 10, 2, 0}) + bytes({1, 0, 0, 0, 9, 0, 0, 0}) +
               netdev + attributes;
    }
    static std::string element(const std::string& key, const std::string& comment) {
        const std::string user_data = bytes({0, static_cast<int>(comment.size()) + 1}) + comment + '\0';
        return attribute(1, attribute(1, attribute(1, key)) + attribute(6, user_data));
    }
    static std::string elements(const std::string& list) {
        return message(12, name(1, "scclib") + name(2, "a-deny-7") + attribute(3, list));
    }

    // What the kernel answers up to the elements of the run's first map, and after those.
    void play(const std::vector<std::string>& listings) {
        const std::string run = bytes({0, 30}) + "m2 7 0 0 00000000000000ff 1/1" + '\0';
        script_.answers = {message(15, ""),
                           success,
                           message(0, name(1, "scclib")),
                           end_of_dump,
                           message(3, name(1, "scclib") + name(3, "a")),
                           end_of_dump,
                           message(6, name(1, "scclib") + name(2, "a") + attribute(7, run)),
                           end_of_dump,
                           message(9, name(1, "scclib") + name(2, "a-deny-7")) +
                               message(9, name(1, "scclib") + name(2, "a-permit-7")),
                           end_of_dump};
        for (const std::string& listing : listings) {
            script_.answers.insert(script_.answers.end(), {elements(listing), end_of_dump});
        }
        // The other map has no elements; no table of the other family, no counters.
        script_.answers.insert(script_.answers.end(), {end_of_dump, end_of_dump, end_of_dump});
    }
    // Of that map.
    [[nodiscard]] std::size_t readings(const std::string& map) const {
        return static_cast<std::size_t>(
            std::count_if(script_.sent.begin(), script_.sent.end(), [&map](const std::string& request) {
                return request.at(4) == 13 && request.find(map) != std::string::npos;
            }));
    }

    const std::vector<held_rule>& rules_of_a() { return tables_.chains[{family::netdev, "a"}]; }

    const std::string first_ = element("key1", "a2 1 1 0 0000000000000001 1/1");
    const std::string second_ = element("key2", "a2 2 2 0 0000000000000002 1/1");
    const std::string third_ = element("key3", "a2 3 3 0 0000000000000003 1/1");
    held_tables tables_;
};

TEST_F(NftablesMaps, AMapIsReadOnce) {
    play({first_ + second_ + third_});
    ASSERT_EQ(filter_->read_tables(tables_), 0u);
    EXPECT_TRUE(script_.answers.empty());
    EXPECT_EQ(readings("a-deny-7"), 1u);
    ASSERT_EQ(rules_of_a().size(), 3u);
    EXPECT_EQ(rules_of_a()[2].key, "key3");
    EXPECT_TRUE(tables_.stray_maps.empty());
}

TEST_F(NftablesMaps, AMapWhoseElementsAreListedTwiceIsReadUntilEachIsListedOnce) {
    play({first_ + second_ + first_, second_ + second_, third_ + second_ + first_});
    ASSERT_EQ(filter_->read_tables(tables_), 0u);
    EXPECT_TRUE(script_.answers.empty());
    EXPECT_EQ(readings("a-deny-7"), 3u);
    EXPECT_EQ(readings("a-permit-7"), 1u);
    ASSERT_EQ(rules_of_a().size(), 3u);
    for (u32 index = 0; index < 3; ++index) {
        EXPECT_EQ(rules_of_a()[index].identity->first, index + 1);
    }
    EXPECT_TRUE(tables_.stray_maps.empty());
}

TEST_F(NftablesMaps, AMapThatStaysRepetitiveIsNoneOfTheServices) {
    play(std::vector<std::string>(20, first_ + first_));
    ASSERT_EQ(filter_->read_tables(tables_), 0u);
    EXPECT_TRUE(script_.answers.empty());
    EXPECT_EQ(readings("a-deny-7"), 20u);
    ASSERT_EQ(rules_of_a().size(), 1u);
    EXPECT_FALSE(rules_of_a()[0].identity.has_value());
    EXPECT_EQ(tables_.stray_maps, (std::set<std::string>{"a-deny-7", "a-permit-7"}));
}

TEST_F(NftablesMaps, AMapThatCannotBeReadAgainIsAnError) {
    play({first_ + first_});
    script_.answers.resize(12);
    script_.answers.emplace_back(failed_dump);
    EXPECT_EQ(filter_->read_tables(tables_), u32{ENOMEM});
    EXPECT_EQ(readings("a-deny-7"), 2u);
    EXPECT_EQ(readings("a-permit-7"), 0u);
}

// ---- counters ----

class NftablesCounters : public Nftables {
  protected:
    // The counter "n" with 3 packets of 258 bytes.
    const std::string counter_ = bytes({
        68, 0, 0, 0,    18,  10,  0,   0,   1,   0,   0, 0, 9, 0, 0, 0,  //
        5,  0, 0, 0,                                                     //
        11, 0, 1, 0,    's', 'c', 'c', 'l', 'i', 'b', 0, 0,              // table
        6,  0, 2, 0,    'n', 0,   0,   0,                                // name
        28, 0, 4, 0x80,                                                  // data
        12, 0, 1, 0,    0,   0,   0,   0,   0,   0,   1, 2,              // bytes
        12, 0, 2, 0,    0,   0,   0,   0,   0,   0,   0, 3               // packets
    });
};

TEST_F(NftablesCounters, OneIsReadOrReset) {
    u64 packets = 0;
    script_.answers = {counter_, success};
    EXPECT_EQ(filter_->read_counter("n", false, packets), 0u);
    EXPECT_EQ(packets, 3u);
    script_.answers = {counter_ + success};
    EXPECT_EQ(filter_->read_counter("n", true, packets), 0u);
    const auto request = [](int type, int number) {
        return bytes({
            48, 0, 0, 0, type, 10,  5,   0,   number, 0,   0, 0, 0, 0, 0, 0,  // with an answer
            5,  0, 0, 0,                                                      //
            11, 0, 1, 0, 's',  'c', 'c', 'l', 'i',    'b', 0, 0,              // table
            6,  0, 2, 0, 'n',  0,   0,   0,                                   // name
            8,  0, 3, 0, 0,    0,   0,   1                                    // a counter
        });
    };
    EXPECT_EQ(script_.sent, (std::vector<std::string>{request(19, 1), request(21, 2)}));
}

TEST_F(NftablesCounters, OneThatIsNotThereIsAnError) {
    u64 packets = 5;
    script_.answers = {refusal};
    EXPECT_EQ(filter_->read_counter("n", false, packets), u32{ENOENT});
}

TEST_F(NftablesCounters, AllAreReadAtOnce) {
    std::string second = counter_;
    second[36] = 'm';
    std::string other_table = counter_;
    other_table[24] = 'x';
    std::vector<counted> counters;
    script_.answers = {counter_ + other_table, second, end_of_dump};
    EXPECT_EQ(filter_->read_counters(counters), 0u);
    ASSERT_EQ(counters.size(), 2u);
    EXPECT_EQ(counters[0].name, "n");
    EXPECT_EQ(counters[0].packets, 3u);
    EXPECT_EQ(counters[0].bytes, 258u);
    EXPECT_EQ(counters[1].name, "m");
}

TEST_F(NftablesCounters, NoneAreReadFromADumpThatFails) {
    std::vector<counted> counters;
    script_.answers = {counter_, failed_dump};
    EXPECT_EQ(filter_->read_counters(counters), u32{ENOMEM});
    EXPECT_TRUE(counters.empty());
}

}  // namespace
}  // namespace scc::kernel
