// Whole updates as they happen under the web server: polls, then the POST
// with the multipart body, then polls again. The real program, the fake
// device tools.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <random>
#include <thread>

#include "cgi_test_support.h"
#include "upload/multipart_body.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

std::string sha256_of(device_root& root, const std::string& device_path) {
    run_result sum = root.run_command({"sh", "-c", "sha256sum < " + device_path}, run_options{});
    return sum.out.substr(0, 64);
}

class WholeUpdate : public ::testing::Test {
  protected:
    // The page polls before it posts, then while lighttpd receives the body.
    void announce_upload() {
        ASSERT_EQ(root.run(get_request("request=1")).out, "[000.000:1] waiting for file ...<br>");
        root.write(upload_file_path, "partial");
        ASSERT_EQ(root.run(get_request("request=1")).exit_status, 0);
        ASSERT_EQ(root.read(status_path), "1");
        root.remove(upload_file_path);  // lighttpd hands the body over
    }
    device_root root;
};

class WholeUpdateAs : public WholeUpdate, public ::testing::WithParamInterface<int> {};

TEST_P(WholeUpdateAs, InstallsExactlyTheUploadedBytesThenReboots) {
    const int uid = GetParam();
    {
        root.set_uci_value("true");
        const std::string content = awkward_content(5 * 1024 * 1024 + 3, uid + 1);
        root.write("/tmp/expected", content);
        const std::string expected_sum = sha256_of(root, "/tmp/expected");
        announce_upload();

        device_root::process post =
            root.spawn(as_user(post_request(form_with_file(content), test_boundary), uid));
        post.write_stdin(form_with_file(content));
        post.close_stdin();

        // Polls while the update runs: the lock stays busy throughout.
        std::string success_seen_log;
        steady_clock::time_point success_seen;
        for (int i = 0; i < 400 && success_seen_log.empty(); ++i) {
            EXPECT_EQ(root.run(get_request("status=1")).out, "STATUS_BUSY");
            std::string log = root.run(get_request("request=1")).out;
            if (log.find("firmware successfully loaded") != std::string::npos) {
                success_seen_log = log;
                success_seen = steady_clock::now();
            }
            std::this_thread::sleep_for(milliseconds(50));
        }
        ASSERT_FALSE(success_seen_log.empty());
        run_result result = post.wait();
        EXPECT_GE(steady_clock::now() - success_seen, milliseconds(9000))
            << "the lock is held through the final pause";
        EXPECT_EQ(result.exit_status, 0);
        EXPECT_EQ(result.out, "");

        const std::string sudo = uid == 0 ? "" : "sudo ";
        std::vector<std::string> expected = {
            "sudo /usr/local/sbin/preupdate.sh",
            "preupdate.sh",
            "uci get security.update.enabled",
        };
        if (uid != 0) expected.push_back("sudo /etc/init.d/application stop");
        expected.push_back("application stop");
        if (uid != 0) expected.push_back("sudo /usr/local/sbin/updater -f " + package_path);
        expected.push_back("updater -f " + package_path + " sha256=" + expected_sum +
                           " size=" + std::to_string(content.size()));
        if (uid != 0) expected.push_back("sudo /sbin/reboot");
        expected.push_back("reboot");
        EXPECT_EQ(root.record(), expected);

        const char* entries[] = {":1] waiting for file ...<br>",
                                 ":10] receiving package file ...<br>",
                                 ":40] reassembling data ...<br>",
                                 ":50] package file received<br>",
                                 ":60] stopping the application ...<br>",
                                 ":80] installing package file ...<br>",
                                 ":100] update completed<br>",
                                 (":100] <font color=#2020ff><b>update completed, firmware "
                                  "successfully loaded<br>")};
        const std::string saved = root.read(saved_log_path);
        size_t at = 0;
        for (const char* entry : entries) {
            size_t found = saved.find(entry, at);
            ASSERT_NE(found, std::string::npos) << entry << " in " << saved;
            at = found;
        }
        EXPECT_EQ(saved.size(), at + std::strlen(entries[7]));
        EXPECT_EQ(saved, root.read(log_path)) << "a successful update leaves its log in place";

        const std::string trace = root.read(saved_trace_path);
        const char* lines[] = {"main() : POST received, getting the file from lighttpd\n",
                               "do_update_process() : security.update.enabled=true\n",
                               "do_update_process() : upload start ...\n",
                               "uploader::run() : entering\n",
                               "uploader::run() : upload completed\n",
                               "do_update_process() : upload completed ...\n",
                               "do_update_process() : install started ...\n",
                               "installer::install() : entering\n",
                               "installer::install() : install command: ",
                               "installer::install() : PKG file installed\n",
                               "do_update_process() : install completed ...\n"};
        at = 0;
        for (const char* line : lines) {
            size_t found = trace.find(line, at);
            ASSERT_NE(found, std::string::npos) << line << " in " << trace;
            at = found;
        }
        EXPECT_NE(trace.find("install command: " + sudo + "/usr/local/sbin/updater -f " +
                             package_path + "\n"),
                  std::string::npos);
        EXPECT_FALSE(root.exists(lock_path));
        EXPECT_EQ(root.read(status_path), "2");
        EXPECT_FALSE(root.exists(package_path));
    }
}

