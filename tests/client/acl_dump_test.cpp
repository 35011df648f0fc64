// The three displays of the ACL cache, text for text.
#include <gtest/gtest.h>

#include <algorithm>

#include "client/acl_cache.h"
#include "client/client_data.h"
#include "client/log.h"
#include "client/request_channel.h"
#include "support/log_capture.h"
#include "support/wire_bytes.h"

using test::bytes;
using test::wire;

namespace {

using texts = std::vector<std::string>;

// Written out, blanks and lengths included.
const char* const columns = "no      hash-id vdev-id app-type acl-id acl-cls ace-num   ";
const char* const dashes_58 = "----------------------------------------------------------";
const char* const dashes_19 = "-------------------";
const char* const dashes_18 = "------------------";
const char* const end_of_all = "=========================end=============================";
const char* const end_of_others = "==========================end============================";

void add_acl(const scc_acl_key& key, std::uint32_t aces) {
    _scc_lib_acl_add(&key);
    scc_ace_record ace{};
    for (ace.sn = 1; ace.sn <= aces; ++ace.sn) {
        _scc_lib_ace_add(&key, &ace);
    }
}

class AclDump : public ::testing::Test {
  protected:
    AclDump() { _scc_lib_data_init(); }
    ~AclDump() override { _scc_lib_data_free(); }

    static texts show(const bytes& request) {
        test::clear_log();
        _scc_lib_dbg_acl_show(request.data());
        texts lines;
        for (const test::log_line& line : test::captured_log()) {
            EXPECT_EQ(line.level, 7);
            EXPECT_EQ(line.module, "SCCLIB");
            EXPECT_EQ(line.submodule, "SHOW");
            EXPECT_EQ(line.text, line.whole) << "the display has no line prefix";
            lines.push_back(line.whole);
        }
        return lines;
    }

    static void fill() {
        add_acl({0, 58, 32768, 0}, 12);      // bucket 186
        add_acl({1, 2, 3, 4}, 2);            // bucket 6
        add_acl({2, 1, 3, 0xFFFFFFFFU}, 0);  // bucket 6, after it
        add_acl({0xFF, 0xFF, 3, 1000}, 1);   // bucket 0
    }

