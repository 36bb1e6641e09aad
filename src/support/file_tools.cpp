#include "support/file_tools.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstring>
#include <limits>
#include <new>

#include "support/debug_trace.h"

bool file_tools::exists(const std::string& path) const {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0;
}

bool file_tools::find_prefixed(const std::string& directory, const std::string& prefix) const {
    if (prefix.empty()) return false;
    DIR* dir = ::opendir(directory.c_str());
    if (dir == nullptr) return false;
    bool found = false;
    while (const dirent* entry = ::readdir(dir)) {
        if (std::strncmp(entry->d_name, prefix.c_str(), prefix.size()) == 0) {
            found = true;
            break;
        }
    }
    ::closedir(dir);
    return found;
}

int32_t file_tools::size(const std::string& path) const {
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) return -1;
    if (status.st_size > std::numeric_limits<int32_t>::max()) return -1;
    return static_cast<int32_t>(status.st_size);
}

std::unique_ptr<char[]> file_tools::load(const std::string& path) const {
    debug_trace& trace = debug_trace::instance();
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        trace.write("file_tools::load() can't read the log file\n");
        return nullptr;
    }
    int32_t n = size(path);
    std::unique_ptr<char[]> buffer;
    if (n > 0) buffer.reset(new (std::nothrow) char[static_cast<size_t>(n) + 1]);
    size_t have = 0;
    while (buffer && have < static_cast<size_t>(n)) {
        ssize_t got = ::read(fd, buffer.get() + have, static_cast<size_t>(n) - have);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0)
            buffer.reset();
        else
            have += static_cast<size_t>(got);
    }
    ::close(fd);
    if (buffer) buffer[have] = '\0';
    return buffer;
}
