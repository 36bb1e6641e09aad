#include <unistd.h>

#include <cstdio>

#include "console.h"
#include "device_pool.h"
#include "interrupt.h"
#include "json_console.h"
#include "options.h"
#include "package_upload.h"
#include "tee_console.h"

#ifndef UPDATE_DEVICE_VERSION
#define UPDATE_DEVICE_VERSION "unknown"
#endif

namespace {
int usage_error(const std::string& error) {
    std::fprintf(stderr, "update-device: %s\nTry 'update-device --help' for more information.\n",
                 error.c_str());
    return EXIT_USAGE;
}

// Text on standard output, or JSON lines with --json; a --log file gets the
// JSON lines besides.
std::unique_ptr<console> make_output(const options& opts, const package_digest& digest,
                                     std::FILE* log) {
    std::unique_ptr<console> out;
    if (opts.json) {
        out = std::make_unique<json_console>(opts.urls, stdout, opts.update.package, digest);
    } else {
        out = make_console(opts.urls, isatty(STDOUT_FILENO) != 0);
    }
    if (log == nullptr) return out;
    return std::make_unique<tee_console>(
        std::move(out),
        std::make_unique<json_console>(opts.urls, log, opts.update.package, digest));
}
}  // namespace

int main(int argc, char** argv) {
    options opts;
    std::string error;
    curl_global_init(CURL_GLOBAL_DEFAULT);
    if (!parse_options(argc, argv, opts, error)) return usage_error(error);
    if (opts.help || opts.version) {
        std::fputs(opts.help ? usage_text().c_str() : "update-device " UPDATE_DEVICE_VERSION "\n",
                   stdout);
        return EXIT_UPDATED;
    }
    // Appended to: one file can keep a whole shift's records.
    std::FILE* log = nullptr;
    if (!opts.log_file.empty() && (log = std::fopen(opts.log_file.c_str(), "a")) == nullptr) {
        return usage_error("cannot write the log file " + opts.log_file);
    }
    std::string problem = package_problem(opts.update.package);
    package_digest& digest = opts.update.digest;
    if (problem.empty() && !digest.read(opts.update.package)) {
        problem = "cannot read the package " + opts.update.package;
    }
    if (!problem.empty()) {
        print_failure("", problem);
        return EXIT_PACKAGE_UNREADABLE;
    }
    for (const std::string& note : opts.notes)
        print_failure("", note);
    catch_interrupts();
    const auto out = make_output(opts, digest, log);
    const int status = update_devices(opts.urls, opts.update, opts.retry, opts.parallel, *out);
    if (log != nullptr) std::fclose(log);
    curl_global_cleanup();
    return status;
}
