#pragma once

#include <cstdint>
#include <string>
#include <string_view>

// Small text helpers of the upload request check.

// The leading decimal number of the text, read like a formatted integer
// extraction; 0 when the text does not begin with a number. Beyond 32 bits
// the value is clamped, so an absurd length still counts as non-zero.
int32_t string_to_int(std::string_view text);
// The text without white space (blank, tab, CR, LF) at either end.
std::string strip_white_space(std::string_view text);
// Case-insensitive equality of ASCII letters; false when either is empty.
bool equals_ignore_case(const std::string& a, const std::string& b);
