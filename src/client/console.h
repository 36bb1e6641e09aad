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
    size_t size() const { return reports_.size(); }
    // Text after the updates (the summary table), below everything else.
    virtual void print(const std::string& text);

  protected:
    std::mutex mutex_;
    std::vector<std::unique_ptr<update_report>> reports_;
};

// Live lines on a terminal (a progress bar; one line per device when there
// are several), plain lines otherwise, for the devices of `urls`.
std::unique_ptr<console> make_console(const std::vector<std::string>& urls, bool terminal);
// The message of a failed update on standard error:
// "update-device: URL: ...", or without a URL for what no device caused.
void print_failure(const std::string& url, const std::string& message);
