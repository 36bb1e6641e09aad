#pragma once

#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "update_report.h"

// The client's output for all devices at once: each device reports through
// its own update_report, from its own thread.
class console {
  public:
    virtual ~console() = default;
    update_report& device(size_t index) { return *reports_[index]; }
    // Text after the updates (the summary table), below everything else.
    void print(const std::string& text);

  protected:
    std::mutex mutex_;
    std::vector<std::unique_ptr<update_report>> reports_;
};

// Live lines on a terminal (a progress bar; one line per device when there
// are several), plain lines otherwise. `labels` name the devices.
std::unique_ptr<console> make_console(const std::vector<std::string>& labels, bool terminal);
// The message of a failed update on standard error: "update-device: ...".
void print_failure(const std::string& label, const std::string& message);
