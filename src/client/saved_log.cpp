#include "saved_log.h"

#include "update_log.h"

long long saved_log_time(http_session& session) {
    const http_answer answer = session.get(device_path::saved_log);
    return answer.ok() ? answer.modified : -1;
}

// Copies come at least ten seconds apart (the pause before the reboot), so
// the time's one-second resolution tells them apart. A power cut can leave
// no copy of this update, or one cut short: its outcome is then unknown.
outcome saved_log_verdict(http_session& session, long long before) {
    const http_answer answer = session.get(device_path::saved_log);
    if (answer.reached() && answer.code == 404) {
        return {EXIT_NO_RESULT,
                "the device has no saved log of the last update; the outcome is unknown"};
    }
    if (!answer.ok()) return answer.failure();
    if (before >= 0 && answer.modified == before) {
        return {EXIT_NO_RESULT, "the device saved no log of this update; the outcome is unknown"};
    }
    const std::vector<log_entry> entries = parse_update_log(answer.body);
    if (entries.empty()) {
        return {EXIT_NO_RESULT, "the saved log of the update is empty; the outcome is unknown"};
    }
    const log_entry& newest = entries.back();
    outcome verdict;
    if (newest.error) {
        verdict = device_error(newest.error_message());
    } else if (!newest.success) {
        verdict = {EXIT_NO_RESULT, "the saved log of the update ends with \"" + newest.text +
                                       "\", before its result; the outcome is unknown"};
    }
    verdict.verdict = newest.text;
    return verdict;
}
