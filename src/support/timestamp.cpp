#include "support/timestamp.h"

#include <sys/time.h>

namespace {

time_value now() {
    timeval tv{};
    gettimeofday(&tv, nullptr);
    return {tv.tv_sec, tv.tv_usec};
}

void put_three_digits(char* at, int64_t value) {
    at[0] = static_cast<char>('0' + value / 100);
    at[1] = static_cast<char>('0' + value / 10 % 10);
    at[2] = static_cast<char>('0' + value % 10);
}

// Process-wide clock of elapsed_timestamp.
bool started = false;
time_value start{0, 0};

}  // namespace

std::string format_timestamp() {
    return format_timestamp(now());
}

// A time before the epoch still gives a well-formed stamp: the seconds wrap
// into 0..719 like any other, and milliseconds are kept within 0..999.
std::string format_timestamp(time_value value) {
    int64_t seconds = value.seconds % 720;
    if (seconds < 0) seconds += 720;
    int64_t millis = value.microseconds / 1000;
    if (millis < 0) millis = 0;
    if (millis > 999) millis = 999;

    std::string stamp(7, '.');
    put_three_digits(&stamp[0], seconds);
    put_three_digits(&stamp[4], millis);
    return stamp;
}

// When the clock is set back during an update the difference would be
// negative; the stamp then stays at "000.000" instead of showing nonsense.
std::string elapsed_timestamp() {
    if (!started) {
        started = true;
        start = now();
        return format_timestamp({0, 0});
    }
    time_value current = now();
    time_value diff{current.seconds - start.seconds, current.microseconds - start.microseconds};
    if (diff.microseconds < 0) {
        diff.microseconds += 1000000;
        diff.seconds -= 1;
    }
    if (diff.seconds < 0) diff = {0, 0};
    return format_timestamp(diff);
}
