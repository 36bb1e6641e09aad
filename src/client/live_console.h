#pragma once

#include "console.h"

// Live lines at the bottom of a terminal, one per device, redrawn in place.
// With one device its steps and log entries scroll above its line, which
// shows the upload's bar, rate and time left; with several each line shows
// the device's latest step or entry.
class live_console : public console {
  public:
    explicit live_console(const std::vector<std::string>& urls);

  private:
    class report;
    void set_line(size_t index, const std::string& text);
    // Prints `text` as a line above the live lines.
    void above(const std::string& text);
    void draw();

    std::vector<std::string> lines_;
    size_t drawn_ = 0;
    size_t label_width_ = 0;
};
