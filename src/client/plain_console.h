#pragma once

#include "console.h"

// Plain lines for a log file or a pipe: each step, each log entry, the upload
// at every tenth, prefixed with the device when there are several.
class plain_console : public console {
  public:
    explicit plain_console(const std::vector<std::string>& urls);

  private:
    class report;
    void line(const std::string& label, const std::string& text);

    bool several_;
};
