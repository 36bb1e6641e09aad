#pragma once

#include <cstdint>
#include <string>

// Texts of the upload's progress: "12.5 MiB", "98.1 MiB/s", "1:05".
std::string mebibytes(uint64_t bytes);
std::string rate_text(uint64_t bytes, double seconds);
// Time left at the rate so far; "?" before there is a rate.
std::string time_left(uint64_t sent, uint64_t total, double seconds);
// "[#######-------]" of the given width inside the brackets.
std::string progress_bar(uint64_t sent, uint64_t total, int width);
int percent_of(uint64_t sent, uint64_t total);
// "48% 122.9 of 256.0 MiB, 105.3 MiB/s, 0:01 left"
std::string upload_summary(uint64_t sent, uint64_t total, double seconds);
// "256.0 MiB in 2.41 s, 106.2 MiB/s"
std::string upload_done(uint64_t total, double seconds);
std::string seconds_text(double seconds);
// An entry as a line: "[ 40%] reassembling data ..." ("[    ]" without percentage).
std::string entry_line(int percent, const std::string& text);
