#include "linux/options.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

namespace scc::kernel {
namespace {

class LinuxOptions : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string pattern = ::testing::TempDir() + "options-XXXXXX";
        ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
        folder_ = pattern;
        map_ = folder_ + "/map";
        std::ofstream(map_) << "ifx 1 eth0\n";
    }
    void TearDown() override { std::filesystem::remove_all(folder_); }

    std::optional<options> parse(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), "scc-ss-linux");
        std::vector<char*> words;
        for (std::string& argument : arguments) {
            words.push_back(argument.data());
        }
        words.push_back(nullptr);
        exit_code_ = -1;
        ::testing::internal::CaptureStdout();
        ::testing::internal::CaptureStderr();
        auto parsed = parse_options(static_cast<int>(arguments.size()), words.data(), &exit_code_);
        output_ = ::testing::internal::GetCapturedStdout();
        errors_ = ::testing::internal::GetCapturedStderr();
        return parsed;
    }
    void expect_exit(const std::vector<std::string>& arguments, int exit_code, const std::string& error) {
        EXPECT_FALSE(parse(arguments).has_value());
        EXPECT_EQ(exit_code_, exit_code);
        EXPECT_NE(errors_.find(error), std::string::npos) << errors_;
    }

    std::string folder_;
    std::string map_;
    int exit_code_ = -1;
    std::string output_;
    std::string errors_;
};

TEST_F(LinuxOptions, AMapIsEnough) {
    const auto parsed = parse({"--map", map_});
    ASSERT_TRUE(parsed.has_value());
    EXPECT_EQ(parsed->map.interfaces.at(1).name, "eth0");
    EXPECT_FALSE(parsed->flush);
    EXPECT_FALSE(parsed->verbose);
    EXPECT_EQ(parsed->report_seconds, 10u);
}

TEST_F(LinuxOptions, AllMayBeGiven) {
    const auto parsed = parse({"--map", map_, "--report", "86400", "-v"});
    ASSERT_TRUE(parsed.has_value());
    EXPECT_TRUE(parsed->verbose);
    EXPECT_EQ(parsed->report_seconds, 86'400u);
    EXPECT_EQ(parse({"--report=0", "--verbose", "--map=" + map_})->report_seconds, 0u);
}

TEST_F(LinuxOptions, AFlushNeedsNoMap) {
    const auto parsed = parse({"--flush"});
    ASSERT_TRUE(parsed.has_value());
    EXPECT_TRUE(parsed->flush);
}

TEST_F(LinuxOptions, WhatIsWrongIsNamed) {
    expect_exit({}, 2, "--map is required");
    expect_exit({"--map", map_, "--flush"}, 2, "--map excludes --flush");
    expect_exit({"--map", map_, "--report", "86401"}, 2, "--report: '86401' is not a number from 0 to 86400");
    expect_exit({"--map", map_, "--report", "-1"}, 2, "--report: '-1' is not a number from 0 to 86400");
    expect_exit({"--map", map_, "--report", "ten"}, 2, "--report: 'ten' is not a number from 0 to 86400");
    expect_exit({"--map", map_, "--other"}, 2, "--other");
    expect_exit({"--map", map_, "more"}, 2, "more");
    expect_exit({"--map", folder_ + "/none"}, 1, "scc-ss-linux: ");
    std::ofstream(map_) << "ifx 1\n";
    expect_exit({"--map", map_}, 1, "line 1: needs an index from 1 on and the name of an interface");
}

TEST_F(LinuxOptions, TheVersionIsASuccess) {
    EXPECT_FALSE(parse({"--version"}).has_value());
    EXPECT_EQ(exit_code_, 0);
    EXPECT_EQ(output_, "scc-ss-linux " SCC_VERSION_TEXT "\n");
}

TEST_F(LinuxOptions, HelpIsASuccess) {
    EXPECT_FALSE(parse({"--help"}).has_value());
    EXPECT_EQ(exit_code_, 0);
    EXPECT_NE(output_.find("--map"), std::string::npos);
}

}  // namespace
}  // namespace scc::kernel
