#include "attempts.h"

#include <algorithm>
#include <chrono>
#include <thread>

#include "interrupt.h"

namespace {
using clock_type = std::chrono::steady_clock;
constexpr int first_pause_s = 1;
constexpr int longest_pause_s = 60;
constexpr auto online_check = std::chrono::seconds(1);
constexpr auto tick = std::chrono::milliseconds(200);

bool retryable(const outcome& result) {
    return result.retry_safe && (result.status == EXIT_UNREACHABLE || result.status == EXIT_BUSY ||
                                 result.status == EXIT_UPLOAD_LOST);
}

// Sleeps for `length`, or less when a signal asks to stop.
void pause(clock_type::duration length) {
    const auto until = clock_type::now() + length;
    while (!interrupted() && clock_type::now() < until)
        std::this_thread::sleep_for(
            std::min<clock_type::duration>(tick, until - clock_type::now()));
}

// Any answer of the web server will do, a handshake with a certificate not
// trusted yet (a first contact's) included: the update itself tells the rest.
bool answers(http_session& session) {
    const http_answer page = session.head(device_path::page);
    return page.reached() || page.failure().status != EXIT_UNREACHABLE;
}

void await_online(const std::string& url, const connection_settings& how, int seconds,
                  update_report& report) {
    const auto deadline = clock_type::now() + std::chrono::seconds(seconds);
    http_session session(url, how);
    if (answers(session)) return;
    report.step("waiting up to " + std::to_string(seconds) + " s for the device to answer");
    while (!interrupted() && clock_type::now() < deadline) {
        pause(online_check);
        if (answers(session)) return;
    }
}
}  // namespace

outcome update_with_retries(const std::string& url, const update_settings& settings,
                            const retry_settings& retry, update_report& report) {
    if (retry.wait_online_seconds > 0) {
        await_online(url, settings.connection, retry.wait_online_seconds, report);
    }
    int pause_s = first_pause_s;
    for (int attempt = 0;; ++attempt) {
        outcome result = update_device(url, settings, report);
        if (attempt >= retry.retries || !retryable(result) || interrupted()) return result;
        report.retry(result, pause_s);
        pause(std::chrono::seconds(pause_s));
        if (interrupted()) {
            return {EXIT_INTERRUPTED, "interrupted before trying again; " + result.message};
        }
        pause_s = std::min(pause_s * 2, longest_pause_s);
    }
}
