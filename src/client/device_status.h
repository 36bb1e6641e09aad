#pragma once

#include <optional>
#include <string>

#include "exit_status.h"
#include "http_session.h"

// What the device says booted: its status document, written at every boot
// and by the installer. A device without one (404) is an older device.
struct device_status {
    struct installation {
        std::string time;
        std::string version;
        std::string sha256;
        std::string result;  // "installed" or "refused"
        std::string reason;  // why it was refused
    };
    std::string version;
    std::string slot;
    bool fallback = false;
    unsigned long long max_package_bytes = 0;  // 0: not said
    std::optional<installation> last_install;
};

// The document, once asked for: absent (404, or never asked), unreadable
// (another answer, or not the document), or read.
struct status_reading {
    bool absent = true;
    std::optional<device_status> status;
};

status_reading read_device_status(http_session& session);

// "the device runs 2.0 in slot B"
std::string running_text(const device_status& status);

// Judges `result` by what the device said after the update: only a record
// of the package `sha256` that the document before the update did not hold
// yet is this update's. A rollback gets its own status; a refusal keeps the
// device's error and gains the installer's reason. Fills the record's fields.
outcome judged(outcome result, const status_reading& before, const status_reading& after,
               const std::string& sha256);
