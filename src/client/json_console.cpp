#include "json_console.h"

#include <chrono>
#include <ctime>
#include <nlohmann/json.hpp>

#include "progress_text.h"

namespace {
using json = nlohmann::json;

// "2026-11-24T10:31:05.123Z"
std::string utc_now() {
    const auto now = std::chrono::system_clock::now();
    const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
    const auto ms =
        std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()) % 1000;
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &utc);
    char stamp[40];
    std::snprintf(stamp, sizeof stamp, "%s.%03dZ", text, static_cast<int>(ms.count()));
    return stamp;
}
json text_or_null(const std::string& text) {
    return text.empty() ? json() : json(text);
}

// This update's installation as the device recorded it; null when its
// status document holds none.
json last_install(const outcome& result) {
    if (result.install_result.empty()) return json();
    return {{"result", result.install_result}, {"reason", result.install_reason}};
}
}  // namespace

class json_console::report : public update_report {
  public:
    report(json_console& out, const std::string& url, const json& package)
        : out_(out), url_(url), package_(package) {}

    void step(const std::string& text) override { event("step", {{"text", text}}); }

    void phase(const std::string& name) override {
        phases_[name] = utc_now();
        event("phase", {{"phase", name}});
    }

    void upload(uint64_t sent, uint64_t total, double seconds) override {
        const int tenth = percent_of(sent, total) / 10;
        if (tenth <= printed_tenth_) return;
        printed_tenth_ = tenth;
        event("upload", {{"sent", sent}, {"total", total}, {"seconds", seconds}});
    }

    void entry(const log_entry& e) override {
        event("entry", {{"percent", e.percent < 0 ? json() : json(e.percent)}, {"text", e.text}});
    }

    void retry(const outcome& failed, int pause_s) override {
        ++attempts_;
        printed_tenth_ = 0;
        event("retry",
              {{"status", failed.status}, {"message", failed.message}, {"pause_seconds", pause_s}});
    }

    void finished(const outcome& result, double seconds) override {
        started();
        phases_["end"] = utc_now();
        json device_error;
        if (!result.device_message.empty()) {
            device_error = {{"number", result.device_error}, {"message", result.device_message}};
        }
        event("result", {{"package", package_},
                         {"status", result.status},
                         {"result", exit_status_name(result.status)},
                         {"message", result.message},
                         {"device_error", device_error},
                         {"verdict", text_or_null(result.verdict)},
                         {"version_before", text_or_null(result.version_before)},
                         {"version_after", text_or_null(result.version_after)},
                         {"slot", text_or_null(result.slot)},
                         {"fallback", result.fallback ? json(*result.fallback) : json()},
                         {"last_install", last_install(result)},
                         {"attempts", attempts_},
                         {"seconds", seconds},
                         {"phases", phases_}});
    }

  private:
    void started() {
        if (!phases_.contains("start")) phases_["start"] = utc_now();
    }

    void event(const char* name, json fields) {
        started();
        json line = {{"time", utc_now()}, {"device", url_}, {"event", name}};
        line.update(fields);
        out_.write(line.dump());
    }

    json_console& out_;
    std::string url_;
    const json& package_;
    json phases_ = json::object();
    int attempts_ = 1;
    int printed_tenth_ = 0;
};

json_console::json_console(const std::vector<std::string>& urls, std::FILE* out,
                           const std::string& package, const package_digest& digest)
    : out_(out) {
    package_ = {{"file", package}, {"sha256", digest.sha256}, {"size", digest.size}};
    for (const std::string& url : urls)
        reports_.push_back(std::make_unique<report>(*this, url, package_));
}

void json_console::write(const std::string& line) {
    std::lock_guard<std::mutex> lock(mutex_);
    std::fprintf(out_, "%s\n", line.c_str());
    std::fflush(out_);
}
