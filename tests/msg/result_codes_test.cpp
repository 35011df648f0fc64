// The texts of the result codes.
#include "msg/result_codes.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstring>

#include "scclib.h"

namespace {

TEST(ResultTexts, EachOfTheTwentyOneOwnCodesHasItsText) {
    struct row {
        int code;
        const char* text;
    };
    const row rows[] = {
        {2000, "register action rejected by scc server."},
        {2001, "unregister action rejected by scc server."},
        {2002, "register action rejected, process registed already."},
        {2003, "unregister action rejected, process unregisted already."},
        {2004, "scc service unavailable."},
        {2005, "specific acl not exist"},
        {2006, "specific ace not exist"},
        {2007, "msg format error"},
        {2008, "specific acl not applied on specific entity"},
        {2009, "specific acl already applied on specific entity"},
        {2010, "specific acl already exist"},
        {2011, "specific ace already exist"},
        {2012, "specific acl not unapplied"},
        {2013, "client do not support data query"},
        {2014, "http port not exist"},
        {2015, "direct host not exist"},
        {2016, "direct site not exist"},
        {2017, "no available ace sequence number"},
        {2018, "vacl not exist"},
        {2019, "black or white acl node not exist"},
        {2020, "lowlayer ret timeout"},
    };
    int expected = 2000;
    for (const row& row : rows) {
        EXPECT_EQ(row.code, expected++);
        EXPECT_STREQ(scc_strerror(row.code), row.text) << row.code;
    }
    EXPECT_EQ(expected, 2021);
}

TEST(ResultTexts, NegativeCodesAndThoseAbove2020AreUnknown) {
    for (const int code : {-1, -2000, INT_MIN, 2021, 2022, 4000, INT_MAX}) {
        EXPECT_STREQ(scc_strerror(code), "unknown errno") << code;
    }
}

TEST(ResultTexts, CodesBelow2000AreTheSystems) {
    EXPECT_STREQ(scc_strerror(0), "Success");
    EXPECT_STREQ(scc_strerror(2), "No such file or directory");
    EXPECT_STREQ(scc_strerror(22), "Invalid argument");
    EXPECT_STREQ(scc_strerror(32), "Broken pipe");
    EXPECT_STREQ(scc_strerror(1999), "Unknown error 1999");
}

TEST(ResultCodes, OfTheHeaderHaveTheirNumbers) {
    EXPECT_EQ(SCC_E_REGISTER_REJECTED, 2000U);
    EXPECT_EQ(SCC_E_UNREGISTER_REJECTED, 2001U);
    EXPECT_EQ(SCC_E_REGISTERED_ALREADY, 2002U);
    EXPECT_EQ(SCC_E_UNREGISTERED_ALREADY, 2003U);
    EXPECT_EQ(SCC_E_UNAVAILABLE, 2004U);
    EXPECT_EQ(SCC_E_NO_ACL, 2005U);
    EXPECT_EQ(SCC_E_NO_ACE, 2006U);
    EXPECT_EQ(SCC_E_FORMAT, 2007U);
    EXPECT_EQ(SCC_E_NOT_APPLIED, 2008U);
    EXPECT_EQ(SCC_E_APPLIED_ALREADY, 2009U);
    EXPECT_EQ(SCC_E_ACL_EXISTS, 2010U);
    EXPECT_EQ(SCC_E_ACE_EXISTS, 2011U);
    EXPECT_EQ(SCC_E_STILL_APPLIED, 2012U);
    EXPECT_EQ(SCC_E_NO_DATA_QUERY, 2013U);
    EXPECT_EQ(SCC_E_NO_HTTP_PORT, 2014U);
    EXPECT_EQ(SCC_E_NO_DIRECT_HOST, 2015U);
    EXPECT_EQ(SCC_E_NO_DIRECT_SITE, 2016U);
    EXPECT_EQ(SCC_E_NO_SEQUENCE_NUMBER, 2017U);
    EXPECT_EQ(SCC_E_NO_VACL, 2018U);
    EXPECT_EQ(SCC_E_NO_LIST_NODE, 2019U);
    EXPECT_EQ(SCC_E_SERVICE_TIMEOUT, 2020U);
}

}  // namespace
