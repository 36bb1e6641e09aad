#include "upload/text_utils.h"

#include <strings.h>

#include "support/leading_int.h"

int32_t string_to_int(std::string_view text) {
    return read_leading_int(text).value_or(0);
}

// Both callers compare the result as one token, so white space inside the
// text is kept and only the ends are trimmed.
std::string strip_white_space(std::string_view text) {
    constexpr std::string_view white = " \t\r\n";
    size_t first = text.find_first_not_of(white);
    if (first == std::string_view::npos) return {};
    size_t last = text.find_last_not_of(white);
    return std::string(text.substr(first, last - first + 1));
}

bool equals_ignore_case(const std::string& a, const std::string& b) {
    if (a.empty() || b.empty()) return false;
    return ::strcasecmp(a.c_str(), b.c_str()) == 0;
}
