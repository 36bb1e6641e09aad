// Runs inside the device root: the expiry ends the update for real.
#include "upload/upload_watchdog.h"

#include <gtest/gtest.h>
#include <chrono>
#include <thread>

#include "device_files.h"
#include "support/device_paths.h"

namespace {

using std::chrono::milliseconds;

const std::string saved_log = std::string(paths::persistent_dir) + "updater-cgi.log";

class Watchdog : public ::testing::Test {
  protected:
    void SetUp() override {
        write_file(paths::lock_file, "1");
        ::unlink(saved_log.c_str());
    }
    int owner = 0;
};

TEST_F(Watchdog, ExpiryFreesTheLockAndExitsWithTimeout) {
    EXPECT_EXIT(
        {
            upload_watchdog watchdog(&owner);
            watchdog.start();
            std::this_thread::sleep_for(milliseconds(10000));
            std::exit(1);
        },
        ::testing::ExitedWithCode(250), "");
    EXPECT_FALSE(file_exists(paths::lock_file));
    EXPECT_NE(read_file(saved_log).find("] ERROR: upload timeout<br>"), std::string::npos);
}

TEST_F(Watchdog, ReadsThatKeepComingKeepItQuiet) {
    EXPECT_EXIT(
        {
            upload_watchdog watchdog(&owner);
            watchdog.start();
            for (int i = 0; i < 20; ++i) {  // 3 s in all, re-armed every 150 ms
                std::this_thread::sleep_for(milliseconds(150));
                watchdog.rearm();
            }
            watchdog.stop();
            std::this_thread::sleep_for(milliseconds(2500));  // nothing fires after stop
            std::exit(0);
        },
        ::testing::ExitedWithCode(0), "");
    EXPECT_TRUE(file_exists(paths::lock_file));
}

// The expiry is under way (ending an update takes over 1.5 s) when the main
// thread stops the watchdog: stop must not return, so the main thread cannot
// report alongside; the expiry ends the process exactly once.
TEST_F(Watchdog, StopDuringAnExpiryWaitsForTheEnd) {
    EXPECT_EXIT(
        {
            upload_watchdog watchdog(&owner);
            watchdog.start();
            std::this_thread::sleep_for(milliseconds(2300));
            watchdog.stop();
            std::exit(1);
        },
        ::testing::ExitedWithCode(250), "");
    const std::string log = read_file(saved_log);
    EXPECT_EQ(log.find("ERROR"), log.rfind("ERROR")) << "one expiry action only: " << log;
}

TEST_F(Watchdog, WithoutStartTheOtherCallsDoNothing) {
    upload_watchdog watchdog(&owner);
    EXPECT_EQ(watchdog.rearm(), 0);
    EXPECT_EQ(watchdog.stop(), 0);
}

}  // namespace
