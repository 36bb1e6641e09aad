#include "support/file_tools.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

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

// Every request process loads the log: a descriptor left open would pile up
// in a long one. The lowest free descriptor is the same before and after
// (the first load opens the trace for good).
TEST(FileTools, LoadReadsTheWholeFileAndClosesIt) {
    file_tools().load("/sbin/uci");
    int before = ::dup(0);
    ::close(before);
    auto text = file_tools().load("/sbin/uci");
    int after = ::dup(0);
    ::close(after);
    EXPECT_EQ(before, after);
    ASSERT_TRUE(text);
    EXPECT_EQ(std::string(text.get()).substr(0, 2), "#!");
}

}  // namespace
