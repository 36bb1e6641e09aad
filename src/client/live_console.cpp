#include "live_console.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include "device_url.h"
#include "progress_text.h"

namespace {
constexpr int bar_width = 24;
constexpr char clear_line[] = "\r\033[K";

size_t terminal_width() {
    winsize size{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) return size.ws_col;
    return 80;
}
}  // namespace

class live_console::report : public update_report {
  public:
    report(live_console& out, size_t index, const std::string& url, bool alone)
        : out_(out), index_(index), url_(url), alone_(alone) {}

    void step(const std::string& text) override { show(text); }

    void upload(uint64_t sent, uint64_t total, double seconds) override {
        if (done_) return;
        if (sent >= total && total > 0) {
            done_ = true;
            if (alone_) {
                out_.set_line(index_, "");
                out_.above("upload complete: " + upload_done(total, seconds));
                return;
            }
        }
        out_.set_line(index_, progress_bar(sent, total, bar_width) + " " +
                                  upload_summary(sent, total, seconds));
    }

    void entry(const log_entry& e) override { show(entry_line(e.percent, e.text)); }

    void retry(const outcome& failed, int pause_s) override {
        show(failed.message + "; trying again in " + std::to_string(pause_s) + " s");
    }

    void finished(const outcome& result, double seconds) override {
        const std::string took = " (" + seconds_text(seconds) + ")";
        if (!alone_) {
            out_.set_line(index_, (result.ok() ? "updated" : "FAILED: " + result.message) + took);
        } else if (result.ok()) {
            out_.above("updated" + took);
        } else {
            std::lock_guard<std::mutex> lock(out_.mutex_);
            print_failure(url_, result.message);
        }
    }

  private:
    // Alone, a line above; with other devices, this device's line.
    void show(const std::string& text) {
        if (alone_) {
            out_.above(text);
        } else {
            out_.set_line(index_, text);
        }
    }

    live_console& out_;
    size_t index_;
    std::string url_;
    bool alone_;
    bool done_ = false;
};

live_console::live_console(const std::vector<std::string>& urls) {
    const bool alone = urls.size() == 1;
    for (size_t i = 0; i < urls.size(); ++i) {
        reports_.push_back(std::make_unique<report>(*this, i, urls[i], alone));
        if (!alone) label_width_ = std::max(label_width_, device_label(urls[i]).size());
    }
    if (!alone) {
        for (const std::string& url : urls) {
            const std::string label = device_label(url);
            lines_.push_back(label + std::string(label_width_ - label.size() + 2, ' '));
        }
    }
}

// Alone, the one live line exists only while it has text.
void live_console::set_line(size_t index, const std::string& text) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (label_width_ == 0) {
        lines_.assign(text.empty() ? 0 : 1, text);
    } else {
        lines_[index].resize(label_width_ + 2);
        lines_[index] += text;
    }
    draw();
}

void live_console::above(const std::string& text) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (drawn_ > 0) std::printf("\033[%zuA", drawn_);
    std::printf("%s%s\n", clear_line, text.c_str());
    drawn_ = 0;
    draw();
}

// Lines longer than the terminal would wrap, and the cursor would no longer
// go back to the first of them.
void live_console::draw() {
    const size_t width = terminal_width() - 1;
    // A block that shrank leaves its last line behind: clear it.
    if (drawn_ > 0) std::printf("\033[%zuA", drawn_);
    if (drawn_ > lines_.size()) std::printf("%s", clear_line);
    for (const std::string& line : lines_) {
        std::printf("%s%s\n", clear_line, line.substr(0, width).c_str());
    }
    drawn_ = lines_.size();
    std::fflush(stdout);
}
