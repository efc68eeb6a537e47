// Text and time helpers.
#include "strutils.h"
#include "utils.h"

#include <gtest/gtest.h>

namespace {

TEST(Numbers, AreFoundAndRead) {
    EXPECT_TRUE(isNumeric(" 7") && isNumeric("1 2"));
    EXPECT_FALSE(isNumeric(nullptr) || isNumeric("  ") || isNumeric("7\t"));
    EXPECT_EQ(decimal(" 12x"), 12);
    EXPECT_EQ(decimal("4294967297"), 1) << "the low bits";
}

TEST(Numbers, AreWrittenForTheLog) {
    char text[TIME_TEXT_SIZE];
    EXPECT_EQ(time2String(text, 90061), 37);
    EXPECT_STREQ(text, "     1 days,  1 hrs,  1 mins,  1 secs");
    EXPECT_STREQ(commaprint(999), "999");
    EXPECT_STREQ(commaprint(UINT64_MAX), "18,446,744,073,709,551,615");
}

} // namespace
