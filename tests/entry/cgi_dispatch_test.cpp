// The five kinds of request, black-box: the real program in a device root.
#include <gtest/gtest.h>

#include <csignal>
#include <thread>

#include "cgi_test_support.h"

namespace {

class Dispatch : public ::testing::Test {
  protected:
    run_result get(const char* query) { return root.run(get_request(query)); }
    run_result with_method(const char* method) {
        run_options options = get_request("request=1");
        options.env[0].second = method;
        return root.run(options);
    }
    device_root root;
};

TEST_F(Dispatch, OnlyGetAndPostPrefixesAreRequests) {
    for (const char* ignored : {"get", "HEAD", "PUT", "GE", "", "OPTIONS"}) {
        run_result result = with_method(ignored);
        EXPECT_EQ(result.out, "") << ignored;
        EXPECT_EQ(result.exit_status, 0) << ignored;
    }
    EXPECT_FALSE(root.exists(log_path)) << "an ignored method touches no state file";

    run_options no_method;
    EXPECT_EQ(root.run(no_method).out, "");
    EXPECT_EQ(with_method("GETX").out, "[000.000:1] waiting for file ...<br>");
}

TEST_F(Dispatch, QueryWordsAreFoundAnywhereAndRebootComesFirst) {
    EXPECT_EQ(get("x=statusbar").out, "STATUS_FREE");
    EXPECT_EQ(get("status=1").out, "STATUS_FREE");
    EXPECT_TRUE(root.record().empty());

    run_result both = get("status=1&reboot=1");
    EXPECT_EQ(both.out, "");
    EXPECT_EQ(root.record(), (std::vector<std::string>{"sudo /sbin/reboot", "reboot"}));

    EXPECT_EQ(get("").out, "[000.000:1] waiting for file ...<br>") << "empty query is progress";
    EXPECT_EQ(get("request=1").out, "[000.000:1] waiting for file ...<br>")
        << "the entry is written once";
}

TEST_F(Dispatch, LockStateAnswersOneBareWord) {
    EXPECT_EQ(get("status=1").out, "STATUS_FREE");
    EXPECT_FALSE(root.exists(status_path));

    root.write(lock_path, "1");
    root.write(upload_file_path, "partial body");
    root.write(status_path, "1");
    EXPECT_EQ(get("status=1").out, "STATUS_BUSY") << "lighttpd is still receiving";
    EXPECT_TRUE(root.exists(lock_path));

    root.remove(upload_file_path);
    root.write(status_path, "2");
    EXPECT_EQ(get("status=1").out, "STATUS_BUSY") << "the POST runs the update";
    EXPECT_EQ(root.read(status_path), "2");

    root.remove(status_path);
    EXPECT_EQ(get("status=1").out, "STATUS_BUSY") << "unknown state is the safe side";
    EXPECT_TRUE(root.exists(lock_path));
}

TEST_F(Dispatch, LockStateClearsALockNoUploadTookOver) {
    root.write(lock_path, "1");
    root.write(status_path, "1");
    run_result result = get("status=1");
    EXPECT_EQ(result.out, "STATUS_FREE");
    EXPECT_EQ(result.exit_status, 0);
    EXPECT_FALSE(root.exists(lock_path));
    EXPECT_TRUE(root.exists(status_path));
    EXPECT_EQ(root.read(status_path), "");
}

TEST_F(Dispatch, FirstProgressPollThatSeesAnUploadTakesTheLock) {
    root.write(upload_file_path, "");
    run_result result = get("request=1");
    EXPECT_EQ(result.exit_status, 0);
    EXPECT_EQ(result.out, "[000.000:10] receiving package file ...<br>");
    EXPECT_EQ(root.read(lock_path), "1");
    EXPECT_EQ(root.read(status_path), "1");

    EXPECT_EQ(get("request=1").out, result.out) << "later polls only print the log";
    EXPECT_EQ(get("status=1").out, "STATUS_BUSY");
}

TEST_F(Dispatch, UploadWhileLockedWithoutLogEndsWithError10) {
    root.write(upload_file_path, "");
    root.write(lock_path, "1");
    root.write(status_path, "2");
    run_result result = get("request=1");
    EXPECT_EQ(result.exit_status, 246);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(root.read(saved_log_path).substr(8),
              "] ERROR: update already in progress, please retry later.<br>");
    EXPECT_NE(root.read(saved_trace_path).find("updater_lock() can't lock\n"), std::string::npos);
    for (const std::string& path : {lock_path, status_path, log_path, trace_path}) {
        EXPECT_FALSE(root.exists(path)) << path;
    }
}

TEST_F(Dispatch, ResetReturnsTheDeviceToIdleAndKeepsCopies) {
    root.write(lock_path, "1");
    root.write(status_path, "1");
    root.write(log_path, "[000.000:1] waiting for file ...<br>");
    run_result result = get(nullptr);
    EXPECT_EQ(result.exit_status, 0);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(root.read(saved_log_path), "[000.000:1] waiting for file ...<br>");
    for (const std::string& path : {lock_path, status_path, log_path, trace_path}) {
        EXPECT_FALSE(root.exists(path)) << path;
    }
    EXPECT_TRUE(root.record().empty()) << "a reset runs no device command";
}

TEST_F(Dispatch, ResetWithoutPersistentDirectoryStillClearsTheState) {
    root.write(lock_path, "1");
    root.write(log_path, "[000.000:1] waiting for file ...<br>");
    run_options reset = get_request(nullptr);
    reset.no_persistent = true;
    run_result result = root.run(reset);
    EXPECT_EQ(result.exit_status, 0);
    EXPECT_FALSE(root.exists(lock_path));
    EXPECT_FALSE(root.exists(log_path));
}

TEST_F(Dispatch, RebootSavesTheLogsAndLeavesTheStateAlone) {
    root.write(lock_path, "1");
    root.write(log_path, "[000.000:1] waiting for file ...<br>");
    EXPECT_EQ(root.run(as_user(get_request("reboot=1"), 1000)).out, "");
    EXPECT_EQ(root.record_detail(),
              (std::vector<std::string>{"uid=1000 sudo /sbin/reboot", "uid=1000 reboot"}));
    EXPECT_EQ(root.read(saved_log_path), "[000.000:1] waiting for file ...<br>");
    EXPECT_TRUE(root.exists(lock_path));
    EXPECT_TRUE(root.exists(log_path));
}

TEST_F(Dispatch, ReadOnlyLogStillAnswersEveryRequest) {
    auto read_only = [](run_options options) {
        options.readonly_log = true;
        return options;
    };
    run_result lock_state = root.run(read_only(get_request("status=1")));
    EXPECT_EQ(lock_state.out, "STATUS_FREE");
    EXPECT_EQ(lock_state.exit_status, 0);
    run_result progress = root.run(read_only(get_request("request=1")));
    EXPECT_EQ(progress.out, "");
    EXPECT_EQ(progress.exit_status, 0);

    root.write(upload_file_path, "");
    run_result cannot_lock = root.run(read_only(get_request("request=1")));
    EXPECT_EQ(cannot_lock.exit_status, 246);
    EXPECT_EQ(cannot_lock.out, "");
    EXPECT_FALSE(root.exists(lock_path));
    EXPECT_FALSE(root.exists(trace_path));
}

TEST_F(Dispatch, TerminationReleasesTheLockAndKeepsTheState) {
    root.write(lock_path, "1");
    run_options post = post_request(std::string(100, 'x'), "b");
    post.stdin_data.clear();  // fed by hand below
    device_root::process update = root.spawn(post);
    update.write_stdin("--b\r\nContent-Disposition: form-data; name=\"f\"; filename=\"x\"\r\n\r\n");
    for (int i = 0; i < 200 && root.read(status_path) != "2"; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    update.write_stdin(std::string(600, 'x'));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    update.kill(SIGTERM);
    run_result result = update.wait();
    EXPECT_EQ(result.exit_status, 0);
    EXPECT_EQ(result.out, "");
    EXPECT_FALSE(root.exists(lock_path));
    EXPECT_EQ(root.read(status_path), "2");
}

}  // namespace
