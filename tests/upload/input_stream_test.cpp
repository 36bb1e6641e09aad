// The buffered input under the reassembly, over pipes fed in odd pieces.
#include "upload/input_stream.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using result = input_stream::line_result;

// A read that never returns must not hold a core after the suite gave up on
// it: the whole test program ends after two minutes.
const unsigned no_earlier_alarm = ::alarm(120);

// A pipe whose writer delivers `data` in pieces of the given sizes (cycled),
// so that reads see short counts at awkward places.
struct dribbled_pipe {
    dribbled_pipe(std::string data, std::vector<size_t> pieces) {
        int ends[2];
        EXPECT_EQ(::pipe(ends), 0);
        fd = ends[0];
        writer = std::thread([out = ends[1], data = std::move(data), pieces = std::move(pieces)] {
            for (size_t at = 0, i = 0; at < data.size(); at += pieces[i++ % pieces.size()]) {
                size_t piece = std::min(pieces[i % pieces.size()], data.size() - at);
                if (::write(out, data.data() + at, piece) != static_cast<ssize_t>(piece)) break;
            }
            ::close(out);
        });
    }
    ~dribbled_pipe() {  // drains first: a writer into a closed pipe would die of SIGPIPE
        char rest[4096];
        while (::read(fd, rest, sizeof rest) > 0) {
        }
        ::close(fd);
        writer.join();
    }
    int fd;
    std::thread writer;
};

std::string random_bytes(size_t size) {
    std::mt19937 random(static_cast<unsigned>(size));
    std::string bytes(size, '\0');
    for (char& byte : bytes)
        byte = static_cast<char>(random());
    return bytes;
}

// Two lines, then 512-byte block reads into a 4 KiB buffer with read-ahead
// into its free rest, as the reassembly does.
TEST(InputStream, LineAndBlockReadsDeliverEveryByteInOrder) {
    const std::string content = random_bytes(100000);
    for (const std::vector<size_t>& pieces :
         std::vector<std::vector<size_t>>{{1}, {7, 513, 1}, {511}, {4096}, {70000}}) {
        dribbled_pipe pipe("first line\r\nsecond\n" + content, pieces);
        input_stream input(pipe.fd);
        std::string line, out;
        EXPECT_EQ(input.read_line(line, 100), result::ok);
        EXPECT_EQ(line, "first line");
        EXPECT_EQ(input.read_line(line, 100), result::ok);
        EXPECT_EQ(line, "second");
        std::vector<char> buffer(4096);
        size_t fill = 0, got = 512;
        while (!input.at_end() && got == 512) {
            if (fill == buffer.size()) out.append(buffer.data(), std::exchange(fill, 0));
            got = input.read_block(buffer.data() + fill, 512, buffer.size() - fill);
            fill += got;
        }
        EXPECT_TRUE(out.append(buffer.data(), fill) == content) << "pieces of " << pieces[0];
        EXPECT_TRUE(input.at_end());
    }
}

TEST(InputStream, ReadAheadIsTakenInPlaceOrCopiedWhereAsked) {
    const std::string content = random_bytes(1624) + "the line\r\n" + random_bytes(1400);
    dribbled_pipe pipe(content, {content.size()});
    input_stream input(pipe.fd);
    std::vector<char> buffer(4096, 'x'), elsewhere(600);
    ASSERT_EQ(input.read_block(buffer.data(), 512, buffer.size()), 512u);
    EXPECT_TRUE(input.last_read_waited());
    ASSERT_EQ(input.read_block(buffer.data() + 512, 512, buffer.size() - 512), 512u);
    EXPECT_FALSE(input.last_read_waited());
    ASSERT_EQ(input.read_block(elsewhere.data(), 600), 600u);
    EXPECT_FALSE(input.last_read_waited());
    EXPECT_TRUE(std::string(buffer.data(), 1024) == content.substr(0, 1024));
    EXPECT_TRUE(std::string(elsewhere.data(), 600) == content.substr(1024, 600));
    std::string line;
    ASSERT_EQ(input.read_line(line, 100), result::ok);
    EXPECT_EQ(line, "the line");
    EXPECT_EQ(input.read_block(buffer.data(), 2048, buffer.size()), 1400u);
    EXPECT_TRUE(input.at_end());
    EXPECT_EQ(input.read_line(line, 100), result::end);
}

// The limit counts a line's CR but not its LF; a last line without LF is the end.
TEST(InputStream, LineLimit) {
    const std::tuple<const char*, size_t, result, const char*> cases[] = {
        {"abcd\r\n", 5, result::ok, "abcd"},
        {"\r\n", 1, result::ok, ""},
        {"abcdef\n", 5, result::too_long, ""},
        {"abc", 5, result::end, "abc"},
        {"", 5, result::end, ""},
    };
    for (const auto& [text, limit, expected, line] : cases) {
        dribbled_pipe pipe(text, {2});
        input_stream input(pipe.fd);
        std::string got;
        EXPECT_EQ(input.read_line(got, limit), expected) << text;
        EXPECT_EQ(got, expected == result::ok ? line : got) << text;
    }
}

}  // namespace
