// Runs inside the device root: the trace is the real /var/log file.
#include "support/debug_trace.h"

#include <gtest/gtest.h>
#include <unistd.h>
#include <fstream>
#include <sstream>

#include "support/device_paths.h"

namespace {
std::string trace_file() {
    std::ifstream in(paths::trace_file, std::ios::binary);
    std::stringstream content;
    content << in.rdbuf();
    return content.str();
}
// Lines of this test alone: everything after `mark`.
std::string since(size_t mark) {
    return trace_file().substr(mark);
}
bool stamped(const std::string& line) {
    return line.size() > 8 && line[3] == '.' && line[7] == ' ';
}
}  // namespace

TEST(DebugTrace, ChainedFragmentsMakeOneLineStampedAtTheFirst) {
    size_t mark = trace_file().size();
    debug_trace::instance()
        .write("do_update_process() : security.update.enabled=")
        .write("false")
        .write("\n");
    std::string line = since(mark);
    ASSERT_TRUE(stamped(line)) << line;
    EXPECT_EQ(line.substr(8), "do_update_process() : security.update.enabled=false\n");
}

TEST(DebugTrace, OnlyTheLastCharacterOfAFragmentEndsALine) {
    debug_trace& trace = debug_trace::instance();
    size_t mark = trace_file().size();
    trace.write("").write("first\nsecond");
    EXPECT_EQ(since(mark), "") << "an inner newline must not end the line";
    trace.write("\n");
    std::string line = since(mark);
    EXPECT_EQ(line.substr(8), "first\nsecond\n");

    mark = trace_file().size();
    trace.write("carriage\r").write("both\r\n");
    std::string two = since(mark);
    ASSERT_EQ(two.size(), 8 + 9 + 8 + 6u);
    EXPECT_EQ(two.substr(8, 9), "carriage\r");
    EXPECT_TRUE(stamped(two.substr(17)));
    EXPECT_EQ(two.substr(25), "both\r\n");
}

TEST(DebugTrace, EmptyFragmentTakesNoStamp) {
    debug_trace& trace = debug_trace::instance();
    size_t mark = trace_file().size();
    trace.write("");
    trace.write("\n");  // a line holding only its stamp and the newline
    EXPECT_EQ(since(mark).size(), 9u);
}

// Closing is final for the process, so it is tried in a child.
TEST(DebugTraceDeathTest, LinesAfterCloseAreDroppedAndCloseIsIdempotent) {
    EXPECT_EXIT(
        {
            debug_trace& trace = debug_trace::instance();
            trace.write("pending without end");
            size_t mark = trace_file().size();
            trace.close();
            trace.close();
            trace.write(" now ended\n");
            std::exit(since(mark).empty() ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}
