#pragma once

// The message of each update error, by its code (index 0 is no error). The
// update log carries only the text; update-device reads the code back from it.
inline constexpr const char* error_messages[] = {
    "",
    "wrong input parameters",
    "bad/malformed http header",
    "upload aborted",
    "validation failed",
    "installation failed",
    "upload timeout",
    "can't allocate memory",
    "update process already ongoing",
    "update feature is disabled",
    "update already in progress, please retry later.",
};
inline constexpr int error_code_count = sizeof error_messages / sizeof error_messages[0];
