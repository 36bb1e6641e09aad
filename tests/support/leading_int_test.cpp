#include "support/leading_int.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>

namespace {

constexpr int32_t max = std::numeric_limits<int32_t>::max();
constexpr int32_t min = std::numeric_limits<int32_t>::min();

TEST(LeadingInt, ReadsLikeAFormattedExtractionAndClampsTo32Bits) {
    const std::pair<const char*, std::optional<int32_t>> cases[] = {
        {"7", 7},
        {" \t\n\v\f\r+42", 42},
        {"-1", -1},
        {"12abc", 12},
        {"2\n", 2},
        {"", std::nullopt},
        {"x1", std::nullopt},
        {"-", std::nullopt},
        {"- 1", std::nullopt},
        {"2147483647", max},
        {"2147483648", max},
        {"99999999999999999999", max},
        {"-2147483648", min},
        {"-99999999999999999999", min},
    };
    for (const auto& [text, value] : cases) {
        EXPECT_EQ(read_leading_int(text), value) << '"' << text << '"';
    }
}

}  // namespace
