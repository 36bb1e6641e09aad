#pragma once

#include <cstddef>
#include <memory>
#include <string>

// A buffered byte stream over a file descriptor (the request body on standard
// input in production; a pipe or file in tests). Line reads and block reads
// take from the same buffer one after the other, so nothing the line reading
// has buffered is lost to the block reads. Bytes are passed through untouched.
class input_stream {
  public:
    enum class line_result { ok, end, too_long };

    explicit input_stream(int fd);

    // Reads up to and including the next LF (not stored). A last line without
    // LF counts as the end of the input. A line longer than `max_length` bytes
    // gives too_long; the rest of it stays unread.
    line_result read_line(std::string& line, size_t max_length);

    // Reads `size` bytes, waiting until they have all come or the input ends;
    // returns how many arrived. A read error counts as the end of the input.
    size_t read_block(char* destination, size_t size);

    bool at_end() const { return ended && begin == end; }

    // Whether the last read_block had to wait for the descriptor rather than
    // being served from what was already buffered.
    bool last_read_waited() const { return waited; }

  private:
    bool refill();

    static constexpr size_t capacity = size_t{64} * 1024;
    int fd;
    std::unique_ptr<char[]> buffer;
    size_t begin = 0;
    size_t end = 0;
    bool ended = false;
    bool waited = false;
};
