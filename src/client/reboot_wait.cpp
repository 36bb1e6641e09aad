#include "reboot_wait.h"

#include <memory>
#include <thread>

#include "interrupt.h"
#include "saved_log.h"

namespace {
constexpr auto check_interval = std::chrono::seconds(1);

// Sleeps until `until`, or returns as soon as the POST ends.
void pause_until(package_upload& post, std::chrono::steady_clock::time_point until) {
    const auto now = std::chrono::steady_clock::now();
    if (until <= now) return;
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(until - now);
    if (post.wait(left)) std::this_thread::sleep_until(until);
}
}  // namespace

outcome await_restart(const std::string& url, const connection_settings& how, package_upload& post,
                      std::chrono::steady_clock::time_point deadline, long long saved_before,
                      update_report& report) {
    report.step("waiting for the device to restart");
    // A device that went down keeps no connection or sign-in state worth
    // reusing: a fresh session after every failed request.
    auto session = std::make_unique<http_session>(url, how);
    bool down = false;
    while (true) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return {EXIT_NOT_BACK, down ? "the device did not answer again after its restart"
                                        : "the device did not restart"};
        }
        pause_until(post, std::chrono::steady_clock::now() + check_interval);
        if (interrupted()) {
            return {EXIT_INTERRUPTED,
                    "interrupted while the device restarts; the update itself "
                    "has succeeded"};
        }
        const bool lost = post.wait(std::chrono::milliseconds(0)) && !post.answer().reached();
        const http_answer page = session->head(device_path::page);
        // The device comes back with the key it had: its own, made once.
        if (page.transport == CURLE_SSL_PINNEDPUBKEYNOTMATCH) return page.failure();
        const bool answers = page.ok();
        if (!answers) session = std::make_unique<http_session>(url, how);
        if (answers && down) break;
        if ((lost || !answers) && !down) {
            report.phase("down");
            report.step("the device is restarting");
            down = true;
        }
    }
    report.phase("back");
    report.step("the device is back; reading its saved log");
    outcome verdict = saved_log_verdict(*session, saved_before);
    if (verdict.status == EXIT_NO_RESULT) verdict.message += " (its log had said success)";
    return verdict;
}
