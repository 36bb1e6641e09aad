// libFuzzer target: the request check and the multipart reassembly together.
// Input layout: the first line is CONTENT_TYPE, the rest is the body; an
// input whose first byte is '0' also sends CONTENT_LENGTH 0.
// Runs inside the device root: the package file is the real /tmp one.
#include <sys/mman.h>
#include <unistd.h>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "support/device_paths.h"
#include "support/fd_io.h"
#include "upload/uploader.h"

// The fuzzer runs millions of uploads; flushing the machine's disks for each
// would measure the disks, not the code.
extern "C" void sync() noexcept {}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string_view input(reinterpret_cast<const char*>(data), size);
    size_t newline = input.find('\n');
    std::string type(input.substr(0, newline));
    std::string_view body = newline == std::string_view::npos ? "" : input.substr(newline + 1);

    ::setenv("CONTENT_LENGTH", !input.empty() && input[0] == '0' ? "0" : "4096", 1);
    ::setenv("CONTENT_TYPE", type.c_str(), 1);

    int fd = ::memfd_create("body", 0);
    if (fd < 0) std::abort();
    write_all(fd, body);
    ::lseek(fd, 0, SEEK_SET);
    int result = uploader(fd).run();
    ::close(fd);
    // Each input appends its log and trace lines; ten million inputs would
    // leave gigabytes in /var/log. The program keeps appending at offset 0.
    static unsigned inputs = 0;
    if (++inputs % 4096 == 0) {
        [[maybe_unused]] int log_cut = ::truncate(paths::log_file, 0);
        [[maybe_unused]] int trace_cut = ::truncate(paths::trace_file, 0);
    }
    if (result != 0 && result != 1 && result != -2) std::abort();
    return 0;
}
