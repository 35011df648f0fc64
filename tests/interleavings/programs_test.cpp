// Each program within its quick bounds.
#include <gtest/gtest.h>

#include <vector>

#include "program.h"

using namespace interleavings;

namespace {

class Interleavings : public testing::TestWithParam<std::size_t> {};

std::vector<program> all_programs() {
    std::vector<program> result;
    for (const auto group : {ring_programs(), call_programs(), descriptor_programs(), lifetime_programs()}) {
        result.insert(result.end(), group.begin(), group.end());
    }
    return result;
}

std::string test_name(const testing::TestParamInfo<std::size_t>& info) {
    std::string name;
    bool begins_word = true;
    const std::vector<program> programs = all_programs();
    for (const char letter : programs[info.param].name) {
        if (std::isalpha(static_cast<unsigned char>(letter)) != 0) {
            name += begins_word ? static_cast<char>(std::toupper(letter)) : letter;
        }
        begins_word = letter == ' ';
    }
    return name;
}

}  // namespace

TEST_P(Interleavings, Keep) {
    const program what = all_programs()[GetParam()];

    const outcome result = explore(what, what.quick);

    EXPECT_EQ(result.violation, "") << "interleavings --quick --repeat " << result.schedule << " '"
                                    << what.name << "'";
    EXPECT_TRUE(result.complete);
    EXPECT_EQ(result.cut, 0U);
    EXPECT_GT(result.executions, 1U);
}

INSTANTIATE_TEST_SUITE_P(, Interleavings, testing::Range<std::size_t>(0, all_programs().size()), test_name);
