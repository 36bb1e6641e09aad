#include "upload/uploader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cstring>
#include <memory>
#include <new>

#include "state/update_error.h"
#include "state/update_status.h"
#include "support/debug_trace.h"
#include "support/device_paths.h"
#include "support/fd_io.h"
#include "upload/text_utils.h"

namespace {

constexpr size_t transfer_size = 1048576;
constexpr size_t read_block = 512;
constexpr size_t flush_threshold = transfer_size - read_block;
// CR LF "--" before the boundary and "--" CR LF after it.
constexpr off_t delimiter_overhead = 4;

// A header line of the form longer than this fails the upload: browsers send
// lines of a few hundred bytes, and memory must not grow with hostile input.
constexpr size_t max_header_line = size_t{64} * 1024;

}  // namespace

uploader::uploader(int input_fd) : input(input_fd), watchdog(this) {}

bool uploader::read_line(std::string& line) {
    input_stream::line_result result = input.read_line(line, max_header_line);
    if (result == input_stream::line_result::too_long) {
        debug_trace::instance().write("uploader::read_line() : header line too long\n");
    }
    return result == input_stream::line_result::ok;
}

int uploader::run() {
    // Without the transfer buffer there is no upload; the user is told why.
    std::unique_ptr<char[]> buffer(new (std::nothrow) char[transfer_size]);
    if (!buffer) return update_error::instance().end_update_with_error(ERROR_OUT_OF_MEMORY);
    std::memset(buffer.get(), 0, transfer_size);

    upload_request request;
    if (int rejected = parse_cgi_request(request); rejected != 0) return rejected;

    debug_trace::instance()
        .write("uploader::run() : entering\n")
        .write("uploader::run() : reassembling data ...\n");
    update_status::instance().add_line("reassembling data ...", 40);

    if (!find_file_part() || !skip_part_header()) return 1;

    ::unlink(paths::package_file);
    int package = ::open(paths::package_file, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (package < 0) return 1;

    watchdog.start();
    bool complete = copy_body(package, buffer.get());
    return check_and_cut_end(package, buffer.get(), request.boundary, complete);
}

// The file part is the first whose Content-Disposition header names a quoted
// filename. Every line before it, whatever part it belongs to, is skipped.
bool uploader::find_file_part() {
    std::string line;
    for (;;) {
        if (!read_line(line)) return false;
        size_t colon = line.find(':');
        if (colon == std::string::npos) continue;
        if (!equals_ignore_case(line.substr(0, colon), "Content-Disposition")) continue;
        size_t name = line.find("filename", colon + 1);
        if (name == std::string::npos) continue;
        size_t equals = line.find('=', name);
        if (equals == std::string::npos) continue;
        if (line.find('"', equals) == std::string::npos) continue;
        return true;
    }
}

bool uploader::skip_part_header() {
    std::string line;
    do {
        if (!read_line(line)) return false;
    } while (!line.empty());
    return true;
}

// A write that fails (a full /tmp) fails the upload, even if the tail of the
// body later fits: a package with a hole in it must never reach the installer.
// Re-arming costs a system call, so a read served from bytes that were
// already buffered, right after one that re-armed, does not re-arm again;
// any read that had to wait, or that follows a write of the buffer, does.
// The input is read ahead straight into the free rest of the buffer, where
// the following 512-byte reads find it in place. Every read but the last
// brings 512 bytes, so the buffer is only written out when full, when no
// read-ahead byte is left in it.
bool uploader::copy_body(int package, char* buffer) {
    size_t fill = 0;
    bool wrote_since_rearm = false;
    bool written = true;
    for (;;) {
        if (fill > flush_threshold) {
            written = write_all(package, std::string_view(buffer, fill)) && written;
            fill = 0;
            wrote_since_rearm = true;
        }
        size_t got = input.read_block(buffer + fill, read_block, transfer_size - fill);
        if (got > 0) {
            fill += got;
            if (input.last_read_waited() || wrote_since_rearm) {
                watchdog.rearm();
                wrote_since_rearm = false;
            }
        }
        if (input.at_end() || got < read_block) break;
    }
    watchdog.stop();
    return write_all(package, std::string_view(buffer, fill)) && written;
}

int uploader::check_and_cut_end(int package, char* buffer, const std::string& boundary,
                                bool complete) {
    const off_t length = static_cast<off_t>(boundary.size());
    struct stat status {};
    bool matches = false;
    off_t position = 0;
    if (complete && ::fstat(package, &status) == 0 &&
        status.st_size >= length + 2 * delimiter_overhead && boundary.size() <= transfer_size) {
        position = status.st_size - length - delimiter_overhead;
        ssize_t got = ::pread(package, buffer, boundary.size(), position);
        matches = got == static_cast<ssize_t>(boundary.size()) &&
                  std::memcmp(buffer, boundary.data(), boundary.size()) == 0;
    }
    ::close(package);
    ::sync();
    if (!matches) {
        ::unlink(paths::package_file);
        return 1;
    }

    [[maybe_unused]] int cut = ::truncate(paths::package_file, position - delimiter_overhead);
    ::sync();
    update_status::instance().add_line("package file received", 50);
    debug_trace::instance().write("uploader::run() : upload completed\n");
    return 0;
}
