#pragma once

#include <string>
#include <vector>

#include "device_update.h"

struct options {
    std::vector<std::string> urls;  // device base URLs, normalised
    update_settings update;
    int parallel = 1;
    bool help = false;
    bool version = false;
};

// Parses the command line, reads --devices and the password; on bad input
// returns false with a one-line message in `error`.
bool parse_options(int argc, char** argv, options& out, std::string& error);
// "https://127.0.0.1:8443" of "127.0.0.1:8443/update/" and the like.
std::string device_base_url(const std::string& text);
// The device as the summary shows it: its URL without the scheme.
std::string device_label(const std::string& url);
std::string usage_text();
