// Runs inside the device root: the status file and the log are the real ones.
#include "state/update_status.h"

#include <gtest/gtest.h>
#include <regex>

#include "device_files.h"
#include "support/device_paths.h"

namespace {

class StatusFile : public ::testing::Test {
  protected:
    void SetUp() override { ::unlink(paths::status_file); }
    update_status& status = update_status::instance();
};

TEST_F(StatusFile, HoldsExactlyOneDigitForTheTwoBusyStates) {
    status.set_state(STATE_RECEIVING);
    status.set_state(STATE_UPDATING);
    EXPECT_EQ(read_file(paths::status_file), "2");
    EXPECT_EQ(status.get_state(), STATE_UPDATING);
    status.set_state(STATE_RECEIVING);
    EXPECT_EQ(read_file(paths::status_file), "1");
    EXPECT_EQ(status.get_state(), STATE_RECEIVING);
}

TEST_F(StatusFile, AnyOtherStateLeavesAnEmptyFile) {
    for (int state : {0, 7, -1}) {
        status.set_state(STATE_UPDATING);
        status.set_state(state);
        EXPECT_TRUE(file_exists(paths::status_file));
        EXPECT_EQ(read_file(paths::status_file), "") << state;
        EXPECT_EQ(status.get_state(), STATE_IDLE) << state;
    }
}

TEST_F(StatusFile, ReadsNumbersWrittenBySomethingElse) {
    EXPECT_EQ(status.get_state(), STATE_IDLE);
    EXPECT_FALSE(file_exists(paths::status_file)) << "reading creates nothing";
    const std::pair<const char*, int> cases[] = {{"2\n", 2}, {" 1", 1},  {"x1", 0},
                                                 {"", 0},    {"12", 12}, {"-3", -3}};
    for (const auto& [content, expected] : cases) {
        write_file(paths::status_file, content);
        EXPECT_EQ(status.get_state(), expected) << '"' << content << '"';
    }
}

TEST_F(StatusFile, ReplacesTheFileRatherThanRewritingIt) {
    write_file(paths::status_file, "2 and some old text");
    struct stat before {};
    ASSERT_EQ(::stat(paths::status_file, &before), 0);
    std::string keep = std::string(paths::status_file) + ".old";
    ASSERT_EQ(::link(paths::status_file, keep.c_str()), 0);
    status.set_state(STATE_RECEIVING);
    EXPECT_EQ(read_file(keep), "2 and some old text") << "the old inode must be left alone";
    EXPECT_EQ(read_file(paths::status_file), "1");
    ::unlink(keep.c_str());
}

// The update log of one process, in a child so that each case starts with a
// fresh status object (percentage 0, stamps from 000.000).
class UpdateLog : public ::testing::Test {
  protected:
    void SetUp() override { ::unlink(paths::log_file); }
    template <typename Steps>
    static void in_fresh_process(Steps steps) {
        EXPECT_EXIT(
            {
                steps(update_status::instance());
                std::exit(0);
            },
            ::testing::ExitedWithCode(0), "");
    }
};

TEST_F(UpdateLog, EntriesCarryStampPercentAndBreak) {
    in_fresh_process([](update_status& status) {
        status.add_line("waiting for file ...", 1);
        status.add_line("receiving package file ...", 10);
    });
    // The second stamp counts from the first: a few milliseconds at most.
    EXPECT_TRUE(
        std::regex_match(read_file(paths::log_file),
                         std::regex(R"(\[000\.000:1\] waiting for file \.\.\.<br>)"
                                    R"(\[000\.0\d\d:10\] receiving package file \.\.\.<br>)")))
        << read_file(paths::log_file);
}

TEST_F(UpdateLog, NoPercentageMeansNoColon) {
    in_fresh_process([](update_status& status) {
        status.add_error("update already in progress, please retry later.");
        status.add_line("zero", 0);
        status.add_line("after zero", 0);
    });
    std::string log = read_file(paths::log_file);
    EXPECT_EQ(log.substr(0, 10), "[000.000] ");
    EXPECT_EQ(log.substr(10, 60), "ERROR: update already in progress, please retry later.<br>[0");
    EXPECT_EQ(log.find(':', 70), std::string::npos) << log;
}

TEST_F(UpdateLog, ErrorKeepsTheLatestPercentageAndSuccessHasItsMarkup) {
    in_fresh_process([](update_status& status) {
        status.add_line("reassembling data ...", 40);
        status.add_error("upload timeout");
        status.add_result(true);
        status.add_line("update completed", 100);
        status.add_result(false);
    });
    std::string log = read_file(paths::log_file);
    EXPECT_NE(log.find(":40] ERROR: upload timeout<br>["), std::string::npos) << log;
    const std::string success =
        ":100] <font color=#2020ff><b>update completed, firmware successfully loaded<br>";
    ASSERT_GE(log.size(), success.size());
    EXPECT_EQ(log.substr(log.size() - success.size()), success);
    EXPECT_EQ(log.find("ERROR", log.find("ERROR") + 1), std::string::npos);
}

TEST_F(UpdateLog, AppendsToWhatOtherProcessesWrote) {
    write_file(paths::log_file, "[000.000:1] waiting for file ...<br>");
    in_fresh_process(
        [](update_status& status) { status.add_line("receiving package file ...", 10); });
    EXPECT_EQ(read_file(paths::log_file),
              "[000.000:1] waiting for file ...<br>[000.000:10] receiving package file ...<br>");
}

TEST_F(UpdateLog, PrintsExactlyTheFileOrNothing) {
    update_status& status = update_status::instance();
    EXPECT_FALSE(status.log_exists());
    ::testing::internal::CaptureStdout();
    status.print_log();
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");

    const std::string log =
        "[000.000:1] waiting for file ...<br>[000.000:10] receiving package file ...<br>";
    write_file(paths::log_file, log);
    EXPECT_TRUE(status.log_exists());
    ::testing::internal::CaptureStdout();
    status.print_log();
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), log);
}

}  // namespace
