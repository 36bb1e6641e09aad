#pragma once

#include <cstddef>
#include <memory>
#include <string>

// A buffered byte stream over a file descriptor (the request body on standard
// input in production; a pipe or file in tests). Line reads and block reads
// take from the same buffered bytes one after the other, so nothing the line
// reading has buffered is lost to the block reads. Bytes are passed through
// untouched.
//
// The buffered bytes live in the stream's own 64 KiB buffer after a line
// read, or in the caller's memory after a block read that was given room:
// the descriptor is then read straight into the caller's buffer, which saves
// a copy of every byte of a large body.
class input_stream {
  public:
    enum class line_result { ok, end, too_long };

    explicit input_stream(int fd);

    // Reads up to and including the next LF (not stored). A last line without
    // LF counts as the end of the input. A line longer than `max_length` bytes
    // gives too_long; the rest of it stays unread.
    line_result read_line(std::string& line, size_t max_length);

    // Reads `size` bytes into `destination`, waiting until they have all come
    // or the input ends; returns how many arrived. A read error counts as the
    // end of the input. With nothing buffered, the descriptor is read straight
    // into `destination`, up to `room` bytes (at least `size`); what comes
    // beyond `size` stays there as buffered input, and the caller must leave
    // those bytes alone until a later read has taken them. A read asking for
    // them where they already lie (destination + size) costs no copy.
    size_t read_block(char* destination, size_t size, size_t room);
    size_t read_block(char* destination, size_t size) {
        return read_block(destination, size, size);
    }

    bool at_end() const { return ended && next == limit; }

    // Whether the last read_block had to wait for the descriptor rather than
    // being served from what was already buffered.
    bool last_read_waited() const { return waited; }

  private:
    bool refill();
    // One read of the descriptor; 0 at the end of the input or on an error.
    size_t read_some(char* into, size_t size);

    static constexpr size_t capacity = size_t{64} * 1024;
    int fd;
    std::unique_ptr<char[]> buffer;
    const char* next = nullptr;   // buffered bytes: [next, limit), in `buffer`
    const char* limit = nullptr;  // or in the memory of the last read_block's caller
    bool ended = false;
    bool waited = false;
};
