#include "support/fd_io.h"

#include <fcntl.h>
#include <unistd.h>
#include <cerrno>

bool write_all(int fd, std::string_view data) {
    while (!data.empty()) {
        ssize_t written = ::write(fd, data.data(), data.size());
        if (written < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        data.remove_prefix(static_cast<size_t>(written));
    }
    return true;
}

int open_for_append(const char* path) {
    return ::open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
}
