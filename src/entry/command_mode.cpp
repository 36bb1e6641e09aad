#include "entry/command_mode.h"

#include <cstdio>
#include <cstring>

namespace {

constexpr char version[] = "2.03";
constexpr char build_date[] = "27.01.2015";  // day.month.year

constexpr char usage_text[] =
    "Usage: updater [OPTION] [FILE]\r\n"
    "Tolven Updater tool has been designed as a cgi binary,\n"
    "to be invoked by lighttpd. It can be called\n"
    "in multiple instances, initially to start an update\n"
    "process, and in subsequent instances to get the current\n"
    "update status.\n\n"
    "CGI mode features:\n"
    "   HTTP POST (file form) to start the firmware update\n"
    "   HTTP GET /updater&request=1 to get the current\n"
    "      progress state\n"
    "   HTTP GET /updater&status=1 to get the current lock\n"
    "      state\n"
    "   HTTP GET /updater&reboot=1 to force a reboot\n"
    "   -- see internal documentation for additional --\n"
    "   --     information on the cgi mode usage     --\n\n"
    "Command mode options:\n"
    "   --help : display this help\n"
    "   --version : display the current updater version\n\n";

}  // namespace

void print_version() {
    std::fputs("Tolven Updater tool, version ", stdout);
    std::fputs(version, stdout);
    std::fputs(" ", stdout);
    std::fputs(build_date, stdout);
    std::fputs("\n", stdout);
}

void print_usage() {
    print_version();
    std::fputs("\n", stdout);
    std::fputs(usage_text, stdout);
}

// Only the first argument is read; a second one is accepted and ignored.
int run_command_mode(int argc, const char* const* argv) {
    if (argc != 2 && argc != 3) return 1;
    if (std::strcmp(argv[1], "--help") == 0) {
        print_usage();
        return 0;
    }
    if (std::strcmp(argv[1], "--version") == 0) {
        print_version();
        return 0;
    }
    print_usage();
    return 1;
}
