#pragma once

#include <string>
#include <vector>

#include "attempts.h"
#include "device_update.h"

struct options {
    std::vector<std::string> urls;  // device base URLs, checked, without duplicates
    update_settings update;
    int parallel = 1;
    retry_settings retry;
    bool json = false;     // JSON lines on standard output instead of text
    std::string log_file;  // JSON lines into this file as well as the text
    // Said to the user before the updates (a device listed twice).
    std::vector<std::string> notes;
    bool help = false;
    bool version = false;
};

// Parses the command line and checks all of it before anything is sent:
// every option, every device URL (the devices file's too), the password
// and netrc files. On bad input returns false with a one-line message in
// `error`. The package is checked apart (its own exit status).
bool parse_options(int argc, char** argv, options& out, std::string& error);
// The --help text; the manual page is made from it too.
std::string usage_text();
