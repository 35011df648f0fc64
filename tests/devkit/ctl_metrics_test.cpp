// The counters as text for Prometheus.
#include <sys/stat.h>

#include <filesystem>

#include "ctl_support.h"

namespace ctl_test {
namespace {

class CtlMetrics : public with_daemon {};
class CtlMetricsAlone : public without_daemon {};

bool has_line(const std::string& text, const std::string& line) {
    return ("\n" + text).find("\n" + line + "\n") != std::string::npos;
}

TEST_F(CtlMetrics, CountsRequestsResultsAndMessages) {
    process shell(SCCCTL_PATH, {"shell", "--app", "7"}, directory());
    shell.write("addr-learning 3 on\nacl delete 9\nacl create 9\nstrerror 2005\n");
    while (shell.line() != "strerror: specific acl not exist") {
        continue;
    }
    const finished result = run({"metrics"});
    EXPECT_EQ(result.status, 0) << result.errors;
    for (const char* line :
         {"# TYPE scc_requests_total counter", "scc_requests_total{type=\"123\",name=\"addr-learning\"} 1",
          "scc_requests_total{type=\"131\",name=\"acl\"} 2", "scc_results_total{result=\"0\",name=\"ok\"} 2",
          "scc_results_total{result=\"2005\",name=\"no-acl\"} 1", "scc_held_entries{kind=\"acls\"} 1",
          "scc_client_registered{app=\"7\"} 1", "scc_client_items_total{app=\"7\",direction=\"received\"} 3",
          "scc_client_unanswered_requests{app=\"7\"} 0", "scc_client_up{app=\"7\"} 1",
          "scc_client_calls_total{app=\"7\",call=\"acl-create\",outcome=\"call_successes\"} 1",
          // Two registrations of 28 bytes came before the sockets had an app id.
          "scc_client_bytes_total{app=\"0\",direction=\"received\"} 56"}) {
        EXPECT_TRUE(has_line(result.output, line)) << line << "\n" << result.output;
    }
    EXPECT_FALSE(has_line(result.output, "# EOF"));
}

TEST_F(CtlMetrics, OpenMetricsTellsTheTypeOfTheNameWithoutTotal) {
    const finished result = run({"metrics", "--format", "openmetrics"});
    EXPECT_TRUE(has_line(result.output, "# TYPE scc_requests counter")) << result.output;
    EXPECT_TRUE(result.output.ends_with("\n# EOF\n")) << result.output;
}

TEST_F(CtlMetrics, AFileIsReplacedWhole) {
    const std::string name = file("out/scc.prom");
    std::filesystem::create_directory(file("out"));
    (void)file("out/scc.prom", "old\n");
    const finished result = run({"metrics", "--output", name});
    EXPECT_EQ(result.status, 0) << result.errors;
    EXPECT_EQ(result.output, "");
    EXPECT_TRUE(has_line(text_of("out/scc.prom"), "scc_service_registered 0"));
    std::filesystem::directory_iterator left(file("out"));
    EXPECT_EQ(std::distance(begin(left), end(left)), 1);
}

TEST_F(CtlMetrics, AFileThatCannotBeReplacedIsLeftAlone) {
    std::filesystem::create_directory(file("folder"));
    const finished result = run({"metrics", "--output", file("folder")});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.errors, "sccctl: metrics: " + file("folder") + ": Is a directory\n");
    std::filesystem::directory_iterator left(directory());
    for (const auto& each : left) {
        EXPECT_FALSE(each.path().filename().string().ends_with(".new")) << each.path();
    }
}

TEST_F(CtlMetrics, WhatIsNotARegularFileIsNotReplaced) {
    const std::string name = file("fifo");
    ASSERT_EQ(::mkfifo(name.c_str(), 0600), 0);
    const finished result = run({"metrics", "--output", name});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.errors, "sccctl: metrics: " + name + ": not a regular file\n");
    EXPECT_TRUE(std::filesystem::is_fifo(name));
}

TEST_F(CtlMetricsAlone, NoFileIsWrittenWithoutADaemon) {
    EXPECT_EQ(run({"metrics", "--output", file("scc.prom")}).status, 3);
    EXPECT_FALSE(std::filesystem::exists(file("scc.prom")));
}

}  // namespace
}  // namespace ctl_test
