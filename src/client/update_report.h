#pragma once

#include <cstdint>
#include <string>

#include "exit_status.h"
#include "update_log.h"

// Where one device's update shows what happens: a terminal's live lines or
// plain lines. Called from that device's thread only.
class update_report {
  public:
    virtual ~update_report() = default;
    // What the client does now ("checking the lock state", ...).
    virtual void step(const std::string& text) = 0;
    // A phase of the update begins now ("upload", "sent", "final_entry",
    // "down", "back"), for reports that keep times.
    virtual void phase(const std::string&) {}
    // Bytes of the form handed over so far, of `total`, after `seconds`.
    virtual void upload(uint64_t sent, uint64_t total, double seconds) = 0;
    // A new entry of the device's update log, each shown once.
    virtual void entry(const log_entry& entry) = 0;
    // The update is tried again after `pause_s` seconds.
    virtual void retry(const outcome& failed, int pause_s) = 0;
    virtual void finished(const outcome& result, double seconds) = 0;
};
