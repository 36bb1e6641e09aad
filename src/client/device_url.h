#pragma once

#include <string>

// A device's base URL as the client uses it: http or https, a host, the
// scheme and host in lower case, no default port, no trailing "/" or
// "/update" page path, so that two spellings of one device compare equal.
// "10.0.0.2:8443/update/" gives "https://10.0.0.2:8443".
struct device_url {
    std::string url;    // empty when the text is no device URL
    std::string error;  // why, when it is not
    std::string host;   // lower case, as a netrc file names it

    static device_url parse(const std::string& text);
};

// The device as the summary shows it: its URL without the scheme.
std::string device_label(const std::string& url);
