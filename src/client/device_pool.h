#pragma once

#include <string>
#include <vector>

#include "attempts.h"
#include "console.h"
#include "device_update.h"

// Updates every device, at most `parallel` at once, each reporting to its
// own part of the console; with several devices, prints a summary table
// (device, result, error, time). Returns the exit status: the device's own
// with one device; with several, 0 when all succeeded, 12 when stopped by a
// signal, else 1.
int update_devices(const std::vector<std::string>& urls, const update_settings& settings,
                   const retry_settings& retry, int parallel, console& out);
