// Runs inside the device root, as root and as an ordinary user: the fake
// configuration tool and installer record how they were called.
#include <gtest/gtest.h>

#include "device_files.h"
#include "install/installer.h"
#include "install/uci_get.h"
#include "support/device_paths.h"

namespace {

const std::string fake = "/run/fake/";

std::string recorded() {
    return read_file(fake + "record");
}

class DeviceTools : public ::testing::Test {
  protected:
    void SetUp() override {
        for (const char* name : {"record", "record-detail", "uci-value", "installer-status"}) {
            ::unlink((fake + name).c_str());
        }
    }
};

TEST_F(DeviceTools, ConfigurationValueIsItsFirstWord) {
    const std::pair<const char*, const char*> values[] = {
        {"false", "false"}, {"  true", "true"}, {"two words", "two"}, {"", ""}};
    for (const auto& [stored, expected] : values) {
        write_file(fake + "uci-value", stored);
        EXPECT_EQ(uci_get("security.update.enabled"), expected) << stored;
        EXPECT_FALSE(file_exists(paths::uci_output));
    }
    EXPECT_EQ(recorded(),
              "uci get security.update.enabled\n"
              "uci get security.update.enabled\n"
              "uci get security.update.enabled\n"
              "uci get security.update.enabled\n");
}

TEST_F(DeviceTools, UnknownKeyGivesNothingAndLeavesNoFile) {
    EXPECT_EQ(uci_get("no.such.key"), "");
    EXPECT_FALSE(file_exists(paths::uci_output));
}

TEST_F(DeviceTools, InstallerSuccessRemovesThePackage) {
    write_file(paths::package_file, "firmware");
    ::unlink(paths::log_file);
    EXPECT_TRUE(installer().install());
    EXPECT_FALSE(file_exists(paths::package_file));

    const std::string sudo = ::getuid() == 0 ? "" : "sudo ";
    std::string expected;
    if (!sudo.empty()) expected += "sudo /etc/init.d/application stop\n";
    expected += "application stop\n";
    if (!sudo.empty()) expected += "sudo /usr/local/sbin/updater -f /tmp/updater-cgi-temp.pkg\n";
    EXPECT_EQ(recorded().substr(0, expected.size()), expected);
    EXPECT_NE(recorded().find("updater -f /tmp/updater-cgi-temp.pkg sha256="), std::string::npos);

    const std::string log = read_file(paths::log_file);
    size_t stopping = log.find(":60] stopping the application ...<br>");
    size_t installing = log.find(":80] installing package file ...<br>");
    ASSERT_NE(stopping, std::string::npos) << log;
    ASSERT_NE(installing, std::string::npos) << log;
    EXPECT_LT(stopping, installing);
}

TEST_F(DeviceTools, InstallerFailureKeepsThePackageAndSaysNothingMore) {
    write_file(paths::package_file, "firmware");
    write_file(fake + "installer-status", "1");
    std::string before = read_file(paths::trace_file);
    EXPECT_FALSE(installer().install());
    EXPECT_EQ(read_file(paths::package_file), "firmware");
    std::string added = read_file(paths::trace_file).substr(before.size());
    const std::string sudo = ::getuid() == 0 ? "" : "sudo ";
    const std::string last = "installer::install() : install command: " + sudo +
                             "/usr/local/sbin/updater -f /tmp/updater-cgi-temp.pkg\n";
    ASSERT_GE(added.size(), last.size());
    EXPECT_EQ(added.substr(added.size() - last.size()), last);
}

}  // namespace
