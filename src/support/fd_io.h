#pragma once

#include <cstddef>
#include <string_view>

// Whole writes on raw file descriptors. The program writes its state files,
// its trace and its answers with single write() calls rather than through
// buffered streams: nothing is ever left in a user-space buffer, so a process
// that is ended from a signal handler or another thread loses nothing.

// Writes all of `data`, retrying after interruptions and short writes.
// Returns false when the descriptor refuses the rest.
bool write_all(int fd, std::string_view data);

// Opens `path` for appending (created with the default mode when missing).
// Returns -1 when it cannot be opened.
int open_for_append(const char* path);
