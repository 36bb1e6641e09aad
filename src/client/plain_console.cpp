#include "plain_console.h"

#include "device_url.h"
#include "progress_text.h"

class plain_console::report : public update_report {
  public:
    report(plain_console& out, const std::string& url)
        : out_(out), url_(url), label_(device_label(url)) {}

    void step(const std::string& text) override { out_.line(label_, text); }

    void upload(uint64_t sent, uint64_t total, double seconds) override {
        const int tenth = percent_of(sent, total) / 10;
        if (tenth <= printed_tenth_) return;
        printed_tenth_ = tenth;
        if (tenth < 10) {
            out_.line(label_, "upload " + upload_summary(sent, total, seconds));
        } else {
            out_.line(label_, "upload complete: " + upload_done(total, seconds));
        }
    }

    void entry(const log_entry& e) override { out_.line(label_, entry_line(e.percent, e.text)); }

    void retry(const outcome& failed, int pause_s) override {
        out_.line(label_, failed.message + "; trying again in " + std::to_string(pause_s) + " s");
    }

    void finished(const outcome& result, double) override {
        if (result.ok()) {
            out_.line(label_, "updated");
        } else {
            std::lock_guard<std::mutex> lock(out_.mutex_);
            print_failure(url_, result.message);
        }
    }

  private:
    plain_console& out_;
    std::string url_;
    std::string label_;
    int printed_tenth_ = 0;
};

plain_console::plain_console(const std::vector<std::string>& urls) : several_(urls.size() > 1) {
    for (const std::string& url : urls)
        reports_.push_back(std::make_unique<report>(*this, url));
}

void plain_console::line(const std::string& label, const std::string& text) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (several_) std::printf("%s: ", label.c_str());
    std::printf("%s\n", text.c_str());
    std::fflush(stdout);
}
