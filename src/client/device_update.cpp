#include "device_update.h"

#include <thread>

#include "device_status.h"
#include "interrupt.h"
#include "known_devices.h"
#include "log_follower.h"
#include "package_upload.h"
#include "progress_text.h"
#include "reboot_wait.h"
#include "saved_log.h"

namespace {
using clock_type = std::chrono::steady_clock;
constexpr auto tick = std::chrono::milliseconds(200);
// An error ending deletes the log 1.5 s after its entry: poll well inside that.
constexpr auto poll_interval = std::chrono::milliseconds(400);
constexpr auto answer_grace = std::chrono::seconds(5);
// The busy answer comes as soon as the body is in.
constexpr auto busy_grace = std::chrono::milliseconds(500);
constexpr auto release_limit = std::chrono::seconds(3);

std::string file_name(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

// An upload that stops before its end leaves the lock that a progress
// request took for it: lighttpd drops the upload file at once, and the next
// lock-state request takes the lock for stale and frees it. The POST cannot
// have started without the whole body, so this request opens no window.
bool release_lock(http_session& session) {
    const auto until = clock_type::now() + release_limit;
    do {
        const http_answer answer = session.get(device_path::lock_state);
        if (answer.ok() && answer.body == "STATUS_FREE") return true;
        std::this_thread::sleep_for(poll_interval);
    } while (clock_type::now() < until);
    return false;
}

class device_update {
  public:
    device_update(const std::string& url, const update_settings& settings, update_report& report)
        : url_(url),
          settings_(settings),
          report_(report),
          control_(url, settings.connection),
          polls_(url, settings.connection),
          log_(polls_, report) {}

    outcome run() {
        const outcome lock = ask_lock_state();
        if (!lock.ok()) return lock;
        const outcome fits = ask_status();
        if (!fits.ok()) return fits;
        saved_before_ = saved_log_time(polls_);
        log_.take_baseline();
        if (interrupted()) {
            return {EXIT_INTERRUPTED, "interrupted before the upload; nothing was sent"};
        }
        report_.phase("upload");
        report_.step("sending " + file_name(settings_.package));
        package_upload post(control_, settings_.package, settings_.rate_limit);
        follow(post);
        return with_status(conclude(post));
    }

  private:
    // Our own upload has not begun: asking the lock state is safe here.
    outcome ask_lock_state() {
        report_.step("asking the device's lock state");
        const http_answer lock = control_.get(device_path::lock_state);
        if (lock.reached() && lock.code == 401 && settings_.connection.user.empty() &&
            settings_.connection.netrc_file.empty()) {
            return {EXIT_WRONG_PASSWORD, "the device asks for a user and password: give --user"};
        }
        if (!lock.ok()) return lock.failure().safe_to_retry(!lock.reached());
        if (lock.body == "STATUS_BUSY") {
            return outcome{EXIT_BUSY, "device busy: another update is running; nothing was sent"}
                .safe_to_retry(true);
        }
        if (lock.body != "STATUS_FREE") {
            return {EXIT_UNEXPECTED_ANSWER,
                    "unexpected lock state \"" + lock.body.substr(0, 40) + "\""};
        }
        return {};
    }

    // What runs before the update, and the largest package the device takes:
    // a larger one would fill its /tmp only after the whole upload.
    outcome ask_status() {
        before_ = read_device_status(polls_);
        if (!before_.status) return {};
        report_.step(running_text(*before_.status));
        const uint64_t size = settings_.digest.size, most = before_.status->max_package_bytes;
        if (most == 0 || size <= most) return {};
        return {EXIT_PACKAGE_UNREADABLE, "the package (" + mebibytes(size) +
                                             ") is larger than the device takes (" +
                                             mebibytes(most) + "); nothing was sent"};
    }

    // Once the device's update has ended, by its own error or with the
    // restart (a --no-wait success has not restarted yet), what the device
    // says booted judges it; before that, the version before is all there is.
    outcome with_status(outcome result) {
        const bool ended =
            result.ok() ? settings_.wait_for_restart
                        : result.status == EXIT_NO_RESULT || result.status >= EXIT_DEVICE_ERROR;
        const status_reading after = ended ? read_device_status(polls_) : status_reading{};
        if (after.status) report_.step(running_text(*after.status));
        result = judged(std::move(result), before_, after, settings_.digest.sha256);
        if (result.ok() && result.install_result == "installed") {
            report_.step(result.version_after + " installed and running");
        }
        return result;
    }

    // Progress requests only, until the final entry or the POST's end (a
    // lost connection after the whole body leaves the update running: the
    // log goes on telling, unless the device restarts: it stops answering
    // and answers again, or its log vanishes, which an error ending that
    // the polls missed also does). Once the body is sent, a log that stays
    // quiet for the timeout ends the wait.
    void follow(package_upload& post) {
        auto next_poll = clock_type::now();
        auto quiet_since = next_poll;  // the body sent, or the log changed
        while (!interrupted()) {
            if (post.wait(tick)) {
                if (post.answer().reached() || !post.body_sent()) return;
                std::this_thread::sleep_for(tick);
            }
            report_.upload(post.sent(), post.total(), post.send_seconds());
            if (post.body_sent() && !sent_marked_) {
                report_.phase("sent");
                sent_marked_ = true;
            }
            if (!post.body_sent()) quiet_since = clock_type::now();
            if (clock_type::now() >= next_poll) {
                if (log_.poll()) quiet_since = clock_type::now();
                next_poll = clock_type::now() + poll_interval;
                if (log_.final_entry() && post.body_sent()) {
                    report_.phase("final_entry");
                    return;
                }
                // Before the whole body has left, an ending is another
                // client's update's: this POST gets the busy answer.
                if (log_.final_entry()) log_.forget_final();
                if (post.wait(std::chrono::milliseconds(0)) && lost_device()) return;
            }
            if (clock_type::now() - quiet_since > std::chrono::seconds(settings_.timeout_seconds)) {
                return;
            }
        }
    }

    // After the POST's connection was lost with the whole body sent: a
    // device back from a restart has lost the log of the update, or answers
    // again without ever having shown it.
    bool lost_device() {
        went_down_ = went_down_ || !log_.answered();
        restarted_ = log_.vanished() || (went_down_ && log_.answered() && !log_.saw_update());
        return restarted_;
    }

    outcome conclude(package_upload& post) {
        if (interrupted()) return interrupted_outcome(post);
        if (const auto& final = log_.final_entry()) {
            if (post.wait(busy_grace) && post.answer().code == 503) return post.answer().failure();
            if (final->error) {
                post.wait(answer_grace);
                return device_error(final->error_message());
            }
            return succeeded(post);
        }
        const bool ended = post.wait(std::chrono::milliseconds(0));
        if (!ended) {
            return {EXIT_NO_RESULT, "the device's log has not moved for " +
                                        std::to_string(settings_.timeout_seconds) +
                                        " s; the outcome is unknown"};
        }
        const http_answer& answer = post.answer();
        // A 503 is a refusal before the update: the device runs another one,
        // or could not start the program.
        if (answer.reached() && answer.code != 200) {
            return answer.failure().safe_to_retry(answer.code == 503);
        }
        if (!post.body_sent()) return lost_upload(post);
        // The POST ended without a final entry in the polls: the saved copy
        // tells, if it was written by this update. Its success with the
        // device restarted means the reboot after the copy has happened.
        outcome verdict = saved_log_verdict(polls_, saved_before_);
        if (verdict.ok() && restarted_) return verdict;
        return verdict.ok() ? succeeded(post) : verdict;
    }

    outcome succeeded(package_upload& post) {
        if (!settings_.wait_for_restart) {
            report_.step(
                "the device restarts after its 10 s pause; the next update must wait for it");
            return {};
        }
        const auto deadline = clock_type::now() + std::chrono::seconds(settings_.timeout_seconds);
        return await_restart(url_, settings_.connection, post, deadline, saved_before_, report_);
    }

    outcome lost_upload(package_upload& post) {
        const std::string what = post.stalled() ? "the upload stalled"
                                                : "connection lost during the upload (" +
                                                      post.answer().transport_error + ")";
        const std::string where =
            " after " + mebibytes(post.sent()) + " of " + mebibytes(post.total());
        const bool began = log_.update_began();
        return outcome{EXIT_UPLOAD_LOST, what + where + left_free()}.safe_to_retry(!began);
    }

    outcome interrupted_outcome(package_upload& post) {
        if (post.body_sent()) {
            return {EXIT_INTERRUPTED, "interrupted; the device goes on with the update"};
        }
        post.cancel();
        post.wait(answer_grace);
        return {EXIT_INTERRUPTED, "interrupted during the upload" + left_free()};
    }

    std::string left_free() {
        report_.step("freeing the device's lock");
        return release_lock(polls_) ? "; nothing was installed, the device is free"
                                    : "; nothing was installed, the device still reports busy";
    }

    const std::string& url_;
    const update_settings& settings_;
    update_report& report_;
    http_session control_;  // the lock state, then the POST
    http_session polls_;    // progress requests and the saved log
    log_follower log_;
    status_reading before_;
    long long saved_before_ = -1;
    bool went_down_ = false;
    bool restarted_ = false;
    bool sent_marked_ = false;
};
}  // namespace

outcome update_device(const std::string& url, const update_settings& settings,
                      update_report& report) {
    const std::string& known_devices = settings.connection.known_devices;
    if (known_devices.empty()) return device_update(url, settings, report).run();
    update_settings pinned = settings;
    const outcome known = known_device_pin(url, known_devices, pinned.connection.pin, report);
    if (!known.ok()) return known;
    return device_update(url, pinned, report).run();
}
