#pragma once

#include "console.h"

// Plain lines for a log file or a pipe: each step, each log entry, the upload
// at every tenth, prefixed with the device when there are several.
class plain_console : public console {
  public:
    explicit plain_console(const std::vector<std::string>& labels);
    ~plain_console() override;
    update_report& device(size_t index) override;
    void print(const std::string& text) override;

  private:
    class report;
    void line(const std::string& label, const std::string& text);

    std::mutex mutex_;
    bool several_;
    std::vector<std::unique_ptr<report>> reports_;
};
