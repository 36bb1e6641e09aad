#pragma once

#include "console.h"

// Two consoles fed with the same reports: the text for people and the JSON
// lines of a log file. Owns both.
class tee_console : public console {
  public:
    tee_console(std::unique_ptr<console> first, std::unique_ptr<console> second);
    void print(const std::string& text) override;

  private:
    class report;
    std::unique_ptr<console> first_;
    std::unique_ptr<console> second_;
};
