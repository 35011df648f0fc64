// The public header from C: header_promises.c does the work, most of it at compile time.
#include "api/header_promises.h"

#include <gtest/gtest.h>

namespace {

TEST(PublicHeader, LetsAProgramInCCallEveryFunction) {
    EXPECT_STREQ(header_promise_that_is_broken(), nullptr);
}

}  // namespace
