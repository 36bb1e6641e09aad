// Runs inside the device root: the lock is the real /var/log file.
#include "state/updater_lock.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include "device_files.h"
#include "support/device_paths.h"

namespace {

class UpdateLock : public ::testing::Test {
  protected:
    void SetUp() override {
        ::rmdir(paths::lock_file);
        ::unlink(paths::lock_file);
    }
    void TearDown() override { SetUp(); }
};

TEST_F(UpdateLock, TakenOnceHoldingOneAndReleasedForGood) {
    EXPECT_FALSE(updater_is_locked());
    EXPECT_TRUE(updater_lock());
    EXPECT_EQ(read_file(paths::lock_file), "1");
    EXPECT_FALSE(updater_lock());
    EXPECT_EQ(read_file(paths::lock_file), "1");
    EXPECT_TRUE(updater_is_locked());
    EXPECT_EQ(updater_unlock(), 0);
    EXPECT_FALSE(updater_is_locked());
    EXPECT_EQ(updater_unlock(), -1) << "a second unlock is harmless";
    EXPECT_TRUE(updater_lock());
}

TEST_F(UpdateLock, AnythingAtThePathCountsAsHeld) {
    write_file(paths::lock_file, "");
    EXPECT_TRUE(updater_is_locked());
    EXPECT_FALSE(updater_lock());
    EXPECT_EQ(read_file(paths::lock_file), "");
    ::unlink(paths::lock_file);

    ASSERT_EQ(::mkdir(paths::lock_file, 0755), 0);
    EXPECT_TRUE(updater_is_locked());
    EXPECT_FALSE(updater_lock());
}

TEST_F(UpdateLock, OfManyProcessesRacingExactlyOneWins) {
    for (int round = 0; round < 20; ++round) {
        ::unlink(paths::lock_file);
        constexpr int racers = 8;
        int go[2];
        ASSERT_EQ(::pipe(go), 0);
        pid_t pids[racers];
        for (pid_t& pid : pids) {
            pid = ::fork();
            if (pid == 0) {
                char start;
                ::close(go[1]);
                (void)!::read(go[0], &start, 1);  // all start together
                ::_exit(updater_lock() ? 1 : 0);
            }
        }
        ::close(go[0]);
        ::close(go[1]);
        int winners = 0;
        for (pid_t pid : pids) {
            int status = 0;
            ::waitpid(pid, &status, 0);
            winners += WEXITSTATUS(status);
        }
        ASSERT_EQ(winners, 1) << "round " << round;
    }
}

}  // namespace
