#pragma once

#include <string>
#include <string_view>

// The process's debug trace, "/var/log/updater-cgi.debug": callers hand it
// text fragments; it assembles them into lines, stamps each line with the time
// of its first fragment and appends each finished line to the file.
//
// Every finished line goes to the file as one append write, so the file never
// holds a torn line of another process, and nothing is left to flush when the
// process ends abruptly (signal handler, watchdog exit). A pending, unfinished
// line never reaches the file.
//
// Not thread-safe: its one other user, the upload watchdog's expiry, only
// runs once it has excluded the main thread from reporting.
class debug_trace {
  public:
    static debug_trace& instance();

    // Adds a fragment; one whose last character is "\n" or "\r" ends the line.
    debug_trace& write(std::string_view text);
    // Closes the file for good. Lines finished afterwards are dropped, like
    // lines of a trace whose file could not be opened.
    void close();

    ~debug_trace();
    debug_trace(const debug_trace&) = delete;
    debug_trace& operator=(const debug_trace&) = delete;

  private:
    debug_trace();

    int file;  // -1 when not open
    std::string line;
};
