#include "support/timestamp.h"

#include <gtest/gtest.h>

TEST(FormatTimestamp, WrapsSecondsEveryTwelveMinutesAndTruncatesMilliseconds) {
    EXPECT_EQ(format_timestamp({1422367563, 42317}), "363.042");
    EXPECT_EQ(format_timestamp({5, 999}), "005.000");
    EXPECT_EQ(format_timestamp({719, 999999}), "719.999");
    EXPECT_EQ(format_timestamp({720, 0}), "000.000");
    EXPECT_EQ(format_timestamp({1439, 500000}), "719.500");
}

TEST(FormatTimestamp, StaysWellFormedForTimesBeforeTheEpoch) {
    EXPECT_EQ(format_timestamp({-1, 0}), "719.000");
    EXPECT_EQ(format_timestamp({0, -5}), "000.000");
}

TEST(FormatTimestamp, CurrentTimeHasTheFixedShape) {
    std::string stamp = format_timestamp();
    ASSERT_EQ(stamp.size(), 7u);
    EXPECT_EQ(stamp[3], '.');
    EXPECT_LT(std::stoi(stamp.substr(0, 3)), 720);
}

TEST(ElapsedTimestamp, StartsAtZeroAndCountsFromTheFirstCall) {
    EXPECT_EQ(elapsed_timestamp(), "000.000");
    std::string later = elapsed_timestamp();
    EXPECT_EQ(later.substr(0, 5), "000.0");  // microseconds later
}
