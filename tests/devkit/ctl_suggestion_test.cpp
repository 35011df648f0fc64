// The guesses about misspelt words.
#include "ctl_support.h"
#include "suggestion.h"

namespace ctl_test {
namespace {

using scc::ctl::closest;

class CtlSuggestion : public without_daemon {};

TEST(CtlClosest, IsTheWordWithTheFewestDifferences) {
    EXPECT_EQ(closest("alc", {"acl", "arp"}), "acl");
    EXPECT_EQ(closest("delet", {"delete", "delete-ace"}), "delete");
    EXPECT_EQ(closest("staton-move", {"flow", "station-move"}), "station-move");
    EXPECT_EQ(closest("xyz", {"acl", "arp"}), "");
    EXPECT_EQ(closest("a", {"b"}), "");
    EXPECT_EQ(closest("", {"acl"}), "");
    EXPECT_EQ(closest(std::string(1000, 'a'), {"acl"}), "");
    EXPECT_EQ(closest("acl", {}), "");
}

TEST_F(CtlSuggestion, AMisspeltWordIsToldWithWhatItProbablyMeans) {
    for (const auto& [line, guess] :
         {std::pair<std::vector<std::string>, std::string>{{"alc", "create", "1"}, "acl"},
          {{"acl", "craete", "1"}, "create"},
          {{"acl", "create", "1", "--tpye", "3"}, "--type"},
          {{"acl", "create", "1", "--jsn"}, "--json"},
          {{"addr-learning", "3", "onn"}, "on"},
          {{"acl", "apply", "1", "--direction", "uot"}, "out"},
          {{"notify", "staton-move"}, "station-move"},
          {{"daemon", "fial-next", "type=1"}, "fail-next"},
          {{"daemon", "fail-next", "type=acl-aply", "result=1"}, "acl-apply"},
          {{"daemon", "fail-next", "type=acl", "result=acl-exist"}, "acl-exists"}}) {
        const finished result = run(line);
        EXPECT_EQ(result.status, 2);
        EXPECT_TRUE(result.errors.ends_with("; did you mean '" + guess + "'?\n")) << result.errors;
    }
}

}  // namespace
}  // namespace ctl_test
