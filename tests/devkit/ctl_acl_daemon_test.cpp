// The daemon's reply to "acls" as ACLs.
#include <gtest/gtest.h>

#include "acl_daemon.h"

namespace scc::ctl {
namespace {

std::string text_of(const char* reply) {
    const auto acls = acls_of_reply(json::parse(reply));
    return acls ? print_acl_file(*acls) : "malformed";
}

TEST(CtlAclDaemon, AReplyIsReadAsTheAclsItDescribes) {
    EXPECT_EQ(text_of(R"({"acls":[{"vdev":0,"type":3,"id":101,"class":2,"pid":7,
                  "aces":[{"sn":10,"id":4,"rule":"10 permit ether id 4"},{"sn":20,"id":20}],
                  "applies":[{"ifx":5,"direction":1,"apply_type":3}]}]})"),
              "acl 101 type 3 class 2\n"
              "  10 permit ether id 4\n"
              "  20 raw 00\n"
              "apply 101 type 3 vdev 0 ifx 5 direction out\n");
}

TEST(CtlAclDaemon, BytesWinOverTheOtherFields) {
    const std::string bytes = std::string(32, '0') + "ff" + std::string((220 - 17) * 2, '0') +
                              "0a00000004000000" + std::string(684 * 2, '0');
    const std::string reply =
        R"({"acls":[{"vdev":0,"type":1,"id":1,"class":0,"applies":[],"aces":[{"sn":1,"id":1,)"
        R"("rule":"1 permit ether","bytes":")" +
        bytes + "\"}]}]}";
    EXPECT_EQ(text_of(reply.c_str()), "acl 1 type 1 class 0\n  10 raw ff id 4\n");
}

TEST(CtlAclDaemon, AMalformedReplyIsNone) {
    for (
        const char* reply :
        {"{}", R"({"acls":[{}]})",
         R"({"acls":[{"vdev":0,"type":1,"id":1,"class":0,"applies":[],"aces":[{}]}]})",
         R"({"acls":[{"vdev":0,"type":1,"id":1,"class":0,"applies":[],"aces":[{"sn":1,"id":1,"rule":"no"}]}]})",
         R"({"acls":[{"vdev":0,"type":1,"id":1,"class":0,"applies":[],"aces":[{"sn":1,"id":1,"bytes":"00"}]}]})",
         R"({"acls":[{"vdev":0,"type":1,"id":1,"class":0,"aces":[],
              "applies":[{"ifx":1,"direction":2,"apply_type":1}]}]})"}) {
        EXPECT_EQ(text_of(reply), "malformed") << reply;
    }
}

}  // namespace
}  // namespace scc::ctl
