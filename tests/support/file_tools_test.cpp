#include "support/file_tools.h"

#include <gtest/gtest.h>

namespace {

// Every directory holds "." and "..", yet an empty prefix matches nothing.
TEST(FileTools, FindPrefixedMatchesTheStartOfAName) {
    file_tools tools;
    EXPECT_TRUE(tools.find_prefixed("/", "us"));
    EXPECT_TRUE(tools.find_prefixed("/", "."));
    EXPECT_FALSE(tools.find_prefixed("/", "sr"));
    EXPECT_FALSE(tools.find_prefixed("/", ""));
    EXPECT_FALSE(tools.find_prefixed("/no-such-directory", "."));
}

}  // namespace
