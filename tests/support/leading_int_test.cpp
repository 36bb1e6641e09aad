#include "support/leading_int.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace {

TEST(LeadingInt, ReadsLikeAFormattedExtractionAndClampsTo32Bits) {
    const std::pair<const char*, int64_t> numbers[] = {{"7", 7},
                                                       {" \t\n\v\f\r+42", 42},
                                                       {"-1", -1},
                                                       {"12abc", 12},
                                                       {"2\n", 2},
                                                       {"2147483647", INT32_MAX},
                                                       {"2147483648", INT32_MAX},
                                                       {"99999999999999999999", INT32_MAX},
                                                       {"-2147483648", INT32_MIN},
                                                       {"-99999999999999999999", INT32_MIN}};
    for (const auto& [text, value] : numbers) {
        EXPECT_EQ(read_leading_int(text), value) << '"' << text << '"';
    }
    for (const char* text : {"", "x1", "-", "- 1", "+"}) {
        EXPECT_FALSE(read_leading_int(text)) << '"' << text << '"';
    }
}

}  // namespace
