#include "linux/interface_map.h"

#include <gtest/gtest.h>

namespace scc::kernel {
namespace {

std::string problem_of(std::string_view text) {
    std::string error;
    EXPECT_FALSE(parse_interface_map(text, error).has_value()) << text;
    return error;
}

TEST(InterfaceMap, ReadsInterfacesAndProtections) {
    std::string error;
    const auto map = parse_interface_map(
        "# two ports\nifx 1 eth0\n\n  ifx 0020\teth1 router # uplink\r\ncpp 3 100 icmp any any\n", error);
    ASSERT_TRUE(map.has_value()) << error;
    ASSERT_EQ(map->interfaces.size(), 2u);
    EXPECT_EQ(map->interfaces.at(1).name, "eth0");
    EXPECT_FALSE(map->interfaces.at(1).router);
    EXPECT_EQ(map->interfaces.at(20).name, "eth1");
    EXPECT_TRUE(map->interfaces.at(20).router);
    EXPECT_EQ(map->protections.at(3).packets_per_second, 100u);
    EXPECT_EQ(map->protections.at(3).rule.protocol, 1);
}

TEST(InterfaceMap, NamesTheLineThatIsWrong) {
    EXPECT_EQ(problem_of(""), "no interface");
    EXPECT_EQ(problem_of("ifx 1 eth0\nport 2 eth1\n"), "line 2: \"port\" is neither \"ifx\" nor \"cpp\"");
    for (const char* line :
         {"ifx 0 eth0", "ifx 4294967296 eth0", "ifx 1", "ifx 1 a\"b", "ifx 1 an-interface-name"}) {
        EXPECT_EQ(problem_of(line), "line 1: needs an index from 1 on and the name of an interface") << line;
    }
    EXPECT_EQ(problem_of("ifx 1 eth0 bridge"), "line 1: \"bridge\" is not \"router\"");
    EXPECT_EQ(problem_of("ifx 1 eth0\nifx 1 eth1"), "line 2: interface 1 is there twice");
    EXPECT_EQ(problem_of("ifx 1 eth0\nifx 2 eth0"), "line 2: eth0 is interface 1 already");
    EXPECT_EQ(problem_of("cpp 1 0 icmp any any"), "line 1: needs a type and a rate from 1 to 1000000");
    EXPECT_NE(problem_of("cpp 1 5 nonsense").find("line 1: "), std::string::npos);
}

TEST(InterfaceMap, FindsTheInterfaceThatIsMissing) {
    std::string error;
    const auto map = parse_interface_map("ifx 1 lo\nifx 2 no-such-port\n", error);
    ASSERT_TRUE(map.has_value()) << error;
    EXPECT_EQ(missing_interface(*map), "no-such-port");
    EXPECT_FALSE(read_interface_map("/nowhere/map", error).has_value());
    EXPECT_EQ(error, "/nowhere/map: No such file or directory");
}

}  // namespace
}  // namespace scc::kernel
