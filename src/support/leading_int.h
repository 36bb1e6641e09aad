#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

// Reads the leading decimal number of a text the way a formatted integer
// extraction does: white space skipped, an optional sign, then digits; the
// rest of the text is ignored. No digits: no number.
// A number beyond 32 bits is clamped to the nearest limit, so that a huge
// value is never mistaken for zero.
std::optional<int32_t> read_leading_int(std::string_view text);
