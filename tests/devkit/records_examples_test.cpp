// The examples that add an ACE, from C and from C++, against a real daemon.
#include "ctl_support.h"

namespace ctl_test {
namespace {

class RecordsExample : public with_daemon, public testing::WithParamInterface<const char*> {
  protected:
    finished example(const std::vector<std::string>& arguments) const {
        process child(std::string(EXAMPLES_DIR "/") + GetParam(), arguments, directory());
        finished result;
        result.status = child.finish();
        result.output = child.output();
        result.errors = child.errors();
        return result;
    }
};

TEST_P(RecordsExample, AddsAnAceThatTheDaemonReads) {
    const finished added = example({"101", "5", "10 permit tcp 10.0.0.0/8 any eq https"});
    EXPECT_EQ(added.status, 0) << added.errors;
    EXPECT_EQ(added.output, "create: Success\nadd ACE: Success\napply: Success\n");
    EXPECT_EQ(
        run({"acl", "list"}).output,
        "acl 101 type 1 class 0\n  10 permit tcp 10.0.0.0/8 any port 443\napply 101 type 1 vdev 0 ifx 5\n");
}

TEST_P(RecordsExample, TellsWhereARuleIsFaulty) {
    const finished faulty = example({"101", "5", "permit tcp any"});
    EXPECT_EQ(faulty.status, 2);
    EXPECT_EQ(faulty.errors, "add_ace: rule, byte 14: destination address is missing\n");
    EXPECT_EQ(example({"101"}).status, 2);
}

INSTANTIATE_TEST_SUITE_P(languages, RecordsExample, testing::Values("add_ace", "add_ace_cpp"));

}  // namespace
}  // namespace ctl_test
