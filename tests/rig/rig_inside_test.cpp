// Runs inside a device root (add_device_root_test): the fixed paths are the
// root's, and the options the test was registered with show from inside.
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

namespace {
unsigned expected_uid = 0;
bool expect_readonly_log = false;
bool expect_no_persistent = false;

bool can_create(const std::string& path) {
    std::ofstream out(path);
    const bool ok = static_cast<bool>(out << "x");
    out.close();
    if (ok) unlink(path.c_str());
    return ok;
}
}  // namespace

TEST(InsideRoot, RunsAsTheRegisteredUser) {
    EXPECT_EQ(getuid(), expected_uid);
}

TEST(InsideRoot, FixedDirectoriesAreTheRootsOwn) {
    EXPECT_TRUE(can_create("/tmp/updater-cgi-temp.pkg"));
    EXPECT_TRUE(can_create("/var/tmp/uci_output"));
    EXPECT_EQ(can_create("/var/log/updater-cgi.lock"), !expect_readonly_log);
    struct stat st {};
    EXPECT_EQ(stat("/tolven/local", &st) == 0, !expect_no_persistent);
}

TEST(InsideRoot, ShellFindsTheFakes) {
    // As under lighttpd: no PATH, so the shell's default one must reach sudo.
    EXPECT_EQ(getenv("PATH"), nullptr);
    EXPECT_EQ(std::system("sudo /sbin/reboot"), 0);
    std::ifstream record("/run/fake/record");
    std::string first, second;
    std::getline(record, first);
    std::getline(record, second);
    EXPECT_EQ(first, "sudo /sbin/reboot");
    EXPECT_EQ(second, "reboot");
}

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg.rfind("--expect-uid=", 0) == 0) {
            expected_uid = static_cast<unsigned>(std::stoul(arg.substr(13)));
        } else if (arg == "--expect-readonly-log") {
            expect_readonly_log = true;
        } else if (arg == "--expect-no-persistent") {
            expect_no_persistent = true;
        }
    }
    return RUN_ALL_TESTS();
}
