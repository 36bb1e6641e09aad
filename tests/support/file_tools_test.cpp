#include "support/file_tools.h"

#include <gtest/gtest.h>

namespace {

// Every directory holds "." and "..", yet an empty prefix matches nothing.
// The device root's /sbin holds uci and reboot.
TEST(FileTools, FindPrefixedMatchesTheStartOfAName) {
    file_tools tools;
    EXPECT_TRUE(tools.find_prefixed("/sbin", "re"));
    EXPECT_TRUE(tools.find_prefixed("/sbin", "."));
    EXPECT_FALSE(tools.find_prefixed("/sbin", "eb"));
    EXPECT_FALSE(tools.find_prefixed("/sbin", ""));
    EXPECT_FALSE(tools.find_prefixed("/sbin/missing", "."));
}

}  // namespace
