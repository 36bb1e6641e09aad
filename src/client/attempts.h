#pragma once

#include <string>

#include "device_update.h"
#include "update_report.h"

// When a device's update is tried again.
struct retry_settings {
    int retries = 0;              // further tries after a failure that is safe to retry
    int wait_online_seconds = 0;  // for a device that does not answer at first
};

// One device's update, tried again only where no package can have reached
// the device's installer: it was unreachable, busy, or lost the body before
// the POST could start (and its log shows no update). The pauses grow: 1, 2,
// 4 ... s, at most a minute. A device that does not answer at first is given
// up to wait_online_seconds to come up (it may still be booting).
outcome update_with_retries(const std::string& url, const update_settings& settings,
                            const retry_settings& retry, update_report& report);