INSTANTIATE_TEST_SUITE_P(RootAndUser, WholeUpdateAs, ::testing::Values(0, 1000));

// Each failing ending: exit status, what the user sees, a free lock.
class FailedUpdate : public WholeUpdate {
  protected:
    void expect_ended(const run_result& result, int status, const std::string& message) {
        EXPECT_EQ(result.exit_status, status);
        EXPECT_EQ(result.out, "");
        const std::string saved = root.read(saved_log_path);
        const std::string tail = "ERROR: " + message + "<br>";
        ASSERT_GE(saved.size(), tail.size()) << saved;
        EXPECT_EQ(saved.substr(saved.size() - tail.size()), tail);
        EXPECT_EQ(root.run(get_request("status=1")).out, "STATUS_FREE");
        for (const std::string& path : {lock_path, status_path, log_path}) {
            EXPECT_FALSE(root.exists(path)) << path;
        }
    }
};

TEST_F(FailedUpdate, DisabledUpdatesReadNoBody) {
    root.set_uci_value("false");
    announce_upload();
    run_result result = root.run(post_request(form_with_file("pkg"), test_boundary));
    expect_ended(result, 247, "update feature is disabled");
    EXPECT_EQ(root.record().back(), "uci get security.update.enabled");
    EXPECT_NE(
        root.read(saved_trace_path).find("do_update_process() : security.update.enabled=false\n"),
        std::string::npos);
}

TEST_F(FailedUpdate, OnlyTheExactWordFalseDisables) {
    root.set_uci_value("False");
    run_result result = root.run(post_request("no form at all", test_boundary));
    expect_ended(result, 253, "upload aborted");
}

TEST_F(FailedUpdate, BadRequestIsLoggedAsBadHeaderAndEndsAsAborted) {
    announce_upload();
    run_options post = post_request(form_with_file("pkg"), test_boundary);
    post.env[2].second = "text/plain";
    run_result result = root.run(post);
    EXPECT_EQ(result.exit_status, 253);
    EXPECT_NE(root.read(saved_log_path).find("ERROR: bad/malformed http header<br>"),
              std::string::npos);
    EXPECT_EQ(root.run(get_request("status=1")).out, "STATUS_FREE");
}

TEST_F(FailedUpdate, InstallerFailureKeepsThePackage) {
    root.set_installer_status(1);
    announce_upload();
    run_result result = root.run(post_request(form_with_file("pkg"), test_boundary));
    expect_ended(result, 251, "installation failed");
    EXPECT_EQ(root.read(package_path), "pkg");
    const std::string trace = root.read(saved_trace_path);
    EXPECT_EQ(trace.find("PKG file installed"), std::string::npos);
    EXPECT_NE(
        trace.rfind("install command: /usr/local/sbin/updater -f /tmp/updater-cgi-temp.pkg\n"),
        std::string::npos);
}

TEST_F(FailedUpdate, StalledBodyTimesOutAndFreesTheLock) {
    announce_upload();
    run_options post = post_request(form_with_file("pkg"), test_boundary);
    post.stdin_data.clear();
    device_root::process update = root.spawn(post);
    update.write_stdin(file_part_header() + std::string(5000, 'x'));
    auto stalled = steady_clock::now();
    run_result result = update.wait(false);
    EXPECT_GE(steady_clock::now() - stalled, milliseconds(1900));
    expect_ended(result, 250, "upload timeout");
    EXPECT_NE(root.read(saved_log_path).find(":40] ERROR: upload timeout<br>"), std::string::npos);
}

TEST_F(FailedUpdate, SteadySlowBodyNeverTimesOut) {
    const std::string content = awkward_content(6000);
    run_options post = post_request(form_with_file(content), test_boundary);
    post.stdin_data.clear();
    device_root::process update = root.spawn(post);
    const std::string body = form_with_file(content);
    update.write_stdin(body.substr(0, file_part_header().size()));
    // 512 bytes every 0.5 s for over 3 s: every read completes in time.
    for (size_t at = file_part_header().size(); at < body.size(); at += 512) {
        std::this_thread::sleep_for(milliseconds(500));
        update.write_stdin(body.substr(at, 512));
    }
    update.close_stdin();
    run_result result = update.wait();
    EXPECT_EQ(result.exit_status, 0);
    EXPECT_NE(root.record().back().find("reboot"), std::string::npos);
}

TEST_F(FailedUpdate, StallBeforeTheFilePartIsNotTheWatchdogs) {
    run_options post = post_request(form_with_file("pkg"), test_boundary);
    post.stdin_data.clear();
    device_root::process update = root.spawn(post);
    update.write_stdin("--" + test_boundary + "\r\nContent-Disposition: form-data; name=\"x\"\r\n");
    std::this_thread::sleep_for(milliseconds(3000));
    update.write_stdin("\r\nvalue\r\n" + form_with_file("late"));
    update.close_stdin();
    run_result result = update.wait();
    EXPECT_EQ(result.exit_status, 0);
    EXPECT_NE(root.record().back().find("reboot"), std::string::npos);
}

}  // namespace
