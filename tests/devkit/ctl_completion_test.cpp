// What completes a command line, in the shell and in bash and zsh.
#include <filesystem>

#include "completion.h"
#include "ctl_support.h"
#include "program.h"

namespace ctl_test {
namespace {

using words = std::vector<std::string>;

words offered(const words& line) {
    words all;
    const auto found = scc::ctl::complete_words(line);
    for (const auto& each : found.candidates) {
        all.push_back(each.word);
    }
    if (found.files) {
        all.emplace_back("@files");
    }
    return all;
}

TEST(CtlCompletion, OffersWhatFitsThePlace) {
    EXPECT_EQ(offered({"acl", "lo"}), words{"load"});
    EXPECT_EQ(offered({"notify", "st"}), words{"station-move"});
    EXPECT_EQ(offered({"notify", "x"}), words{});
    EXPECT_EQ(offered({"debug", ""}), (words{"off", "on"}));
    EXPECT_EQ(offered({"daemon", "fail"}), words{"fail-next"});
    EXPECT_EQ(offered({"acl", "create", "1", "--ty"}), words{"--type"});
    EXPECT_EQ(offered({"--app", ""}), words{});
    EXPECT_EQ(offered({"--app", "3", "acl", "cl"}), words{"class"});
    EXPECT_EQ(offered({"alive", ""}), words{});
    EXPECT_EQ(offered({"acl", "load", ""}), words{"@files"});
    EXPECT_EQ(offered({"help", "acl", "cl"}), words{"class"});
}

TEST(CtlCompletion, OffersTheNamesOfNumbers) {
    EXPECT_EQ(offered({"acl", "apply", "1", "--direction", ""}), (words{"in", "out"}));
    EXPECT_EQ(offered({"addr-learning", "3", "o"}), (words{"off", "on"}));
    EXPECT_EQ(offered({"nac-app-set", "--app-type", "dot1x-ma"}), (words{"dot1x-mab", "dot1x-mac"}));
    EXPECT_EQ(offered({"watch", "--only", "fl"}), words{"flow"});
    EXPECT_EQ(offered({"arpcheck", "--hex", ""}), words{"@files"});
}

class CtlCompletionScripts : public without_daemon {};

TEST_F(CtlCompletionScripts, BashDescendsIntoFolders) {
    std::filesystem::create_directories(file("folder/deeper"));
    (void)file("folder/some.acl", "");
    const std::string script =
        ". " TEST_DATA_DIR
        "/../../../devkit/ctl/sccctl.bash-completion\n"
        "compopt() { echo \"compopt $*\"; }\n"
        "t() { COMP_WORDS=(\"$@\"); COMP_CWORD=$(($# - 1)); _sccctl; echo \"${COMPREPLY[*]}\"; }\n"
        "t " SCCCTL_PATH " acl lo\nt " SCCCTL_PATH " acl apply 1 --direction ''\nt " SCCCTL_PATH
        " acl load " +
        file("folder/") + "\n";
    process bash("/bin/bash", {"-c", script}, directory());
    EXPECT_EQ(bash.line(), "load");
    EXPECT_EQ(bash.line(), "in out");
    EXPECT_EQ(bash.line(), "compopt -o filenames");  // readline then adds a slash to a folder and no blank
    const std::string files = bash.line();
    EXPECT_TRUE(files == file("folder/deeper") + " " + file("folder/some.acl") ||
                files == file("folder/some.acl") + " " + file("folder/deeper"))
        << files;
    EXPECT_EQ(bash.finish(), 0) << bash.errors();
}

// A real zsh with its completion system, at a pseudo-terminal.
TEST_F(CtlCompletionScripts, ZshCompletesWordsWithTheirHelpAndFiles) {
    std::filesystem::create_directories(file("folder"));
    (void)file("folder/some.acl", "");
    const std::string programs = std::filesystem::path(SCCCTL_PATH).parent_path();
    process zsh("/bin/sh",
                {"-c", "cd \"$TMPDIR\" && exec zsh -f " TEST_DATA_DIR "/complete.zsh " + programs +
                           " " TEST_DATA_DIR "/../../../devkit/ctl/sccctl.zsh-completion"},
                directory());
    zsh.write(
        "sccctl acl lo\n"
        "?sccctl acl c?create  -- create an ACL\n"
        "sccctl --app 3 notify stat\n"
        "sccctl acl apply 1 --direction ou\n"
        "sccctl acl load fol\n"
        "sccctl acl load folder/so\n");
    zsh.end_input();
    EXPECT_EQ(zsh.line(), "sccctl acl load");
    EXPECT_EQ(zsh.line(), "lists create  -- create an ACL");
    EXPECT_EQ(zsh.line(), "sccctl acl c");
    EXPECT_EQ(zsh.line(), "sccctl --app 3 notify station-move");
    EXPECT_EQ(zsh.line(), "sccctl acl apply 1 --direction out");
    EXPECT_EQ(zsh.line(), "sccctl acl load folder/");
    EXPECT_EQ(zsh.line(), "sccctl acl load folder/some.acl");
    EXPECT_EQ(zsh.finish(), 0) << zsh.errors();
}

}  // namespace
}  // namespace ctl_test
