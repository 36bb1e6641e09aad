#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

#include "http_session.h"

// Why the package cannot be sent ("" when it can): it must be a regular
// file that this process can read, and not empty.
std::string package_problem(const std::string& path);

// The package posted as a browser's form posts it (one part, "package", with
// the file's name), on a thread of its own so that the caller can follow the
// device's log meanwhile. The device answers the POST only when its update
// has ended.
class package_upload {
  public:
    // Starts at once, on the session's handle; the session must outlive this.
    package_upload(http_session& session, const std::string& package, uint64_t rate_limit);
    // Cancels a transfer still running and waits for the thread.
    ~package_upload();
    package_upload(const package_upload&) = delete;
    package_upload& operator=(const package_upload&) = delete;

    uint64_t sent() const { return sent_; }
    uint64_t total() const { return total_; }
    // The whole body has been handed to the connection.
    bool body_sent() const { return total_ > 0 && sent_ >= total_; }
    // Seconds from the start to the last byte handed over, or so far.
    double send_seconds() const;

    // Waits at most `limit` for the POST to end; true once it has.
    bool wait(std::chrono::milliseconds limit);
    // Ends the transfer now.
    void cancel();

    // After the end: the answer, and whether the body stopped moving.
    const http_answer& answer() const { return answer_; }
    bool stalled() const { return stalled_; }

  private:
    static int on_progress(void* self, curl_off_t, curl_off_t, curl_off_t total, curl_off_t now);
    void run(http_session& session);

    http_session& session_;
    curl_mime* form_;
    std::chrono::steady_clock::time_point start_;
    std::chrono::steady_clock::time_point last_move_;
    std::atomic<uint64_t> sent_{0};
    std::atomic<uint64_t> total_{0};
    std::atomic<int64_t> send_ms_{-1};
    std::atomic<bool> cancelled_{false};
    std::atomic<bool> stalled_{false};
    http_answer answer_;
    std::mutex mutex_;
    std::condition_variable ended_;
    bool done_ = false;
    std::thread thread_;
};
