// What a watch shows, and when it ends.
#include <regex>

#include "ctl_support.h"

namespace ctl_test {
namespace {

class CtlWatch : public with_daemon {};
class CtlWatchAlone : public without_daemon {};

TEST_F(CtlWatch, ShowsTheNamedNotificationsWithTheirFieldsAlone) {
    process watch(SCCCTL_PATH, {"watch", "--only", "flow,authmode", "--where", "ifx=7", "--count", "1"},
                  directory());
    ASSERT_EQ(watch.line(), "server-status status=1");
    ASSERT_EQ(run({"notify", "authmode", "mode=3"}).status, 0);
    ASSERT_EQ(run({"notify", "flow", "ifx=8", "mac=00:11:22:33:44:55"}).status, 0);
    ASSERT_EQ(run({"notify", "port-violate", "ifx=7", "mac=00:11:22:33:44:55"}).status, 0);
    ASSERT_EQ(run({"notify", "flow", "ifx=7", "mac=00:11:22:33:44:55"}).status, 0);
    EXPECT_TRUE(watch.line().starts_with("flow user={ip=0.0.0.0,mask=0.0.0.0,ifx=7,"));
    EXPECT_EQ(watch.finish(), 0);
    EXPECT_EQ(watch.output(), "");
}

TEST_F(CtlWatch, BeginsItsLinesWithTheTimeIfAsked) {
    process watch(SCCCTL_PATH, {"watch", "--times", "--count", "1"}, directory());
    const std::regex stamped(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}[+-]\d{4} server-status status=1)");
    const std::string line = watch.line();
    EXPECT_TRUE(std::regex_match(line, stamped)) << line;
    process as_json(SCCCTL_PATH, {"watch", "--times", "--json", "--app", "4"}, directory());
    EXPECT_EQ(nlohmann::json::parse(as_json.line())["time"].get<std::string>().size(), 31u);
}

TEST_F(CtlWatch, EndsAfterADurationInSecondsMinutesOrHours) {
    EXPECT_EQ(run({"watch", "--duration", "0.1s"}).status, 0);
    EXPECT_EQ(run({"watch", "--duration", "0.002m"}).status, 0);
}

TEST_F(CtlWatch, EndsWhenItsOutputCannotBeWritten) {
    process watch("/bin/sh", {"-c", std::string("exec ") + SCCCTL_PATH + " watch > /dev/full"}, directory());
    EXPECT_EQ(watch.finish(), 1);
    EXPECT_EQ(watch.errors(), "sccctl: standard output: No space left on device\n");
}

TEST_F(CtlWatchAlone, RefusesUnknownNamesTimesAndFields) {
    for (const auto& [line, problem] :
         {std::pair<std::vector<std::string>, std::string>{{"watch", "--only", "flaw"},
                                                           "did you mean 'flow'?"},
          {{"watch", "--duration", "5x"}, "is not a time up to a day"},
          {{"watch", "--duration", "25h"}, "is not a time up to a day"},
          {{"watch", "--where", "ifx"}, "is not FIELD=VALUE"},
          {{"watch", "--where", "ifxx=3"}, "no field 'ifxx' in any notification; did you mean 'ifx'?"},
          {{"watch", "--only", "authmode,dirchn", "--where", "mac=3"},
           "no field 'mac' in authmode, dirchn; there are add, ip, mode, "
           "notification, type"}}) {
        const finished result = run(line);
        EXPECT_EQ(result.status, 2);
        EXPECT_NE(result.errors.find(problem), std::string::npos) << result.errors;
    }
}

}  // namespace
}  // namespace ctl_test
