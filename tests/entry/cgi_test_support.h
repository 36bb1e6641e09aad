#pragma once
// Shorthands for running the program as lighttpd would, in a device root.

#include <string>
#include <utility>
#include <vector>

#include "device_root.h"

inline const std::string lock_path = "/var/log/updater-cgi.lock";
inline const std::string status_path = "/var/log/updater-cgi.status";
inline const std::string log_path = "/var/log/updater-cgi.log";
inline const std::string trace_path = "/var/log/updater-cgi.debug";
inline const std::string package_path = "/tmp/updater-cgi-temp.pkg";
inline const std::string saved_log_path = "/tolven/local/updater-cgi.log";
inline const std::string saved_trace_path = "/tolven/local/updater-cgi.debug";
inline const std::string upload_file_path = "/var/tmp/lighttpd-upload-Xa91Qe";

inline run_options get_request(const char* query) {
    run_options options;
    options.env = {{"REQUEST_METHOD", "GET"}, {"CONTENT_LENGTH", "0"}};
    if (query != nullptr) options.env.emplace_back("QUERY_STRING", query);
    return options;
}

inline run_options post_request(const std::string& body, const std::string& boundary) {
    run_options options;
    options.env = {{"REQUEST_METHOD", "POST"},
                   {"CONTENT_LENGTH", std::to_string(body.size())},
                   {"CONTENT_TYPE", "multipart/form-data; boundary=" + boundary}};
    options.stdin_data = body;
    return options;
}

inline run_options as_user(run_options options, int uid) {
    options.uid = uid;
    return options;
}
