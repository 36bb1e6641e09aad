#pragma once

#include <optional>
#include <string>

#include "http_session.h"
#include "update_log.h"
#include "update_report.h"

// Follows the device's update log with progress requests, as the update page
// does: shows each new entry of this update once and keeps the final one.
// Progress requests never clear the update lock, so they are safe while the
// device takes the package over; lock-state requests are not.
class log_follower {
  public:
    log_follower(http_session& session, update_report& report);

    // Reads the log before the upload: all of it belongs to earlier updates
    // or uploads (the device was free).
    void take_baseline();
    // One progress request; an answer that fails is skipped. True when the
    // log has changed.
    bool poll();

    // The success or error entry that ended this update, once seen.
    const std::optional<log_entry>& final_entry() const { return final_; }
    // The entries shown so far, the final one included, were another
    // update's.
    void forget_final() {
        base_ = shown_;
        final_.reset();
    }
    // True once the log that held entries of this update was replaced by
    // one without them: it was deleted (an error ending) or the device
    // restarted.
    bool vanished() const { return vanished_; }
    // Whether entries of this update have been seen.
    bool saw_update() const { return shown_ > base_; }
    // Whether the latest progress request had an answer.
    bool answered() const { return answered_; }
    // The log shows that the POST runs: this update has begun on the device.
    bool update_began() const { return began_; }

  private:
    http_session& session_;
    update_report& report_;
    std::string seen_;  // the log as last read
    size_t base_ = 0;   // entries of an earlier update at its start
    size_t shown_ = 0;  // entries of the log shown so far, base included
    std::optional<log_entry> final_;
    bool vanished_ = false;
    bool answered_ = false;
    bool began_ = false;
};
