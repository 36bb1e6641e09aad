#include "device_url.h"

#include <curl/curl.h>

#include <algorithm>
#include <cctype>
#include <memory>

namespace {
device_url refused(const std::string& why) {
    return {"", why, ""};
}

using url_handle = std::unique_ptr<CURLU, decltype(&curl_url_cleanup)>;
// Devices serve HTTPS; their plain port only redirects.
constexpr char default_scheme[] = "https://";
constexpr char page_path[] = "/update";

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

// A part of the URL, or "" when it has none.
std::string part(CURLU* url, CURLUPart which, unsigned flags = 0) {
    char* value = nullptr;
    if (curl_url_get(url, which, &value, flags) != CURLUE_OK) return "";
    std::string text = value;
    curl_free(value);
    return text;
}

std::string base_path(std::string path) {
    while (!path.empty() && path.back() == '/')
        path.pop_back();
    const size_t page = sizeof page_path - 1;
    if (path.size() >= page && path.compare(path.size() - page, page, page_path) == 0) {
        path.erase(path.size() - page);
    }
    return path;
}
}  // namespace

device_url device_url::parse(const std::string& text) {
    const std::string full = text.find("://") == std::string::npos ? default_scheme + text : text;
    // libcurl reads "http:///x" as host "x".
    if (full.compare(full.find("://"), 4, ":///") == 0) return refused("no host in " + text);
    url_handle url(curl_url(), curl_url_cleanup);
    if (!url || curl_url_set(url.get(), CURLUPART_URL, full.c_str(), CURLU_NON_SUPPORT_SCHEME) !=
                    CURLUE_OK) {
        return refused("not a URL: " + text);
    }
    const std::string scheme = lower(part(url.get(), CURLUPART_SCHEME));
    if (scheme != "http" && scheme != "https") {
        return refused("not an http or https URL: " + text);
    }
    const std::string host = lower(part(url.get(), CURLUPART_HOST));
    if (host.empty()) return refused("no host in " + text);
    if (!part(url.get(), CURLUPART_USER).empty()) {
        return refused("credentials in a URL are seen by other users (use --netrc-file): " + text);
    }
    if (!part(url.get(), CURLUPART_QUERY).empty() || !part(url.get(), CURLUPART_FRAGMENT).empty()) {
        return refused("a device URL has no query or fragment: " + text);
    }
    const std::string port = part(url.get(), CURLUPART_PORT, CURLU_NO_DEFAULT_PORT);
    return {scheme + "://" + host + (port.empty() ? "" : ":" + port) +
                base_path(part(url.get(), CURLUPART_PATH)),
            "", host};
}

std::string device_label(const std::string& url) {
    const size_t scheme = url.find("://");
    return scheme == std::string::npos ? url : url.substr(scheme + 3);
}
