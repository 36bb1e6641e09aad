#include "support/leading_int.h"
#include "upload/text_utils.h"

#include <gtest/gtest.h>

TEST(LeadingInt, ReadsLikeAFormattedExtraction) {
    EXPECT_EQ(string_to_int("42"), 42);
    EXPECT_EQ(string_to_int(" 42"), 42);
    EXPECT_EQ(string_to_int("\n\t+7"), 7);
    EXPECT_EQ(string_to_int("-1"), -1);
    EXPECT_EQ(string_to_int("12abc"), 12);
    EXPECT_EQ(string_to_int("2\n"), 2);
}

TEST(LeadingInt, TextWithoutLeadingNumberIsNoNumber) {
    EXPECT_FALSE(read_leading_int("").has_value());
    EXPECT_FALSE(read_leading_int("x1").has_value());
    EXPECT_FALSE(read_leading_int("-").has_value());
    EXPECT_FALSE(read_leading_int("- 1").has_value());
    EXPECT_EQ(string_to_int("abc"), 0);
}

TEST(LeadingInt, HugeValuesClampInsteadOfBecomingZero) {
    EXPECT_EQ(string_to_int("99999999999999999999"), 2147483647);
    EXPECT_EQ(string_to_int("-99999999999999999999"), -2147483647 - 1);
    EXPECT_EQ(string_to_int("2147483648"), 2147483647);
    EXPECT_EQ(string_to_int("-2147483648"), -2147483647 - 1);
}
