#include "state/update_status.h"

#include <fcntl.h>
#include <unistd.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "support/device_paths.h"
#include "support/fd_io.h"
#include "support/file_tools.h"
#include "support/leading_int.h"
#include "support/timestamp.h"

namespace {
constexpr char success_entry[] =
    "<font color=#2020ff><b>update completed, firmware successfully loaded<br>";
constexpr char line_end[] = "<br>";
constexpr char error_prefix[] = "ERROR: ";
// The status file holds one digit; a little more is read so that numbers
// written by something else still parse like a formatted read would.
constexpr size_t status_read_limit = 64;
}  // namespace

update_status& update_status::instance() {
    static update_status status;
    return status;
}

update_status::~update_status() {
    if (log >= 0) ::close(log);
}

// The new file gets the process's default creation mode (0666 less umask).
void update_status::set_state(int state) {
    ::unlink(paths::status_file);
    int fd = ::open(paths::status_file, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd < 0) return;
    if (state == STATE_RECEIVING) write_all(fd, "1");
    if (state == STATE_UPDATING) write_all(fd, "2");
    ::close(fd);
}

int update_status::get_state() const {
    int fd = ::open(paths::status_file, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return STATE_IDLE;
    char text[status_read_limit];
    ssize_t got;
    do {
        got = ::read(fd, text, sizeof text);
    } while (got < 0 && errno == EINTR);
    ::close(fd);
    if (got <= 0) return STATE_IDLE;
    return read_leading_int(std::string_view(text, static_cast<size_t>(got))).value_or(STATE_IDLE);
}

void update_status::write_line(std::string_view text) {
    if (log < 0) log = open_for_append(paths::log_file);
    if (log < 0) return;
    std::string entry = "[";
    entry += elapsed_timestamp();
    if (percent != 0) {
        entry += ':';
        entry += std::to_string(percent);
    }
    entry += "] ";
    entry += text;
    write_all(log, entry);
}

void update_status::add_line(std::string_view text, int32_t new_percent) {
    percent = new_percent;
    std::string line(text);
    line += line_end;
    write_line(line);
}

void update_status::add_error(std::string_view message) {
    std::string line = error_prefix;
    line += message;
    line += line_end;
    write_line(line);
}

void update_status::add_result(bool failed) {
    if (!failed) write_line(success_entry);
}

void update_status::print_log() const {
    std::unique_ptr<char[]> content = file_tools().load(paths::log_file);
    if (!content) return;
    write_all(STDOUT_FILENO, std::string_view(content.get(), std::strlen(content.get())));
}

bool update_status::log_exists() const {
    return file_tools().exists(paths::log_file);
}

void update_status::save_file(const std::string& path) {
    std::string command = commands::copy_file;
    command += path;
    command += ' ';
    command += paths::persistent_dir;
    [[maybe_unused]] int ignored = std::system(command.c_str());
}

void update_status::save_files() {
    save_file(paths::log_file);
    save_file(paths::trace_file);
    ::sync();
}
