#include "package_upload.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace {
// A body that has not moved for this long is lost (a cable pulled does not
// close the connection).
constexpr auto stall_limit = std::chrono::seconds(30);
// Bigger than libcurl's default: fewer reads and sends for a large package.
constexpr long upload_buffer_bytes = 512 * 1024;

int64_t milliseconds(std::chrono::steady_clock::duration d) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(d).count();
}
}  // namespace

std::string package_problem(const std::string& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return "cannot read the package " + path + ": " + std::strerror(errno);
    struct stat info {};
    char byte;
    std::string problem;
    if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        problem = "the package " + path + " is not a regular file";
    } else if (::read(fd, &byte, 1) < 0) {
        problem = "cannot read the package " + path + ": " + std::strerror(errno);
    } else if (info.st_size == 0) {
        problem = "the package " + path + " is empty";
    }
    ::close(fd);
    return problem;
}

package_upload::package_upload(http_session& session, const std::string& package,
                               uint64_t rate_limit)
    : session_(session),
      form_(curl_mime_init(session.handle())),
      start_(std::chrono::steady_clock::now()),
      last_move_(start_) {
    curl_mimepart* part = curl_mime_addpart(form_);
    curl_mime_name(part, "package");
    curl_mime_filedata(part, package.c_str());
    curl_mime_type(part, "application/octet-stream");

    CURL* curl = session.handle();
    curl_easy_setopt(curl, CURLOPT_URL, session.url(device_path::program).c_str());
    curl_easy_setopt(curl, CURLOPT_NOBODY, 0L);
    curl_easy_setopt(curl, CURLOPT_MIMEPOST, form_);
    curl_easy_setopt(curl, CURLOPT_TIMEOUT, 0L);
    curl_easy_setopt(curl, CURLOPT_UPLOAD_BUFFERSIZE, upload_buffer_bytes);
    curl_easy_setopt(curl, CURLOPT_MAX_SEND_SPEED_LARGE, static_cast<curl_off_t>(rate_limit));
    curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, on_progress);
    curl_easy_setopt(curl, CURLOPT_XFERINFODATA, this);
    thread_ = std::thread([this, &session] { run(session); });
}

package_upload::~package_upload() {
    cancel();
    thread_.join();
    curl_mime_free(form_);
}

// The flag stops a transfer between two of libcurl's calls; shutting the
// connection down wakes one that waits for the device.
void package_upload::cancel() {
    cancelled_ = true;
    session_.abort_transfer();
}

void package_upload::run(http_session& session) {
    session.perform(answer_);
    CURL* curl = session.handle();
    curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 1L);
    curl_easy_setopt(curl, CURLOPT_MIMEPOST, nullptr);
    std::lock_guard<std::mutex> lock(mutex_);
    done_ = true;
    ended_.notify_all();
}

int package_upload::on_progress(void* self_pointer, curl_off_t, curl_off_t, curl_off_t total,
                                curl_off_t now) {
    auto* self = static_cast<package_upload*>(self_pointer);
    const auto at = std::chrono::steady_clock::now();
    if (static_cast<uint64_t>(now) != self->sent_) {
        self->sent_ = static_cast<uint64_t>(now);
        self->last_move_ = at;
    }
    self->total_ = static_cast<uint64_t>(total);
    if (self->body_sent()) {
        if (self->send_ms_ < 0) self->send_ms_ = milliseconds(at - self->start_);
    } else if (at - self->last_move_ > stall_limit) {
        self->stalled_ = true;
        return 1;
    }
    return self->cancelled_ ? 1 : 0;
}

double package_upload::send_seconds() const {
    const int64_t ms = send_ms_;
    if (ms >= 0) return static_cast<double>(ms) / 1000.0;
    return static_cast<double>(milliseconds(std::chrono::steady_clock::now() - start_)) / 1000.0;
}

bool package_upload::wait(std::chrono::milliseconds limit) {
    std::unique_lock<std::mutex> lock(mutex_);
    return ended_.wait_for(lock, limit, [this] { return done_; });
}
