#pragma once

#include <optional>
#include <string>

// Exit statuses of update-device: one per way an update can end, so that a
// script tells them apart. The table in exit_status.cpp is the only list;
// --help prints it and docs/update-device.md copies it.
enum exit_status : int {
    EXIT_UPDATED = 0,
    EXIT_SOME_DEVICES_FAILED = 1,
    EXIT_USAGE = 2,
    EXIT_PACKAGE_UNREADABLE = 3,
    EXIT_UNREACHABLE = 4,
    EXIT_WRONG_PASSWORD = 5,
    EXIT_REFUSED = 6,
    EXIT_BUSY = 7,
    EXIT_UPLOAD_LOST = 8,
    EXIT_NOT_BACK = 9,
    EXIT_UNEXPECTED_ANSWER = 10,
    EXIT_NO_RESULT = 11,
    EXIT_INTERRUPTED = 12,
    EXIT_UNTRUSTED = 13,
    EXIT_KEY_CHANGED = 14,
    EXIT_ROLLED_BACK = 15,
    // The device's own error N ends with EXIT_DEVICE_ERROR + N (N = 1..10);
    // an error entry the client does not know ends with EXIT_DEVICE_ERROR.
    EXIT_DEVICE_ERROR = 20,
};

// How one device's update ended: its exit status and a one-line message
// (empty on success), with what a record of it needs besides.
struct outcome {
    int status = EXIT_UPDATED;
    std::string message;
    // Nothing of this update can have begun on the device (it was not
    // reached, was busy, or lost the body before the POST could start): the
    // package may be sent again.
    bool retry_safe = false;
    int device_error = 0;          // the device's error number; 0: none or unknown
    std::string device_message{};  // the device's error entry, without "ERROR: "
    std::string verdict{};         // the saved log's last entry, once read
    // What the device's status documents said; empty when it has none.
    std::string version_before{};
    std::string version_after{};
    std::string slot{};
    std::optional<bool> fallback{};
    std::string install_result{};  // this update's installation: "installed", "refused"
    std::string install_reason{};

    bool ok() const { return status == EXIT_UPDATED; }
    outcome& safe_to_retry(bool safe) {
        retry_safe = safe;
        return *this;
    }
};

// Short name of a status for the summary table ("success", "busy", ...).
const char* exit_status_name(int status);
// The table of statuses as --help prints it, one line each.
std::string exit_status_table();

// The device's error number of an error entry's text ("installation failed"
// gives 5), or 0 when the text is none of the device's messages.
int device_error_number(const std::string& message);
outcome device_error(const std::string& message);
