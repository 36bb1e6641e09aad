#include "support/leading_int.h"

#include <limits>

namespace {
bool is_space(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}
bool is_digit(char c) {
    return c >= '0' && c <= '9';
}
}  // namespace

std::optional<int32_t> read_leading_int(std::string_view text) {
    size_t at = 0;
    while (at < text.size() && is_space(text[at]))
        ++at;
    bool negative = false;
    if (at < text.size() && (text[at] == '+' || text[at] == '-')) {
        negative = text[at] == '-';
        ++at;
    }
    if (at >= text.size() || !is_digit(text[at])) return std::nullopt;

    const int64_t limit = negative ? -int64_t{std::numeric_limits<int32_t>::min()}
                                   : int64_t{std::numeric_limits<int32_t>::max()};
    int64_t value = 0;
    for (; at < text.size() && is_digit(text[at]); ++at) {
        value = value * 10 + (text[at] - '0');
        if (value > limit) value = limit;  // keep reading the digits, clamped
    }
    return static_cast<int32_t>(negative ? -value : value);
}
