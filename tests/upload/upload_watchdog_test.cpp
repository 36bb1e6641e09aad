// Runs inside a device root: the expiry ends the update for real.
#include "upload/upload_watchdog.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

namespace {

constexpr char lock_file[] = "/var/log/updater-cgi.lock";

// The expiry is under way (it removes the lock first, and ending an update
// takes over 1.5 s) when the main thread stops the watchdog: stop never
// returns, so the two never report together, and the expiry action runs once
// and ends the process.
TEST(UploadWatchdog, StopDuringAnExpiryWaitsForItsEnd) {
    ::close(::open(lock_file, O_WRONLY | O_CREAT, 0666));
    EXPECT_EXIT(
        {
            upload_watchdog watchdog(nullptr);
            watchdog.start();
            for (int i = 0; i < 1000 && ::access(lock_file, F_OK) == 0; ++i)
                ::usleep(10000);
            watchdog.stop();
            std::exit(1);
        },
        ::testing::ExitedWithCode(250), "");
    std::stringstream log;
    log << std::ifstream("/tolven/local/updater-cgi.log").rdbuf();
    EXPECT_EQ(log.str().find("ERROR"), log.str().rfind("ERROR")) << log.str();
    EXPECT_NE(log.str().find("] ERROR: upload timeout<br>"), std::string::npos) << log.str();
}

}  // namespace
