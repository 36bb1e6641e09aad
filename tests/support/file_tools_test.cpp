// Runs inside the device root (file_tools::load traces to /var/log).
#include "support/file_tools.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cstring>
#include <fstream>
#include <sstream>

#include "support/device_paths.h"

namespace {

class FileTools : public ::testing::Test {
  protected:
    void SetUp() override {
        char name[] = "/tmp/file_tools_XXXXXX";
        ASSERT_NE(::mkdtemp(name), nullptr);
        dir = name;
    }
    void TearDown() override {
        std::string cleanup = "rm -rf " + dir;
        ASSERT_EQ(std::system(cleanup.c_str()), 0);
    }
    std::string put(const std::string& name, const std::string& bytes) {
        std::string path = dir + "/" + name;
        std::ofstream(path, std::ios::binary) << bytes;
        return path;
    }
    static size_t trace_size() {
        struct stat status {};
        return ::stat(paths::trace_file, &status) == 0 ? static_cast<size_t>(status.st_size) : 0;
    }

    file_tools tools;
    std::string dir;
};

TEST_F(FileTools, FindPrefixedMatchesOnlyAtTheStartByteForByte) {
    put("lighttpd-upload", "");
    put("Lighttpd-upload-x", "");
    put("x-lighttpd-upload-", "");
    EXPECT_FALSE(tools.find_prefixed(dir, "lighttpd-upload-"));
    put("lighttpd-upload-a1b2c3", "");
    EXPECT_TRUE(tools.find_prefixed(dir, "lighttpd-upload-"));
    EXPECT_TRUE(tools.find_prefixed(dir + "/", "lighttpd-upload-"));
}

TEST_F(FileTools, FindPrefixedEdgeCases) {
    put("anything", "");
    EXPECT_FALSE(tools.find_prefixed(dir, "")) << "empty prefix matches nothing";
    EXPECT_TRUE(tools.find_prefixed(dir, ".")) << "every directory has its '.' entry";
    EXPECT_FALSE(tools.find_prefixed(dir + "/missing", "a"));
}

TEST_F(FileTools, ExistsFollowsLinks) {
    EXPECT_TRUE(tools.exists(dir));
    ASSERT_EQ(::symlink((dir + "/nowhere").c_str(), (dir + "/dangling").c_str()), 0);
    EXPECT_FALSE(tools.exists(dir + "/dangling"));
    EXPECT_EQ(tools.size(dir + "/dangling"), -1);
    EXPECT_EQ(tools.size(put("five", "12345")), 5);
}

TEST_F(FileTools, LoadKeepsZeroBytesAndTerminatesTheBuffer) {
    const std::string bytes("ab\0cd", 5);
    std::unique_ptr<char[]> loaded = tools.load(put("zeros", bytes));
    ASSERT_TRUE(loaded);
    EXPECT_EQ(std::string(loaded.get(), 5), bytes);
    EXPECT_EQ(loaded[5], '\0');
    EXPECT_EQ(std::strlen(loaded.get()), 2u) << "a reader stopping at the first zero sees less";
}

TEST_F(FileTools, LoadOfEmptyFileGivesNothingSilently) {
    size_t before = trace_size();
    EXPECT_FALSE(tools.load(put("empty", "")));
    EXPECT_EQ(trace_size(), before);
}

TEST_F(FileTools, LoadOfMissingFileGivesNothingAndTracesOnce) {
    size_t before = trace_size();
    EXPECT_FALSE(tools.load(dir + "/missing"));
    std::ifstream in(paths::trace_file, std::ios::binary);
    std::stringstream all;
    all << in.rdbuf();
    std::string added = all.str().substr(before);
    ASSERT_EQ(added.size(), 8 + std::strlen("file_tools::load() can't read the log file\n"));
    EXPECT_EQ(added.substr(8), "file_tools::load() can't read the log file\n");
}

}  // namespace
