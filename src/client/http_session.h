#pragma once

#include <curl/curl.h>

#include <mutex>
#include <set>
#include <string>

#include "exit_status.h"

// How the client reaches and signs in to every device.
struct connection_settings {
    std::string user;  // empty: no sign-in, or the netrc file's
    std::string password;
    std::string netrc_file;  // each device's user and password
    long connect_timeout_ms = 5000;
    std::string proxy;    // empty: curl's proxy variables
    std::string noproxy;  // hosts reached without a proxy
    // How a device's certificate is trusted over HTTPS: by the system's
    // certificate authorities and the URL's name; by the certificates of
    // `ca_file` and the name (--cacert); or by the digest of the device's
    // public key alone, whatever its certificate says (--pin, or the
    // known-devices file's record, trust on first use).
    std::string ca_file;
    std::string pin;  // "sha256//BASE64" of the key's SubjectPublicKeyInfo
    std::string known_devices;
};

// What a request brought back: a transport failure, or an HTTP status with
// its body and Last-Modified time.
struct http_answer {
    CURLcode transport = CURLE_OK;
    std::string transport_error;
    long code = 0;
    std::string body;
    long long modified = -1;  // Unix time; -1 when the answer has none

    bool reached() const { return transport == CURLE_OK; }
    bool ok() const { return reached() && code == 200; }
    // The outcome of a request that should have answered 200 and did not.
    outcome failure() const;
};

// Requests to one device, signed in and carrying the page's own header, on
// one libcurl handle that keeps its connection and digest state between
// requests. For one thread at a time.
class http_session {
  public:
    http_session(const std::string& device_url, const connection_settings& how);
    ~http_session();
    http_session(const http_session&) = delete;
    http_session& operator=(const http_session&) = delete;

    http_answer get(const std::string& path);
    http_answer head(const std::string& path);
    std::string url(const std::string& path) const { return base_ + path; }

    // Runs the transfer prepared on handle() (by the upload) and collects
    // its answer into `answer`.
    CURL* handle() { return curl_; }
    void perform(http_answer& answer);
    // Ends the transfer under way, from any thread: its connections are shut
    // down, and libcurl returns at once rather than at its next progress call
    // (up to a second later while it waits for an answer).
    void abort_transfer();

  private:
    static curl_socket_t open_socket(void* self, curlsocktype, curl_sockaddr* address);
    static int close_socket(void* self, curl_socket_t socket);

    CURL* curl_;
    curl_slist* headers_ = nullptr;
    std::string base_;
    char error_[CURL_ERROR_SIZE] = {};
    std::mutex sockets_mutex_;
    std::set<curl_socket_t> sockets_;  // open, so that abort_transfer never meets a reused one
};

// The program's and the saved log's paths on the device.
namespace device_path {
constexpr char lock_state[] = "/cgi-bin/updater?status=1";
constexpr char progress[] = "/cgi-bin/updater?request=1";
constexpr char program[] = "/cgi-bin/updater";
constexpr char page[] = "/update/index.html";
constexpr char saved_log[] = "/update/last/updater-cgi.log";
}  // namespace device_path
