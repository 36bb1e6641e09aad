#include "state/updater_lock.h"

#include <fcntl.h>
#include <unistd.h>

#include "support/device_paths.h"
#include "support/fd_io.h"
#include "support/file_tools.h"

// Test and creation are one exclusive create, so that two polls arriving at
// once cannot both take the lock. O_EXCL also refuses a dangling link.
bool updater_lock() {
    int fd = ::open(paths::lock_file, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd < 0) return false;
    write_all(fd, "1");
    ::close(fd);
    return true;
}

int updater_unlock() {
    return ::unlink(paths::lock_file);
}

bool updater_is_locked() {
    return file_tools().exists(paths::lock_file);
}
