#include "update_log.h"

#include <cctype>

namespace {
constexpr char separator[] = "<br>";
constexpr char error_prefix[] = "ERROR: ";
constexpr char success_text[] = "firmware successfully loaded";

std::string without_markup(const std::string& html) {
    std::string plain;
    bool in_tag = false;
    for (char c : html) {
        if (c == '<') in_tag = true;
        if (!in_tag) plain += c;
        if (c == '>') in_tag = false;
    }
    return plain;
}

bool all_digits(const std::string& text) {
    if (text.empty()) return false;
    for (char c : text) {
        if (!std::isdigit(static_cast<unsigned char>(c))) return false;
    }
    return true;
}

// Splits "[sss.mmm:pct] " off the front; an entry without it is all text.
log_entry parse_entry(const std::string& raw) {
    log_entry entry;
    std::string body = raw;
    const size_t close = raw.find("] ");
    if (raw.size() > 1 && raw[0] == '[' && close != std::string::npos) {
        const std::string stamp = raw.substr(1, close - 1);
        const size_t colon = stamp.find(':');
        const std::string time = stamp.substr(0, colon);
        const size_t dot = time.find('.');
        std::string percent = colon == std::string::npos ? "" : stamp.substr(colon + 1);
        const bool negative = !percent.empty() && percent[0] == '-';
        if (negative) percent.erase(0, 1);
        if (dot != std::string::npos && all_digits(time.substr(0, dot)) &&
            all_digits(time.substr(dot + 1)) &&
            (colon == std::string::npos || all_digits(percent))) {
            body = raw.substr(close + 2);
            if (colon != std::string::npos && percent.size() < 5) {
                entry.percent = negative ? -1 : std::stoi(percent);  // none below 0
            }
        }
    }
    entry.text = without_markup(body);
    entry.error = entry.text.compare(0, sizeof error_prefix - 1, error_prefix) == 0;
    entry.success = entry.text.find(success_text) != std::string::npos;
    return entry;
}
}  // namespace

std::string log_entry::error_message() const {
    return error ? text.substr(sizeof error_prefix - 1) : text;
}

std::vector<log_entry> parse_update_log(const std::string& html) {
    std::vector<log_entry> entries;
    size_t start = 0;
    while (start < html.size()) {
        size_t end = html.find(separator, start);
        if (end == std::string::npos) end = html.size();
        if (end > start) entries.push_back(parse_entry(html.substr(start, end - start)));
        start = end + sizeof separator - 1;
    }
    return entries;
}
