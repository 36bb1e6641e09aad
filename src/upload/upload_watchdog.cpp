#include "upload/upload_watchdog.h"

#include <unistd.h>
#include <cstdlib>
#include <mutex>

#include "state/update_error.h"
#include "state/updater_lock.h"

namespace {

constexpr time_t period_seconds = 2;

// Who owns the end of the current upload: nobody yet, the expiry action, or
// the main thread that stopped the watchdog. One upload runs per process.
enum class claim { open, expired, stopped };
std::mutex claim_mutex;
claim current_claim = claim::open;

bool try_claim(claim who) {
    std::lock_guard<std::mutex> guard(claim_mutex);
    if (current_claim != claim::open) return false;
    current_claim = who;
    return true;
}

}  // namespace

upload_watchdog::upload_watchdog(void* owner_object) : owner(owner_object) {}

upload_watchdog::~upload_watchdog() {
    if (running) stop();
}

int upload_watchdog::start() {
    {
        std::lock_guard<std::mutex> guard(claim_mutex);
        current_claim = claim::open;
    }
    sigevent event{};
    event.sigev_notify = SIGEV_THREAD;
    event.sigev_notify_function = &upload_watchdog::on_expiry;
    event.sigev_notify_attributes = nullptr;
    event.sigev_value.sival_ptr = owner;
    if (timer_create(CLOCK_REALTIME, &event, &timer) != 0) return -1;
    running = true;
    return rearm();
}

int upload_watchdog::rearm() {
    if (!running) return 0;
    itimerspec countdown{};
    countdown.it_value.tv_sec = period_seconds;
    countdown.it_interval.tv_sec = period_seconds;
    return timer_settime(timer, 0, &countdown, nullptr);
}

int upload_watchdog::stop() {
    if (!running) return 0;
    running = false;
    bool expiry_has_begun = !try_claim(claim::stopped);
    int result = timer_delete(timer);
    // The expiry action is ending the update and will exit the process; the
    // main thread must not go on to report in parallel.
    if (expiry_has_begun) {
        for (;;)
            ::pause();
    }
    return result;
}

void upload_watchdog::on_expiry(sigval) {
    if (!try_claim(claim::expired)) return;
    updater_unlock();
    int result = update_error::instance().end_update_with_error(ERROR_UPLOAD_TIMEOUT);
    std::exit(result);
}
