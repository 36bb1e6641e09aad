#include "progress_text.h"

#include <cstdio>

namespace {
constexpr double mebibyte = 1048576.0;

std::string printed(const char* format, double a, double b = 0) {
    char text[64];
    std::snprintf(text, sizeof text, format, a, b);
    return text;
}
}  // namespace

std::string mebibytes(uint64_t bytes) {
    return printed("%.1f MiB", static_cast<double>(bytes) / mebibyte);
}

std::string rate_text(uint64_t bytes, double seconds) {
    if (seconds <= 0) return "- MiB/s";
    return printed("%.1f MiB/s", static_cast<double>(bytes) / mebibyte / seconds);
}

std::string time_left(uint64_t sent, uint64_t total, double seconds) {
    if (sent == 0 || seconds <= 0 || total < sent) return "?";
    const double left = static_cast<double>(total - sent) * seconds / static_cast<double>(sent);
    const long whole = static_cast<long>(left + 0.5);
    char text[32];
    std::snprintf(text, sizeof text, "%ld:%02ld", whole / 60, whole % 60);
    return text;
}

int percent_of(uint64_t sent, uint64_t total) {
    if (total == 0) return 0;
    if (sent >= total) return 100;
    return static_cast<int>(sent * 100 / total);
}

std::string progress_bar(uint64_t sent, uint64_t total, int width) {
    const int filled = percent_of(sent, total) * width / 100;
    return "[" + std::string(static_cast<size_t>(filled), '#') +
           std::string(static_cast<size_t>(width - filled), '-') + "]";
}

std::string upload_summary(uint64_t sent, uint64_t total, double seconds) {
    return std::to_string(percent_of(sent, total)) + "% " +
           printed("%.1f of %.1f MiB", static_cast<double>(sent) / mebibyte,
                   static_cast<double>(total) / mebibyte) +
           ", " + rate_text(sent, seconds) + ", " + time_left(sent, total, seconds) + " left";
}

std::string seconds_text(double seconds) {
    return printed("%.1f s", seconds);
}

std::string upload_done(uint64_t total, double seconds) {
    return mebibytes(total) + " in " + printed("%.2f s", seconds) + ", " +
           rate_text(total, seconds);
}

std::string entry_line(int percent, const std::string& text) {
    if (percent < 0) return "[    ] " + text;
    char stamp[16];
    std::snprintf(stamp, sizeof stamp, "[%3d%%] ", percent);
    return stamp + text;
}
