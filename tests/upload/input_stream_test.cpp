// The buffered input under the reassembly, over pipes fed in odd pieces.
#include "upload/input_stream.h"

#include <gtest/gtest.h>
#include <unistd.h>
#include <string>
#include <thread>
#include <vector>

#include "multipart_body.h"

namespace {

// A pipe whose writer delivers `data` in pieces of the given sizes (cycled),
// so that reads see short counts at awkward places.
class dribbled_pipe {
  public:
    dribbled_pipe(std::string data, std::vector<size_t> pieces) {
        int ends[2];
        EXPECT_EQ(::pipe(ends), 0);
        read_end = ends[0];
        writer = std::thread([fd = ends[1], data = std::move(data), pieces = std::move(pieces)] {
            size_t at = 0;
            for (size_t i = 0; at < data.size(); ++i) {
                size_t piece = std::min(pieces[i % pieces.size()], data.size() - at);
                if (::write(fd, data.data() + at, piece) != static_cast<ssize_t>(piece)) break;
                at += piece;
            }
            ::close(fd);
        });
    }
    ~dribbled_pipe() {
        ::close(read_end);
        writer.join();
    }
    int read_end;

  private:
    std::thread writer;
};

// Line reads, then 512-byte block reads into a 4 KiB buffer with read-ahead
// into its free rest, as the reassembly does; returns the block bytes.
std::string lines_then_blocks(input_stream& input, size_t lines) {
    std::string line;
    for (size_t i = 0; i < lines; ++i)
        EXPECT_EQ(input.read_line(line, 1000), input_stream::line_result::ok);
    std::vector<char> buffer(4096);
    std::string out;
    size_t fill = 0;
    for (;;) {
        if (fill == buffer.size()) {
            out.append(buffer.data(), fill);
            fill = 0;
        }
        size_t got = input.read_block(buffer.data() + fill, 512, buffer.size() - fill);
        fill += got;
        if (input.at_end() || got < 512) break;
    }
    out.append(buffer.data(), fill);
    return out;
}

TEST(InputStream, BlockReadsWithReadAheadDeliverEveryByteInOrder) {
    const std::string content = awkward_content(100000, 11);
    const std::string head = "first line\r\nsecond\n";
    for (const std::vector<size_t>& pieces :
         std::vector<std::vector<size_t>>{{1}, {7, 513, 1}, {511}, {4096}, {70000}}) {
        dribbled_pipe pipe(head + content, pieces);
        input_stream input(pipe.read_end);
        EXPECT_TRUE(lines_then_blocks(input, 2) == content) << "pieces of " << pieces[0];
        EXPECT_TRUE(input.at_end());
    }
}

TEST(InputStream, ReadAheadIsFoundInPlaceOrCopiedWhereAsked) {
    const std::string content =
        awkward_content(1624, 5) + "the line\r\n" + awkward_content(1400, 6);
    dribbled_pipe pipe(content, {content.size()});
    input_stream input(pipe.read_end);
    std::vector<char> buffer(4096, 'x');

    ASSERT_EQ(input.read_block(buffer.data(), 512, buffer.size()), 512u);
    EXPECT_TRUE(input.last_read_waited());
    // The next bytes already lie right behind: no wait, nothing to move.
    ASSERT_EQ(input.read_block(buffer.data() + 512, 512, buffer.size() - 512), 512u);
    EXPECT_FALSE(input.last_read_waited());
    // A caller that asks elsewhere still gets them, in order.
    std::vector<char> elsewhere(600);
    ASSERT_EQ(input.read_block(elsewhere.data(), 600), 600u);
    EXPECT_FALSE(input.last_read_waited());
    EXPECT_TRUE(std::string(elsewhere.data(), 600) == content.substr(1024, 600));
    // Line reads go on from the read-ahead too.
    std::string line;
    ASSERT_EQ(input.read_line(line, 100), input_stream::line_result::ok);
    EXPECT_EQ(line, "the line");
    EXPECT_TRUE(std::string(buffer.data(), 1024) == content.substr(0, 1024));
}

TEST(InputStream, EndAndShortLastBlock) {
    dribbled_pipe pipe("line\n" + std::string(700, 'a'), {3});
    input_stream input(pipe.read_end);
    std::string line;
    ASSERT_EQ(input.read_line(line, 10), input_stream::line_result::ok);
    EXPECT_EQ(line, "line");
    std::vector<char> buffer(2048);
    EXPECT_EQ(input.read_block(buffer.data(), 512, 2048), 512u);
    EXPECT_FALSE(input.at_end());
    EXPECT_EQ(input.read_block(buffer.data() + 512, 512, 1536), 188u);
    EXPECT_TRUE(input.at_end());
    EXPECT_EQ(input.read_block(buffer.data(), 512, 2048), 0u);
    EXPECT_EQ(input.read_line(line, 10), input_stream::line_result::end);
}

}  // namespace
