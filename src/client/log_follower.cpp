#include "log_follower.h"

namespace {
// Progress requests write the entries up to 10 % while lighttpd still
// receives the body ("waiting for file", "receiving package file"); any other
// entry comes from the POST, that is, from the update itself.
constexpr int receiving_percent = 10;

bool from_update(const log_entry& entry) {
    return entry.success || entry.error || entry.percent < 0 || entry.percent > receiving_percent;
}
}  // namespace

log_follower::log_follower(http_session& session, update_report& report)
    : session_(session), report_(report) {}

void log_follower::take_baseline() {
    const http_answer answer = session_.get(device_path::progress);
    if (!answer.ok()) return;
    seen_ = answer.body;
    base_ = shown_ = parse_update_log(seen_).size();
}

// A log that does not begin with the one seen before was replaced (an
// earlier update's error ending deletes its log): all of it is new.
bool log_follower::poll() {
    const http_answer answer = session_.get(device_path::progress);
    answered_ = answer.ok();
    if (!answered_ || answer.body == seen_) return false;
    if (answer.body.compare(0, seen_.size(), seen_) != 0) {
        vanished_ = vanished_ || shown_ > base_;
        base_ = shown_ = 0;
    }
    seen_ = answer.body;

    const std::vector<log_entry> entries = parse_update_log(seen_);
    for (; shown_ < entries.size(); ++shown_) {
        report_.entry(entries[shown_]);
        if (from_update(entries[shown_])) began_ = true;
    }
    if (entries.size() > base_) {
        const log_entry& newest = entries.back();
        if (newest.success || newest.error) final_ = newest;
    }
    return true;
}
