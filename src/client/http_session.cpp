#include "http_session.h"

#include <sys/socket.h>
#include <unistd.h>

namespace {
// Every request of the page carries it; the device refuses the program's
// URL without it.
constexpr char page_header[] = "X-Updater-Page: 1";
// Polls and page requests are small; an upload sets no overall limit.
constexpr long request_timeout_s = 10;

size_t collect(char* data, size_t size, size_t count, void* body) {
    static_cast<std::string*>(body)->append(data, size * count);
    return size * count;
}

bool untrusted(CURLcode code) {
    return code == CURLE_PEER_FAILED_VERIFICATION || code == CURLE_SSL_CACERT_BADFILE;
}

bool unreachable(CURLcode code) {
    return code == CURLE_COULDNT_CONNECT || code == CURLE_COULDNT_RESOLVE_HOST ||
           code == CURLE_OPERATION_TIMEDOUT || code == CURLE_URL_MALFORMAT;
}
}  // namespace

outcome http_answer::failure() const {
    if (!reached()) {
        if (unreachable(transport))
            return {EXIT_UNREACHABLE, "device unreachable: " + transport_error};
        if (untrusted(transport)) {
            return {EXIT_UNTRUSTED, "the device's certificate is not trusted (" + transport_error +
                                        "): give --cacert, --pin or --known-devices"};
        }
        if (transport == CURLE_SSL_PINNEDPUBKEYNOTMATCH) {
            return {EXIT_KEY_CHANGED, "the device's key is not the pinned one: " + transport_error};
        }
        return {EXIT_UNEXPECTED_ANSWER, "request failed: " + transport_error};
    }
    if (code == 401) return {EXIT_WRONG_PASSWORD, "wrong user or password (HTTP 401)"};
    if (code == 403) return {EXIT_REFUSED, "request refused by the device (HTTP 403)"};
    // The device's guard answers so while an update runs: nothing of this
    // request reached the program.
    if (code == 503) {
        return outcome{EXIT_BUSY,
                       "device busy: another update is running; the package was not installed"}
            .safe_to_retry(true);
    }
    return {EXIT_UNEXPECTED_ANSWER, "unexpected answer: HTTP " + std::to_string(code)};
}

http_session::http_session(const std::string& device_url, const connection_settings& how)
    : curl_(curl_easy_init()), base_(device_url) {
    headers_ = curl_slist_append(headers_, page_header);
    curl_easy_setopt(curl_, CURLOPT_HTTPHEADER, headers_);
    curl_easy_setopt(curl_, CURLOPT_ERRORBUFFER, error_);
    curl_easy_setopt(curl_, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl_, CURLOPT_CONNECTTIMEOUT_MS, how.connect_timeout_ms);
    curl_easy_setopt(curl_, CURLOPT_USERAGENT, "update-device");
    curl_easy_setopt(curl_, CURLOPT_FILETIME, 1L);
    curl_easy_setopt(curl_, CURLOPT_WRITEFUNCTION, collect);
    curl_easy_setopt(curl_, CURLOPT_OPENSOCKETFUNCTION, open_socket);
    curl_easy_setopt(curl_, CURLOPT_OPENSOCKETDATA, this);
    curl_easy_setopt(curl_, CURLOPT_CLOSESOCKETFUNCTION, close_socket);
    curl_easy_setopt(curl_, CURLOPT_CLOSESOCKETDATA, this);
    // HTTP/1.1 as the device's own tests: a digest-signed POST over HTTP/2
    // gets no answer from the device's lighttpd 1.4.69 with this libcurl.
    curl_easy_setopt(curl_, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
    if (!how.ca_file.empty()) curl_easy_setopt(curl_, CURLOPT_CAINFO, how.ca_file.c_str());
    if (!how.pin.empty()) {
        curl_easy_setopt(curl_, CURLOPT_PINNEDPUBLICKEY, how.pin.c_str());
        curl_easy_setopt(curl_, CURLOPT_SSL_VERIFYPEER, 0L);
        curl_easy_setopt(curl_, CURLOPT_SSL_VERIFYHOST, 0L);
    }
    if (!how.proxy.empty()) curl_easy_setopt(curl_, CURLOPT_PROXY, how.proxy.c_str());
    if (!how.noproxy.empty()) curl_easy_setopt(curl_, CURLOPT_NOPROXY, how.noproxy.c_str());
    curl_easy_setopt(curl_, CURLOPT_HTTPAUTH, static_cast<long>(CURLAUTH_DIGEST));
    if (!how.netrc_file.empty()) {
        curl_easy_setopt(curl_, CURLOPT_NETRC, static_cast<long>(CURL_NETRC_REQUIRED));
        curl_easy_setopt(curl_, CURLOPT_NETRC_FILE, how.netrc_file.c_str());
    } else if (!how.user.empty()) {
        curl_easy_setopt(curl_, CURLOPT_USERNAME, how.user.c_str());
        curl_easy_setopt(curl_, CURLOPT_PASSWORD, how.password.c_str());
    }
}

http_session::~http_session() {
    curl_easy_cleanup(curl_);
    curl_slist_free_all(headers_);
}

http_answer http_session::get(const std::string& path) {
    http_answer answer;
    curl_easy_setopt(curl_, CURLOPT_URL, url(path).c_str());
    curl_easy_setopt(curl_, CURLOPT_HTTPGET, 1L);
    curl_easy_setopt(curl_, CURLOPT_NOBODY, 0L);
    curl_easy_setopt(curl_, CURLOPT_TIMEOUT, request_timeout_s);
    perform(answer);
    return answer;
}

http_answer http_session::head(const std::string& path) {
    http_answer answer;
    curl_easy_setopt(curl_, CURLOPT_URL, url(path).c_str());
    curl_easy_setopt(curl_, CURLOPT_NOBODY, 1L);
    curl_easy_setopt(curl_, CURLOPT_TIMEOUT, request_timeout_s);
    perform(answer);
    return answer;
}

curl_socket_t http_session::open_socket(void* self, curlsocktype, curl_sockaddr* address) {
    auto* session = static_cast<http_session*>(self);
    const curl_socket_t fd =
        ::socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
    if (fd == CURL_SOCKET_BAD) return fd;
    std::lock_guard<std::mutex> lock(session->sockets_mutex_);
    session->sockets_.insert(fd);
    return fd;
}

int http_session::close_socket(void* self, curl_socket_t fd) {
    auto* session = static_cast<http_session*>(self);
    std::lock_guard<std::mutex> lock(session->sockets_mutex_);
    session->sockets_.erase(fd);
    return ::close(fd);
}

void http_session::abort_transfer() {
    std::lock_guard<std::mutex> lock(sockets_mutex_);
    for (const curl_socket_t fd : sockets_)
        ::shutdown(fd, SHUT_RDWR);
}

void http_session::perform(http_answer& answer) {
    error_[0] = '\0';
    curl_easy_setopt(curl_, CURLOPT_WRITEDATA, &answer.body);
    answer.transport = curl_easy_perform(curl_);
    if (!answer.reached()) {
        answer.transport_error = error_[0] ? error_ : curl_easy_strerror(answer.transport);
        return;
    }
    curl_easy_getinfo(curl_, CURLINFO_RESPONSE_CODE, &answer.code);
    curl_off_t modified = -1;
    curl_easy_getinfo(curl_, CURLINFO_FILETIME_T, &modified);
    answer.modified = modified;
}
