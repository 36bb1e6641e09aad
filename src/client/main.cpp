#include <unistd.h>

#include <cstdio>

#include "console.h"
#include "device_pool.h"
#include "interrupt.h"
#include "options.h"
#include "package_upload.h"

#ifndef UPDATE_DEVICE_VERSION
#define UPDATE_DEVICE_VERSION "unknown"
#endif

int main(int argc, char** argv) {
    options opts;
    std::string error;
    if (!parse_options(argc, argv, opts, error)) {
        std::fprintf(stderr, "update-device: %s\n%s", error.c_str(), usage_text().c_str());
        return EXIT_USAGE;
    }
    if (opts.help || opts.version) {
        std::fputs(opts.help ? usage_text().c_str() : "update-device " UPDATE_DEVICE_VERSION "\n",
                   stdout);
        return EXIT_UPDATED;
    }
    if (!readable_package(opts.update.package)) {
        print_failure("", "cannot read the package " + opts.update.package);
        return EXIT_PACKAGE_UNREADABLE;
    }
    curl_global_init(CURL_GLOBAL_DEFAULT);
    catch_interrupts();
    std::vector<std::string> labels;
    for (const std::string& url : opts.urls)
        labels.push_back(device_label(url));
    const auto out = make_console(labels, isatty(STDOUT_FILENO) != 0);
    const int status = update_devices(opts.urls, opts.update, opts.parallel, *out);
    curl_global_cleanup();
    return status;
}
