#pragma once

#include <cstdint>
#include <string>
#include <string_view>

// What the update's processes publish to each other, by number.
enum progress_state : int {
    STATE_IDLE = 0,       // no update under way (empty or missing file)
    STATE_RECEIVING = 1,  // lighttpd is receiving a package; the POST has not started
    STATE_UPDATING = 2,   // the POST process runs the update
};

// The process's one status reporter: the progress state in
// "/var/log/updater-cgi.status", the HTML update log "/var/log/updater-cgi.log"
// that progress requests print, and the saving of both log files into the
// persistent directory.
//
// Nothing here reports failure: what cannot be written is dropped. Each log
// entry reaches the file as one append write, so entries of concurrent
// processes never interleave. Not thread-safe: the upload watchdog's expiry
// excludes the main thread from reporting before it reports itself.
class update_status {
  public:
    static update_status& instance();

    // Replaces the status file by one holding "1" or "2"; any other state
    // leaves an empty file.
    void set_state(int state);
    // The leading number of the status file; 0 when there is none.
    int get_state() const;

    // Appends "[stamp:percent] text" (":percent" only when percent is not 0).
    void write_line(std::string_view text);
    // Sets the percentage, then appends the text followed by "<br>".
    void add_line(std::string_view text, int32_t new_percent);
    // Appends "ERROR: message<br>" with the latest percentage.
    void add_error(std::string_view message);
    // Appends the success entry unless failed.
    void add_result(bool failed);
    // Writes the whole log to standard output; nothing when there is none.
    void print_log() const;
    bool log_exists() const;

    // Copies one file into the persistent directory.
    void save_file(const std::string& path);
    // Saves the update log, then the trace, then flushes the file systems.
    void save_files();

    ~update_status();
    update_status(const update_status&) = delete;
    update_status& operator=(const update_status&) = delete;

  private:
    update_status() = default;

    int32_t percent = 0;  // of the latest add_line of this process
    int log = -1;         // append descriptor on the update log, opened by the first entry
};
