// The rig itself: what a test sets up and reads back through device_root is
// what a program inside the root sees and does.
#include "device_root.h"

#include <signal.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using strings = std::vector<std::string>;

strings probe(strings args) {
    strings cmd = device_root::program_command(RIG_PROBE);
    cmd.insert(cmd.end(), args.begin(), args.end());
    return cmd;
}

strings lines(const std::string& text) {
    strings result;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        result.push_back(line);
    return result;
}

const char abc_sha256[] = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";

// The commands exactly as the updater hands them to system().
const strings update_commands = {
    "/sbin/uci get security.update.enabled > /var/tmp/uci_output",
    "sudo /usr/local/sbin/preupdate.sh",
    "/etc/init.d/application stop",
    "/usr/local/sbin/updater -f /tmp/updater-cgi-temp.pkg",
    " /sbin/reboot",
    "sudo  /sbin/reboot",
};

TEST(Fakes, RecordTheUpdatersCommandsInOrder) {
    device_root root;
    root.set_uci_value("false");
    root.set_installer_status(3);
    root.write("/tmp/updater-cgi-temp.pkg", "abc");
    strings args = {"system"};
    args.insert(args.end(), update_commands.begin(), update_commands.end());
    const run_result r = root.run_command(probe(args), {});
    // Raw system() statuses: only the installer's exit status is non-zero.
    EXPECT_EQ(r.out, "0\n0\n0\n768\n0\n0\n");
    EXPECT_EQ(r.exit_status, 0);
    EXPECT_EQ(root.read("/var/tmp/uci_output"), "false\n");
    EXPECT_EQ(root.record(), (strings{
                                 "uci get security.update.enabled",
                                 "sudo /usr/local/sbin/preupdate.sh",
                                 "preupdate.sh",
                                 "application stop",
                                 std::string("updater -f /tmp/updater-cgi-temp.pkg sha256=") +
                                     abc_sha256 + " size=3",
                                 "reboot",
                                 "sudo /sbin/reboot",
                                 "reboot",
                             }));
    EXPECT_EQ(root.record_detail().front(), "uid=0 uci get security.update.enabled");
}

TEST(Fakes, OrdinaryUserAndMissingSettings) {
    device_root root;
    run_options as_user;
    as_user.uid = 1000;
    EXPECT_EQ(root.run_command(probe({"uid"}), as_user).out, "1000\n");

    const run_result r = root.run_command(
        probe({"system", update_commands[0], "sudo " + std::string(update_commands[3])}), as_user);
    EXPECT_EQ(r.out, "256\n0\n");
    EXPECT_NE(r.err.find("uci: Entry not found\n"), std::string::npos);
    // Made by the user inside, still readable outside.
    EXPECT_TRUE(root.exists("/var/tmp/uci_output"));
    EXPECT_EQ(root.read("/var/tmp/uci_output"), "");
    EXPECT_EQ(root.record_detail(), (strings{
                                        "uid=1000 uci get security.update.enabled",
                                        "uid=1000 sudo /usr/local/sbin/updater -f "
                                        "/tmp/updater-cgi-temp.pkg",
                                        "uid=1000 updater -f /tmp/updater-cgi-temp.pkg missing",
                                    }));
}

TEST(Fakes, DelaysAreHonoured) {
    device_root root;
    root.set_installer_delay(0.3);
    root.set_preupdate_delay(0.3);
    const auto start = std::chrono::steady_clock::now();
    root.run_command(probe({"system", "/usr/local/sbin/preupdate.sh",
                            "/usr/local/sbin/updater -f /tmp/updater-cgi-temp.pkg"}),
                     {});
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(600));
}

