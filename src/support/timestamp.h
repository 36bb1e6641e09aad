#pragma once

#include <cstdint>
#include <string>

// Seven-character time stamps, "sss.mmm": seconds modulo 720 (the field
// wraps every 12 minutes) and milliseconds, both zero-padded to three digits.

struct time_value {
    int64_t seconds;
    int64_t microseconds;
};

// The stamp of the current wall-clock time (for trace lines).
std::string format_timestamp();
// The stamp of a given time value.
std::string format_timestamp(time_value value);
// Time since the first call in this process; the first call gives "000.000".
// Used for update-log entries.
std::string elapsed_timestamp();
