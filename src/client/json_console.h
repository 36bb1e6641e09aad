#pragma once

#include <cstdio>
#include <nlohmann/json.hpp>

#include "console.h"
#include "package_digest.h"

// JSON lines for scripts and records, one an event ("step", "upload" at every
// tenth, "entry", "phase", "retry") and a final "result" record a device:
// its URL, the package's file, SHA-256 and size, the exit status and its
// name, the message, the device's error, the saved log's verdict, what the
// device's status document says (the versions before and after, the slot,
// a fallback, this update's installation result and reason; null when it
// has none), the number of attempts and the time of each phase (UTC, ISO 8601). Every line
// is written whole and flushed, so a log file can be followed as it grows.
class json_console : public console {
  public:
    json_console(const std::vector<std::string>& urls, std::FILE* out, const std::string& package,
                 const package_digest& digest);
    // The summary table is for people: not written here.
    void print(const std::string&) override {}

  private:
    class report;
    void write(const std::string& line);

    std::FILE* out_;
    nlohmann::json package_;
};
