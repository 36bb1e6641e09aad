#include "upload/input_stream.h"

#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>

input_stream::input_stream(int input_fd) : fd(input_fd), buffer(new char[capacity]) {}

size_t input_stream::read_some(char* into, size_t size) {
    if (ended) return 0;
    for (;;) {
        ssize_t got = ::read(fd, into, size);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) {
            ended = true;
            return 0;
        }
        return static_cast<size_t>(got);
    }
}

bool input_stream::refill() {
    size_t got = read_some(buffer.get(), capacity);
    next = buffer.get();
    limit = next + got;
    return got > 0;
}

input_stream::line_result input_stream::read_line(std::string& line, size_t max_length) {
    line.clear();
    for (;;) {
        if (next == limit && !refill()) return line_result::end;
        size_t available = static_cast<size_t>(limit - next);
        const void* newline = std::memchr(next, '\n', available);
        size_t take =
            newline ? static_cast<size_t>(static_cast<const char*>(newline) - next) : available;
        if (line.size() + take > max_length) return line_result::too_long;
        line.append(next, take);
        next += take;
        if (newline) {
            ++next;  // the LF itself
            if (!line.empty() && line.back() == '\r') line.pop_back();
            return line_result::ok;
        }
    }
}

size_t input_stream::read_block(char* destination, size_t size, size_t room) {
    room = std::max(room, size);
    waited = false;
    size_t have = 0;
    while (have < size) {
        if (next != limit) {
            size_t take = std::min(size - have, static_cast<size_t>(limit - next));
            // Bytes read ahead into the caller's memory are normally asked
            // for where they lie; memmove serves a caller that moved on.
            if (next != destination + have) std::memmove(destination + have, next, take);
            next += take;
            have += take;
            continue;
        }
        waited = true;
        size_t got = read_some(destination + have, room - have);
        if (got == 0) break;
        next = destination + have;
        limit = next + got;
    }
    return have;
}
