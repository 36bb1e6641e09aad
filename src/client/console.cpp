#include "console.h"

#include "live_console.h"
#include "plain_console.h"

std::unique_ptr<console> make_console(const std::vector<std::string>& urls, bool terminal) {
    if (terminal) return std::make_unique<live_console>(urls);
    return std::make_unique<plain_console>(urls);
}

void console::print(const std::string& text) {
    std::lock_guard<std::mutex> lock(mutex_);
    std::fputs(text.c_str(), stdout);
    std::fflush(stdout);
}

void print_failure(const std::string& url, const std::string& message) {
    std::fflush(stdout);
    if (url.empty()) {
        std::fprintf(stderr, "update-device: %s\n", message.c_str());
    } else {
        std::fprintf(stderr, "update-device: %s: %s\n", url.c_str(), message.c_str());
    }
}
