// The device is 32-bit: file positions, sizes and times must still be 64 bits
// wide there, or a package near 2 GiB is cut or misplaced without an error.
// The files are sparse, so sizes past 2 GiB cost no space.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <string>

#include "support/file_tools.h"

static_assert(sizeof(off_t) == 8, "64-bit file positions");
static_assert(sizeof(time_t) == 8, "64-bit times");

namespace {

constexpr off_t gib = off_t{1} << 30;

class large_file : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string pattern = ::testing::TempDir() + "large_file_XXXXXX";
        ASSERT_NE(::mkdtemp(pattern.data()), nullptr) << errno;
        directory = pattern;
        path = directory + "/package";
    }
    void TearDown() override {
        ::unlink(path.c_str());
        ::rmdir(directory.c_str());
    }
    // A file of `size` bytes, holding `mark` in its last byte.
    void make_sparse(off_t size, char mark = 'x') {
        int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        ASSERT_GE(fd, 0) << errno;
        ASSERT_EQ(::pwrite(fd, &mark, 1, size - 1), 1) << errno;
        ::close(fd);
    }
    off_t size_on_disk() {
        struct stat status {};
        EXPECT_EQ(::stat(path.c_str(), &status), 0) << errno;
        return status.st_size;
    }
    std::string directory;
    std::string path;
};

// The calls the upload makes on the package file: fstat for its size, pread
// of the closing delimiter near its end, truncate to cut it off.
TEST_F(large_file, positions_past_4_gib_survive_write_read_and_truncate) {
    const off_t size = 4 * gib + 7;
    make_sparse(size, 'z');

    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0) << errno;
    struct stat status {};
    ASSERT_EQ(::fstat(fd, &status), 0) << errno;
    EXPECT_EQ(status.st_size, size);
    char got = 0;
    EXPECT_EQ(::pread(fd, &got, 1, size - 1), 1) << errno;
    EXPECT_EQ(got, 'z');
    ::close(fd);

    ASSERT_EQ(::truncate(path.c_str(), 2 * gib + 3), 0) << errno;
    EXPECT_EQ(size_on_disk(), 2 * gib + 3);
}

// file_tools::size narrows to 32 bits: the largest size that fits comes back
// whole, anything larger is refused rather than wrapped.
TEST_F(large_file, file_tools_size_is_exact_below_2_gib_and_refuses_beyond) {
    file_tools tools;
    make_sparse(off_t{INT32_MAX});
    EXPECT_TRUE(tools.exists(path));
    EXPECT_EQ(tools.size(path), INT32_MAX);

    make_sparse(off_t{INT32_MAX} + 1);
    EXPECT_TRUE(tools.exists(path));
    EXPECT_EQ(tools.size(path), -1);

    make_sparse(4 * gib + 100);  // wraps to 100 if cut to 32 bits
    EXPECT_TRUE(tools.exists(path));
    EXPECT_EQ(tools.size(path), -1);
}

}  // namespace