TEST(Layout, LogPersistentDirectoryAndEnvironment) {
    device_root root;
    const strings touch_log = {"/bin/sh", "-c", "echo x > /var/log/updater-cgi.lock"};
    EXPECT_EQ(root.run_command(touch_log, {}).exit_status, 0);
    EXPECT_EQ(root.read("/var/log/updater-cgi.lock"), "x\n");
    root.remove("/var/log/updater-cgi.lock");

    run_options readonly;
    readonly.readonly_log = true;
    EXPECT_NE(root.run_command(touch_log, readonly).exit_status, 0);
    EXPECT_FALSE(root.exists("/var/log/updater-cgi.lock"));

    root.write("/tolven/local/kept", "k");
    EXPECT_EQ(root.run_command({"/bin/cat", "/tolven/local/kept"}, {}).out, "k");
    run_options gone;
    gone.no_persistent = true;
    EXPECT_EQ(root.run_command({"/bin/sh", "-c", "test -e /tolven/local"}, gone).exit_status, 1);

    run_options cgi;
    cgi.env = {{"REQUEST_METHOD", "GET"}, {"QUERY_STRING", "status=1"}};
    // Exactly the given variables (in no particular order): no PATH, no PWD.
    // Sanitizer settings of a sanitizer build are passed on too; leave them out.
    std::string env;
    for (const std::string& line : lines(root.run_command(probe({"env"}), cgi).out)) {
        if (line.find("SAN_") == std::string::npos) env += line + "\n";
    }
    EXPECT_TRUE(env == "REQUEST_METHOD=GET\nQUERY_STRING=status=1\n" ||
                env == "QUERY_STRING=status=1\nREQUEST_METHOD=GET\n")
        << env;
}

TEST(Results, ExitStatusesAndBytesComeBackExactly) {
    device_root root;
    EXPECT_EQ(root.run_command(probe({"exit", "-10"}), {}).exit_status, 246);
    EXPECT_EQ(root.run_command(probe({"exit", "0"}), {}).exit_status, 0);
    // A signal no sanitizer runtime catches.
    EXPECT_EQ(root.run_command(probe({"raise", std::to_string(SIGUSR1)}), {}).exit_status,
              128 + SIGUSR1);

    // Several MiB through a pipe both ways at once, zero bytes included.
    run_options big;
    big.stdin_data.resize(5 << 20);
    std::mt19937 gen(7);
    for (char& c : big.stdin_data)
        c = static_cast<char>(gen() & 0xff);
    big.stdin_data[0] = '\0';
    const run_result r = root.run_command(probe({"cat"}), big);
    EXPECT_EQ(r.exit_status, 0);
    EXPECT_TRUE(r.out == big.stdin_data) << "output differs, " << r.out.size() << " bytes";
}

TEST(Results, SpawnedProcessesAreSignalledByPid) {
    device_root root;
    device_root::process first = root.spawn_command(probe({"wait", "/tmp/first"}), {});
    run_options as_user;
    as_user.uid = 1000;
    device_root::process second = root.spawn_command(probe({"wait", "/tmp/second"}), as_user);
    ASSERT_GT(first.pid(), 0);
    ASSERT_GT(second.pid(), 0);
    EXPECT_NE(first.pid(), second.pid());
    for (int i = 0; i < 2000 && !(root.exists("/tmp/first") && root.exists("/tmp/second")); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    first.kill(SIGTERM);
    second.kill(SIGINT);
    const run_result a = first.wait();
    const run_result b = second.wait();
    EXPECT_EQ(a.exit_status, 128 + SIGTERM);
    EXPECT_EQ(b.exit_status, 128 + SIGINT);
    // The pid the test signals is the program's own, not bwrap's.
    EXPECT_EQ(a.out, "ready " + std::to_string(first.pid()) + "\n");

    // A child left behind holding stdout does not hold up the result.
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(root.run_command({"/bin/sh", "-c", "sleep 3 & exit 4"}, {}).exit_status, 4);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));

    run_options brief;
    brief.timeout_seconds = 0.3;
    const run_result hung = root.run_command(probe({"wait", "/tmp/hung"}), brief);
    EXPECT_TRUE(hung.timed_out);
    EXPECT_EQ(hung.exit_status, 128 + SIGKILL);
}

TEST(Updater, RunsInTheRootWithTheFixedPaths) {
    device_root root;
    run_options lock_state;
    lock_state.env = {{"REQUEST_METHOD", "GET"}, {"QUERY_STRING", "status=1"}};
    const run_result r = root.run(lock_state);
    EXPECT_EQ(r.out, "STATUS_FREE");
    EXPECT_EQ(r.exit_status, 0);
    EXPECT_TRUE(root.exists("/var/log/updater-cgi.debug"));
}

}  // namespace
