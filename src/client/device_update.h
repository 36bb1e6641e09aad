#pragma once

#include <cstdint>
#include <string>

#include "exit_status.h"
#include "http_session.h"
#include "package_digest.h"
#include "update_report.h"

struct update_settings {
    connection_settings connection;
    std::string package;
    package_digest digest;  // this update's installation record names it
    // The longest wait for the device to restart, and for a device's log
    // to move once the package is sent.
    int timeout_seconds = 300;
    bool wait_for_restart = true;
    // Bytes per second the upload may use; 0: as fast as the network goes.
    uint64_t rate_limit = 0;
};

// One device's whole update, as the update page does it: the lock state
// first (a busy device gets nothing), the upload while following the log,
// the final entry, then the restart and the saved log's verdict.
outcome update_device(const std::string& url, const update_settings& settings,
                      update_report& report);
