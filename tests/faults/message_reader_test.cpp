// A message for which there is no memory is skipped, also when its rest arrives later or never.
#include "client/message_reader.h"

#include "client/connected_pair.h"
#include "support/faults.h"

using scc::message_end;
using test::bytes;
using test::wire;

namespace {

class MessageReaderFaults : public test::connected_pair {
  protected:
    ~MessageReaderFaults() override { test::end_faults(); }

    // Meets a message for which there is no memory.
    static void expect_no_memory() {
        const test::debugging on;
        test::fail_allocations_of(20);
        const scc::received_message received = receive();
        EXPECT_TRUE(test::end_faults());
        expect_refused(received, 12, message_end::refused);
        EXPECT_EQ(test::log_texts(), std::vector<std::string>{"alloc memory failed."});
    }
};

TEST_F(MessageReaderFaults, AMessageWithoutMemoryIsLoggedAndSkipped) {
    ASSERT_EQ(good.size(), 20U);
    arrive(wire().add(good).add(good));
    expect_no_memory();
    expect_whole(good);
}

TEST_F(MessageReaderFaults, TheRestOfAMessageWithoutMemoryIsSkippedWhenItArrives) {
    arrive(test::slice(good, 0, 10));
    expect_no_memory();
    expect_refused(receive(), 11, message_end::not_reached);
    arrive(wire().add(test::slice(good, 10, 10)).add(good));
    expect_whole(good);
}

TEST_F(MessageReaderFaults, AStreamThatEndsInAMessageWithoutMemoryIs32) {
    arrive(test::slice(good, 0, 10));
    end_stream();
    expect_no_memory();
    expect_refused(receive(), 32, message_end::not_reached);
}

TEST_F(MessageReaderFaults, NothingOfTheNextConnectionIsSkipped) {
    arrive(test::slice(good, 0, 10));
    expect_no_memory();
    lose();
    connect();
    arrive(good);
    expect_whole(good);
}

}  // namespace
