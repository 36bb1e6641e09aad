#pragma once

#include <string>
#include <vector>

// One entry of the device's HTML update log: "[sss.mmm:pct] text<br>", the
// percentage absent in some entries, the text possibly with markup.
struct log_entry {
    int percent = -1;  // -1: the entry has none
    std::string text;  // without time stamp and markup
    bool error = false;
    bool success = false;

    // The message of an error entry, after "ERROR: ".
    std::string error_message() const;
};

std::vector<log_entry> parse_update_log(const std::string& html);
