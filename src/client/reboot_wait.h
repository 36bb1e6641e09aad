#pragma once

#include <chrono>
#include <string>

#include "exit_status.h"
#include "http_session.h"
#include "package_upload.h"
#include "update_report.h"

// After the success entry the device pauses, saves its log and reboots.
// Waits until `deadline` for it to go away (a page request fails, or the
// POST's connection is lost) and to answer again, then judges the update by
// the saved log newer than `saved_before`.
outcome await_restart(const std::string& url, const connection_settings& how, package_upload& post,
                      std::chrono::steady_clock::time_point deadline, long long saved_before,
                      update_report& report);