    // The summary of 512 buckets, those given with their counts.
    static texts bucket_lines(const std::vector<std::pair<int, std::string>>& filled) {
        texts lines;
        for (int i = 0; i < 512; ++i) {
            std::string line = std::to_string(i);
            line.resize(7, ' ');
            line += " 0         0        ";
            for (const auto& [bucket, text] : filled) {
                if (bucket == i) {
                    line = text;
                }
            }
            lines.push_back(line);
        }
        return lines;
    }
};

TEST_F(AclDump, ModeThreeShowsEveryAclInTheOrderOfBucketsAndChains) {
    fill();
    EXPECT_EQ(show(wire().u32(3)), (texts{
                                       "================== scclib all acl info ===================",
                                       "Total acl num:4\n",
                                       columns,
                                       dashes_58,
                                       "1       0       255     255      3       1000    1        ",
                                       "2       6       1       2        3       4       2        ",
                                       "3       6       2       1        3       -1      0        ",
                                       "4       186     0       58       32768   0       12       ",
                                       dashes_58,
                                       "Total ace num:15\n",
                                       end_of_all,
                                   }));
}

TEST_F(AclDump, ModeThreeOfAnEmptyCacheShowsItsFrame) {
    EXPECT_EQ(show(wire().u32(3)),
              (texts{"================== scclib all acl info ===================", "Total acl num:0\n",
                     columns, dashes_58, dashes_58, "Total ace num:0\n", end_of_all}));
}

TEST_F(AclDump, ModeOneShowsEachOfTheBucketsEmptyOnesIncluded) {
    fill();
    texts expected{"================== scclib acl summary info ===================", "Total acl num:4",
                   "hash-id acl-num   ace-num   ", dashes_18};
    const texts lines = bucket_lines({{0, "0       1         1        "},
                                      {6, "6       2         2        "},
                                      {186, "186     1         12       "}});
    expected.insert(expected.end(), lines.begin(), lines.end());
    expected.insert(expected.end(), {dashes_19, "Total ace num:15", end_of_others});
    EXPECT_EQ(show(wire().u32(1)), expected);
}

TEST_F(AclDump, ModeOneOfAnEmptyCacheShowsFiveHundredAndTwelveLinesOfZeros) {
    texts expected{"================== scclib acl summary info ===================", "Total acl num:0",
                   "hash-id acl-num   ace-num   ", dashes_18};
    const texts lines = bucket_lines({});
    expected.insert(expected.end(), lines.begin(), lines.end());
    expected.insert(expected.end(), {dashes_19, "Total ace num:0", end_of_others});
    EXPECT_EQ(show(wire().u32(1)), expected);
}

TEST_F(AclDump, AnyOtherModeShowsTheOneAclWithoutATotalOfAces) {
    fill();
    for (const std::uint32_t mode : {2U, 0U, 4U, 0x103U, 0xFFFFFFFFU}) {
        EXPECT_EQ(show(wire().u32(mode).u32(2).u32(1).u32(3)),
                  (texts{
                      "================= scclib specific acl info ================",
                      "Total acl num:4",
                      columns,
                      dashes_58,
                      "1       6       2       1        3       -1      0        ",
                      dashes_58,
                      end_of_others,
                  }))
            << mode;
    }
}

TEST_F(AclDump, AnAclThatIsNotThereLeavesTheFrameEmpty) {
    fill();
    for (const bytes& request :
         {wire().u32(2).u32(2).u32(2).u32(3).get(), wire().u32(2).u32(2).u32(1).u32(4).get(),
          wire().u32(2).u32(3).u32(1).u32(3).get()}) {
        EXPECT_EQ(show(request), (texts{"================= scclib specific acl info ================",
                                        "Total acl num:4", columns, dashes_58, dashes_58, end_of_others}));
    }
}

TEST_F(AclDump, IsWrittenWhetherTheSwitchIsOnOrOff) {
    fill();
    const texts off = show(wire().u32(3));
    const test::debugging on;
    EXPECT_EQ(show(wire().u32(3)), off);
    EXPECT_EQ(off.size(), 11U);
}

TEST_F(AclDump, OnlyTheDisplayOfAllAclsHasABlankLineAfterItsTotals) {
    const auto with_blank_line = [](const bytes& request) {
        texts found;
        for (const std::string& line : show(request)) {
            if (line.find('\n') != std::string::npos) {
                found.push_back(line);
            }
        }
        return found;
    };
    EXPECT_EQ(with_blank_line(wire().u32(3)), (texts{"Total acl num:0\n", "Total ace num:0\n"}));
    EXPECT_EQ(with_blank_line(wire().u32(1)), texts{});
    EXPECT_EQ(with_blank_line(wire().u32(2).u32(1).u32(1).u32(1)), texts{});
}

TEST_F(AclDump, TheLinesHaveTheirLengths) {
    EXPECT_EQ(std::string(dashes_58).size(), 58U);
    const texts all = show(wire().u32(3));
    const texts summary = show(wire().u32(1));
    EXPECT_EQ(all.at(3), std::string(58, '-'));
    EXPECT_EQ(summary.at(3), std::string(18, '-'));
    EXPECT_EQ(summary.at(4 + 512), std::string(19, '-'));
    EXPECT_EQ(all.back(), std::string(25, '=') + "end" + std::string(29, '='));
    EXPECT_EQ(summary.back(), std::string(26, '=') + "end" + std::string(28, '='));
}

TEST_F(AclDump, ReadsAnUnalignedRequest) {
    const bytes shifted = wire().u8(0).u32(3);
    test::clear_log();
    _scc_lib_dbg_acl_show(shifted.data() + 1);
    EXPECT_EQ(test::log_texts().size(), 7U);
}

TEST(AclDumpBeforeAnyStart, ShowsAnEmptyCache) {
    test::clear_log();
    _scc_lib_dbg_acl_show(wire().u32(1).get().data());
    EXPECT_EQ(test::log_texts().size(), 4U + 512U + 3U);
}

TEST_F(AclDump, OneAclOfTheFirstBucketIsShown) {
    fill();
    const texts lines = show(wire().u32(2).u32(0xFF).u32(0xFF).u32(3));
    EXPECT_EQ(
        std::count(lines.begin(), lines.end(), "1       0       255     255      3       1000    1        "),
        1);
}

TEST(AclDumpBeforeAnyStart, LeavesACacheThatTakesAcls) {
    const bytes request = wire().u32(3);
    _scc_lib_dbg_acl_show(request.data());
    const scc_acl_key key = {1, 2, 3, 4};
    _scc_lib_acl_add(&key);
    const scc::write_guard guard(scc::acl_lock);
    EXPECT_NE(_scc_acl_get(&key), nullptr);
}

}  // namespace
