// Runs inside the device root: the state files and /tolven/local are real.
#include "state/update_error.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <chrono>
#include <thread>

#include "device_files.h"
#include "state/update_status.h"
#include "support/debug_trace.h"
#include "support/device_paths.h"

namespace {

const std::string saved_log = std::string(paths::persistent_dir) + "updater-cgi.log";
const std::string saved_trace = std::string(paths::persistent_dir) + "updater-cgi.debug";

void clear_all() {
    for (const char* path :
         {paths::log_file, paths::trace_file, paths::lock_file, paths::status_file}) {
        ::unlink(path);
    }
    ::unlink(saved_log.c_str());
    ::unlink(saved_trace.c_str());
}

TEST(UpdateErrorMessages, EveryCodeHasItsTextAndOtherNumbersNone) {
    update_error& error = update_error::instance();
    EXPECT_STREQ(error.message(ERROR_BAD_HTTP_HEADER), "bad/malformed http header");
    EXPECT_STREQ(error.message(ERROR_UPLOAD_TIMEOUT), "upload timeout");
    EXPECT_STREQ(error.message(ERROR_UPDATE_DISABLED), "update feature is disabled");
    EXPECT_STREQ(error.message(ERROR_UPDATE_IN_PROGRESS),
                 "update already in progress, please retry later.");
    EXPECT_STREQ(error.message(ERROR_OUT_OF_MEMORY), "can't allocate memory");
    for (int code : {0, 11, -1})
        EXPECT_STREQ(error.message(code), "") << code;
}

// Each case runs the ending in a child, as a fresh process would.
class EndUpdate : public ::testing::Test {
  protected:
    void SetUp() override { clear_all(); }
    void TearDown() override { clear_all(); }

    // The trace is opened by the child that writes to it, never by this
    // process, so every child gets a trace file of its own path.
    static void seed_state_files() {
        write_file(paths::lock_file, "1");
        write_file(paths::status_file, "2");
    }
};

TEST_F(EndUpdate, SavesTheErrorEntryAndClearsEveryStateFile) {
    seed_state_files();
    EXPECT_EXIT(
        {
            debug_trace::instance().write("before the end\n");
            update_status::instance().add_line("reassembling data ...", 40);
            std::exit(-update_error::instance().end_update_with_error(ERROR_UPLOAD_TIMEOUT));
        },
        ::testing::ExitedWithCode(6), "");
    const std::string log = read_file(saved_log);
    const std::string tail = ":40] ERROR: upload timeout<br>";
    ASSERT_GE(log.size(), tail.size()) << log;
    EXPECT_EQ(log.substr(log.size() - tail.size()), tail);
    EXPECT_NE(read_file(saved_trace).find("before the end\n"), std::string::npos);
    for (const char* path :
         {paths::log_file, paths::trace_file, paths::lock_file, paths::status_file}) {
        EXPECT_FALSE(file_exists(path)) << path;
    }
}

TEST_F(EndUpdate, FirstEntryOfAProcessHasNoPercentageAndUnknownCodesNoText) {
    EXPECT_EXIT(
        std::exit(-update_error::instance().end_update_with_error(ERROR_UPDATE_IN_PROGRESS)),
        ::testing::ExitedWithCode(10), "");
    EXPECT_EQ(read_file(saved_log).substr(8),
              "] ERROR: update already in progress, please retry later.<br>");
    EXPECT_EQ(read_file(saved_log).substr(0, 7), "[000.00");

    EXPECT_EXIT(std::exit(-update_error::instance().end_update_with_error(11)),
                ::testing::ExitedWithCode(11), "");
    EXPECT_EQ(read_file(saved_log).substr(9), " ERROR: <br>");
}

TEST_F(EndUpdate, TheLogOutlivesTheOtherFilesByThePause) {
    seed_state_files();
    pid_t child = ::fork();
    if (child == 0) {
        debug_trace::instance().write("child\n");
        ::_exit(-update_error::instance().end_update_with_error(ERROR_UPLOAD_ABORTED));
    }

    using clock = std::chrono::steady_clock;
    auto deadline = clock::now() + std::chrono::seconds(10);
    // The status file goes last of the three.
    while (file_exists(paths::status_file) && clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    auto others_gone = clock::now();
    EXPECT_FALSE(file_exists(paths::trace_file));
    EXPECT_FALSE(file_exists(paths::lock_file));
    EXPECT_TRUE(file_exists(paths::log_file)) << "the final entry must stay readable";
    EXPECT_NE(read_file(paths::log_file).find("ERROR: upload aborted<br>"), std::string::npos);

    int status = 0;
    ::waitpid(child, &status, 0);
    EXPECT_EQ(WEXITSTATUS(status), 3);
    EXPECT_FALSE(file_exists(paths::log_file));
    EXPECT_GE(clock::now() - others_gone, std::chrono::milliseconds(1300));
}

TEST_F(EndUpdate, ASecondEndingInTheSameProcessReachesNoReader) {
    seed_state_files();
    EXPECT_EXIT(
        {
            update_error& error = update_error::instance();
            int first = error.end_update_with_error(ERROR_UPLOAD_TIMEOUT);
            int second = error.end_update_with_error(ERROR_UPLOAD_ABORTED);
            std::exit(first == -6 && second == -3 ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
    const std::string log = read_file(saved_log);
    EXPECT_NE(log.find("ERROR: upload timeout<br>"), std::string::npos);
    EXPECT_EQ(log.find("upload aborted"), std::string::npos) << log;
    EXPECT_FALSE(file_exists(paths::log_file));
}

TEST_F(EndUpdate, SaveFilesCopiesLogAndTraceAndTouchesNothingElse) {
    write_file(paths::log_file, "[000.000:1] waiting for file ...<br>");
    write_file(paths::lock_file, "1");
    EXPECT_EXIT(
        {
            debug_trace::instance().write("saved line\n");
            update_status::instance().save_files();
            std::exit(0);
        },
        ::testing::ExitedWithCode(0), "");
    EXPECT_EQ(read_file(saved_log), "[000.000:1] waiting for file ...<br>");
    EXPECT_NE(read_file(saved_trace).find("saved line\n"), std::string::npos);
    EXPECT_TRUE(file_exists(paths::lock_file));
    EXPECT_TRUE(file_exists(paths::log_file));
}

}  // namespace
