#include "upload/input_stream.h"

#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>

input_stream::input_stream(int input_fd) : fd(input_fd), buffer(new char[capacity]) {}

bool input_stream::refill() {
    if (ended) return false;
    begin = end = 0;
    for (;;) {
        ssize_t got = ::read(fd, buffer.get(), capacity);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) {
            ended = true;
            return false;
        }
        end = static_cast<size_t>(got);
        return true;
    }
}

input_stream::line_result input_stream::read_line(std::string& line, size_t max_length) {
    line.clear();
    for (;;) {
        if (begin == end && !refill()) return line_result::end;
        const char* from = buffer.get() + begin;
        size_t available = end - begin;
        const void* newline = std::memchr(from, '\n', available);
        size_t take =
            newline ? static_cast<size_t>(static_cast<const char*>(newline) - from) : available;
        if (line.size() + take > max_length) return line_result::too_long;
        line.append(from, take);
        begin += take;
        if (newline) {
            ++begin;  // the LF itself
            if (!line.empty() && line.back() == '\r') line.pop_back();
            return line_result::ok;
        }
    }
}

size_t input_stream::read_block(char* destination, size_t size) {
    waited = false;
    size_t have = 0;
    while (have < size) {
        if (begin == end) {
            waited = true;
            if (!refill()) break;
        }
        size_t take = std::min(size - have, end - begin);
        std::memcpy(destination + have, buffer.get() + begin, take);
        begin += take;
        have += take;
    }
    return have;
}
