#include "support/timestamp.h"

#include <gtest/gtest.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

TEST(Timestamp, SecondsWrapEveryTwelveMinutesAndMillisecondsStayInRange) {
    const std::pair<time_value, const char*> cases[] = {
        {{1422367563, 42317}, "363.042"},
        {{5, 999}, "005.000"},
        {{123, 456789}, "123.456"},
        {{719, 999999}, "719.999"},
        {{720, 0}, "000.000"},
        {{1439, 500000}, "719.500"},
        {{-1, 0}, "719.000"},
        {{0, -5}, "000.000"},
        {{1, 1000000}, "001.999"},
    };
    for (const auto& [value, stamp] : cases) {
        EXPECT_EQ(format_timestamp(value), stamp) << value.seconds << " " << value.microseconds;
    }
}

// Started in the middle of a second, so that a sum of the two clock readings
// could not pass for their difference.
TEST(Timestamp, ElapsedCountsFromTheFirstCall) {
    timeval now{};
    for (int i = 0; i < 2000 && (now.tv_usec < 300000 || now.tv_usec > 400000); ++i) {
        ::usleep(1000);
        gettimeofday(&now, nullptr);
    }
    EXPECT_EQ(elapsed_timestamp(), "000.000");
    ::usleep(20000);
    const std::string later = elapsed_timestamp();
    EXPECT_GT(later, "000.019");
    EXPECT_LT(later, "000.500");
}

}  // namespace
